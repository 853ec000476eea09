// EventDataStore: schema, versions, lifecycle and run logging, checked through the raw
// sqlite3 API and the captured log.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/HashTable.h>
#include <libDataStore/EventDataStore.h>
#include <sys/stat.h>

#include <boost/optional/optional_io.hpp>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

using Rows = test::RawDb::Rows;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

// Every table's columns and declared types, as a new file must have them.
struct TableSchema {
    char const* table;
    std::vector<std::pair<std::string, std::string>> columns;
};

std::vector<TableSchema> const kSchema = {
    {"Versioning", {{"version", "INTEGER"}}},
    {"ApplicationRuns",
     {{"appId", "INTEGER"},
      {"name", "TEXT"},
      {"typeOfRun", "TEXT"},
      {"userName", "TEXT"},
      {"startTime", "TEXT"},
      {"endTime", "TEXT"}}},
    {"ScriptRuns",
     {{"scriptId", "INTEGER"},
      {"appId", "INTEGER"},
      {"name", "TEXT"},
      {"result", "TEXT"},
      {"startTime", "INTEGER"},
      {"endTime", "INTEGER"},
      {"totalPasses", "INTEGER"},
      {"specId", "INTEGER"},
      {"scriptGuid", "TEXT"}}},
    {"ScriptSpecs", {{"specId", "INTEGER"}, {"scriptXml", "TEXT"}}},
    {"TestRuns",
     {{"testId", "INTEGER"},
      {"scriptId", "INTEGER"},
      {"testName", "TEXT"},
      {"deviceName", "TEXT"},
      {"result", "TEXT"},
      {"startTime", "INTEGER"},
      {"endTime", "INTEGER"},
      {"testGuid", "TEXT"},
      {"deviceGuid", "TEXT"},
      {"deviceType", "TEXT"},
      {"pass", "INTEGER"},
      {"errorCode", "TEXT"}}},
    {"TestRunEvents",
     {{"testId", "INTEGER"},
      {"message", "TEXT"},
      {"type", "TEXT"},
      {"eventCode", "TEXT"},
      {"customerEventCode", "TEXT"},
      {"dateTime", "INTEGER"}}},
    {"TestRunTips",
     {{"testId", "INTEGER"},
      {"key", "TEXT"},
      {"type", "TEXT"},
      {"title", "TEXT"},
      {"text", "TEXT"},
      {"extended_text", "TEXT"},
      {"dateTime", "INTEGER"}}},
    {"AlertTips",
     {{"alertId", "INTEGER"},
      {"key", "TEXT"},
      {"type", "TEXT"},
      {"title", "TEXT"},
      {"text", "TEXT"},
      {"extended_text", "TEXT"},
      {"dateTime", "INTEGER"}}},
    {"AlertKeyValues", {{"alertId", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}}},
    {"ScriptletRuns",
     {{"appId", "INTEGER"},
      {"scriptletKey", "TEXT"},
      {"category", "TEXT"},
      {"result", "TEXT"},
      {"status", "TEXT"},
      {"dateTime", "INTEGER"}}},
    {"Alerts",
     {{"appId", "INTEGER"},
      {"guid", "TEXT"},
      {"key", "TEXT"},
      {"type", "TEXT"},
      {"title", "TEXT"},
      {"message", "TEXT"},
      {"deviceName", "TEXT"},
      {"dateTime", "INTEGER"},
      {"tracked", "INTEGER"}}},
    {"ProfilerDiffs",
     {{"diffId", "INTEGER"},
      {"appId", "INTEGER"},
      {"category", "TEXT"},
      {"dateTime", "INTEGER"},
      {"numberOfChanges", "TEXT"},
      {"serializedDiff", "TEXT"}}},
    {"Measurements",
     {{"type", "TEXT"},
      {"spanStartTime", "INTEGER"},
      {"spanEndTime", "INTEGER"},
      {"spanMiddleTime", "INTEGER"},
      {"maximum", "REAL"},
      {"minimum", "REAL"},
      {"average", "REAL"},
      {"median", "REAL"},
      {"numberOfSamples", "INTEGER"}}},
};

