#include "Output.h"

#include <libCommon/DateTime.h>
#include <libCommon/String.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <sstream>

namespace datastore {

namespace {

// Numbers and times are never cut: a cut one would read as another value.
bool uncuttable(Json const& value) {
    if (value.is_null() || value.is_number() || value.is_boolean()) return true;
    if (!value.is_string()) return false;
    std::string const& text = value.get_ref<std::string const&>();
    static char const pattern[] = "0000-00-00 00:00:00";
    if (text.size() != sizeof pattern - 1) return text.empty();
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool const digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (pattern[i] == '0' ? !digit : text[i] != pattern[i]) return false;
    }
    return true;
}

std::string padded(std::string const& text, std::size_t width) {
    std::size_t const length = displayWidth(text);
    return length >= width ? text : text + std::string(width - length, ' ');
}

// Calls `each(codePoint, bytes)` for every character of `text`; an invalid byte comes as
// U+FFFD of one byte.
template <class Each>
void forEachCharacter(std::string const& text, Each&& each) {
    auto const* bytes = reinterpret_cast<utf8proc_uint8_t const*>(text.data());
    utf8proc_ssize_t const size = static_cast<utf8proc_ssize_t>(text.size());
    for (utf8proc_ssize_t i = 0; i < size;) {
        utf8proc_int32_t codePoint = 0;
        utf8proc_ssize_t const length = utf8proc_iterate(bytes + i, size - i, &codePoint);
        if (length <= 0) {
            each(0xFFFD, std::string("\xEF\xBF\xBD"));
            ++i;
        } else {
            each(codePoint,
                 text.substr(static_cast<std::size_t>(i), static_cast<std::size_t>(length)));
            i += length;
        }
    }
}

std::vector<Json>& collected() {
    static std::vector<Json> records;
    return records;
}
bool g_collecting = false;
bool g_sectionPrinted = false;

// Appends `text` as one csv or tsv cell: quoted (quotes doubled) when it holds a quote, a line
// break or the separator.
void appendCsvCell(std::string& line, std::string const& text, char separator) {
    char const special[] = {'"', '\r', '\n', separator, '\0'};
    if (text.find_first_of(special) == std::string::npos) {
        line += text;
        return;
    }
    line += '"';
    for (char c : text) {
        if (c == '"') line += '"';
        line += c;
    }
    line += '"';
}

// On a terminal, control characters are escaped as in tables; a file gets them as stored,
// made valid UTF-8. Printable ASCII, most cells, needs neither and is looked at once.
void appendSeparatedCell(std::string& line, std::string const& text, char separator,
                         bool terminal) {
    bool quoted = false;
    for (char c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F) {
            appendCsvCell(line, terminal ? escaped(text) : validUtf8(text), separator);
            return;
        }
        quoted = quoted || c == '"' || c == separator;
    }
    if (quoted) {
        appendCsvCell(line, text, separator);
    } else {
        line += text;
    }
}

std::string dumped(Json const& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Appends a number as dump() writes it (integers in decimal, reals by the same shortest
// round-trip conversion, with ".0" on whole ones; not finite: null) without making a string;
// false for anything else.
bool appendNumber(std::string& out, Json const& value) {
    char text[64];
    char* end = nullptr;
    if (value.is_number_integer() && !value.is_number_unsigned()) {
        end = std::to_chars(text, text + sizeof text, value.get<std::int64_t>()).ptr;
    } else if (value.is_number_unsigned()) {
        end = std::to_chars(text, text + sizeof text, value.get<std::uint64_t>()).ptr;
    } else if (value.is_number_float()) {
        double const real = value.get<double>();
        if (!std::isfinite(real)) {
            out += "null";
            return true;
        }
        end = nlohmann::detail::to_chars(text, text + sizeof text, real);
    } else {
        return false;
    }
    out.append(text, end);
    return true;
}

}  // namespace

OutputStyle& outputStyle() {
    static OutputStyle style;
    return style;
}

namespace {

std::pair<char const*, Format> const g_formats[] = {
    {"table", Format::Table}, {"ndjson", Format::Ndjson},
    {"json", Format::Json},   {"json-pretty", Format::JsonPretty},
    {"csv", Format::Csv},     {"tsv", Format::Tsv}};

}  // namespace

bool formatNamed(std::string const& name, Format& format) {
    for (auto const& [text, value] : g_formats) {
        if (name == text) {
            format = value;
            return true;
        }
    }
    return false;
}

std::string formatName(Format format) {
    for (auto const& [text, value] : g_formats) {
        if (value == format) return text;
    }
    return "";
}

char const* formatNames() { return "table, ndjson, json, json-pretty, csv, tsv"; }

std::string validUtf8(std::string const& text) {
    std::string result;
    result.reserve(text.size());
    forEachCharacter(text, [&](utf8proc_int32_t, std::string const& bytes) { result += bytes; });
    return result;
}

std::string escaped(std::string const& text) {
    std::string result;
    result.reserve(text.size());
    forEachCharacter(text, [&](utf8proc_int32_t c, std::string const& bytes) {
        char hex[16];
        switch (c) {
            case '\n':
            case '\t':
                result += ' ';
                return;
            case '\a':
                result += "\\a";
                return;
            case '\b':
                result += "\\b";
                return;
            case '\f':
                result += "\\f";
                return;
            case '\r':
                result += "\\r";
                return;
            case '\v':
                result += "\\v";
                return;
            case 0x1B:
                result += "\\e";
                return;
            default:
                break;
        }
        if (c < 0x20 || c == 0x7F) {
            std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned>(c));
            result += hex;
        } else if (c >= 0x80 && c < 0xA0) {
            // C1 controls: U+009B alone starts an escape sequence on some terminals.
            std::snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned>(c));
            result += hex;
        } else {
            result += bytes;
        }
    });
    return result;
}

