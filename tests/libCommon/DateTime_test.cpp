#include <gtest/gtest.h>
#include <libCommon/DateTime.h>

#include <ctime>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

TEST(DateTimeTest, TextRoundTripsAcrossDaylightSavingChanges) {
    test::ScopedEnv zone("TZ", "America/New_York");
    tzset();
    // Around the spring-forward gap (2021-03-14 02:00 EST -> 03:00 EDT) and the fall-back
    // overlap (2021-11-07 02:00 EDT -> 01:00 EST), one second apart each.
    long long const instants[] = {1615705199, 1615705200, 1636262999, 1636263000, 1636264800,
                                  1636266600, 1636268400, 0,          4102444800};
    for (long long t : instants) {
        DateTime const local = DateTime::fromUnixTimeStamp(t).toLocalTime();
        DateTime const back(local.toString());
        EXPECT_TRUE(back.isInitialized()) << local.toString();
        EXPECT_EQ(back.unixTimeStamp(), t) << local.toString();
        EXPECT_EQ(back.kind(), DateTime::LOCAL) << local.toString();
        EXPECT_EQ(back.toString(), local.toString());
    }
    // The repeated hour: the same wall clock, told apart by the offset.
    EXPECT_EQ(DateTime::fromUnixTimeStamp(1636263000).toLocalTime().toString().str(),
              "2021-11-07T01:30:00-04:00");
    EXPECT_EQ(DateTime::fromUnixTimeStamp(1636266600).toLocalTime().toString().str(),
              "2021-11-07T01:30:00-05:00");
    EXPECT_EQ(DateTime("2021-11-07T01:30:00-05:00").unixTimeStamp() -
                  DateTime("2021-11-07T01:30:00-04:00").unixTimeStamp(),
              3600);
}

TEST(DateTimeTest, LocalTimesFollowEveryChangeOfTzWithoutTheCallerAskingForIt) {
    long long const t = 1588752000;  // 2020-05-06 08:00 UTC
    auto local = [&] { return DateTime::fromUnixTimeStamp(t).toLocalTime().toString().str(); };
    // What this machine's own zone says, worked out with the C library directly.
    std::string machine;
    {
        test::ScopedEnv none("TZ", nullptr);
        tzset();
        std::time_t const raw = static_cast<std::time_t>(t);
        std::tm parts{};
        localtime_r(&raw, &parts);
        char text[8];
        std::strftime(text, sizeof text, "%H", &parts);
        machine = text;
    }
    {
        test::ScopedEnv zone("TZ", "Asia/Tokyo");
        EXPECT_EQ(local(), "2020-05-06T17:00:00+09:00");
        EXPECT_EQ(local(), "2020-05-06T17:00:00+09:00");  // unchanged TZ, same zone
        {
            test::ScopedEnv other("TZ", "America/New_York");
            EXPECT_EQ(local(), "2020-05-06T04:00:00-04:00");
            test::ScopedEnv empty("TZ", "");  // set but empty: UTC, unlike unset
            EXPECT_EQ(local(), "2020-05-06T08:00:00+00:00");
        }
        EXPECT_EQ(local(), "2020-05-06T17:00:00+09:00");  // back to an earlier text
        test::ScopedEnv none("TZ", nullptr);
        EXPECT_EQ(local().substr(11, 2), machine);  // unset: the machine's zone again
    }
}

TEST(DateTimeTest, KindsFieldsAndEquality) {
    test::ScopedEnv zone("TZ", "Europe/Berlin");
    tzset();
    DateTime const epoch = DateTime::fromUnixTimeStamp(0);
    EXPECT_EQ(epoch.kind(), DateTime::UTC);
    EXPECT_EQ(epoch.toString().str(), "1970-01-01T00:00:00+00:00");
    DateTime const local = epoch.toLocalTime();
    EXPECT_EQ(local.toString().str(), "1970-01-01T01:00:00+01:00");
    EXPECT_EQ(local.getHour(), 1);
    EXPECT_EQ(local.getYear(), 1970);
    EXPECT_EQ(local.getMonth(), 1);
    EXPECT_EQ(local.getDay(), 1);
    EXPECT_TRUE(local == epoch);  // one instant, two kinds
    EXPECT_EQ(DateTime(local.toString()), epoch);

    DateTime const summer("2020-05-06T10:00:00");   // no offset: local wall-clock time
    EXPECT_EQ(summer.unixTimeStamp(), 1588752000);  // 08:00 UTC (CEST)
    EXPECT_EQ(summer.toString().str(), "2020-05-06T10:00:00+02:00");
    EXPECT_EQ(DateTime("2020-05-06 08:00:00Z").unixTimeStamp(), 1588752000);
    EXPECT_EQ(DateTime("2020-05-06T08:00:00.750+00:00").unixTimeStamp(), 1588752000);
    EXPECT_EQ(DateTime("2020-05-06T13:30:00+05:30").unixTimeStamp(), 1588752000);
    EXPECT_EQ(DateTime("2020-05-06T13:30:00+05:30").kind(), DateTime::UTC);  // foreign offset
    EXPECT_EQ(DateTime("2020-05-06").unixTimeStamp(), 1588716000);           // local midnight

    // Every accepted spelling, at the edges of every field.
    struct Accepted {
        char const* text;
        long long seconds;
    };
    for (Accepted const& ok : std::initializer_list<Accepted>{
             {"2020-05-06t08:00:00z", 1588752000},
             {"2020-05-06T08:00:00,5Z", 1588752000},
             {"2020-05-06T13:30+0530", 1588752000},
             {"2020-05-06T03:00:00-05", 1588752000},
             {"2020-05-06 03:00-05:00", 1588752000},
             {"2020-12-31T23:59:60Z", 1609459200},
             {"2020-01-31T00:00:00Z", 1580428800},
             {"2020-12-01T00:00:00Z", 1606780800},
         }) {
        DateTime const parsed(ok.text);
        EXPECT_TRUE(parsed.isInitialized()) << ok.text;
        EXPECT_EQ(parsed.unixTimeStamp(), ok.seconds) << ok.text;
    }
    for (std::string const& bad : test::split(
             "|yesterday|2020-13-01|2020-05-06T25:00:00|2020-05-06T10:00:00+xx|"
             "2020-05-06T10:00:00 trailing|2020-05-06X08:00|2020-05-06T08:00:00.|2020-05-06T08|"
             "2020-05-06T08:00:00+05:3|2020-00-06|2020-05-00|2020-05-32|2020-05-06T24:00|"
             "2020-05-06T08:60|2020-05-06T08:00:61|2020-05-06T08:00:00Zx|2020-05-06T08:00:00+|"
             "20-05-06|2020-05-06T08:00:0|2020/05/06")) {
        EXPECT_FALSE(DateTime(String(bad)).isInitialized()) << bad;
    }
    DateTime const none;
    EXPECT_FALSE(none.isInitialized());
    EXPECT_EQ(none.toString().str(), "");
    EXPECT_FALSE(none == epoch);
    EXPECT_TRUE(none == DateTime());
    // An uninitialised value has no fields: every reader gives 0.
    EXPECT_EQ(std::vector<int>({none.getYear(), none.getMonth(), none.getDay(), none.getHour(),
                                none.getMinute(), none.getSecond(), none.utcOffsetSeconds()}),
              std::vector<int>(7, 0));
}

}  // namespace
}  // namespace zrn
