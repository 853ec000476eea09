// EventDataStore: alerts with their key/values and tips, scriptlet results, profiler diffs and
// measurements, checked through the raw sqlite3 API and the captured log.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>

#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

using Rows = test::RawDb::Rows;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

EventDataStore::AlertData alert(std::string const& guid, long long time,
                                std::vector<std::pair<String, String>> keyValues = {},
                                std::vector<TipResultLog> tips = {}) {
    return EventDataStore::AlertData{
        3,         guid,     "key-" + guid, "Disk",          "Title of " + guid,
        "Message", "Disk 0", at(time),      std::move(tips), std::move(keyValues)};
}

class EventAlertsTest : public ::testing::Test {
protected:
    test::TempDir m_dir;
    std::string const m_path = m_dir.file("event.db");
    EventDataStore m_store{String(m_path)};
    test::RawDb m_raw{m_path};

    std::string count(char const* table) {
        return m_raw.scalar(std::string("SELECT count(*) FROM ") + table);
    }
};

TEST_F(EventAlertsTest, AlertIsStoredWithKeyValuesAndTipsAndCanBeTracked) {
    std::string const guid = "{9A'Ü-1}";
    test::LogCapture log;
    ASSERT_TRUE(m_store.logAlert(alert(
        guid, 1700000000, {{"temp'C", "71 °C"}, {"limit", "70"}},
        {TipResultLog("tip1", "info", "Cool it", "Clean the fan", "It's dusty", at(1700000001)),
         TipResultLog("tip2", "warn", "Replace", "Buy one", "", at(1700000002))})));

    EXPECT_EQ(m_raw.query("SELECT rowid, appId, guid, key, type, title, message, deviceName, "
                          "dateTime, typeof(dateTime), tracked FROM Alerts"),
              (Rows{{"1", "3", guid, "key-" + guid, "Disk", "Title of " + guid, "Message", "Disk 0",
                     "1700000000", "integer", "0"}}));
    EXPECT_EQ(m_raw.query("SELECT alertId, key, value FROM AlertKeyValues ORDER BY rowid"),
              (Rows{{"1", "temp'C", "71 °C"}, {"1", "limit", "70"}}));
    EXPECT_EQ(m_raw.query("SELECT alertId, key, type, title, text, extended_text, dateTime "
                          "FROM AlertTips ORDER BY dateTime"),
              (Rows{{"1", "tip1", "info", "Cool it", "Clean the fan", "It's dusty", "1700000001"},
                    {"1", "tip2", "warn", "Replace", "Buy one", "", "1700000002"}}));
    EXPECT_EQ(log.messagesStartingWith("libDataStore.EventDataStore", "1224 "),
              (std::vector<std::string>{"1224 logAlerts() guid: " + guid + " addedid: 1"}));

    // Guids are matched exactly: quotes, case and neighbours make other guids.
    EXPECT_TRUE(m_store.alertExists(guid));
    EXPECT_TRUE(m_store.alertExistsWithKeyVals(guid));
    for (char const* other : {"{9A''Ü-1}", "{9a'Ü-1}", "{9A'U-1}", "{9A'Ü-1", ""}) {
        EXPECT_FALSE(m_store.alertExists(other)) << other;
    }

    EXPECT_FALSE(m_store.alertTracked(guid));
    m_store.markAlertAsTracked(guid);
    EXPECT_TRUE(m_store.alertTracked(guid));
    EXPECT_EQ(m_raw.scalar("SELECT tracked FROM Alerts"), "1");
    m_store.markAlertAsTracked("no such alert");  // no check, no effect
    EXPECT_EQ(count("Alerts"), "1");
}