// The 34 index names in creation order, blanks included.
std::vector<std::string> const kIndexNames = {
    "ApplicationRunsstartTime ASC",
    "ApplicationRunsstartTime DESC",
    "ApplicationRunsendTime ASC",
    "ApplicationRunsendTime DESC",
    "appId-scriptId",
    "ScriptRunsstartTime ASC",
    "ScriptRunsstartTime DESC",
    "ScriptRunsendTime ASC",
    "ScriptRunsendTime DESC",
    "scriptId-testId",
    "TestRunsstartTime ASC",
    "TestRunsstartTime DESC",
    "TestRunsendTime ASC",
    "TestRunsendTime DESC",
    "TestRunstestGuid ",
    "TestRunsdeviceGuid ",
    "TestRunEventstestId ",
    "TestRunEventsdateTime ASC",
    "TestRunEventsdateTime DESC",
    "TestRunTipstestId ",
    "TestRunTipsdateTime ASC",
    "TestRunTipsdateTime DESC",
    "AlertTipsalertId ",
    "AlertTipsdateTime ASC",
    "AlertTipsdateTime DESC",
    "AlertKeyValuesalertId ",
    "ScriptletRunsappId ",
    "ScriptletRunsdateTime ASC",
    "ScriptletRunsdateTime DESC",
    "AlertsappId ",
    "Alertsguid ",
    "AlertsdateTime ASC",
    "AlertsdateTime DESC",
    "MeasurementsspanMiddleTime ASC",
};

Rows schemaObjects(test::RawDb& raw) {
    return raw.query("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY rowid");
}

Rows tableInfo(test::RawDb& raw, std::string const& table) {
    return raw.query("SELECT name, type FROM pragma_table_info('" + table + "') ORDER BY cid");
}

// Every row of every table of the store, for "nothing changed" checks.
std::vector<Rows> allRows(test::RawDb& raw) {
    std::vector<Rows> rows;
    for (auto const& t : kSchema) {
        rows.push_back(
            raw.query(std::string("SELECT rowid, * FROM ") + t.table + " ORDER BY rowid"));
    }
    return rows;
}

std::string messagesOf(test::LogCapture const& log, std::string const& logger, int priority) {
    std::string all;
    for (auto const& e : log.entries()) {
        if (e.logger == logger && e.priority == priority) all += e.message + "\n";
    }
    return all;
}

class EventDataStoreTest : public ::testing::Test {
protected:
    test::TempDir m_dir;
    std::string const m_path = m_dir.file("event.db");
};

// ---- Schema and versions -----------------------------------------------------------------

TEST_F(EventDataStoreTest, NewFileHasTablesTypesIndexesAndVersionThree) {
    {
        EventDataStore store{String(m_path)};
        EXPECT_EQ(store.getVersion(), 3);
    }
    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT version FROM Versioning"), (Rows{{"3"}}));

    Rows const tables =
        raw.query("SELECT name FROM sqlite_master WHERE type='table' ORDER BY rowid");
    std::vector<std::string> tableNames;
    for (auto const& row : tables) tableNames.push_back(row[0]);
    EXPECT_EQ(tableNames, (std::vector<std::string>{
                              "Versioning", "ApplicationRuns", "ScriptRuns", "ScriptSpecs",
                              "TestRuns", "TestRunEvents", "TestRunTips", "ScriptletRuns", "Alerts",
                              "AlertKeyValues", "AlertTips", "ProfilerDiffs", "Measurements"}));

    for (auto const& t : kSchema) {
        Rows expected;
        for (auto const& c : t.columns) expected.push_back({c.first, c.second});
        EXPECT_EQ(tableInfo(raw, t.table), expected) << t.table;
    }
    // The declared types beyond the affinity word.
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE name='Alerts'"),
              "CREATE TABLE `Alerts` (`appId` INTEGER,`guid` TEXT,`key` TEXT,`type` TEXT,"
              "`title` TEXT,`message` TEXT,`deviceName` TEXT,`dateTime` INTEGER,"
              "`tracked` INTEGER DEFAULT 1)");
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE name='ApplicationRuns'"),
              "CREATE TABLE `ApplicationRuns` (`appId` INTEGER PRIMARY KEY,`name` TEXT,"
              "`typeOfRun` TEXT,`userName` TEXT,`startTime` TEXT,`endTime` TEXT)");

    Rows const indexes = raw.query(
        "SELECT name, sql FROM sqlite_master WHERE type='index' AND sql IS NOT NULL ORDER BY "
        "rowid");
    std::vector<std::string> indexNames;
    for (auto const& row : indexes) indexNames.push_back(row[0]);
    EXPECT_EQ(indexNames, kIndexNames);
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE name='ApplicationRunsstartTime ASC'"),
              "CREATE INDEX 'ApplicationRunsstartTime ASC' ON `ApplicationRuns` (`startTime` ASC)");
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE name='appId-scriptId'"),
              "CREATE UNIQUE INDEX 'appId-scriptId' ON `ScriptRuns` (`appId`, `scriptId`)");
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE name='TestRunstestGuid '"),
              "CREATE INDEX 'TestRunstestGuid ' ON `TestRuns` (`testGuid` )");
}

