// EventDataStore's queries: rows prepared through the store (or, where the store cannot make
// them, through raw sqlite3) and read back through the readers: the records, their order and
// what the filters keep. The statements are pinned by EventCatalogue_test.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint t) { return t.time_since_epoch().count(); }

template <class Record, class Field>
std::vector<std::string> fieldOf(std::vector<Record> const& records, Field field) {
    std::vector<std::string> out;
    for (Record const& r : records) out.push_back((r.*field)().str());
    return out;
}

template <class Record>
std::vector<long long> timesOf(std::vector<Record> const& records) {
    std::vector<long long> out;
    for (Record const& r : records) out.push_back(secondsOf(r.timeStamp()));
    return out;
}

using Strings = std::vector<std::string>;
using Times = std::vector<long long>;

class EventQueriesTest : public ::testing::Test {
protected:
    test::TempDir m_dir;
    std::string const m_path = m_dir.file("event.db");
    EventDataStore m_store{String(m_path)};
};

// ---- Keyed readers -----------------------------------------------------------------------

class KeyedReadersTest : public EventQueriesTest {
protected:
    void SetUp() override {
        m_app = *m_store.logAppStart("Tool", "jo", "Scan", at(1));
        m_script = *m_store.logScriptStart(m_app, "RUNNING", "sg", "s1", at(1), 1, "<a/>");
        m_otherScript = *m_store.logScriptStart(m_app, "RUNNING", "sg2", "s2", at(2), 1, "<b/>");
        m_test1 = *m_store.logTestStart(m_script, "t1", "d", "tg1", "dg", "HDD", "R", at(100), 1);
        m_test2 = *m_store.logTestStart(m_script, "t2", "d", "tg2", "dg", "HDD", "R", at(300), 2);
        m_test3 = *m_store.logTestStart(m_script, "t3", "d", "tg3", "dg", "HDD", "R", at(200), 3);
        m_other =
            *m_store.logTestStart(m_otherScript, "o", "d", "tgo", "dg", "HDD", "R", at(250), 1);
        for (long long t : {100, 400, 250}) {
            m_store.logTestRunEvent(m_test1, "m1@" + std::to_string(t), "info", "E", "C", at(t));
            m_store.logTestRunTip(m_test1, "k1@" + std::to_string(t), "tip", "T", "x", "y", at(t));
        }
        for (long long t : {300, 150}) {
            m_store.logTestRunEvent(m_test2, "m2@" + std::to_string(t), "info", "E", "C", at(t));
            m_store.logTestRunTip(m_test2, "k2@" + std::to_string(t), "tip", "T", "x", "y", at(t));
        }
        m_store.logTestRunEvent(m_other, "other", "info", "E", "C", at(350));
        m_store.logTestRunTip(m_other, "other", "tip", "T", "x", "y", at(350));
    }

    long long m_app = 0, m_script = 0, m_otherScript = 0;
    long long m_test1 = 0, m_test2 = 0, m_test3 = 0, m_other = 0;
};

TEST_F(KeyedReadersTest, ScriptRunEventsFollowTheModelStatement) {
    auto const all = m_store.scriptRunEventResultLogs(m_script, {}, {}, 0);
    EXPECT_EQ(timesOf(all), (Times{400, 300, 250, 150, 100}));
    EXPECT_EQ(fieldOf(all, &TestRunEventResultLog::message),
              (Strings{"m1@400", "m2@300", "m1@250", "m2@150", "m1@100"}));

    auto const bounded = m_store.scriptRunEventResultLogs(m_script, at(150), at(300), 2);
    EXPECT_EQ(timesOf(bounded), (Times{300, 250}));

    EXPECT_TRUE(m_store.scriptRunEventResultLogs(9999, {}, {}, 0).empty());
}

TEST_F(KeyedReadersTest, TestRunsAndTheirEventsAndTips) {
    auto const runs = m_store.testRunResultLogs(m_script, {}, at(250), 0);
    EXPECT_EQ(fieldOf(runs, &TestRunResultLog::testName), (Strings{"t3", "t1"}));
    EXPECT_EQ(timesOf(runs), (Times{200, 100}));
    EXPECT_EQ(runs[0].testId(), m_test3);
    EXPECT_EQ(runs[0].pass(), 3u);
    EXPECT_EQ(runs[0].testGuid(), "tg3");
    EXPECT_EQ(timesOf(m_store.testRunResultLogs(m_script, {}, {}, 2)), (Times{300, 200}));

    auto const events = m_store.testRunEventResultLogs(m_test1, at(101), {}, 0);
    EXPECT_EQ(fieldOf(events, &TestRunEventResultLog::message), (Strings{"m1@400", "m1@250"}));

    auto const tips = m_store.testRunTipResultLogs(m_test1, {}, {}, 1);
    EXPECT_EQ(fieldOf(tips, &TipResultLog::key), (Strings{"k1@400"}));
    EXPECT_EQ(tips[0].extendedText(), "y");

    auto const scriptTips = m_store.scriptRunTipResultLogs(m_script, {}, {}, 0);
    EXPECT_EQ(fieldOf(scriptTips, &TipResultLog::key),
              (Strings{"k1@400", "k2@300", "k1@250", "k2@150", "k1@100"}));
}