TEST_F(EventAlertsTest, StoredGuidIsNeverDuplicatedAndOnlyGainsMissingKeyValues) {
    std::vector<TipResultLog> const tips = {TipResultLog("k", "t", "ti", "te", "x", at(5))};
    ASSERT_TRUE(m_store.logAlert(alert("same", 100, {}, tips)));
    EXPECT_TRUE(m_store.alertExists("same"));
    EXPECT_FALSE(m_store.alertExistsWithKeyVals("same"));

    // Again without key/values: nothing at all is written.
    ASSERT_TRUE(m_store.logAlert(alert("same", 200, {}, tips)));
    // Now with key/values: they are added to the stored row, nothing else is.
    EventDataStore::AlertData changed = alert("same", 300, {{"a", "1"}, {"b", "2"}}, tips);
    changed.title = "changed title";
    ASSERT_TRUE(m_store.logAlert(changed));
    EXPECT_TRUE(m_store.alertExistsWithKeyVals("same"));
    // With key/values stored, other key/values are not added either.
    ASSERT_TRUE(m_store.logAlerts(
        {alert("same", 400, {{"c", "3"}}, tips), alert("same", 500, {{"a", "1"}}, tips)}));

    EXPECT_EQ(m_raw.query("SELECT rowid, title, dateTime FROM Alerts"),
              (Rows{{"1", "Title of same", "100"}}));
    EXPECT_EQ(m_raw.query("SELECT alertId, key, value FROM AlertKeyValues ORDER BY rowid"),
              (Rows{{"1", "a", "1"}, {"1", "b", "2"}}));
    EXPECT_EQ(count("AlertTips"), "1");

    // An empty guid always makes a new alert.
    ASSERT_TRUE(m_store.logAlerts({alert("", 1, {{"k", "v"}}), alert("", 2, {{"k", "v"}})}));
    EXPECT_EQ(m_raw.query("SELECT rowid, guid FROM Alerts ORDER BY rowid"),
              (Rows{{"1", "same"}, {"2", ""}, {"3", ""}}));
    EXPECT_EQ(m_raw.query("SELECT alertId FROM AlertKeyValues ORDER BY rowid"),
              (Rows{{"1"}, {"1"}, {"2"}, {"3"}}));
}

TEST_F(EventAlertsTest, AFailingAlertRollsBackItsWholeBatch) {
    ASSERT_TRUE(m_store.logAlert(alert("before", 1, {{"k", "v"}})));
    // Another program of the suite guards this file with a rule of its own: key/values named
    // "poison" are refused. The second alert's key/values fail after its own row and the
    // whole first alert have been written.
    m_raw.exec(
        "CREATE TRIGGER refusePoison BEFORE INSERT ON AlertKeyValues "
        "WHEN NEW.key = 'poison' BEGIN SELECT RAISE(ABORT, 'poison refused'); END;");
    std::vector<Rows> before;
    for (char const* t : {"Alerts", "AlertKeyValues", "AlertTips"}) {
        before.push_back(m_raw.query(std::string("SELECT rowid, * FROM ") + t));
    }

    test::LogCapture log;
    std::vector<TipResultLog> const tips = {TipResultLog("k", "t", "ti", "te", "x", at(5))};
    EXPECT_FALSE(m_store.logAlerts({alert("first", 10, {{"ok", "1"}}, tips),
                                    alert("second", 11, {{"ok", "2"}, {"poison", "3"}}, tips),
                                    alert("third", 12, {{"ok", "4"}}, tips)}));
    std::vector<Rows> after;
    for (char const* t : {"Alerts", "AlertKeyValues", "AlertTips"}) {
        after.push_back(m_raw.query(std::string("SELECT rowid, * FROM ") + t));
    }
    EXPECT_EQ(after, before);
    std::vector<std::string> const failures =
        log.messagesStartingWith("libDataStore.EventDataStore", "1262 logAlerts() failed on: ");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].find("poison refused"), std::string::npos) << failures[0];
    std::string const tail = " rolling back transaction.";
    EXPECT_EQ(failures[0].substr(failures[0].size() - tail.size()), tail);

    // The connection is out of the transaction: the next call commits for real.
    EXPECT_FALSE(m_store.logAlert(alert("single", 13, {{"poison", "x"}})));
    EXPECT_EQ(log.messagesStartingWith("libDataStore.EventDataStore", "1279 logAlert() failed on: ")
                  .size(),
              1u);
    EXPECT_TRUE(m_store.logAlerts({alert("first", 10, {{"ok", "1"}}, tips)}));
    test::RawDb other(m_path);
    EXPECT_EQ(other.query("SELECT guid FROM Alerts ORDER BY rowid"), (Rows{{"before"}, {"first"}}));

    // A closed store fails the same way, without throwing.
    m_store.close();
    EXPECT_FALSE(m_store.logAlert(alert("closed", 14)));
    EXPECT_EQ(log.messagesStartingWith("libDataStore.EventDataStore", "1279 ").size(), 2u);
}