TEST_F(EventDataStoreTest, ReopeningChangesNothingButTheVersionRow) {
    { EventDataStore first{String(m_path)}; }
    Rows before;
    {
        test::RawDb raw(m_path);
        before = schemaObjects(raw);
        raw.exec("UPDATE Versioning SET version = 3");
    }
    test::LogCapture log;
    {
        EventDataStore again{String(m_path)};
        EXPECT_EQ(again.getVersion(), 3);
    }
    test::RawDb raw(m_path);
    EXPECT_EQ(schemaObjects(raw), before);
    EXPECT_EQ(raw.query("SELECT version FROM Versioning"), (Rows{{"3"}}));
    EXPECT_TRUE(log.messagesStartingWith("libDataStore.SQLiteDataStore", "159 ").empty());
    EXPECT_TRUE(log.messagesStartingWith("libDataStore.EventDataStore", "546 ").empty());
}

TEST_F(EventDataStoreTest, VersionsOneAndTwoGetScriptGuidAsString) {
    for (int version : {1, 2}) {
        std::string const path = m_dir.file("v" + std::to_string(version) + ".db");
        {
            test::RawDb raw(path);
            raw.exec(
                "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"
                "INSERT INTO Versioning VALUES(" +
                std::to_string(version) +
                ");"
                "CREATE TABLE `ScriptRuns` (`scriptId` INTEGER PRIMARY KEY,`appId` INTEGER,"
                "`name` TEXT,`result` TEXT,`startTime` INTEGER,`endTime` INTEGER,"
                "`totalPasses` INTEGER,`specId` INTEGER);"
                "INSERT INTO ScriptRuns (appId, name) VALUES(1, 'old run');");
        }
        test::LogCapture log;
        {
            EventDataStore store{String(path)};
            EXPECT_EQ(store.getVersion(), 3) << version;
        }
        test::RawDb raw(path);
        EXPECT_EQ(raw.query("SELECT name, type FROM pragma_table_info('ScriptRuns') "
                            "WHERE name='scriptGuid'"),
                  (Rows{{"scriptGuid", "STRING"}}))
            << version;
        EXPECT_EQ(raw.query("SELECT version FROM Versioning"), (Rows{{"3"}})) << version;
        EXPECT_EQ(raw.query("SELECT scriptId, name, scriptGuid FROM ScriptRuns"),
                  (Rows{{"1", "old run", "<NULL>"}}))
            << version;
        EXPECT_EQ(messagesOf(log, "libDataStore.EventDataStore", 2),
                  "546 Updating ScriptRuns table to version 3\n")
            << version;
        // The upgrade added the column, so the table layer had nothing to add to ScriptRuns.
        for (auto const& m : log.messagesStartingWith("libDataStore.SQLiteDataStore", "159 ")) {
            EXPECT_EQ(m.find("ScriptRuns"), std::string::npos) << m;
        }
    }
}

TEST_F(EventDataStoreTest, LaterVersionIsWrittenBackToThreeWithoutUpgrade) {
    {
        test::RawDb raw(m_path);
        raw.exec(
            "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"
            "INSERT INTO Versioning VALUES(7);"
            "CREATE TABLE `ScriptRuns` (`scriptId` INTEGER PRIMARY KEY,`appId` INTEGER);");
    }
    test::LogCapture log;
    {
        EventDataStore store{String(m_path)};
        EXPECT_EQ(store.getVersion(), 3);
    }
    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT version FROM Versioning"), (Rows{{"3"}}));
    EXPECT_TRUE(log.messagesStartingWith("libDataStore.EventDataStore", "546 ").empty());
    // Only the table layer's migration added the column, with its declared type.
    EXPECT_EQ(raw.query("SELECT type FROM pragma_table_info('ScriptRuns') WHERE name='scriptGuid'"),
              (Rows{{"TEXT"}}));
}

