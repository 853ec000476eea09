// Retention: pruneBefore / prunableBefore of the event, general and software-diagnostics
// stores, checked on real files read back with the raw sqlite3 API.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/PruneResult.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>
#include <libDataStore/StoreBatch.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

using test::RawDb;
using test::TempDir;

constexpr long long kDay = 86400;
constexpr long long kFirstDay = 1700000000;  // 2023-11-14

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

long long count(RawDb& db, std::string const& table) {
    return std::stoll(db.scalar("SELECT COUNT(*) FROM `" + table + "`"));
}

// Rows of `child` whose `childKey` names no row of `parent` (by `parentKey`).
long long orphans(RawDb& db, std::string const& child, std::string const& childKey,
                  std::string const& parent, std::string const& parentKey) {
    return std::stoll(db.scalar("SELECT COUNT(*) FROM `" + child +
                                "` c WHERE NOT EXISTS "
                                "(SELECT 1 FROM `" +
                                parent + "` p WHERE p.`" + parentKey + "` = c.`" + childKey +
                                "`)"));
}

std::map<std::string, long long> asMap(PruneResult const& result) {
    std::map<std::string, long long> rows;
    for (auto const& table : result.tables) rows[table.name.str()] = table.rows;
    return rows;
}

// One application run a day for `days` days, each with a script (the XML of even days is
// shared), two tests, their events and tips, an alert with key/values and tips, a scriptlet
// result, a profiler diff (large, so removing it frees pages) and a measurement.
void recordDays(EventDataStore& store, int days) {
    for (int day = 0; day < days; ++day) {
        long long const t = kFirstDay + day * kDay;
        long long const app = *store.logAppStart("app", "user", "scheduled", at(t));
        String const xml = day % 2 == 0
                               ? String("<shared/>")
                               : String(("<day>" + std::to_string(day) + "</day>").c_str());
        long long const script =
            *store.logScriptStart(app, "RUNNING", "guid", "script", at(t + 1), 1, xml);
        for (int i = 0; i < 2; ++i) {
            long long const testId = *store.logTestStart(script, "test", "disk", "tg", "dg", "Disk",
                                                         "RUNNING", at(t + 2), 1);
            store.logTestRunEvent(testId, "message", "INFO", "E1", "C1", at(t + 3));
            store.logTestRunTip(testId, "key", "type", "title", "text", "more", at(t + 3));
            store.logTestFinished(testId, "FAIL", "7", at(t + 4));
        }
        EventDataStore::AlertData alert;
        alert.appId = app;
        alert.guid = String(("alert-" + std::to_string(day)).c_str());
        alert.type = "SMART";
        alert.time = at(t + 5);
        alert.keyValues = {{"a", "1"}, {"b", "2"}};
        alert.tips = {TipResultLog("k", "t", "title", "text", "more", at(t + 5))};
        ASSERT_TRUE(store.logAlert(alert));
        store.logScriptletResult(app, "k", "cat", "ok", "done", at(t + 6));
        store.logProfilerDiff(app, "cat", t + 7, 1, String(std::string(20000, 'x').c_str()));
        store.logMeasurement("cpu", static_cast<unsigned>(t), static_cast<unsigned>(t + 30),
                             static_cast<unsigned>(t + 60), 2, 1, 1.5, 1.5, 3);
        store.logAppStop(app, at(t + 100));
    }
}

