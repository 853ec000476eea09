// The event store's records: argument orders and parsing of text cells.

#include <gtest/gtest.h>
#include <libDataStore/EventRecords.h>

#include <type_traits>

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

static_assert(
    std::is_same<EventTimePoint, std::chrono::time_point<std::chrono::steady_clock,
                                                         std::chrono::duration<long long>>>::value,
    "event times are whole steady-clock seconds in a 64-bit count");

TEST(EventRecordsTest, ArgumentOrdersThatDifferFromTheTables) {
    // Status before result, unlike the ScriptletRuns columns.
    ScriptletResultLog const scriptlet("key", "category", "the status", "the result", at(5));
    EXPECT_EQ(scriptlet.status(), "the status");
    EXPECT_EQ(scriptlet.result(), "the result");
    EXPECT_EQ(scriptlet.timeStamp(), at(5));

    // The span's middle before its end, unlike the Measurements columns.
    MeasurementLog const m("cpu", at(10), at(15), at(20), 9.5, -1.25, 4.0, 3.5, 17);
    EXPECT_EQ(m.spanStart(), at(10));
    EXPECT_EQ(m.spanMiddle(), at(15));
    EXPECT_EQ(m.spanEnd(), at(20));
    EXPECT_EQ(m.maximum(), 9.5);
    EXPECT_EQ(m.minimum(), -1.25);
    EXPECT_EQ(m.average(), 4.0);
    EXPECT_EQ(m.median(), 3.5);
    EXPECT_EQ(m.numberOfSamples(), 17u);
}

TEST(EventRecordsTest, ProfilerDiffParsesItsTextCellsWithoutValidation) {
    struct Case {
        char const* time;
        char const* count;
        long long seconds;
        unsigned int changes;
    };
    for (Case const& c :
         {Case{"1700000000", "12", 1700000000, 12}, Case{"-5", "0", -5, 0}, Case{"abc", "x1", 0, 0},
          Case{"12abc", "7 changes", 12, 7}, Case{"", "", 0, 0}, Case{"  42", "010", 42, 10}}) {
        ProfilerDiffLog const log("cat", c.time, c.count, "diff");
        EXPECT_EQ(log.timeStamp().time_since_epoch().count(), c.seconds) << c.time;
        EXPECT_EQ(log.changesCount(), c.changes) << c.count;
        EXPECT_EQ(log.category(), "cat");
        EXPECT_EQ(log.serializedDiff(), "diff");
    }
}

}  // namespace
}  // namespace zrn
