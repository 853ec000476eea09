// EventDataStore: alerts and scriptlet results, for what the catalogue (EventCatalogue_test)
// does not show: the earliest alert of several, and which rows repeated scriptlet results leave.

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

}  // namespace
}  // namespace zrn