TEST_F(EventDataStoreTest, MissingOrEmptyVersionReadsMinusOne) {
    {
        // An old file whose version column is text may hold an empty cell: it reads as no
        // version, so opening adds a 3 after it, and the first row still decides.
        test::RawDb raw(m_path);
        raw.exec("CREATE TABLE `Versioning` (`version` TEXT); INSERT INTO Versioning VALUES('');");
    }
    {
        EventDataStore store{String(m_path)};
        EXPECT_EQ(store.getVersion(), -1);
    }
    {
        test::RawDb raw(m_path);
        EXPECT_EQ(raw.query("SELECT version FROM Versioning ORDER BY rowid"), (Rows{{""}, {"3"}}));
    }

    std::string const other = m_dir.file("other.db");
    EventDataStore store{String(other)};
    test::RawDb raw(other);
    raw.exec("DELETE FROM Versioning");
    EXPECT_EQ(store.getVersion(), -1);
}

// ---- Lifecycle and faults ----------------------------------------------------------------

TEST_F(EventDataStoreTest, UnopenableFilesThrowAndCreateReturnsEmpty) {
    std::string const notADatabase = m_dir.file("notes.db");
    std::string const content = "These are not the pages of a database, just some text.\n";
    test::writeFile(notADatabase, content);
    std::string const inMissingDir = m_dir.file("missing/event.db");

    for (std::string const& path : {notADatabase, inMissingDir}) {
        EXPECT_THROW(EventDataStore{String(path)}, DatabaseError) << path;

        test::LogCapture log;
        EXPECT_EQ(EventDataStore::create(String(path)), nullptr) << path;
        std::vector<std::string> const errors = log.messagesStartingWith(
            "libDataStore.EventDataStore",
            "488 Error occurred attempting to create EventDataStore from file path: '" + path +
                "': ");
        ASSERT_EQ(errors.size(), 1u) << path;
        EXPECT_NE(errors[0].find(path), std::string::npos);
    }
    EXPECT_EQ(test::readFile(notADatabase), content);
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("missing")));

    auto const good = EventDataStore::create(String(m_dir.file("good.db")));
    ASSERT_NE(good, nullptr);
    EXPECT_EQ(good->getVersion(), 3);
}

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

TEST_F(EventDataStoreTest, ConstructionAndDestructionAreTraced) {
    test::LogCapture log;
    std::ostringstream hex;
    {
        EventDataStore store{String(m_path)};
        hex << static_cast<void const*>(&store);
    }
    std::vector<std::string> const traces = log.messages("libDataStore.EventDataStore");
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_EQ(traces[0], "480 EventDataStore(" + m_path + ") this: " + hex.str());
    EXPECT_EQ(traces[1], "620 ~EventDataStore() this: " + hex.str());
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

TEST_F(EventDataStoreTest, CheckValidityNamesTheFirstTableAndCloseIsFinal) {
    EventDataStore store{String(m_path)};
    String error("untouched");
    EXPECT_TRUE(store.checkValidity(error));
    EXPECT_EQ(error, "untouched");

    std::filesystem::rename(m_path, m_path + ".moved");
    EXPECT_FALSE(store.checkValidity(error));
    EXPECT_EQ(error, "m_appDataStore: Database file does not exist");
    std::filesystem::rename(m_path + ".moved", m_path);

    store.close();
    store.close();  // harmless
    EXPECT_FALSE(store.checkValidity(error));
    EXPECT_EQ(error, "m_appDataStore: Database is not open");
    EXPECT_THROW(store.logAppStart("a", "b", "c", at(1)), DatabaseError);
    EXPECT_THROW(store.getVersion(), DatabaseError);
}

// ---- Run logging -------------------------------------------------------------------------

TEST_F(EventDataStoreTest, ApplicationRunsAreStoredIntactAndUpdatedById) {
    EventDataStore store{String(m_path)};
    auto const id = store.logAppStart("Tool", "Jo", "Interactive", at(1700000000));
    ASSERT_TRUE(id);
    EXPECT_EQ(*id, 1);
    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT appId, name, userName, typeOfRun, startTime, typeof(startTime), "
                        "endTime FROM ApplicationRuns"),
              (Rows{{"1", "Tool", "Jo", "Interactive", "1700000000", "text", "<NULL>"}}));

    std::string const quoted = "O'Brien's ''tool'' -- ; DROP TABLE x";
    std::string const unicode = "Jörg Müller 日本語 ✓";
    auto const second = store.logAppStart(quoted, unicode, "it's", at(-5));
    ASSERT_TRUE(second);
    EXPECT_EQ(*second, 2);
    store.logAppStop(*second, at(1700000100));
    store.setAppName(1, unicode);
    store.setAppUser(1, quoted);
    store.setTypeOfAppRun(1, "Sched'uled");
    EXPECT_EQ(raw.query("SELECT appId, name, userName, typeOfRun, startTime, endTime "
                        "FROM ApplicationRuns ORDER BY appId"),
              (Rows{{"1", unicode, quoted, "Sched'uled", "1700000000", "<NULL>"},
                    {"2", quoted, unicode, "it's", "-5", "1700000100"}}));
}