TEST_F(KeyedReadersTest, ScriptRunsWithTheirSpecsAndOptionalFilters) {
    long long const repairApp = *m_store.logAppStart("Tool", "jo", "Repair", at(2));
    long long const late =
        *m_store.logScriptStart(repairApp, "PASS", "g'uid", "Ränge", at(50), 7, "<c q='1'/>");
    {
        // A run whose spec row is gone still reads, with an empty script text.
        test::RawDb raw(m_path);
        raw.exec(
            "INSERT INTO ScriptRuns (appId, name, startTime, specId, scriptGuid) "
            "VALUES(" +
            std::to_string(repairApp) + ", 'orphan', 40, 99, 'o')");
    }
    auto const all = m_store.scriptResultLogs({}, {}, {}, {}, {}, 0);
    EXPECT_EQ(fieldOf(all, &ScriptResultLog::name), (Strings{"Ränge", "orphan", "s2", "s1"}));
    EXPECT_EQ(all[0].scriptId(), late);
    EXPECT_EQ(all[0].result(), "PASS");
    EXPECT_EQ(all[0].totalPasses(), 7u);
    EXPECT_EQ(all[0].scriptXml(), "<c q='1'/>");
    EXPECT_EQ(all[0].guid(), "g'uid");
    EXPECT_EQ(all[0].startTime(), at(50));
    EXPECT_EQ(all[1].scriptXml(), "");

    m_store.logScriptFinished(late, "PASS", at(70));
    auto const filtered = m_store.scriptResultLogs(at(41), at(50), String("Repair"),
                                                   String("Ränge"), String("g'uid"), 5);
    ASSERT_EQ(filtered.size(), 1u);
    EXPECT_EQ(filtered[0].endTime(), at(70));
    EXPECT_EQ(fieldOf(m_store.scriptResultLogs({}, {}, String("Scan"), {}, {}, 1),
                      &ScriptResultLog::name),
              (Strings{"s2"}));
    // A zero time point is no bound, also inside an optional.
    EXPECT_EQ(m_store.scriptResultLogs(at(0), at(0), {}, {}, {}, 0).size(), all.size());
    // An optional holding an empty text still filters.
    EXPECT_TRUE(m_store.scriptResultLogs({}, {}, {}, String(""), {}, 0).empty());
    EXPECT_TRUE(m_store.scriptResultLogs({}, {}, {}, {}, String("g''uid"), 0).empty());
}

// ---- Readers without a key ---------------------------------------------------------------

TEST_F(EventQueriesTest, AlertsNewestFirstThenLaterStoredFirst) {
    auto const add = [&](std::string const& guid, std::string const& type, long long t) {
        ASSERT_TRUE(m_store.logAlert(EventDataStore::AlertData{
            1, guid, "k", type, "title", "msg", "dev", at(t), {}, {{"kv", guid}}}));
    };
    add("a", "Disk", 100);
    add("b", "Dïsk's", 300);
    add("c", "Disk", 200);
    add("d", "Disk", 300);
    m_store.markAlertAsTracked("d");

    auto const all = m_store.alertResultLogs({}, {}, "", false, 0);
    EXPECT_EQ(fieldOf(all, &AlertResultLog::guid), (Strings{"d", "b", "c", "a"}));
    EXPECT_EQ(all[0].alertId(), 4);
    EXPECT_EQ(all[1].type(), "Dïsk's");
    EXPECT_EQ(fieldOf(m_store.alertResultLogs({}, {}, "", true, 0), &AlertResultLog::guid),
              (Strings{"b", "c", "a"}));
    EXPECT_EQ(fieldOf(m_store.alertResultLogs({}, {}, "Dïsk's", false, 0), &AlertResultLog::guid),
              (Strings{"b"}));
    EXPECT_EQ(
        fieldOf(m_store.alertResultLogs(at(150), at(299), "", false, 0), &AlertResultLog::guid),
        (Strings{"c"}));
    EXPECT_EQ(fieldOf(m_store.alertResultLogs({}, {}, "Disk", true, 1), &AlertResultLog::guid),
              (Strings{"c"}));

    auto const kvs = m_store.alertKeyValueResultLogs(all[1].alertId());
    ASSERT_EQ(kvs.size(), 1u);
    EXPECT_EQ(kvs[0].key(), "kv");
    EXPECT_EQ(kvs[0].value(), "b");
}

