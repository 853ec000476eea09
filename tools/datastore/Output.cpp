#include "Output.h"

#include <libCommon/DateTime.h>
#include <libCommon/String.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace datastore {

namespace {

std::size_t characters(std::string const& text) { return zrn::String(text).size(); }

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
    std::size_t const length = characters(text);
    return length >= width ? text : text + std::string(width - length, ' ');
}

}  // namespace

std::string displayText(Json const& value) {
    if (value.is_null()) return "";
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (value.is_number_float()) {
        char text[64];
        std::snprintf(text, sizeof text, "%.2f", value.get<double>());
        return text;
    }
    return value.dump();
}

std::size_t terminalWidth() {
    if (char const* columns = std::getenv("COLUMNS")) {
        long const width = std::strtol(columns, nullptr, 10);
        if (width > 0) return static_cast<std::size_t>(width);
    }
    winsize size{};
    if (::isatty(STDOUT_FILENO) && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 &&
        size.ws_col > 0) {
        return size.ws_col;
    }
    return 0;
}

std::string fit(std::string const& text, std::size_t width) {
    zrn::String const s(text);
    if (s.size() <= width) return text;
    if (width <= 3) return s.subString(0, static_cast<unsigned>(width)).str();
    return s.subString(0, static_cast<unsigned>(width - 3)).str() + "...";
}

std::string localTime(long long unixSeconds) {
    if (unixSeconds <= 0) return "";
    zrn::DateTime const t = zrn::DateTime::fromUnixTimeStamp(unixSeconds).toLocalTime();
    char text[32];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", unsigned{t.getYear()},
                  unsigned{t.getMonth()}, unsigned{t.getDay()}, unsigned{t.getHour()},
                  unsigned{t.getMinute()}, unsigned{t.getSecond()});
    return text;
}

Json isoTime(long long unixSeconds) {
    if (unixSeconds <= 0) return nullptr;
    return zrn::DateTime::fromUnixTimeStamp(unixSeconds).toLocalTime().toString().str();
}

Json timeCell(bool json, long long unixSeconds) {
    return json ? isoTime(unixSeconds) : Json(localTime(unixSeconds));
}

Json tagged(char const* kind, Json record) {
    Json out{{"record", kind}};
    out.update(record);
    return out;
}

void printSection(std::ostream& out, bool json, char const* title, RecordPrinter const& printer) {
    if (!json) out << "\n" << title << "\n";
    printer.print(out);
}

RecordPrinter::RecordPrinter(std::vector<Field> fields, bool json)
    : m_fields(std::move(fields)), m_json(json) {}

void RecordPrinter::add(Json record) { m_records.push_back(std::move(record)); }

void RecordPrinter::print(std::ostream& out) const {
    if (m_json) {
        for (auto const& record : m_records) out << record.dump() << "\n";
        return;
    }
    std::size_t const columns = m_fields.size();
    std::vector<std::vector<std::string>> cells;
    std::vector<std::size_t> widths(columns);
    std::vector<bool> fixed(columns, true);
    for (std::size_t c = 0; c < columns; ++c) widths[c] = characters(m_fields[c].header);
    for (auto const& record : m_records) {
        std::vector<std::string> row;
        for (std::size_t c = 0; c < columns; ++c) {
            auto const it = record.find(m_fields[c].key);
            if (it != record.end() && !uncuttable(*it)) fixed[c] = false;
            std::string text = it == record.end() ? "" : displayText(*it);
            std::replace(text.begin(), text.end(), '\n', ' ');
            std::replace(text.begin(), text.end(), '\t', ' ');
            widths[c] = std::max(widths[c], characters(text));
            row.push_back(std::move(text));
        }
        cells.push_back(std::move(row));
    }

    // Shrink the widest text column that can still give until the line fits; no column goes
    // below its header or 8 characters, so a very narrow terminal still gets readable, longer
    // lines. Columns of numbers and times keep their width.
    std::size_t const limit = terminalWidth();
    std::vector<std::size_t> floors(columns);
    for (std::size_t c = 0; c < columns; ++c) {
        floors[c] = fixed[c] ? widths[c] : std::max<std::size_t>(8, characters(m_fields[c].header));
    }
    std::size_t total = columns ? 2 * (columns - 1) : 0;
    for (auto w : widths) total += w;
    for (; limit > 0 && total > limit; --total) {
        std::size_t widest = columns;
        for (std::size_t c = 0; c < columns; ++c) {
            if (widths[c] > floors[c] && (widest == columns || widths[c] > widths[widest]))
                widest = c;
        }
        if (widest == columns) break;
        // One character at a time, so the two widest columns end up sharing the cut.
        --widths[widest];
    }

    auto line = [&](auto const& texts) {
        std::string text;
        for (std::size_t c = 0; c < columns; ++c) {
            std::string const cell = fit(texts[c], widths[c]);
            text += c + 1 < columns ? padded(cell, widths[c]) + "  " : cell;
        }
        out << text << "\n";
    };
    std::vector<std::string> headers;
    for (auto const& field : m_fields) headers.push_back(field.header);
    line(headers);
    for (auto const& row : cells) line(row);
}

}  // namespace datastore
