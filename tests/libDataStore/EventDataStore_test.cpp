// EventDataStore: what the catalogue (EventCatalogue_test) does not show: files left alone by
// a failed opening, ids SQLite hands out, copies, and several processes on one file.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>

#include <boost/optional/optional_io.hpp>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

using Rows = test::RawDb::Rows;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

class EventDataStoreTest : public ::testing::Test {
protected:
    test::TempDir m_dir;
    std::string const m_path = m_dir.file("event.db");
};

// ---- Opening (the statements and messages of every path are in EventCatalogue_test) ----------

TEST_F(EventDataStoreTest, FailureWhilePreparingLeavesAGoodFileUntouched) {
    {
        // Another program of the suite made a table whose name an index of this store needs:
        // the index statement, late in the transaction, fails.
        test::RawDb raw(m_path);
        raw.exec(
            "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"
            "INSERT INTO Versioning VALUES(2);"
            "CREATE TABLE `ScriptRuns` (`scriptId` INTEGER PRIMARY KEY,`appId` INTEGER);"
            "INSERT INTO ScriptRuns VALUES(4, 2);"
            "CREATE TABLE `Alertsguid ` (x);");
    }
    std::string const before = test::readFile(m_path);
    EXPECT_THROW(EventDataStore{String(m_path)}, DatabaseError);
    EXPECT_EQ(test::readFile(m_path), before);

    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT name FROM sqlite_master ORDER BY rowid"),
              (Rows{{"Versioning"}, {"ScriptRuns"}, {"Alertsguid "}}));
    EXPECT_EQ(raw.query("SELECT version FROM Versioning"), (Rows{{"2"}}));
    // The lock went with the failed constructor: another store can open a file at once.
    EventDataStore other{String(m_dir.file("other.db"))};
    EXPECT_EQ(other.getVersion(), 3);
}

// Another program's ScriptRuns may have scriptGuid anywhere, first included: every column is
// looked at before the version-3 upgrade adds one.
TEST_F(EventDataStoreTest, UpgradeFindsAScriptGuidColumnInAnyPlace) {
    {
        test::RawDb raw(m_path);
        raw.exec(
            "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"
            "INSERT INTO Versioning VALUES(2);"
            "CREATE TABLE `ScriptRuns` (`scriptGuid` TEXT,`scriptId` INTEGER PRIMARY KEY);");
    }
    EventDataStore store{String(m_path)};
    EXPECT_EQ(store.getVersion(), 3);
    test::RawDb raw(m_path);
    // The columns it lacked, added; scriptGuid kept once.
    EXPECT_EQ(raw.scalar("SELECT group_concat(name) FROM pragma_table_info('ScriptRuns')"),
              "scriptGuid,scriptId,appId,name,result,startTime,endTime,totalPasses,specId");
}

TEST_F(EventDataStoreTest, CopyOpensItsOwnStoreOnAnEmptyPath) {
    EventDataStore original{String(m_path)};
    EventDataStore copy(original);
    EXPECT_EQ(copy.getVersion(), 3);
    ASSERT_TRUE(copy.logAppStart("copy", "u", "t", at(5)));

    test::RawDb raw(m_path);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM ApplicationRuns"), "0");

    original.close();
    String error;
    EXPECT_TRUE(copy.checkValidity(error)) << error;
    EXPECT_TRUE(copy.logAppStart("copy", "u", "t", at(6)));
}

TEST_F(EventDataStoreTest, ScriptRunsShareSpecsOfIdenticalXmlOnly) {
    EventDataStore store{String(m_path)};
    std::string const xml = "<script name='a'>\n  <step>ü</step>\n</script>";
    EXPECT_EQ(store.logScriptStart(7, "R1", "G1", "N1", at(100), 3, xml), 1LL);
    EXPECT_EQ(store.logScriptStart(7, "R2", "G2", "N2", at(200), 4, xml), 2LL);
    EXPECT_EQ(store.logScriptStart(8, "R3", "G3", "N3", at(300), 5, xml + " "), 3LL);
    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT specId, scriptXml FROM ScriptSpecs ORDER BY specId"),
              (Rows{{"1", xml}, {"2", xml + " "}}));
    EXPECT_EQ(raw.query("SELECT specId FROM ScriptRuns ORDER BY scriptId"),
              (Rows{{"1"}, {"1"}, {"2"}}));
}