TEST_F(EventAlertsTest, FirstAlertIsTheEarliestPositiveTime) {
    EXPECT_EQ(m_store.firstAlert(), EventTimePoint());
    ASSERT_TRUE(
        m_store.logAlerts({alert("a", 0), alert("b", 500), alert("c", 300), alert("d", -7)}));
    EXPECT_EQ(m_store.firstAlert(), at(300));
}

TEST_F(EventAlertsTest, ScriptletResultIsRecordedOnlyWhenItChanges) {
    m_store.logScriptletResult(1, "disk.smart", "Disk", "PASS", "done", at(10));
    m_store.logScriptletResult(1, "disk.smart", "Disk", "PASS", "done", at(11));
    m_store.logScriptletResult(1, "disk.smart", "Disk", "FAIL", "done", at(12));
    m_store.logScriptletResult(1, "disk.smart", "Disk", "FAIL", "again", at(13));
    // Another run, another key: each starts afresh.
    m_store.logScriptletResult(2, "disk.smart", "Disk", "FAIL", "done", at(14));
    m_store.logScriptletResult(1, "disk.temp", "Dïsk", "FA'IL", "it's done", at(15));
    // With nothing before it, an empty result equals the empty "latest" and is not recorded.
    m_store.logScriptletResult(1, "empty", "c", "", "s", at(16));

    EXPECT_EQ(m_raw.query("SELECT appId, scriptletKey, category, result, status, dateTime "
                          "FROM ScriptletRuns ORDER BY rowid"),
              (Rows{{"1", "disk.smart", "Disk", "PASS", "done", "10"},
                    {"1", "disk.smart", "Disk", "FAIL", "done", "12"},
                    {"2", "disk.smart", "Disk", "FAIL", "done", "14"},
                    {"1", "disk.temp", "Dïsk", "FA'IL", "it's done", "15"}}));

    // The key enters the look-up unquoted: one with a quote cannot be looked up.
    EXPECT_THROW(m_store.logScriptletResult(1, "it's", "c", "PASS", "s", at(17)), DatabaseError);
    EXPECT_EQ(count("ScriptletRuns"), "4");
}

TEST_F(EventAlertsTest, ProfilerDiffsAndMeasurementsKeepTheirColumns) {
    m_store.logProfilerDiff(4, "Dri'vers", 1700000000, 12, "<diff a='1'/>");
    EXPECT_EQ(m_raw.query("SELECT diffId, appId, category, dateTime, numberOfChanges, "
                          "typeof(numberOfChanges), serializedDiff FROM ProfilerDiffs"),
              (Rows{{"1", "4", "Dri'vers", "1700000000", "12", "text", "<diff a='1'/>"}}));

    m_store.logMeasurement("cpu 'load'", 100, 150, 200, 97.5, 0.1, 33.25, -4, 42);
    EXPECT_EQ(m_raw.query("SELECT type, spanStartTime, spanMiddleTime, spanEndTime, maximum, "
                          "minimum, average, median, numberOfSamples FROM Measurements"),
              (Rows{{"cpu 'load'", "100", "150", "200", "97.5", "0.1", "33.25", "-4.0", "42"}}));

    // What is written reads back into the record field for field.
    std::vector<MeasurementLog> const read = m_store.measurementLogs({}, {}, "", 0);
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0].type(), "cpu 'load'");
    EXPECT_EQ(read[0].spanStart(), at(100));
    EXPECT_EQ(read[0].spanMiddle(), at(150));
    EXPECT_EQ(read[0].spanEnd(), at(200));
    EXPECT_EQ(read[0].maximum(), 97.5);
    EXPECT_EQ(read[0].minimum(), 0.1);
    EXPECT_EQ(read[0].average(), 33.25);
    EXPECT_EQ(read[0].median(), -4.0);
    EXPECT_EQ(read[0].numberOfSamples(), 42u);
}

}  // namespace
}  // namespace zrn