std::size_t displayWidth(std::string const& text) {
    std::size_t width = 0;
    forEachCharacter(text, [&](utf8proc_int32_t c, std::string const&) {
        int const w = utf8proc_charwidth(c);
        width += w > 0 ? static_cast<std::size_t>(w) : 0;
    });
    return width;
}

std::string displayText(Json const& value) {
    if (value.is_null()) return "";
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (value.is_number_float()) {
        char text[64];
        std::snprintf(text, sizeof text, "%.2f", value.get<double>());
        return text;
    }
    return dumped(value);
}

std::size_t terminalWidth() {
    if (!::isatty(STDOUT_FILENO)) return 0;
    if (char const* columns = std::getenv("COLUMNS")) {
        long const width = std::strtol(columns, nullptr, 10);
        if (width > 0) return static_cast<std::size_t>(width);
    }
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 0;
}

std::string fit(std::string const& text, std::size_t width) {
    if (displayWidth(text) <= width) return text;
    std::size_t const room = width <= 3 ? width : width - 3;
    std::string cut;
    std::size_t used = 0;
    bool full = false;
    forEachCharacter(text, [&](utf8proc_int32_t c, std::string const& bytes) {
        if (full) return;
        int const w = std::max(0, utf8proc_charwidth(c));
        if (used + static_cast<std::size_t>(w) > room) {
            full = true;
            return;
        }
        used += static_cast<std::size_t>(w);
        cut += bytes;
    });
    if (width <= 3) return cut;
    // A wide character that did not fit leaves one column: keep the cut at `width`.
    return cut + std::string(room - used, ' ') + "...";
}

namespace {

// Time texts are made by arithmetic from the instant and the zone's offset; the offset comes
// from the C library once per hour of times, not once per value (listings print thousands of
// times, mostly within a few hours). Zones change their offset at most once within an hour,
// though not always on a whole UTC hour (some change at half past): an hour whose first and
// last second have one offset has it throughout and is cached; one with a change in it asks
// for each value. The zone itself is read once per process, as the C library does.

// Within these bounds (1970-01-02 and 9999-12-31, UTC) the wall-clock time is after 1970 and
// has a four-digit year in every zone; times beyond them take the C library's way.
long long const kFirstArithmeticTime = 86400;
long long const kLastArithmeticTime = 253402214400;

bool arithmetic(long long unixSeconds) {
    return unixSeconds >= kFirstArithmeticTime && unixSeconds < kLastArithmeticTime;
}

long offsetFromLibrary(long long unixSeconds) {
    std::time_t const t = static_cast<std::time_t>(unixSeconds);
    std::tm parts{};
    localtime_r(&t, &parts);
    return parts.tm_gmtoff;
}

long localOffsetAt(long long unixSeconds) {
    thread_local long long cachedHour = -1;
    thread_local long cachedOffset = 0;
    long long const hour = unixSeconds / 3600;
    if (hour == cachedHour) return cachedOffset;
    long const first = offsetFromLibrary(hour * 3600);
    if (first != offsetFromLibrary(hour * 3600 + 3599)) return offsetFromLibrary(unixSeconds);
    cachedHour = hour;
    cachedOffset = first;
    return first;
}

char* digits(char* out, long long value, int width) {
    for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
    return out + width;
}

// "2026-11-23<between>00:49:29" of the wall-clock seconds `local` (non-negative), written at
// `out`; returns the end.
char* civilText(char* out, long long local, char between) {
    // Days to a civil date, after H. Hinnant's days_from_civil inverse (proleptic Gregorian).
    long long const days = local / 86400, second = local % 86400;
    long long const z = days + 719468, era = z / 146097, doe = z - era * 146097;
    long long const yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long long const doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long long const mp = (5 * doy + 2) / 153;
    long long const day = doy - (153 * mp + 2) / 5 + 1, month = mp < 10 ? mp + 3 : mp - 9;
    long long const year = yoe + era * 400 + (month <= 2);
    out = digits(out, year, 4);
    *out++ = '-';
    out = digits(out, month, 2);
    *out++ = '-';
    out = digits(out, day, 2);
    *out++ = between;
    out = digits(out, second / 3600, 2);
    *out++ = ':';
    out = digits(out, second / 60 % 60, 2);
    *out++ = ':';
    return digits(out, second % 60, 2);
}

}  // namespace

