#include <libCommon/DateTime.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

namespace zrn {

namespace {

// localtime_r need not notice a changed TZ by itself, so the zone is loaded again whenever the
// TZ text (or its absence) differs from the one last loaded. Not on every conversion: with TZ
// unset, tzset() looks at /etc/localtime each time, which costs more than the conversion and
// made listing many local times slow. A zone file replaced under a running process with TZ
// unset is therefore seen from the next TZ change or the next process on (our choice: the
// machine's zone changes rarely and needs no program to follow it mid-run).
void loadZoneIfTzChanged() {
    static std::mutex mutex;
    static bool loaded = false;
    static bool hadTz = false;
    static std::string lastTz;
    std::lock_guard<std::mutex> lock(mutex);
    char const* const tz = std::getenv("TZ");
    bool const hasTz = tz != nullptr;
    if (loaded && hasTz == hadTz && (!hasTz || lastTz == tz)) return;
    tzset();
    loaded = true;
    hadTz = hasTz;
    lastTz = hasTz ? tz : "";
}

bool brokenDown(long long seconds, DateTime::Kind kind, std::tm& out) {
    std::time_t const t = static_cast<std::time_t>(seconds);
    if (kind == DateTime::LOCAL) loadZoneIfTzChanged();
    return (kind == DateTime::UTC ? gmtime_r(&t, &out) : localtime_r(&t, &out)) != nullptr;
}

int localOffsetAt(long long seconds) {
    std::tm tm{};
    return brokenDown(seconds, DateTime::LOCAL, tm) ? static_cast<int>(tm.tm_gmtoff) : 0;
}

// Whether the instant's text has a four-digit year in both kinds: the text constructor makes
// no value whose toString() it could not read back (9999-12-31T23:59:59-01:00 is in 10000).
bool writable(long long seconds) {
    for (DateTime::Kind kind : {DateTime::UTC, DateTime::LOCAL}) {
        std::tm tm{};
        if (!brokenDown(seconds, kind, tm) || tm.tm_year + 1900 < 0 || tm.tm_year + 1900 > 9999)
            return false;
    }
    return true;
}

// Reads exactly `count` digits at `pos`.
bool digits(std::string const& text, std::size_t& pos, int count, int& value) {
    value = 0;
    for (int i = 0; i < count; ++i, ++pos) {
        if (pos >= text.size() || !std::isdigit(static_cast<unsigned char>(text[pos])))
            return false;
        value = value * 10 + (text[pos] - '0');
    }
    return true;
}

bool expect(std::string const& text, std::size_t& pos, char c) {
    if (pos < text.size() && text[pos] == c) {
        ++pos;
        return true;
    }
    return false;
}

// `text` without the white space at either end.
std::string trimmed(std::string text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    std::size_t start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    return text.substr(start);
}

struct ParsedFields {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

// "YYYY-MM-DD", then optionally "Thh:mm" (or "t" or a blank before it), ":ss" and a fraction
// after "." or "," (read and dropped), from `pos` on. False when malformed or out of range.
bool parseFields(std::string const& text, std::size_t& pos, ParsedFields& f) {
    if (!digits(text, pos, 4, f.year) || !expect(text, pos, '-') ||
        !digits(text, pos, 2, f.month) || !expect(text, pos, '-') || !digits(text, pos, 2, f.day)) {
        return false;
    }
    if (pos < text.size()) {
        if (text[pos] != 'T' && text[pos] != 't' && text[pos] != ' ') return false;
        ++pos;
        if (!digits(text, pos, 2, f.hour) || !expect(text, pos, ':') ||
            !digits(text, pos, 2, f.minute)) {
            return false;
        }
        if (expect(text, pos, ':')) {
            if (!digits(text, pos, 2, f.second)) return false;
            if (expect(text, pos, '.') || expect(text, pos, ',')) {
                std::size_t const start = pos;
                while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])))
                    ++pos;
                if (pos == start) return false;
            }
        }
    }
    return f.month >= 1 && f.month <= 12 && f.day >= 1 && f.day <= 31 && f.hour <= 23 &&
           f.minute <= 59 && f.second <= 60;
}

// "Z" (`zulu`) or "+hh", "+hhmm", "+hh:mm" (and "-") from `pos` to the end of `text`, as
// seconds east of UTC in `offset`. False when malformed or followed by anything.
bool parseOffset(std::string const& text, std::size_t& pos, int& offset, bool& zulu) {
    if (expect(text, pos, 'Z') || expect(text, pos, 'z')) {
        zulu = true;
        offset = 0;
        return pos == text.size();
    }
    char const sign = text[pos];
    if (sign != '+' && sign != '-') return false;
    ++pos;
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    if (!digits(text, pos, 2, hours)) return false;
    if (pos < text.size()) {
        expect(text, pos, ':');
        if (!digits(text, pos, 2, minutes)) return false;
    }
    // Seconds, as toString() writes them for the local mean times of old dates (+00:53:28).
    if (expect(text, pos, ':') && !digits(text, pos, 2, seconds)) return false;
    offset = (hours * 3600 + minutes * 60 + seconds) * (sign == '-' ? -1 : 1);
    return pos == text.size();
}

}  // namespace