TEST_F(EventDataStoreTest, MissingIdsChangeNothingAndAreReportedAsDefects) {
    EventDataStore store{String(m_path)};
    auto const app = store.logAppStart("a", "u", "t", at(1));
    auto const script = store.logScriptStart(*app, "R", "G", "N", at(2), 1, "<x/>");
    auto const testId = store.logTestStart(*script, "t", "d", "tg", "dg", "dt", "R", at(3), 1);
    ASSERT_TRUE(app && script && testId);
    test::RawDb raw(m_path);
    std::vector<Rows> const before = allRows(raw);

    test::LogCapture log;
    long long const missing = 4242;
    store.logAppStop(missing, at(9));
    store.setAppName(missing, "n");
    store.setAppUser(missing, "u");
    store.setTypeOfAppRun(missing, "t");
    store.logScriptFinished(missing, "PASS", at(9));
    store.setScriptName(missing, "n");
    store.setScriptResult(missing, "r");
    store.logTestFinished(missing, "PASS", "0", at(9));
    EXPECT_FALSE(store.logTestInitialized(missing, "INIT", at(9)));

    EXPECT_EQ(allRows(raw), before);
    EXPECT_EQ(messagesOf(log, "DEFECT.GENERIC", 4),
              "logAppStop() id does not exist: 4242\n"
              "setAppName() id does not exist: 4242\n"
              "setAppUser() id does not exist: 4242\n"
              "setTypeOfAppRun() id does not exist: 4242\n"
              "logScriptFinished() id does not exist: 4242\n"
              "setScriptName() id does not exist: 4242\n"
              "setScriptResult() id does not exist: 4242\n"
              "logTestFinished() id does not exist: 4242\n");
    EXPECT_EQ(messagesOf(log, "libDataStore.EventDataStore", 4),
              "932 logTestInitialized() test id: 4242 does not exist\n");
}

TEST_F(EventDataStoreTest, ScriptRunsShareSpecsOfIdenticalXml) {
    EventDataStore store{String(m_path)};
    std::string const xml = "<script name='a'>\n  <step>ü</step>\n</script>";
    auto const first = store.logScriptStart(7, "RESULT", "GUID-1", "NAME", at(100), 3, xml);
    auto const second = store.logScriptStart(7, "R2", "GUID-2", "N2", at(200), 4, xml);
    auto const third = store.logScriptStart(8, "R3", "GUID-3", "N3", at(300), 5, xml + " ");
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(*first, 1);
    EXPECT_EQ(*second, 2);
    EXPECT_EQ(*third, 3);

    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT specId, scriptXml FROM ScriptSpecs ORDER BY specId"),
              (Rows{{"1", xml}, {"2", xml + " "}}));
    // The first text is the result, the second the GUID, the third the name.
    EXPECT_EQ(
        raw.query("SELECT scriptId, appId, name, result, startTime, typeof(startTime), "
                  "endTime, totalPasses, specId, scriptGuid FROM ScriptRuns ORDER BY scriptId"),
        (Rows{{"1", "7", "NAME", "RESULT", "100", "integer", "<NULL>", "3", "1", "GUID-1"},
              {"2", "7", "N2", "R2", "200", "integer", "<NULL>", "4", "1", "GUID-2"},
              {"3", "8", "N3", "R3", "300", "integer", "<NULL>", "5", "2", "GUID-3"}}));

    store.logScriptFinished(2, "PA'SS", at(250));
    store.setScriptName(1, "renamed");
    store.setScriptResult(3, "FAIL");
    EXPECT_EQ(
        raw.query("SELECT name, result, endTime FROM ScriptRuns ORDER BY scriptId"),
        (Rows{{"renamed", "RESULT", "<NULL>"}, {"N2", "PA'SS", "250"}, {"N3", "FAIL", "<NULL>"}}));
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