std::string localTime(long long unixSeconds) {
    if (unixSeconds <= 0) return "";
    if (arithmetic(unixSeconds)) {
        long const offset = outputStyle().utc ? 0 : localOffsetAt(unixSeconds);
        char text[32];
        return std::string(text, civilText(text, unixSeconds + offset, ' '));
    }
    std::time_t const t = static_cast<std::time_t>(unixSeconds);
    std::tm parts{};
    if (outputStyle().utc) {
        gmtime_r(&t, &parts);
    } else {
        localtime_r(&t, &parts);
    }
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

Json isoTime(long long unixSeconds) {
    if (unixSeconds <= 0) return nullptr;
    if (arithmetic(unixSeconds)) {
        long const offset = localOffsetAt(unixSeconds);
        long const size = offset < 0 ? -offset : offset;
        char text[40];
        char* end = civilText(text, unixSeconds + offset, 'T');
        *end++ = offset < 0 ? '-' : '+';
        end = digits(end, size / 3600, 2);
        *end++ = ':';
        end = digits(end, size % 3600 / 60, 2);
        // Local mean time, before zones had whole minutes, keeps its seconds.
        if (size % 60 != 0) {
            *end++ = ':';
            end = digits(end, size % 60, 2);
        }
        return std::string(text, end);
    }
    return zrn::DateTime::fromUnixTimeStamp(unixSeconds).toLocalTime().toString().str();
}

Json timeCell(bool json, long long unixSeconds) {
    return json ? isoTime(unixSeconds) : Json(localTime(unixSeconds));
}

Json jsonOf(zrn::StoreCell const& cell) {
    switch (cell.type) {
        case zrn::StoreCell::Type::Null:
            return nullptr;
        case zrn::StoreCell::Type::Integer:
            return cell.integer;
        case zrn::StoreCell::Type::Real:
            return cell.real;
        case zrn::StoreCell::Type::Text:
            return cell.text;
        case zrn::StoreCell::Type::Blob:
            break;
    }
    static char const digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char byte : cell.text) {
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return hex;
}

std::string hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0) return "";
    return name;
}

Json tagged(char const* kind, Json record) {
    Json out{{"record", kind}};
    out.update(record);
    return out;
}

void printSection(std::ostream& out, bool json, char const* title, RecordPrinter const& printer) {
    Format const format = outputStyle().format;
    if (!json) {
        out << "\n" << title << "\n";
    } else if ((format == Format::Csv || format == Format::Tsv) && g_sectionPrinted) {
        out << "\n";
    }
    printer.print(out);
}

void finishOutput(std::ostream& out) {
    if (!g_collecting) return;
    Json array = Json::array();
    for (auto& record : collected()) array.push_back(std::move(record));
    collected().clear();
    g_collecting = false;
    if (outputStyle().format == Format::JsonPretty) {
        out << array.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
    } else {
        out << dumped(array) << "\n";
    }
}

bool useColour() {
    char const* noColour = std::getenv("NO_COLOR");
    return (!noColour || !*noColour) && ::isatty(STDOUT_FILENO);
}

RecordPrinter::RecordPrinter(std::vector<Field> fields, bool json)
    : m_fields(std::move(fields)), m_json(json) {}