TEST(PruneTest, EventStoreRemovesOldRunsWithEverythingUnderThemAndLeavesNoOrphan) {
    TempDir dir;
    std::string const path = dir.file("event.db");
    {
        EventDataStore store(path);
        recordDays(store, 5);
        // An alert whose run was never recorded, from before the cutoff, and one after it.
        EventDataStore::AlertData stray;
        stray.appId = 999;
        stray.guid = "stray-old";
        stray.time = at(kFirstDay);
        stray.keyValues = {{"k", "v"}};
        ASSERT_TRUE(store.logAlert(stray));
        stray.guid = "stray-new";
        stray.time = at(kFirstDay + 4 * kDay);
        ASSERT_TRUE(store.logAlert(stray));
    }
    EventTimePoint const cutoff = at(kFirstDay + 2 * kDay);
    std::map<std::string, long long> const expected = {
        {"TestRunEvents", 4}, {"TestRunTips", 4},    {"TestRuns", 4},        {"ScriptRuns", 2},
        {"ScriptSpecs", 1},   {"AlertKeyValues", 5}, {"AlertTips", 2},       {"Alerts", 3},
        {"ScriptletRuns", 2}, {"ProfilerDiffs", 2},  {"ApplicationRuns", 2}, {"Measurements", 2}};

    // The dry run, from a writing store and from a read-only one, counts without writing.
    {
        EventDataStore store(path);
        std::string const opened = test::readFile(path);
        EXPECT_EQ(asMap(store.prunableBefore(cutoff)), expected);
        EXPECT_EQ(test::readFile(path), opened);
        EventDataStore reader(path, ReadOnly{});
        PruneResult const dry = reader.prunableBefore(cutoff);
        EXPECT_EQ(asMap(dry), expected);
        EXPECT_EQ(dry.total(), 33);
        EXPECT_EQ(dry.rows("Alerts"), 3);
        EXPECT_EQ(dry.rows("NoSuchTable"), 0);
        EXPECT_EQ(dry.tables.front().name, "TestRunEvents");  // children first
        EXPECT_EQ(dry.tables.back().name, "Measurements");
        EXPECT_THROW(reader.pruneBefore(cutoff), DatabaseError);
    }
    {
        RawDb raw(path, true);
        EXPECT_EQ(raw.scalar("PRAGMA freelist_count"), "0");
    }

    {
        EventDataStore store(path);
        EXPECT_EQ(asMap(store.pruneBefore(cutoff)), expected);
        // Nothing is left to prune: the counts were exact.
        EXPECT_EQ(store.prunableBefore(cutoff).total(), 0);
    }
    RawDb raw(path, true);
    EXPECT_EQ(count(raw, "ApplicationRuns"), 3);
    EXPECT_EQ(raw.scalar("SELECT MIN(CAST(startTime AS INTEGER)) FROM ApplicationRuns"),
              std::to_string(kFirstDay + 2 * kDay));
    EXPECT_EQ(count(raw, "TestRuns"), 6);
    EXPECT_EQ(count(raw, "TestRunEvents"), 6);
    EXPECT_EQ(count(raw, "Alerts"), 4);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM Alerts WHERE guid = 'stray-new'"), "1");
    EXPECT_EQ(count(raw, "AlertKeyValues"), 7);
    EXPECT_EQ(count(raw, "Measurements"), 3);
    // <shared/> is still used by day 2 and 4; day 1's own XML went, day 3's stayed.
    EXPECT_EQ(raw.query("SELECT scriptXml FROM ScriptSpecs ORDER BY specId"),
              (RawDb::Rows{{"<shared/>"}, {"<day>3</day>"}}));
    struct Pair {
        char const* child;
        char const* childKey;
        char const* parent;
        char const* parentKey;
    };
    for (Pair const& pair :
         std::vector<Pair>{{"ScriptRuns", "appId", "ApplicationRuns", "appId"},
                           {"ScriptRuns", "specId", "ScriptSpecs", "specId"},
                           {"TestRuns", "scriptId", "ScriptRuns", "scriptId"},
                           {"TestRunEvents", "testId", "TestRuns", "testId"},
                           {"TestRunTips", "testId", "TestRuns", "testId"},
                           {"AlertKeyValues", "alertId", "Alerts", "rowid"},
                           {"AlertTips", "alertId", "Alerts", "rowid"},
                           {"ScriptletRuns", "appId", "ApplicationRuns", "appId"},
                           {"ProfilerDiffs", "appId", "ApplicationRuns", "appId"}}) {
        EXPECT_EQ(orphans(raw, pair.child, pair.childKey, pair.parent, pair.parentKey), 0)
            << pair.child << "." << pair.childKey;
    }
    // Without VACUUM the freed pages stay in the file.
    EXPECT_NE(raw.scalar("PRAGMA freelist_count"), "0");
}

