// The tool's time texts (localTime, isoTime) are made by arithmetic from an offset cached per
// hour: they must read exactly as the C library and DateTime write them, second by second
// across daylight-saving changes, in zones that change on half hours and in UTC. Each zone
// runs in a child process of its own: a process reads its zone once.

#include <gtest/gtest.h>
#include <libCommon/DateTime.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "Output.h"

namespace datastore {
namespace {

std::string libraryLocalTime(long long seconds, bool utc) {
    std::time_t const t = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (utc) {
        gmtime_r(&t, &parts);
    } else {
        localtime_r(&t, &parts);
    }
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::string libraryIsoTime(long long seconds) {
    return zrn::DateTime::fromUnixTimeStamp(seconds).toLocalTime().toString().str();
}

// Every second of each range, plus single times; returns the number of texts that differ,
// the first few written to standard error.
int mismatches(std::vector<std::pair<long long, long long>> const& ranges) {
    int wrong = 0;
    auto check = [&](long long s) {
        for (bool utc : {false, true}) {
            outputStyle().utc = utc;
            std::string const local = localTime(s), expected = libraryLocalTime(s, utc);
            if (local != expected && ++wrong < 5)
                std::cerr << s << (utc ? " utc: " : ": ") << local << " != " << expected << "\n";
        }
        std::string const iso = isoTime(s).get<std::string>(), expected = libraryIsoTime(s);
        if (iso != expected && ++wrong < 5)
            std::cerr << s << ": " << iso << " != " << expected << "\n";
    };
    for (auto const& [first, last] : ranges) {
        for (long long s = first; s <= last; ++s) check(s);
    }
    // Far apart, in both directions, so that the cache is left and found again.
    for (long long s = 1; s < 253402300799; s = s * 3 + 7) check(s);
    for (long long s : {86399LL, 86400LL, 253402214399LL, 253402214400LL, 253402300799LL}) check(s);
    return wrong;
}

void expectSameTextsIn(char const* zone, std::vector<std::pair<long long, long long>> ranges) {
    EXPECT_EXIT(
        {
            setenv("TZ", zone, 1);
            tzset();
            std::exit(mismatches(ranges) == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "^$")
        << zone;
}

TEST(TimeTextTest, ReadAsTheCLibraryWritesThemAcrossDaylightSavingChanges) {
    // Europe/Berlin: 2026-03-29 01:00 UTC forward, 2026-10-25 01:00 UTC back; the hours
    // around each change, every second.
    expectSameTextsIn("Europe/Berlin", {{1774746000 - 7200, 1774746000 + 7200},
                                        {1792890000 - 7200, 1792890000 + 7200}});
    // Australia/Lord_Howe changes by 30 minutes at 02:00 local (15:30 UTC): mid-hour in UTC.
    // 2026-04-04 15:00 UTC back, 2026-10-03 15:30 UTC forward.
    expectSameTextsIn("Australia/Lord_Howe", {{1775314800 - 7200, 1775314800 + 7200},
                                              {1791041400 - 7200, 1791041400 + 3600}});
    // Newfoundland: a negative offset of half an hour, changing at 05:30 UTC (2026-03-08).
    expectSameTextsIn("America/St_Johns", {{1772947800 - 7200, 1772947800 + 7200}});
    // Monrovia kept local mean time (-00:44:30) until 1972: offsets with seconds.
    expectSameTextsIn("Africa/Monrovia", {{63593070 - 3600, 63593070 + 3600}});
    expectSameTextsIn("UTC", {{1774746000 - 600, 1774746000 + 600}});
}

}  // namespace
}  // namespace datastore
