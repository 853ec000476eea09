#include "TimeForms.h"

#include <ctime>
#include <regex>

namespace datastore {

namespace {

// The local time `daysFromToday` days from today at the clock time given; mktime settles
// daylight-saving changes.
long long onDay(long long now, int daysFromToday, int hour, int minute, int second) {
    std::time_t const at = static_cast<std::time_t>(now);
    std::tm parts{};
    localtime_r(&at, &parts);
    parts.tm_mday += daysFromToday;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    return static_cast<long long>(std::mktime(&parts));
}

std::optional<long long> clockTime(std::string const& text, long long now) {
    static std::regex const form(
        "(?:(yesterday|today|tomorrow) +)?([0-9]{1,2}):([0-9]{2})(?::([0-9]{2}))?");
    std::smatch m;
    if (!std::regex_match(text, m, form)) return std::nullopt;
    int const hour = std::stoi(m[2]);
    int const minute = std::stoi(m[3]);
    int const second = m[4].matched ? std::stoi(m[4]) : 0;
    if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
    int const day = m[1] == "yesterday" ? -1 : m[1] == "tomorrow" ? 1 : 0;
    return onDay(now, day, hour, minute, second);
}

std::optional<long long> spanAgo(std::string const& text, long long now) {
    static std::regex const form(
        "([0-9]{1,9}) *(s|sec|secs|seconds?|m|min|mins|minutes?|h|hours?|d|days?|w|weeks?) +ago");
    std::smatch m;
    if (!std::regex_match(text, m, form)) return std::nullopt;
    char const unit = m[2].str()[0];
    long long const seconds = unit == 's'   ? 1
                              : unit == 'm' ? 60
                              : unit == 'h' ? 3600
                              : unit == 'd' ? 86400
                                            : 7 * 86400;
    return now - std::stoll(m[1]) * seconds;
}

}  // namespace

std::optional<long long> spokenTime(std::string const& text, long long now) {
    if (auto const at = clockTime(text, now)) return at;
    return spanAgo(text, now);
}

}  // namespace datastore