TEST_F(EventQueriesTest, ProfilerDiffsScriptletsAndMeasurements) {
    m_store.logProfilerDiff(1, "Drivers", 100, 3, "d1");
    m_store.logProfilerDiff(1, "Soft'ware", 300, 5, "d2");
    m_store.logProfilerDiff(1, "Drivers", 200, 7, "d3");
    auto const diffs = m_store.profilerDiffLogs({}, {}, "", 0);
    EXPECT_EQ(fieldOf(diffs, &ProfilerDiffLog::serializedDiff), (Strings{"d2", "d3", "d1"}));
    EXPECT_EQ(diffs[1].changesCount(), 7u);
    EXPECT_EQ(timesOf(diffs), (Times{300, 200, 100}));
    EXPECT_EQ(fieldOf(m_store.profilerDiffLogs({}, at(250), "Drivers", 1),
                      &ProfilerDiffLog::serializedDiff),
              (Strings{"d3"}));
    EXPECT_EQ(
        fieldOf(m_store.profilerDiffLogs({}, {}, "Soft'ware", 0), &ProfilerDiffLog::serializedDiff),
        (Strings{"d2"}));

    long long const jo = *m_store.logAppStart("Tool", "jo'e", "t", at(1));
    long long const ann = *m_store.logAppStart("Tool", "ann", "t", at(1));
    m_store.logScriptletResult(jo, "a", "Disk", "PASS", "done", at(100));
    m_store.logScriptletResult(jo, "b", "Disk", "PASS", "done", at(100));
    m_store.logScriptletResult(jo, "c", "Net", "FAIL", "failed", at(300));
    m_store.logScriptletResult(ann, "d", "Disk", "PASS", "done", at(200));
    EXPECT_EQ(fieldOf(m_store.scriptletResultLogs({}, {}, "", "", "", 0), &ScriptletResultLog::key),
              (Strings{"c", "d", "b", "a"}));
    auto const mine = m_store.scriptletResultLogs({}, {}, "jo'e", "Disk", "", 0);
    EXPECT_EQ(fieldOf(mine, &ScriptletResultLog::key), (Strings{"b", "a"}));
    EXPECT_EQ(mine[0].status(), "done");
    EXPECT_EQ(mine[0].result(), "PASS");
    EXPECT_EQ(fieldOf(m_store.scriptletResultLogs(at(150), {}, "", "", "done", 0),
                      &ScriptletResultLog::key),
              (Strings{"d"}));
    EXPECT_EQ(fieldOf(m_store.scriptletResultLogs({}, {}, "", "", "", 2), &ScriptletResultLog::key),
              (Strings{"c", "d"}));
    EXPECT_TRUE(m_store.scriptletResultLogs({}, {}, "nobody", "", "", 0).empty());

    // Oldest first by the span's middle; the range applies to the middle only.
    m_store.logMeasurement("cpu", 50, 300, 310, 1, 1, 1, 1, 1);
    m_store.logMeasurement("cpu", 90, 100, 500, 2, 2, 2, 2, 2);
    m_store.logMeasurement("mem's", 10, 200, 210, 3, 3, 3, 3, 3);
    m_store.logMeasurement("cpu", 100, 400, 410, 4, 4, 4, 4, 4);
    auto const series = m_store.measurementLogs({}, {}, "", 0);
    EXPECT_EQ(fieldOf(series, &MeasurementLog::type), (Strings{"cpu", "mem's", "cpu", "cpu"}));
    std::vector<long long> middles;
    for (auto const& m : series) middles.push_back(secondsOf(m.spanMiddle()));
    EXPECT_EQ(middles, (Times{100, 200, 300, 400}));
    auto const cpu = m_store.measurementLogs(at(100), at(300), "cpu", 0);
    ASSERT_EQ(cpu.size(), 2u);
    EXPECT_EQ(cpu[0].numberOfSamples(), 2u);
    EXPECT_EQ(cpu[1].numberOfSamples(), 1u);
    EXPECT_EQ(m_store.measurementLogs({}, {}, "", 1).at(0).numberOfSamples(), 2u);
    EXPECT_EQ(m_store.measurementLogs({}, {}, "mem's", 0).size(), 1u);
}

// ---- Failures ----------------------------------------------------------------------------