void RecordPrinter::stream(std::ostream& out) {
    if (!m_json) return;
    m_stream = &out;
    m_terminal = ::isatty(STDOUT_FILENO) != 0;
}

void RecordPrinter::add(Json record) {
    ++m_count;
    if (m_stream) {
        streamRecord(std::move(record));
    } else {
        m_records.push_back(std::move(record));
    }
}

void RecordPrinter::streamRecord(Json record) {
    g_sectionPrinted = true;
    Format const format = outputStyle().format;
    switch (format) {
        case Format::Table:
        case Format::Ndjson:
            *m_stream << dumped(record) << "\n";
            return;
        case Format::Json:
        case Format::JsonPretty:
            g_collecting = true;
            collected().push_back(std::move(record));
            return;
        case Format::Csv:
        case Format::Tsv:
            break;
    }
    char const separator = format == Format::Csv ? ',' : '\t';
    if (m_keys.empty()) {
        for (auto const& field : m_fields) m_keys.push_back(field.key);
        for (auto const& item : record.items()) {
            if (std::find(m_keys.begin(), m_keys.end(), item.key()) == m_keys.end())
                m_keys.push_back(item.key());
        }
        writeHeader(*m_stream, m_keys, separator, m_terminal);
    }
    writeSeparated(*m_stream, m_keys, record, separator, m_terminal);
}

void RecordPrinter::print(std::ostream& out) const {
    if (!m_json) {
        printTable(out);
        return;
    }
    g_sectionPrinted = true;
    if (m_stream) {
        Format const format = outputStyle().format;
        if (format == Format::Json || format == Format::JsonPretty) g_collecting = true;
        bool const separated = format == Format::Csv || format == Format::Tsv;
        // An empty listing still names its columns.
        if (separated && m_count == 0)
            writeHeader(out, separatedKeys(), format == Format::Csv ? ',' : '\t', m_terminal);
        return;
    }
    switch (outputStyle().format) {
        case Format::Table:
        case Format::Ndjson:
            for (auto const& record : m_records) out << dumped(record) << "\n";
            return;
        case Format::Json:
        case Format::JsonPretty:
            g_collecting = true;
            for (auto const& record : m_records) collected().push_back(record);
            return;
        case Format::Csv:
            printSeparated(out, ',');
            return;
        case Format::Tsv:
            printSeparated(out, '\t');
            return;
    }
}

std::vector<std::string> RecordPrinter::separatedKeys() const {
    // The columns: the fields' members, then any other member the records have, in the order
    // they first appear. Headers are the members' names, as in the JSON formats.
    std::vector<std::string> keys;
    for (auto const& field : m_fields) keys.push_back(field.key);
    for (auto const& record : m_records) {
        for (auto const& item : record.items()) {
            if (std::find(keys.begin(), keys.end(), item.key()) == keys.end())
                keys.push_back(item.key());
        }
    }
    return keys;
}

void RecordPrinter::writeHeader(std::ostream& out, std::vector<std::string> const& keys,
                                char separator, bool terminal) const {
    std::string line;
    for (std::size_t c = 0; c < keys.size(); ++c) {
        if (c) line += separator;
        appendSeparatedCell(line, keys[c], separator, terminal);
    }
    out << line << "\r\n";
}

void RecordPrinter::writeSeparated(std::ostream& out, std::vector<std::string> const& keys,
                                   Json const& record, char separator, bool terminal) const {
    thread_local std::string line;
    line.clear();
    Json::object_t const& members = record.get_ref<Json::object_t const&>();
    for (std::size_t c = 0; c < keys.size(); ++c) {
        if (c) line += separator;
        // Records of one listing mostly have their members in the columns' order.
        Json const* value = nullptr;
        auto const at = members.begin() + static_cast<std::ptrdiff_t>(c);
        if (c < members.size() && at->first == keys[c]) {
            value = &at->second;
        } else if (auto const it = record.find(keys[c]); it != record.end()) {
            value = &*it;
        }
        if (!value || value->is_null()) continue;
        if (value->is_string()) {
            appendSeparatedCell(line, value->get_ref<std::string const&>(), separator, terminal);
        } else if (value->is_boolean()) {
            line += value->get<bool>() ? "true" : "false";
        } else if (!appendNumber(line, *value)) {
            appendSeparatedCell(line, dumped(*value), separator, terminal);
        }
    }
    line += "\r\n";
    out.write(line.data(), static_cast<std::streamsize>(line.size()));
}