TEST_F(EventDataStoreTest, TestRunsEventsAndTipsReadBack) {
    EventDataStore store{String(m_path)};
    auto const first = store.logTestStart(3, "Disk 'surface'", "Disk 0", "tg-1", "dg-1", "HDD",
                                          "RUNNING", at(1000), 2);
    auto const second = store.logTestInitializing(3, "Memory", "DIMM ä", "tg-2", "dg-2", "RAM",
                                                  "INITIALIZING", at(1001), 1);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(*second, *first + 1);

    EXPECT_TRUE(store.logTestInitialized(*second, "RUNNING", at(1005)));
    store.logTestFinished(*first, "FAIL", "E'12", at(1010));

    test::RawDb raw(m_path);
    EXPECT_EQ(raw.query("SELECT testId, scriptId, testName, deviceName, result, startTime, "
                        "endTime, testGuid, deviceGuid, deviceType, pass, errorCode "
                        "FROM TestRuns ORDER BY testId"),
              (Rows{{"1", "3", "Disk 'surface'", "Disk 0", "FAIL", "1000", "1010", "tg-1", "dg-1",
                     "HDD", "2", "E'12"},
                    {"2", "3", "Memory", "DIMM ä", "RUNNING", "1005", "<NULL>", "tg-2", "dg-2",
                     "RAM", "1", "<NULL>"}}));

    test::LogCapture log;
    // Neither an event nor a tip requires its test run to exist.
    store.logTestRunEvent(99, "it's hot", "warning", "E1", "C'1", at(1007));
    store.logTestRunTip(*first, "k'ey", "type", "title", "text ✓", "more text", at(1008));
    EXPECT_EQ(raw.query("SELECT testId, message, type, eventCode, customerEventCode, dateTime, "
                        "typeof(dateTime) FROM TestRunEvents"),
              (Rows{{"99", "it's hot", "warning", "E1", "C'1", "1007", "integer"}}));
    EXPECT_EQ(raw.query("SELECT testId, key, type, title, text, extended_text, dateTime "
                        "FROM TestRunTips"),
              (Rows{{"1", "k'ey", "type", "title", "text ✓", "more text", "1008"}}));
    // Both went through the table layer's append, with every column and quotes doubled.
    std::vector<std::string> const appends =
        log.messagesStartingWith("libDataStore.SQLiteDataStore", "227 Append SQL Command: ");
    ASSERT_EQ(appends.size(), 2u);
    // Columns in the order a HashTable row of these entries, inserted in this order, lists
    // them: the order these statements have always had.
    auto const expected = [](char const* table,
                             std::vector<std::pair<char const*, char const*>> const& cells) {
        HashTable<String, String> row;
        for (auto const& cell : cells) row.insert(cell.first, cell.second);
        std::string names;
        std::string values;
        for (auto const& entry : row) {
            names += (names.empty() ? "`" : ",`") + entry.first.str() + "`";
            values += (values.empty() ? "" : ",") + entry.second.str();
        }
        return "227 Append SQL Command: INSERT OR REPLACE INTO `" + std::string(table) + "` (" +
               names + ") VALUES(" + values + ")";
    };
    EXPECT_EQ(appends[0], expected("TestRunEvents", {{"testId", "'99'"},
                                                     {"message", "'it''s hot'"},
                                                     {"type", "'warning'"},
                                                     {"eventCode", "'E1'"},
                                                     {"customerEventCode", "'C''1'"},
                                                     {"dateTime", "'1007'"}}));
    EXPECT_EQ(appends[1], expected("TestRunTips", {{"testId", "'1'"},
                                                   {"key", "'k''ey'"},
                                                   {"type", "'type'"},
                                                   {"title", "'title'"},
                                                   {"text", "'text ✓'"},
                                                   {"extended_text", "'more text'"},
                                                   {"dateTime", "'1008'"}}));
    EXPECT_TRUE(log.messagesStartingWith("libDataStore.SQLiteDataStore", "204 ").empty());
}

// ---- Several processes -------------------------------------------------------------------

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