TEST(PruneTest, EventStoreVacuumsOnRequestAndRollsBackOnFailure) {
    TempDir dir;
    std::string const path = dir.file("event.db");
    {
        EventDataStore store(path);
        recordDays(store, 4);
    }
    EventTimePoint const cutoff = at(kFirstDay + 2 * kDay);
    {
        // A failure in the last step leaves every table as it was.
        RawDb raw(path);
        raw.exec(
            "CREATE TRIGGER refuse BEFORE DELETE ON Measurements "
            "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    }
    {
        EventDataStore store(path);
        EXPECT_THROW(store.pruneBefore(cutoff), DatabaseError);
        RawDb raw(path, true);
        EXPECT_EQ(count(raw, "TestRunEvents"), 8);
        EXPECT_EQ(count(raw, "ApplicationRuns"), 4);
        EXPECT_EQ(count(raw, "AlertKeyValues"), 8);
    }
    {
        RawDb raw(path);
        raw.exec("DROP TRIGGER refuse");
    }
    {
        // Inside a caller's batch the prune is the batch's to keep or drop.
        EventDataStore store(path);
        {
            StoreBatch batch(store);
            EXPECT_EQ(store.pruneBefore(cutoff).rows("ApplicationRuns"), 2);
            PruneOptions vacuum;
            vacuum.vacuum = true;
            EXPECT_THROW(store.pruneBefore(cutoff, vacuum), DatabaseError);
        }
        RawDb raw(path, true);
        EXPECT_EQ(count(raw, "ApplicationRuns"), 4);
    }
    auto const sizeBefore = test::readFile(path).size();
    PruneOptions options;
    options.vacuum = true;
    EventDataStore store(path);
    EXPECT_EQ(store.pruneBefore(cutoff, options).rows("ApplicationRuns"), 2);
    RawDb raw(path, true);
    EXPECT_EQ(raw.scalar("PRAGMA freelist_count"), "0");
    EXPECT_LT(test::readFile(path).size(), sizeBefore);
    EXPECT_EQ(raw.scalar("PRAGMA integrity_check"), "ok");
}

TEST(PruneTest, GeneralStoreRemovesOldLogsWithTheirKeyValues) {
    TempDir dir;
    std::string const path = dir.file("genstore.db");
    {
        GeneralDataStore store(path);
        ASSERT_TRUE(store.isInitialized());
        for (int i = 0; i < 4; ++i) {
            LogKeyValueSet keyValues;
            keyValues.append(LogKeyValue("a", "1"));
            keyValues.append(LogKeyValue("b", "2"));
            GenericLog const log("type", String(("guid-" + std::to_string(i)).c_str()), "cat",
                                 "sub", 0, keyValues);
            ASSERT_TRUE(store.logOrUpdate(log));
        }
    }
    {
        // Logs 0 and 1 were last updated on the first day, 2 and 3 on the third; one
        // key/value set belongs to a log that no longer exists.
        RawDb raw(path);
        raw.exec("UPDATE GenericLog SET updateTimeStamp = " + std::to_string(kFirstDay) +
                 " WHERE guid IN ('guid-0','guid-1')");
        raw.exec("UPDATE GenericLog SET updateTimeStamp = " + std::to_string(kFirstDay + 2 * kDay) +
                 " WHERE guid IN ('guid-2','guid-3')");
        raw.exec(
            "INSERT INTO KeyValues (setID, key, value, tracked, updateTimeStamp) VALUES "
            "(77, 'x', 'y', 0, " +
            std::to_string(kFirstDay) + ")");
    }
    TimeStamp const cutoff(kFirstDay + kDay);
    GeneralDataStore store(path);
    std::string const before = test::readFile(path);
    std::map<std::string, long long> const expected = {{"KeyValues", 5}, {"GenericLog", 2}};
    EXPECT_EQ(asMap(store.prunableBefore(cutoff)), expected);
    EXPECT_EQ(test::readFile(path), before);
    EXPECT_EQ(asMap(store.pruneBefore(cutoff)), expected);
    RawDb raw(path, true);
    EXPECT_EQ(raw.query("SELECT guid FROM GenericLog ORDER BY guid"),
              (RawDb::Rows{{"guid-2"}, {"guid-3"}}));
    EXPECT_EQ(orphans(raw, "KeyValues", "setID", "GenericLog", "rowid"), 0);
    EXPECT_EQ(count(raw, "KeyValues"), 4);
}

TEST(PruneTest, SoftwareDiagStoreRemovesOldSessionsWithEverythingInThem) {
    TempDir dir;
    std::string const path = dir.file("softwarediagevent.db");
    { SoftwareDiagEventDataStore store(path); }
    {
        // Sessions 1 (old) and 2 (new), each with one of everything; issue 2 of the new
        // session is linked to the old session's fix action too.
        RawDb raw(path);
        for (int s = 1; s <= 2; ++s) {
            std::string const t = std::to_string(kFirstDay + (s - 1) * 2 * kDay);
            std::string const id = std::to_string(s);
            raw.exec("INSERT INTO Sessions VALUES (" + id + "," + t + "," + t + ")");
            raw.exec("INSERT INTO RunTransactions VALUES (" + id + "," + id + "," + t + "," + t +
                     ")");
            raw.exec("INSERT INTO FixTransactions VALUES (" + id + "," + id + ",'rp'," + t + "," +
                     t + ")");
            raw.exec("INSERT INTO SoftwareDiagnostics VALUES (" + id + "," + id + "," + id +
                     ",'u','n','r'," + t + "," + t + ")");
            raw.exec("INSERT INTO Issues VALUES (" + id + "," + id + "," + id + ",'i','d'," + t +
                     ")");
            raw.exec("INSERT INTO FixActions VALUES (" + id + "," + id + ",2,'f','s','ok'," + t +
                     "," + t + ")");
            raw.exec("INSERT INTO Issues_FixActions (issueId, fixActionId) VALUES (" + id + "," +
                     id + ")");
        }
        raw.exec("INSERT INTO Issues_FixActions (issueId, fixActionId) VALUES (2, 1)");
    }
    TimeStamp const cutoff(kFirstDay + kDay);
    std::map<std::string, long long> const expected = {
        {"Issues_FixActions", 2}, {"Issues", 1},     {"SoftwareDiagnostics", 1},
        {"RunTransactions", 1},   {"FixActions", 1}, {"FixTransactions", 1},
        {"Sessions", 1}};
    std::string const before = test::readFile(path);
    {
        SoftwareDiagEventDataStore reader(path, ReadOnly{});
        EXPECT_EQ(asMap(reader.prunableBefore(cutoff)), expected);
    }
    EXPECT_EQ(test::readFile(path), before);
    SoftwareDiagEventDataStore store(path);
    EXPECT_EQ(asMap(store.pruneBefore(cutoff)), expected);
    RawDb raw(path, true);
    for (char const* table : {"Sessions", "RunTransactions", "FixTransactions",
                              "SoftwareDiagnostics", "Issues", "FixActions", "Issues_FixActions"}) {
        EXPECT_EQ(count(raw, table), 1) << table;
    }
    EXPECT_EQ(raw.scalar("SELECT sessionId FROM Sessions"), "2");
    for (char const* child :
         {"RunTransactions", "FixTransactions", "SoftwareDiagnostics", "Issues", "FixActions"}) {
        EXPECT_EQ(orphans(raw, child, "sessionId", "Sessions", "sessionId"), 0) << child;
    }
    EXPECT_EQ(orphans(raw, "SoftwareDiagnostics", "runTransactionId", "RunTransactions",
                      "runTransactionId"),
              0);
    EXPECT_EQ(orphans(raw, "Issues", "softwareDiagnosticId", "SoftwareDiagnostics",
                      "softwareDiagnosticId"),
              0);
    EXPECT_EQ(orphans(raw, "Issues_FixActions", "issueId", "Issues", "issueId"), 0);
    EXPECT_EQ(orphans(raw, "Issues_FixActions", "fixActionId", "FixActions", "fixActionId"), 0);
}

TEST(PruneTest, WaitsForAnotherProcessHoldingTheStoresMutex) {
    TempDir dir;
    // The default lock folder: a process's named mutexes keep the folder of their first use,
    // so one chosen here would not reach the mutex the earlier tests already used.
    std::string const path = dir.file("genstore.db");
    GeneralDataStore store(path);
    LogKeyValueSet keyValues;
    keyValues.append(LogKeyValue("a", "1"));
    ASSERT_TRUE(store.logOrUpdate(GenericLog("type", "guid", "cat", "sub", 0, keyValues)));

    test::MutexHolder holder(ZRN_CHILD, "general_store", dir.file("ready"));
    // Everything is older than a cutoff in the future.
    auto pruning = std::async(std::launch::async, [&] {
        return store.pruneBefore(
            TimeStamp(TimeStamp::getCurrentUTCTimeStamp().getUnixTimeStamp() + kDay));
    });
    EXPECT_EQ(pruning.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    {
        RawDb raw(path, true);
        EXPECT_EQ(count(raw, "GenericLog"), 1);
    }
    holder.release();
    ASSERT_EQ(pruning.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    PruneResult const result = pruning.get();
    EXPECT_EQ(result.rows("GenericLog"), 1);
    EXPECT_EQ(result.rows("KeyValues"), 1);
}

}  // namespace
}  // namespace zrn
