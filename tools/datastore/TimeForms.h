#pragma once

// The time forms people type after journalctl: a time of day ("10:00", "10:00:30"), one on a
// named day ("yesterday 14:00", "today 9:30", "tomorrow 08:00") and spans ago ("3 days ago",
// "2 hours ago", "90 min ago").

#include <optional>
#include <string>

namespace datastore {

// `text` as Unix seconds in local time, given the time `now`; nothing when it is none of these
// forms (or names an hour or minute that does not exist).
std::optional<long long> spokenTime(std::string const& text, long long now);

}  // namespace datastore