// Whether the "event_store" mutex is held at this moment: its lock file ("<dir>/event_store.lock",
// dir being $ZRN_LOCK_DIR or the temp directory + "/zrn-locks") carries a flock() that a
// second open file description cannot take.
bool eventStoreMutexHeld() {
    std::string dir;
    if (char const* lockDir = std::getenv("ZRN_LOCK_DIR"); lockDir && *lockDir) {
        dir = lockDir;
    } else {
        char const* temp = std::getenv("TMPDIR");
        dir = std::string(temp && *temp ? temp : "/tmp") + "/zrn-locks";
    }
    int const fd = ::open((dir + "/event_store.lock").c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    bool const held = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    if (!held) ::flock(fd, LOCK_UN);
    ::close(fd);
    return held;
}

// Notes, for every defect reported, whether the store's mutex was held while it was.
class MutexProbingCapture : public test::LogCapture {
public:
    void write(String const& loggerName, LoggerPriority::LOGGER_PRIORITY priority,
               String const& message) override {
        if (loggerName == "DEFECT.GENERIC") heldAtDefect.push_back(eventStoreMutexHeld());
        LogCapture::write(loggerName, priority, message);
    }
    std::vector<bool> heldAtDefect;
};

class FailsTest : public EventQueriesTest {
protected:
    // One finished run of `testGuid` on `device`.
    long long run(std::string const& testGuid, std::string const& device, std::string const& result,
                  long long start, long long end) {
        long long const id = *m_store.logTestStart(1, "name of " + testGuid, "Disk", testGuid,
                                                   device, "HDD", "RUNNING", at(start), 1);
        m_store.logTestFinished(id, result, "E" + std::to_string(id), at(end));
        return id;
    }
};

TEST_F(FailsTest, AllFailsByStartTime) {
    run("a", "dev", "FAIL", 100, 110);
    run("b", "dev", "PASS", 200, 210);
    run("c", "dev", "FAIL", 300, 310);
    run("d", "dev", "fail", 400, 410);
    auto const fails = m_store.getAllFails({}, {});
    EXPECT_EQ(fieldOf(fails, &TestRunResultLog::testGuid), (Strings{"c", "a"}));
    EXPECT_EQ(timesOf(fails), (Times{300, 100}));
    EXPECT_EQ(fieldOf(m_store.getAllFails(at(101), at(400)), &TestRunResultLog::testGuid),
              (Strings{"c"}));
}

TEST_F(FailsTest, RecentFailsKeepTestsWhoseNewestDecidingRunFailed) {
    run("passedLast", "dev'1", "FAIL", 100, 110);
    run("passedLast", "dev'1", "PASS", 120, 130);
    run("failedLast", "dev'1", "PASS", 100, 110);
    long long const newestFail = run("failedLast", "dev'1", "FAIL", 120, 140);
    run("failedLast", "dev'1", "ABORTED", 150, 160);  // neither a failure nor a pass
    run("errorOnly", "dev'1", "ERROR", 100, 110);
    run("otherDevice", "dev2", "FAIL", 100, 110);
    run("tooLate", "dev'1", "FAIL", 100, 900);

    auto const fails = m_store.getRecentFails("dev'1", nullptr, nullptr, at(500));
    ASSERT_EQ(fails.size(), 1u);
    EXPECT_EQ(fails[0].testId(), newestFail);
    EXPECT_EQ(fails[0].testGuid(), "failedLast");
    EXPECT_EQ(fails[0].result(), "FAIL");
    EXPECT_EQ(fails[0].errorCode(), "E" + std::to_string(newestFail));
    EXPECT_EQ(fails[0].timeStamp(), at(120));
    EXPECT_TRUE(m_store.getRecentFails("dev1", nullptr, nullptr, at(500)).empty());
    // Up to `until` only: the late run counts once it is in range.
    EXPECT_EQ(fieldOf(m_store.getRecentFails("dev'1", nullptr, nullptr, at(900)),
                      &TestRunResultLog::testGuid),
              (Strings{"tooLate", "failedLast"}));

    // Given lists: ERROR and ABORTED count as failures, FAIL as neither, PASS as a pass.
    std::vector<String> const failures = {"ERROR", "ABORTED"};
    std::vector<String> const passes = {"PASS", "OK"};
    EXPECT_EQ(fieldOf(m_store.getRecentFails("dev'1", &failures, &passes, at(500)),
                      &TestRunResultLog::result),
              (Strings{"ABORTED", "ERROR"}));
    // With a null pass list, PASS still decides against a failure before it.
    std::vector<String> const failOnly = {"FAIL"};
    EXPECT_EQ(fieldOf(m_store.getRecentFails("dev'1", &failOnly, nullptr, at(500)),
                      &TestRunResultLog::testGuid),
              (Strings{"failedLast"}));

    // The defects are reported between the per-test queries: the mutex is held across all
    // of them, so no other writer changes the runs between the list of tests and their runs.
    MutexProbingCapture log;
    std::vector<String> const none;
    EXPECT_TRUE(m_store.getRecentFails("dev'1", &none, nullptr, at(500)).empty());
    EXPECT_EQ(log.heldAtDefect, std::vector<bool>(3, true));
}

}  // namespace
}  // namespace zrn
