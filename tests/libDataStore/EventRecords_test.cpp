// The event store's records: argument orders, parsing of text cells, access and copies.

#include <gtest/gtest.h>
#include <libCommon/SQLite3Database.h>
#include <libDataStore/EventRecords.h>

#include <type_traits>
#include <utility>

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

static_assert(
    std::is_same<EventTimePoint, std::chrono::time_point<std::chrono::steady_clock,
                                                         std::chrono::duration<long long>>>::value,
    "event times are whole steady-clock seconds in a 64-bit count");

// Only the store builds these: their constructors must stay out of reach.
static_assert(
    !std::is_constructible<TestRunResultLog, long long, String, String, String, String, String,
                           String, String, EventTimePoint, unsigned int, SQLite3Database&>::value,
    "TestRunResultLog is built by the store only");
static_assert(!std::is_constructible<PropertyChange, String, EventTimePoint>::value,
              "PropertyChange has a protected constructor");
static_assert(!std::is_constructible<PropertyChangeLog, long long, String, String, String,
                                     SQLite3Database&>::value,
              "PropertyChangeLog has a protected constructor");

template <class T>
constexpr bool isPlainValue() {
    return std::is_copy_constructible<T>::value && std::is_copy_assignable<T>::value &&
           std::is_nothrow_move_constructible<T>::value &&
           std::is_nothrow_move_assignable<T>::value && !std::is_polymorphic<T>::value;
}
static_assert(isPlainValue<ScriptResultLog>() && isPlainValue<TestRunResultLog>() &&
                  isPlainValue<TestRunEventResultLog>() && isPlainValue<TipResultLog>() &&
                  isPlainValue<AlertResultLog>() && isPlainValue<AlertKeyValueResultLog>() &&
                  isPlainValue<ScriptletResultLog>() && isPlainValue<MeasurementLog>() &&
                  isPlainValue<ProfilerDiffLog>() && isPlainValue<PropertyChange>() &&
                  isPlainValue<PropertyChangeLog>(),
              "records are plain copyable and movable values");

// Reaches the protected constructors the way a caller outside the library would have to.
struct BuiltTestRun : TestRunResultLog {
    BuiltTestRun(SQLite3Database& db)
        : TestRunResultLog(41, "Disk", "Disk 0", "tg", "dg", "HDD", "E7", "FAIL", at(1700000000), 3,
                           db) {}
};
struct BuiltChange : PropertyChange {
    BuiltChange() : PropertyChange("42 °C", at(12)) {}
};
struct BuiltChangeLog : PropertyChangeLog {
    BuiltChangeLog(SQLite3Database& db) : PropertyChangeLog(9, "temp", "Temperature", "Hot", db) {}
};

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

TEST(EventRecordsTest, ProtectedRecordsCopyAndMoveTheirFields) {
    SQLite3Database db(":memory:", SQLite3Database::OFF);
    TestRunResultLog const original = BuiltTestRun(db);
    TestRunResultLog copy = original;
    TestRunResultLog moved = std::move(copy);
    for (TestRunResultLog const* r : {&original, const_cast<TestRunResultLog const*>(&moved)}) {
        EXPECT_EQ(r->testId(), 41);
        EXPECT_EQ(r->testName(), "Disk");
        EXPECT_EQ(r->deviceName(), "Disk 0");
        EXPECT_EQ(r->testGuid(), "tg");
        EXPECT_EQ(r->deviceGuid(), "dg");
        EXPECT_EQ(r->deviceType(), "HDD");
        EXPECT_EQ(r->errorCode(), "E7");
        EXPECT_EQ(r->result(), "FAIL");
        EXPECT_EQ(r->timeStamp(), at(1700000000));
        EXPECT_EQ(r->pass(), 3u);
    }

    PropertyChange const change = BuiltChange();
    EXPECT_EQ(change.getValueStr(), "42 °C");
    EXPECT_EQ(change.getTimeStamp(), at(12));
    PropertyChangeLog changeLog = BuiltChangeLog(db);
    PropertyChangeLog assigned = changeLog;
    assigned = std::move(changeLog);
    EXPECT_EQ(assigned.testRunModificationId(), 9);
    EXPECT_EQ(assigned.propertyKey(), "temp");
    EXPECT_EQ(assigned.name(), "Temperature");
    EXPECT_EQ(assigned.description(), "Hot");

    AlertKeyValueResultLog kv("k", "v");
    AlertKeyValueResultLog other("x", "y");
    other = kv;
    EXPECT_EQ(other.key(), "k");
    EXPECT_EQ(other.value(), "v");
}

}  // namespace
}  // namespace zrn