void RecordPrinter::printSeparated(std::ostream& out, char separator) const {
    // On a terminal, control characters are escaped as in tables; a file gets them as stored.
    bool const terminal = ::isatty(STDOUT_FILENO) != 0;
    std::vector<std::string> const keys = separatedKeys();
    writeHeader(out, keys, separator, terminal);
    for (auto const& record : m_records) writeSeparated(out, keys, record, separator, terminal);
}

namespace {

// A table's cells as shown, with the widths they need and whether each column holds only
// identifiers, numbers and times (which are never cut).
struct TableLayout {
    std::vector<std::string> headers;
    std::vector<std::vector<std::string>> cells;
    std::vector<std::size_t> widths;
    std::vector<bool> fixed;
    std::vector<bool> shown;
    std::vector<std::function<std::string(std::string const&)>> marks;
};

// "2026-11-23 00:49:29", as localTime() writes it.
bool looksLikeTime(std::string const& text) {
    static char const pattern[] = "dddd-dd-dd dd:dd:dd";
    if (text.size() != sizeof pattern - 1) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool const digit = std::isdigit(static_cast<unsigned char>(text[i]));
        if (pattern[i] == 'd' ? !digit : text[i] != pattern[i]) return false;
    }
    return true;
}

// The offset from UTC of a local time as localTime() wrote it: "+01:00".
std::string offsetOf(std::string const& text) {
    std::tm parts{};
    std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                &parts.tm_hour, &parts.tm_min, &parts.tm_sec);
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    std::mktime(&parts);
    long const minutes = std::labs(parts.tm_gmtoff) / 60;
    char offset[32];
    std::snprintf(offset, sizeof offset, "%c%02ld:%02ld", parts.tm_gmtoff < 0 ? '-' : '+',
                  minutes / 60, minutes % 60);
    return offset;
}

// " (UTC+01:00)" for a column of times, " (UTC+01:00/+02:00)" when daylight saving changes
// within it, " (UTC)" with --utc; "" for any other column. A time without its zone is a
// guess for whoever reads it on another machine.
std::string zoneOf(std::vector<std::vector<std::string>> const& cells, std::size_t column) {
    std::vector<std::string> offsets;
    for (auto const& row : cells) {
        if (row[column].empty()) continue;
        if (!looksLikeTime(row[column])) return "";
        if (outputStyle().utc) continue;
        std::string const offset = offsetOf(row[column]);
        if (std::find(offsets.begin(), offsets.end(), offset) == offsets.end())
            offsets.push_back(offset);
    }
    if (outputStyle().utc) return cells.empty() ? "" : " (UTC)";
    if (offsets.empty()) return "";
    std::string zone = " (UTC";
    for (std::size_t i = 0; i < offsets.size(); ++i) zone += (i ? "/" : "") + offsets[i];
    return zone + ")";
}

TableLayout layoutOf(std::vector<Field> const& fields, std::vector<Json> const& records) {
    std::size_t const columns = fields.size();
    TableLayout table;
    table.widths.assign(columns, 0);
    table.fixed.assign(columns, true);
    table.shown.assign(columns, true);
    for (auto const& record : records) {
        std::vector<std::string> row;
        for (std::size_t c = 0; c < columns; ++c) {
            auto const it = record.find(fields[c].key);
            if (it != record.end() && !uncuttable(*it) && !fields[c].id) table.fixed[c] = false;
            row.push_back(escaped(it == record.end() ? "" : displayText(*it)));
        }
        table.cells.push_back(std::move(row));
    }
    for (std::size_t c = 0; c < columns; ++c) {
        table.headers.push_back(fields[c].header + zoneOf(table.cells, c));
        table.marks.push_back(fields[c].mark);
        table.widths[c] = displayWidth(table.headers[c]);
        for (auto const& row : table.cells)
            table.widths[c] = std::max(table.widths[c], displayWidth(row[c]));
    }
    return table;
}

std::size_t lineWidth(TableLayout const& table, std::size_t textWidth) {
    std::size_t sum = 0, count = 0;
    for (std::size_t c = 0; c < table.widths.size(); ++c) {
        if (!table.shown[c]) continue;
        sum += table.fixed[c] ? table.widths[c] : std::min(table.widths[c], textWidth);
        ++count;
    }
    return sum + (count ? 2 * (count - 1) : 0);
}

