// --since/--until and the other time arguments: what a person types, as Unix seconds.

#include "Context.h"

#include <libCommon/DateTime.h>
#include <libCommon/FileSystem.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/Logger.h>
#include <libCommon/Resource.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <optional>
#include <regex>
#include <system_error>

#include "Output.h"
#include "TimeForms.h"

namespace datastore {

// ---- Times

long long midnightBefore(long long seconds, int daysBack) {
    std::time_t const t = static_cast<std::time_t>(seconds);
    std::tm day{};
    localtime_r(&t, &day);
    day.tm_mday -= daysBack;
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    day.tm_isdst = -1;  // mktime settles a daylight-saving change between the two days
    return static_cast<long long>(std::mktime(&day));
}

namespace {

bool leapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int daysInMonth(int year, int month) {
    static int const days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leapYear(year) ? 29 : days[month - 1];
}

// Local midnight of the day `daysBack` days before today.
long long localMidnight(int daysBack) {
    return midnightBefore(static_cast<long long>(std::time(nullptr)), daysBack);
}

// A calendar date and clock time as the C library's broken-down time.
std::tm calendarParts(int year, int month, int day, int hour, int minute, int second) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    return parts;
}

// The local time of a calendar date and clock time; mktime settles daylight-saving changes.
long long localTimeOf(int year, int month, int day, int hour, int minute, int second) {
    std::tm parts = calendarParts(year, month, day, hour, minute, second);
    parts.tm_isdst = -1;
    return static_cast<long long>(std::mktime(&parts));
}

}  // namespace

namespace {

ToolError badTime(char const* option, std::string const& text, std::string const& why) {
    return ToolError(USAGE, std::string(option) + ": '" + text + "' " + why);
}

// Unix seconds ("1763900000", "@1763900000"); none when `text` is not all digits. Unix seconds
// need 9 digits (from 1973 on) or an '@': "20261122" is a mistyped date far more often than a
// second of 1970. Read without a regex: std::regex recurses once per character of an unbounded
// run, and a long run of digits overflowed the stack.
std::optional<long long> unixSecondsOf(std::string const& text, char const* option) {
    bool const at = text[0] == '@';
    std::string const digits = text.substr(at ? 1 : 0);
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), [](char c) {
            return std::isdigit(static_cast<unsigned char>(c));
        }))
        return std::nullopt;
    if (!at && digits.size() < 9) {
        throw badTime(
            option, text,
            "is neither a date (2026-11-22) nor Unix seconds (9 or more digits, or @" + text + ")");
    }
    if (digits.size() > 12) throw badTime(option, text, "is too large for Unix seconds");
    return std::stoll(digits);
}

// The seconds east of UTC of a matched offset ("+01:00", "-0330"); 0 for "Z".
int offsetOf(std::smatch const& m, char const* option, std::string const& text) {
    if (!m[8].matched) return 0;
    int const offsetHours = std::stoi(m[9]), offsetMinutes = std::stoi(m[10]);
    // Offsets in use run from -12:00 to +14:00.
    if (offsetMinutes > 59 || offsetHours > 14 || (m[8] == "-" && offsetHours > 12) ||
        (offsetHours == 14 && offsetMinutes > 0)) {
        throw badTime(option, text, "has an impossible offset (from -12:00 to +14:00)");
    }
    return (m[8] == "-" ? -1 : 1) * (offsetHours * 3600 + offsetMinutes * 60);
}

// A date or date-time, local unless it carries an offset.
long long dateTimeOf(std::string const& text, char const* option, bool endOfDay) {
    static std::regex const iso(
        "([0-9]{4})-([0-9]{2})-([0-9]{2})"
        "(?:[T ]([0-9]{2}):([0-9]{2})(?::([0-9]{2}))?(Z|([+-])([0-9]{2}):?([0-9]{2}))?)?");
    std::smatch m;
    if (!std::regex_match(text, m, iso)) {
        throw badTime(option, text,
                      "is not a time: give a date (2026-11-23), a date-time (2026-11-23T14:05:00, "
                      "optionally with an offset such as +01:00 or Z), now, today, yesterday, "
                      "-30m, -12h, -7d, -2w or Unix seconds");
    }
    int const year = std::stoi(m[1]), month = std::stoi(m[2]), dayOfMonth = std::stoi(m[3]);
    if (year < 1970) throw badTime(option, text, "is before 1970");
    if (month < 1 || month > 12) throw badTime(option, text, "has no month " + m[2].str());
    if (dayOfMonth < 1 || dayOfMonth > daysInMonth(year, month)) {
        throw badTime(option, text,
                      "is not a date: " + m[1].str() + "-" + m[2].str() + " has " +
                          std::to_string(daysInMonth(year, month)) + " days");
    }
    if (!m[4].matched) {
        return endOfDay ? localTimeOf(year, month, dayOfMonth, 23, 59, 59)
                        : localTimeOf(year, month, dayOfMonth, 0, 0, 0);
    }
    int const hour = std::stoi(m[4]), minute = std::stoi(m[5]);
    int const second = m[6].matched ? std::stoi(m[6]) : 0;
    if (hour > 23 || minute > 59 || second > 59)
        throw badTime(option, text, "has no such time of day");
    if (!m[7].matched) return localTimeOf(year, month, dayOfMonth, hour, minute, second);
    int const offset = offsetOf(m, option, text);
    std::tm parts = calendarParts(year, month, dayOfMonth, hour, minute, second);
    return static_cast<long long>(timegm(&parts)) - offset;
}

}  // namespace

long long parseTime(std::string const& text, char const* option, bool endOfDay) {
    if (text.empty()) return 0;
    long long const now = static_cast<long long>(std::time(nullptr));
    // A day as an upper bound means the whole day: its last second.
    auto day = [&](long long midnight, int daysBack) {
        return endOfDay ? localMidnight(daysBack - 1) - 1 : midnight;
    };
    if (text == "now") return now;
    if (text == "today") return day(localMidnight(0), 0);
    if (text == "yesterday") return day(localMidnight(1), 1);
    if (auto const spoken = spokenTime(text, now)) return *spoken;

    std::smatch m;
    static std::regex const relative("-([0-9]{1,9})([smhdw])");
    if (std::regex_match(text, m, relative)) {
        static std::string const units = "smhdw";
        static long long const seconds[] = {1, 60, 3600, 86400, 7 * 86400};
        return now - std::stoll(m[1]) * seconds[units.find(m[2].str()[0])];
    }
    if (auto const epoch = unixSecondsOf(text, option)) return *epoch;
    return dateTimeOf(text, option, endOfDay);
}

TimeRange timeRange(Options const& options) {
    TimeRange range;
    range.since = parseTime(options.since, "--since", false);
    range.until = parseTime(options.until, "--until", true);
    if (range.since > 0 && range.until > 0 && range.since > range.until) {
        throw ToolError(USAGE,
                        "--since '" + options.since + "' is after --until '" + options.until + "'");
    }
    return range;
}

}  // namespace datastore