TEST_F(EventDataStoreTest, AlertQuestionsAnswerNoForAMissingAlertOrOneWithoutKeyValues) {
    EventDataStore store{String(m_path)};
    ASSERT_TRUE(store.logAlerts(
        {EventDataStore::AlertData{1, "kv", "k", "t", "ti", "m", "d", at(1), {}, {{"a", "b"}}},
         EventDataStore::AlertData{1, "plain", "k", "t", "ti", "m", "d", at(2), {}, {}}}));
    EXPECT_TRUE(store.alertExistsWithKeyVals("kv"));
    EXPECT_FALSE(store.alertExistsWithKeyVals("plain"));
    EXPECT_FALSE(store.alertExistsWithKeyVals("missing"));
    EXPECT_TRUE(store.alertExists("plain"));
    EXPECT_FALSE(store.alertExists("missing"));
}

TEST_F(EventDataStoreTest, NonPositiveInsertIdsGiveEmptyOrZeroResults) {
    EventDataStore store{String(m_path)};
    {
        // Rows imported with negative ids make SQLite hand out the next id below 1.
        test::RawDb raw(m_path);
        raw.exec(
            "INSERT INTO ApplicationRuns (appId, name) VALUES(-10, 'imported');"
            "INSERT INTO ScriptSpecs (specId, scriptXml) VALUES(-10, '<old/>');"
            "INSERT INTO TestRuns (testId, testName) VALUES(-10, 'imported');");
    }
    EXPECT_EQ(store.logAppStart("a", "b", "c", at(1)), boost::none);

    // The ScriptSpecs insert got no usable id: an engaged 0, and no run is recorded.
    auto const script = store.logScriptStart(1, "R", "G", "N", at(1), 1, "<new/>");
    ASSERT_TRUE(script);
    EXPECT_EQ(*script, 0);
    // An existing spec is reused whatever its id, and the run insert gives a real id.
    auto const reused = store.logScriptStart(1, "R", "G", "N", at(1), 1, "<old/>");
    ASSERT_TRUE(reused);
    EXPECT_EQ(*reused, 1);

    EXPECT_EQ(store.logTestStart(1, "t", "d", "g", "dg", "dt", "R", at(1), 1), boost::none);

    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT specId, scriptXml FROM ScriptSpecs ORDER BY specId"),
              (Rows{{"-10", "<old/>"}, {"-9", "<new/>"}}));
    EXPECT_EQ(raw.query("SELECT scriptId, specId FROM ScriptRuns"), (Rows{{"1", "-10"}}));
}

TEST_F(EventDataStoreTest, SeveralProcessesOpenAndLogOneNewFileTogether) {
    // Opening a new file runs a write transaction that begins with reads; without the
    // process-wide mutex, two such transactions deadlock and one fails at once.
    std::string const start = m_dir.file("go");
    int const processes = 4;
    int const perProcess = 25;
    std::vector<int> status(processes, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < processes; ++i) {
        threads.emplace_back([&, i] {
            status[i] = test::runProcess(
                {CHILD_PATH, m_path, start, std::to_string(perProcess), "p" + std::to_string(i)});
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    test::writeFile(start, "go");
    for (auto& t : threads) t.join();
    for (int i = 0; i < processes; ++i) EXPECT_EQ(status[i], 0) << "child " << i;

    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT version FROM Versioning"), (Rows{{"3"}}));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM ApplicationRuns"), std::to_string(processes));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM ScriptSpecs"), "1");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM TestRuns WHERE result = 'PASS'"),
              std::to_string(processes * perProcess));
    // Every event landed on a test run of its own process: the insert and the id read that
    // followed it were never interleaved.
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM TestRunEvents e JOIN TestRuns t "
                         "ON t.testId = e.testId AND t.testGuid = e.message"),
              std::to_string(processes * perProcess));
}

}  // namespace
}  // namespace zrn