// First the columns a reader misses least go, lowest priority first, until the rest fits
// with free texts of 20 columns; only then are texts cut.
void dropColumns(TableLayout& table, std::vector<Field> const& fields, std::size_t limit) {
    std::size_t const columns = fields.size();
    while (limit > 0 && lineWidth(table, 20) > limit) {
        std::size_t drop = columns;
        for (std::size_t c = 0; c < columns; ++c) {
            if (table.shown[c] && fields[c].drop > 0 &&
                (drop == columns || fields[c].drop >= fields[drop].drop))
                drop = c;
        }
        if (drop == columns) break;
        table.shown[drop] = false;
    }
}

// Then the widest text column that can still give shrinks until the line fits; no column
// goes below its header or 8 characters, so a very narrow terminal still gets readable,
// longer lines. Identifiers, numbers and times keep their width.
void shrinkColumns(TableLayout& table, std::size_t limit) {
    std::size_t const columns = table.widths.size();
    std::vector<std::size_t> floors(columns);
    for (std::size_t c = 0; c < columns; ++c) {
        floors[c] = table.fixed[c] ? table.widths[c]
                                   : std::max<std::size_t>(8, displayWidth(table.headers[c]));
    }
    for (std::size_t sum = lineWidth(table, SIZE_MAX); limit > 0 && sum > limit; --sum) {
        std::size_t widest = columns;
        for (std::size_t c = 0; c < columns; ++c) {
            if (table.shown[c] && table.widths[c] > floors[c] &&
                (widest == columns || table.widths[c] > table.widths[widest]))
                widest = c;
        }
        if (widest == columns) break;
        // One character at a time, so the two widest columns end up sharing the cut.
        --table.widths[widest];
    }
}

void writeTable(std::ostream& out, TableLayout const& table) {
    std::size_t const columns = table.widths.size();
    bool const colour = useColour();
    std::size_t last = columns;
    for (std::size_t c = 0; c < columns; ++c) {
        if (table.shown[c]) last = c;
    }
    auto line = [&](auto const& texts, bool header) {
        std::string text;
        for (std::size_t c = 0; c < columns; ++c) {
            if (!table.shown[c]) continue;
            std::string const cell = fit(texts[c], table.widths[c]);
            std::string const spaced = c != last ? padded(cell, table.widths[c]) + "  " : cell;
            // Failures stand out; the escape codes go around the padded text so that they
            // take no width.
            if (colour && !header && (cell == "FAIL" || cell == "ERROR")) {
                text += "\x1b[31m" + cell + "\x1b[0m" + spaced.substr(cell.size());
            } else if (colour && !header && table.marks[c]) {
                text += table.marks[c](cell) + spaced.substr(cell.size());
            } else {
                text += spaced;
            }
        }
        out << text << "\n";
    };
    line(table.headers, true);
    for (auto const& row : table.cells) line(row, false);
}

}  // namespace

void RecordPrinter::printTable(std::ostream& out) const {
    TableLayout table = layoutOf(m_fields, m_records);
    std::size_t const limit = outputStyle().wide ? 0 : terminalWidth();
    dropColumns(table, m_fields, limit);
    shrinkColumns(table, limit);
    writeTable(out, table);
}

// ---- Pager

struct Pager::Held {
    std::ostringstream text;
    std::streambuf* original = nullptr;
};

Pager::Pager(bool enabled) {
    if (!enabled || !::isatty(STDOUT_FILENO)) return;
    m_held = new Held;
    m_held->original = std::cout.rdbuf(m_held->text.rdbuf());
}

Pager::~Pager() { finish(); }

void Pager::finish() {
    if (!m_held) return;
    std::cout.rdbuf(m_held->original);
    std::string const text = m_held->text.str();
    delete m_held;
    m_held = nullptr;

    std::size_t rows = 0;
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) rows = size.ws_row;
    std::size_t const lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    std::string command = "less -FRSX";
    for (char const* name : {"DATASTORE_PAGER", "PAGER"}) {
        if (char const* value = std::getenv(name)) {
            command = value;
            break;
        }
    }
    if (rows == 0 || lines < rows || command.empty() || command == "cat") {
        std::cout << text << std::flush;
        return;
    }
    std::cout.flush();
    // Quitting the pager early closes the pipe: that ends the output, not the program.
    auto const previous = std::signal(SIGPIPE, SIG_IGN);
    if (FILE* pipe = ::popen(command.c_str(), "w")) {
        std::fwrite(text.data(), 1, text.size(), pipe);
        ::pclose(pipe);
    } else {
        std::cout << text << std::flush;
    }
    std::signal(SIGPIPE, previous);
}

}  // namespace datastore
