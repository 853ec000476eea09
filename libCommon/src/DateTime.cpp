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

}  // namespace

DateTime::DateTime(String const& input) {
    std::string text = input.str();
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    std::size_t pos = 0;
    while (pos < text.size() && std::isspace(static_cast<unsigned char>(text[pos]))) ++pos;

    std::tm tm{};
    int year, month, day, hour = 0, minute = 0, second = 0;
    if (!digits(text, pos, 4, year) || !expect(text, pos, '-') || !digits(text, pos, 2, month) ||
        !expect(text, pos, '-') || !digits(text, pos, 2, day)) {
        return;
    }
    if (pos < text.size()) {
        if (text[pos] != 'T' && text[pos] != 't' && text[pos] != ' ') return;
        ++pos;
        if (!digits(text, pos, 2, hour) || !expect(text, pos, ':') ||
            !digits(text, pos, 2, minute)) {
            return;
        }
        if (expect(text, pos, ':')) {
            if (!digits(text, pos, 2, second)) return;
            if (expect(text, pos, '.') || expect(text, pos, ',')) {
                std::size_t const start = pos;
                while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])))
                    ++pos;
                if (pos == start) return;
            }
        }
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
        return;
    }
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;

    if (pos == text.size()) {
        // No offset: local wall-clock time; mktime settles daylight saving itself.
        tm.tm_isdst = -1;
        std::time_t const t = std::mktime(&tm);
        if (t == static_cast<std::time_t>(-1) && !(year == 1969 && month == 12 && day == 31))
            return;
        *this = DateTime(static_cast<long long>(t), LOCAL);
        return;
    }

    int offset = 0;
    Kind kind = UTC;
    if (expect(text, pos, 'Z') || expect(text, pos, 'z')) {
        offset = 0;
    } else {
        char const sign = text[pos];
        if (sign != '+' && sign != '-') return;
        ++pos;
        int hours, minutes = 0;
        if (!digits(text, pos, 2, hours)) return;
        if (pos < text.size()) {
            expect(text, pos, ':');
            if (!digits(text, pos, 2, minutes)) return;
        }
        offset = (hours * 3600 + minutes * 60) * (sign == '-' ? -1 : 1);
        kind = LOCAL;  // settled below
    }
    if (pos != text.size()) return;

    long long const seconds = static_cast<long long>(timegm(&tm)) - offset;
    // The two kinds cannot carry a foreign offset: text written in this machine's zone reads
    // back as local time, any other offset as UTC (the instant is kept either way).
    if (kind == LOCAL && localOffsetAt(seconds) != offset) kind = UTC;
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
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d%c%02d:%02d", f.year, f.month,
                  f.day, f.hour, f.minute, f.second, f.offset < 0 ? '-' : '+', offset / 3600,
                  (offset % 3600) / 60);
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