DateTime::DateTime(String const& input) {
    std::string const text = trimmed(input.str());
    std::size_t pos = 0;
    ParsedFields f;
    if (!parseFields(text, pos, f)) return;
    std::tm tm{};
    tm.tm_year = f.year - 1900;
    tm.tm_mon = f.month - 1;
    tm.tm_mday = f.day;
    tm.tm_hour = f.hour;
    tm.tm_min = f.minute;
    tm.tm_sec = f.second;

    if (pos == text.size()) {
        // No offset: local wall-clock time; mktime settles daylight saving itself.
        tm.tm_isdst = -1;
        std::time_t const t = std::mktime(&tm);
        if (t == static_cast<std::time_t>(-1) && !(f.year == 1969 && f.month == 12 && f.day == 31))
            return;
        if (!writable(static_cast<long long>(t))) return;
        *this = DateTime(static_cast<long long>(t), LOCAL);
        return;
    }

    int offset = 0;
    bool zulu = false;
    if (!parseOffset(text, pos, offset, zulu)) return;
    long long const seconds = static_cast<long long>(timegm(&tm)) - offset;
    if (!writable(seconds)) return;
    // The two kinds cannot carry a foreign offset: text written in this machine's zone reads
    // back as local time, any other offset (and Z) as UTC (the instant is kept either way).
    Kind const kind = !zulu && localOffsetAt(seconds) == offset ? LOCAL : UTC;
    *this = DateTime(seconds, kind);
}

DateTime DateTime::getCurrentDateTime() { return DateTime(std::time(nullptr), LOCAL); }

DateTime DateTime::getCurrentUTCDateTime() { return DateTime(std::time(nullptr), UTC); }

DateTime DateTime::fromUnixTimeStamp(long long seconds) { return DateTime(seconds, UTC); }

DateTime DateTime::toLocalTime() const {
    if (!m_initialized) return DateTime();
    return DateTime(m_seconds, LOCAL);
}

DateTime DateTime::toUTCTime() const {
    if (!m_initialized) return DateTime();
    return DateTime(m_seconds, UTC);
}

bool DateTime::operator==(DateTime const& other) const {
    if (m_initialized != other.m_initialized) return false;
    return !m_initialized || m_seconds == other.m_seconds;
}

DateTime::Fields DateTime::fields() const {
    std::tm tm{};
    if (!m_initialized || !brokenDown(m_seconds, m_kind, tm)) return Fields{0, 0, 0, 0, 0, 0, 0};
    return Fields{tm.tm_year + 1900,
                  tm.tm_mon + 1,
                  tm.tm_mday,
                  tm.tm_hour,
                  tm.tm_min,
                  tm.tm_sec,
                  static_cast<int>(tm.tm_gmtoff)};
}

String DateTime::toString() const {
    if (!m_initialized) return String();
    Fields const f = fields();
    int const offset = f.offset < 0 ? -f.offset : f.offset;
    char text[64];
    int const written = std::snprintf(
        text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d%c%02d:%02d", f.year, f.month, f.day,
        f.hour, f.minute, f.second, f.offset < 0 ? '-' : '+', offset / 3600, (offset % 3600) / 60);
    // Zones have whole-minute offsets since about 1970; before, some had local mean time, whose
    // seconds the text keeps so that it reads back to the same instant.
    if (offset % 60 != 0 && written > 0 && static_cast<std::size_t>(written) < sizeof text)
        std::snprintf(text + written, sizeof text - written, ":%02d", offset % 60);
    return String(text);
}

std::uint16_t DateTime::getYear() const { return static_cast<std::uint16_t>(fields().year); }
std::uint8_t DateTime::getMonth() const { return static_cast<std::uint8_t>(fields().month); }
std::uint8_t DateTime::getDay() const { return static_cast<std::uint8_t>(fields().day); }
std::uint8_t DateTime::getHour() const { return static_cast<std::uint8_t>(fields().hour); }
std::uint8_t DateTime::getMinute() const { return static_cast<std::uint8_t>(fields().minute); }
std::uint8_t DateTime::getSecond() const { return static_cast<std::uint8_t>(fields().second); }
int DateTime::utcOffsetSeconds() const { return fields().offset; }

}  // namespace zrn
