// The event store's catalogue: a scripted workload calling every public operation of
// EventDataStore and ReadOnlyEventDataStore, on its success path and on each failure path,
// with every statement SQLite ran, every message logged (priority 1 and up) and the schema of
// every file compared byte for byte with tests/golden/event/.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/DataStore.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "Golden.h"
#include "NamedStore.h"
#include "TestSupport.h"

namespace zrn {
namespace {

using Store = test::NamedStore<EventDataStore>;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

// Fixed times of the workload: a diagnostics day in November 2025.
long long const kDay = 1763800000;

EventDataStore::AlertData alert(char const* guid, long long time,
                                std::vector<std::pair<String, String>> keyValues,
                                std::vector<TipResultLog> tips = {}) {
    return EventDataStore::AlertData{1,
                                     guid,
                                     "disk.smart",
                                     "Warning",
                                     "Disk's health",
                                     "Reallocated sectors",
                                     "Disk 0",
                                     at(time),
                                     std::move(tips),
                                     std::move(keyValues)};
}

std::vector<std::string> const kTables = {
    "Versioning",    "ApplicationRuns", "ScriptRuns",  "ScriptSpecs",    "TestRuns",
    "TestRunEvents", "TestRunTips",     "AlertTips",   "AlertKeyValues", "ScriptletRuns",
    "Alerts",        "ProfilerDiffs",   "Measurements"};

class EventCatalogueTest : public ::testing::Test {
protected:
    EventCatalogueTest() {
        test::writeFile(m_settings, "");
        m_catalogue.replace(m_dir.path(), "<dir>");
        m_catalogue.rewrite([this](std::string text) {
            static std::regex const address("this: 0x[0-9a-f]+");
            return m_created ? std::regex_replace(text, address, "this: <created>") : text;
        });
    }

    // create() builds its store on the heap, at an address not known beforehand: what it
    // logs names the store <created>.
    void created(std::string const& what,
                 std::function<std::shared_ptr<EventDataStore>()> const& create) {
        m_created = true;
        bool const set = create() != nullptr;
        noteValue(what + " is set", set);
        m_created = false;
    }

    std::string file(std::string const& name) const { return m_dir.file(name); }

    // Runs `work`, noting the message of the Exception it throws (and failing without one).
    void expectThrow(std::string const& what, std::function<void()> const& work) {
        try {
            work();
            ADD_FAILURE() << what << " did not throw";
        } catch (DatabaseError const& e) {
            m_catalogue.note(what + " threw DatabaseError: " + e.getMessage().c_str());
        } catch (Exception const& e) {
            m_catalogue.note(what + " threw Exception: " + e.getMessage().c_str());
        }
    }
    void noteValue(std::string const& what, long long value) {
        m_catalogue.note(what + " = " + std::to_string(value));
    }
    void dumpSchema(std::string const& title, std::string const& path) {
        m_catalogue.unrecorded(
            [&] { m_schema += "## " + title + "\n" + test::schemaText(path, {"Versioning"}); });
    }
    void prepare(std::string const& path, std::string const& sql) {
        m_catalogue.unrecorded([&] {
            test::RawDb raw(path);
            raw.exec(sql);
        });
    }

    void openAndAsk(Store& store);
    void runLogging(EventDataStore& store);
    void missingIds(EventDataStore& store);
    void alerts(EventDataStore& store);
    void failingAlerts(EventDataStore& store);
    void scriptletsDiffsMeasurements(EventDataStore& store);
    void applicationRunQuestions(EventDataStore const& store);
    void keyedReaders(EventDataStore const& store);
    void unkeyedReaders(EventDataStore const& store);
    void fails(EventDataStore const& store);
    void batches(EventDataStore& store);
    void retention(EventDataStore& store);
    void closing(Store& store);
    void copiesAndDefaultPaths();
    void failedOpenings();
    void upgrades();
    void readOnlyOpenings();
    void readOnlyViews();
    void journalMode();

    test::TempDir m_dir;
    std::string const m_settings = m_dir.file("settings.ini");
    test::ScopedEnv m_env{"ZRN_SETTINGS_FILE", m_settings.c_str()};
    std::string const m_path = m_dir.file("event.db");
    test::Catalogue m_catalogue;
    std::string m_schema;
    bool m_created = false;
};

void EventCatalogueTest::openAndAsk(Store& store) {
    m_catalogue.step("open a new file");
    store.emplace(String(m_path));
    m_catalogue.step("getVersion, checkValidity");
    noteValue("getVersion()", store->getVersion());
    String error("untouched");
    noteValue("checkValidity(error)", store->checkValidity(error));
    m_catalogue.note(std::string("error: ") + error.c_str());
    dumpSchema("a new file", m_path);

    m_catalogue.step("open the file again");
    Store again(m_catalogue, "again");
    again.emplace(String(m_path));
    again.reset();
    m_catalogue.step("create(path)");
    created("create(path)", [&] { return EventDataStore::create(String(m_path)); });
}

void EventCatalogueTest::runLogging(EventDataStore& store) {
    m_catalogue.step("application runs");
    auto const app = store.logAppStart("Diagnostics", "O'Brien", "Scheduled", at(kDay));
    noteValue("logAppStart", *app);
    store.setAppName(*app, "Diagnostics 'nightly'");
    store.setAppUser(*app, "alice");
    store.setTypeOfAppRun(*app, "Interactive");
    m_catalogue.step("script runs");
    auto const script =
        store.logScriptStart(*app, "RUNNING", "{5c0f6e1a-0001-4b2c-9d3e-1f2a3b4c5d6e}",
                             "Morning check", at(kDay + 5), 2, "<script id='1'/>");
    noteValue("logScriptStart", *script);
    noteValue("logScriptStart, same XML",
              *store.logScriptStart(*app, "RUNNING", "{5c0f6e1a-0002-4b2c-9d3e-1f2a3b4c5d6e}",
                                    "Evening check", at(kDay + 6), 1, "<script id='1'/>"));
    store.setScriptName(*script, "Morning check (full)");
    store.setScriptResult(*script, "PASSING");
    m_catalogue.step("test runs, events and tips");
    auto const test = store.logTestStart(
        *script, "Memory pattern", "DIMM A1", "{7e3d2c1b-0001-4a5b-8c9d-0e1f2a3b4c5d}",
        "{9a8b7c6d-0001-4e5f-a0b1-c2d3e4f5a6b7}", "Memory", "", at(kDay + 10), 1);
    noteValue("logTestStart", *test);
    auto const second = store.logTestInitializing(
        *script, "Disk surface", "Disk 0", "{7e3d2c1b-0002-4a5b-8c9d-0e1f2a3b4c5d}",
        "{9a8b7c6d-0002-4e5f-a0b1-c2d3e4f5a6b7}", "Disk", "INITIALIZING", at(kDay + 11), 2);
    noteValue("logTestInitializing", *second);
    noteValue("logTestInitialized", store.logTestInitialized(*second, "RUNNING", at(kDay + 12)));
    store.logTestRunEvent(*test, "Pattern 'walking ones' failed", "Error", "E-17", "C-17",
                          at(kDay + 20));
    store.logTestRunEvent(*second, "Surface scan started", "Info", "I-1", "", at(kDay + 21));
    store.logTestRunTip(*test, "tip.memory", "Advice", "Reseat the module", "Power off first.",
                        "Then reseat DIMM A1.", at(kDay + 30));
    store.logTestFinished(*test, "FAIL", "0x17", at(kDay + 70));
    store.logTestFinished(*second, "PASS", "", at(kDay + 80));
    store.logScriptFinished(*script, "FAIL", at(kDay + 90));
    store.logAppStop(*app, at(kDay + 100));
}

void EventCatalogueTest::missingIds(EventDataStore& store) {
    m_catalogue.step("operations on ids that do not exist");
    store.logAppStop(999, at(kDay));
    store.setAppName(999, "x");
    store.setAppUser(999, "x");
    store.setTypeOfAppRun(999, "x");
    store.logScriptFinished(998, "x", at(kDay));
    store.setScriptName(998, "x");
    store.setScriptResult(998, "x");
    store.logTestFinished(997, "x", "x", at(kDay));
    noteValue("logTestInitialized", store.logTestInitialized(997, "x", at(kDay)));
}

void EventCatalogueTest::alerts(EventDataStore& store) {
    m_catalogue.step("logAlert: a new alert with key/values and tips");
    std::vector<TipResultLog> const tips = {
        TipResultLog("tip.disk", "Advice", "Back up", "Back up now.", "Disk 0 may fail.",
                     at(kDay + 41)),
        TipResultLog("tip.disk2", "Info", "Replace", "Plan a replacement.", "", at(kDay + 42))};
    noteValue("logAlert", store.logAlert(alert("{a1e7-0001}", kDay + 40,
                                               {{"sectors", "12"}, {"model", "ST'1000"}}, tips)));
    m_catalogue.step("logAlert: the same alert again");
    noteValue("logAlert",
              store.logAlert(alert("{a1e7-0001}", kDay + 40, {{"sectors", "12"}}, tips)));
    m_catalogue.step("logAlert: a stored alert without key/values gains them");
    noteValue("logAlert", store.logAlert(alert("{a1e7-0002}", kDay + 43, {})));
    noteValue("logAlert", store.logAlert(alert("{a1e7-0002}", kDay + 43, {{"late", "yes"}})));
    noteValue("logAlert, stored, no key/values",
              store.logAlert(alert("{a1e7-0002}", kDay + 43, {})));
    m_catalogue.step("logAlerts: a batch, one of them without guid");
    noteValue("logAlerts", store.logAlerts({alert("{a1e7-0003}", kDay + 44, {{"k", "v"}}),
                                            alert("", kDay + 45, {})}));
    m_catalogue.step("alert questions, markAlertAsTracked, firstAlert");
    noteValue("alertExists", store.alertExists("{a1e7-0001}"));
    noteValue("alertExists, missing", store.alertExists("{a1e7-'none'}"));
    noteValue("alertExistsWithKeyVals", store.alertExistsWithKeyVals("{a1e7-0002}"));
    noteValue("alertTracked", store.alertTracked("{a1e7-0001}"));
    store.markAlertAsTracked("{a1e7-0001}");
    noteValue("alertTracked", store.alertTracked("{a1e7-0001}"));
    noteValue("firstAlert", store.firstAlert().time_since_epoch().count());
}

void EventCatalogueTest::failingAlerts(EventDataStore& store) {
    // Another program guards the file with a rule of its own: key/values named "poison" are
    // refused, so the alert failing comes after rows of the same call were written.
    prepare(m_path,
            "CREATE TRIGGER refusePoison BEFORE INSERT ON AlertKeyValues "
            "WHEN NEW.key = 'poison' BEGIN SELECT RAISE(ABORT, 'poison refused'); END;");
    m_catalogue.step("logAlerts: one alert fails, the batch is rolled back");
    noteValue("logAlerts", store.logAlerts({alert("{a1e7-0004}", kDay + 46, {{"ok", "1"}}),
                                            alert("{a1e7-0005}", kDay + 47, {{"poison", "2"}})}));
    m_catalogue.step("logAlert: the alert fails");
    noteValue("logAlert", store.logAlert(alert("{a1e7-0006}", kDay + 48, {{"poison", "3"}})));
    prepare(m_path, "DROP TRIGGER refusePoison;");
}

void EventCatalogueTest::scriptletsDiffsMeasurements(EventDataStore& store) {
    m_catalogue.step("logScriptletResult: PASS, PASS, FAIL");
    store.logScriptletResult(1, "scriptlet.av", "Security", "PASS", "Done", at(kDay + 50));
    store.logScriptletResult(1, "scriptlet.av", "Security", "PASS", "Done", at(kDay + 51));
    store.logScriptletResult(1, "scriptlet.av", "Security", "FAIL", "Done", at(kDay + 52));
    m_catalogue.step("logScriptletResult: a key with a quote");
    expectThrow("logScriptletResult", [&] {
        store.logScriptletResult(1, "it's", "Security", "PASS", "Done", at(kDay + 53));
    });
    m_catalogue.step("logProfilerDiff, logMeasurement");
    store.logProfilerDiff(1, "Drivers", kDay + 60, 3, "<diff a='1'/>");
    store.logMeasurement("cpu.temperature", kDay, kDay + 1800, kDay + 3600, 71.5, 40.25, 55.125, 54,
                         120);
    store.logMeasurement("cpu.load", kDay + 3600, kDay + 5400, kDay + 7200, 1, 0, 0.5, 0.5, 2);
}

void EventCatalogueTest::applicationRunQuestions(EventDataStore const& store) {
    m_catalogue.step("application-run questions");
    noteValue("firstApplicationRunId", store.firstApplicationRunId("Interactive"));
    noteValue("lastApplicationRunId", store.lastApplicationRunId(""));
    noteValue("lastApplicationRunId", store.lastApplicationRunId("Sched'uled"));
    noteValue("firstApplicationRun", store.firstApplicationRun().time_since_epoch().count());
    noteValue("lastApplicationRun", store.lastApplicationRun().time_since_epoch().count());
    noteValue("getAppStartTime", store.getAppStartTime(1).time_since_epoch().count());
    noteValue("getAppEndTime", store.getAppEndTime(1).time_since_epoch().count());
    noteValue("appRunTime", store.appRunTime(1));
    m_catalogue.note("getAppTypeOfRun = " + std::string(store.getAppTypeOfRun(1).c_str()));
    m_catalogue.step("application-run questions on a missing run");
    noteValue("getAppStartTime", store.getAppStartTime(999).time_since_epoch().count());
    noteValue("getAppEndTime", store.getAppEndTime(999).time_since_epoch().count());
    noteValue("appRunTime", store.appRunTime(999));
    m_catalogue.note("getAppTypeOfRun = " + std::string(store.getAppTypeOfRun(999).c_str()));
}

void EventCatalogueTest::keyedReaders(EventDataStore const& store) {
    EventTimePoint const none;
    m_catalogue.step("keyed readers without bounds");
    noteValue("scriptRunEventResultLogs", store.scriptRunEventResultLogs(1, none, none, 0).size());
    noteValue("testRunResultLogs", store.testRunResultLogs(1, none, none, 0).size());
    noteValue("testRunEventResultLogs", store.testRunEventResultLogs(1, none, none, 0).size());
    noteValue("scriptRunTipResultLogs", store.scriptRunTipResultLogs(1, none, none, 0).size());
    noteValue("testRunTipResultLogs", store.testRunTipResultLogs(1, none, none, 0).size());
    noteValue("alertTipResultLogs", store.alertTipResultLogs(1, none, none, 0).size());
    noteValue("alertKeyValueResultLogs", store.alertKeyValueResultLogs(1).size());
    m_catalogue.step("keyed readers with both bounds and a limit");
    EventTimePoint const from = at(kDay), to = at(kDay + 86400);
    noteValue("scriptRunEventResultLogs", store.scriptRunEventResultLogs(1, from, to, 5).size());
    noteValue("testRunResultLogs", store.testRunResultLogs(1, from, to, 5).size());
    noteValue("testRunEventResultLogs", store.testRunEventResultLogs(1, from, to, 5).size());
    noteValue("scriptRunTipResultLogs", store.scriptRunTipResultLogs(1, from, to, 5).size());
    noteValue("testRunTipResultLogs", store.testRunTipResultLogs(1, from, to, 5).size());
    noteValue("alertTipResultLogs", store.alertTipResultLogs(1, from, to, 5).size());
    m_catalogue.step("keyed readers with one bound each");
    noteValue("testRunResultLogs", store.testRunResultLogs(1, from, none, 0).size());
    noteValue("testRunEventResultLogs", store.testRunEventResultLogs(1, none, to, 0).size());
    m_catalogue.step("scriptResultLogs without and with every filter");
    noteValue("scriptResultLogs", store.scriptResultLogs({}, {}, {}, {}, {}, 0).size());
    noteValue("scriptResultLogs",
              store
                  .scriptResultLogs(from, to, String("Interactive"), String("Morning check (full)"),
                                    String("{5c0f6e1a-0001-4b2c-9d3e-1f2a3b4c5d6e}"), 3)
                  .size());
    noteValue("scriptResultLogs, empty texts",
              store.scriptResultLogs({}, {}, String(""), String("O'Brien"), {}, 0).size());
}

void EventCatalogueTest::unkeyedReaders(EventDataStore const& store) {
    EventTimePoint const none, from = at(kDay), to = at(kDay + 86400);
    m_catalogue.step("unkeyed readers without filters");
    noteValue("alertResultLogs", store.alertResultLogs(none, none, "", false, 0).size());
    noteValue("profilerDiffLogs", store.profilerDiffLogs(none, none, "", 0).size());
    noteValue("scriptletResultLogs", store.scriptletResultLogs(none, none, "", "", "", 0).size());
    noteValue("measurementLogs", store.measurementLogs(none, none, "", 0).size());
    m_catalogue.step("unkeyed readers with every filter");
    noteValue("alertResultLogs", store.alertResultLogs(from, to, "Warning", true, 2).size());
    noteValue("profilerDiffLogs", store.profilerDiffLogs(from, to, "Drivers", 2).size());
    noteValue("scriptletResultLogs",
              store.scriptletResultLogs(from, to, "alice", "Security", "Done", 2).size());
    noteValue("measurementLogs", store.measurementLogs(from, to, "cpu.temperature", 2).size());
    m_catalogue.step("unkeyed readers with one filter each");
    noteValue("alertResultLogs", store.alertResultLogs(none, to, "", false, 0).size());
    noteValue("alertResultLogs", store.alertResultLogs(none, none, "Warning", false, 0).size());
    noteValue("alertResultLogs", store.alertResultLogs(none, none, "", true, 0).size());
    noteValue("profilerDiffLogs", store.profilerDiffLogs(from, none, "", 0).size());
    noteValue("profilerDiffLogs", store.profilerDiffLogs(none, none, "Drivers", 0).size());
    noteValue("scriptletResultLogs", store.scriptletResultLogs(none, to, "", "", "", 0).size());
    noteValue("scriptletResultLogs",
              store.scriptletResultLogs(none, none, "", "Security", "", 0).size());
    noteValue("scriptletResultLogs",
              store.scriptletResultLogs(none, none, "", "", "Done", 0).size());
    noteValue("measurementLogs", store.measurementLogs(from, none, "", 0).size());
    noteValue("measurementLogs", store.measurementLogs(none, none, "cpu.load", 0).size());
}

void EventCatalogueTest::fails(EventDataStore const& store) {
    String const device("{9a8b7c6d-0001-4e5f-a0b1-c2d3e4f5a6b7}");
    m_catalogue.step("getAllFails");
    noteValue("getAllFails", store.getAllFails({}, {}).size());
    noteValue("getAllFails", store.getAllFails(at(kDay), at(kDay + 86400)).size());
    m_catalogue.step("getRecentFails without lists");
    noteValue("getRecentFails",
              store.getRecentFails(device, nullptr, nullptr, at(kDay + 86400)).size());
    m_catalogue.step("getRecentFails with lists");
    std::vector<String> const failures = {"FAIL", "ERR'OR"}, passes = {"PASS", "WARN"};
    noteValue("getRecentFails",
              store.getRecentFails(device, &failures, &passes, at(kDay + 86400)).size());
    m_catalogue.step("getRecentFails with an empty failure list");
    std::vector<String> const empty;
    noteValue("getRecentFails",
              store.getRecentFails(device, &empty, &empty, at(kDay + 86400)).size());
}

void EventCatalogueTest::batches(EventDataStore& store) {
    m_catalogue.step("StoreBatch: committed, with an alert inside");
    {
        StoreBatch batch(store);
        store.logTestRunEvent(2, "In a batch", "Info", "I-2", "", at(kDay + 22));
        noteValue("logAlert", store.logAlert(alert("{a1e7-0007}", kDay + 49, {{"b", "1"}})));
        batch.commit();
    }
    m_catalogue.step("StoreBatch: a nested batch, then the outer one rolled back");
    {
        StoreBatch outer(store);
        store.setScriptResult(1, "BATCHED");
        {
            StoreBatch inner(store);
            store.setAppUser(1, "bob");
            inner.commit();
        }
        {
            StoreBatch inner(store);
            store.setAppUser(1, "carol");
        }
    }
}

void EventCatalogueTest::retention(EventDataStore& store) {
    m_catalogue.step("prunableBefore");
    noteValue("prunableBefore", store.prunableBefore(at(kDay + 1)).total());
    m_catalogue.step("pruneBefore");
    noteValue("pruneBefore", store.pruneBefore(at(kDay - 86400)).total());
    m_catalogue.step("pruneBefore with vacuum");
    PruneOptions options;
    options.vacuum = true;
    noteValue("pruneBefore", store.pruneBefore(at(kDay - 86400), options).total());
}

void EventCatalogueTest::closing(Store& store) {
    m_catalogue.step("checkValidity on a file moved away");
    std::filesystem::rename(m_path, m_path + ".moved");
    String error;
    noteValue("checkValidity(error)", store->checkValidity(error));
    m_catalogue.note(std::string("error: ") + error.c_str());
    std::filesystem::rename(m_path + ".moved", m_path);
    m_catalogue.step("close, close again, then use the closed store");
    store->close();
    store->close();
    noteValue("checkValidity(error)", store->checkValidity(error));
    m_catalogue.note(std::string("error: ") + error.c_str());
    expectThrow("logAppStart", [&] { store->logAppStart("a", "b", "c", at(kDay)); });
    expectThrow("getVersion", [&] { store->getVersion(); });
    noteValue("logAlert", store->logAlert(alert("{a1e7-0008}", kDay, {})));
    m_catalogue.step("destroy the closed store");
    store.reset();
}

void EventCatalogueTest::copiesAndDefaultPaths() {
    m_catalogue.step("a copy opens its own store on an empty path");
    {
        Store original(m_catalogue, "original");
        original.emplace(String(file("copied.db")));
        Store copy(m_catalogue, "copy");
        copy.emplace(*original);
        noteValue("copy: logAppStart", *copy->logAppStart("copy", "u", "t", at(kDay)));
    }
    std::filesystem::create_directory(file("default"));
    DataStoreSettings::setEventDataStorePath(String(file("default")));
    m_catalogue.step("the default path");
    {
        Store store(m_catalogue, "default");
        store.emplace();
    }
    m_catalogue.step("create() on the default path");
    created("create()", [] { return EventDataStore::create(); });
    m_catalogue.step("a read-only view of the default path");
    test::NamedStore<ReadOnlyEventDataStore> view(m_catalogue, "view");
    view.emplace();
    noteValue("alertExists", view->alertExists("{a1e7-0001}"));
}

void EventCatalogueTest::failedOpenings() {
    std::string const notADatabase = file("notes.db");
    test::writeFile(notADatabase, "These are not the pages of a database, just some text.\n");
    std::string const inMissingFolder = file("missing/event.db");
    for (auto const& path : {notADatabase, inMissingFolder}) {
        std::string const name = path.substr(m_dir.path().size() + 1);
        m_catalogue.step("open " + name);
        Store store(m_catalogue, "failing");
        expectThrow("EventDataStore(path)", [&] { store.emplace(String(path)); });
        m_catalogue.step("create(" + name + ")");
        created("create(path)", [&] { return EventDataStore::create(String(path)); });
    }
}

void EventCatalogueTest::upgrades() {
    std::string const scriptRunsV2 =
        "CREATE TABLE `ScriptRuns` (`scriptId` INTEGER PRIMARY KEY,`appId` INTEGER,`name` TEXT,"
        "`result` TEXT,`startTime` INTEGER,`endTime` INTEGER,`totalPasses` INTEGER,"
        "`specId` INTEGER);INSERT INTO ScriptRuns (appId, name) VALUES(1, 'old run');";
    std::string const olderTables =
        "CREATE TABLE `TestRuns` (`testId` INTEGER PRIMARY KEY,`scriptId` INTEGER,"
        "`testName` TEXT,`result` TEXT);"
        "CREATE TABLE `Alerts` (`appId` INTEGER,`guid` TEXT,`dateTime` INTEGER);"
        "CREATE TABLE `Measurements` (`type` TEXT,`spanMiddleTime` INTEGER,`average` REAL);";
    struct Old {
        char const* title;
        std::string sql;
    };
    std::vector<Old> const olds = {
        {"version 2",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);INSERT INTO Versioning "
         "VALUES(2);" +
             scriptRunsV2},
        {"version 7",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);INSERT INTO Versioning "
         "VALUES(7);"},
        {"an empty Versioning table", "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"},
        {"older tables lacking columns",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);INSERT INTO Versioning "
         "VALUES(3);" +
             olderTables},
    };
    int n = 0;
    for (auto const& old : olds) {
        std::string const path = file("old" + std::to_string(++n) + ".db");
        prepare(path, old.sql);
        m_catalogue.step("open a file of " + std::string(old.title));
        {
            Store store(m_catalogue, "upgraded");
            store.emplace(String(path));
            noteValue("getVersion()", store->getVersion());
        }
        dumpSchema(std::string("a file of ") + old.title + ", upgraded", path);
    }
    std::string const emptied = file("emptied.db");
    m_catalogue.step("open a new file to empty its Versioning table");
    Store store(m_catalogue, "emptied");
    store.emplace(String(emptied));
    prepare(emptied, "DELETE FROM Versioning;");
    m_catalogue.step("getVersion on an emptied Versioning table");
    noteValue("getVersion()", store->getVersion());
}

void EventCatalogueTest::readOnlyOpenings() {
    m_catalogue.step("ReadOnly: open, ask, refuse to write");
    {
        Store store(m_catalogue, "reader");
        store.emplace(String(m_path), ReadOnly{});
        noteValue("getVersion()", store->getVersion());
        noteValue("alertTracked", store->alertTracked("{a1e7-0001}"));
        noteValue("testRunResultLogs", store->testRunResultLogs(1, {}, {}, 0).size());
        noteValue("logAlert", store->logAlert(alert("{a1e7-0009}", kDay, {})));
        expectThrow("logAppStart", [&] { store->logAppStart("a", "b", "c", at(kDay)); });
        expectThrow("StoreBatch", [&] { StoreBatch batch(*store); });
        expectThrow("pruneBefore", [&] { store->pruneBefore(at(kDay)); });
    }
    m_catalogue.step("ReadOnly immutable: open and ask");
    {
        Store store(m_catalogue, "immutable");
        store.emplace(String(m_path), ReadOnly{std::chrono::seconds(2), true});
        noteValue("alertExists", store->alertExists("{a1e7-0001}"));
        noteValue("prunableBefore", store->prunableBefore(at(kDay + 1)).total());
    }
    std::string const other = file("versioning-only.db");
    prepare(other, "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);");
    for (auto const& path : {file("absent.db"), other}) {
        m_catalogue.step("ReadOnly: open " + path.substr(m_dir.path().size() + 1));
        Store store(m_catalogue, "refused");
        expectThrow("EventDataStore(path, ReadOnly)",
                    [&] { store.emplace(String(path), ReadOnly{}); });
    }
}

void EventCatalogueTest::readOnlyViews() {
    m_catalogue.step("ReadOnlyEventDataStore: open and ask");
    test::NamedStore<ReadOnlyEventDataStore> view(m_catalogue, "view");
    view.emplace(String(m_path));
    noteValue("alertExists", view->alertExists("{a1e7-0001}"));
    noteValue("alertExists, missing", view->alertExists("{a1e7-'none'}"));
    noteValue("alertExistsWithKeyVals", view->alertExistsWithKeyVals("{a1e7-0002}"));
    m_catalogue.step("ReadOnlyEventDataStore: copied, then moved from");
    {
        ReadOnlyEventDataStore copy(*view);
        noteValue("copy: alertExists", copy.alertExists("{a1e7-0003}"));
        ReadOnlyEventDataStore moved(std::move(copy));
        noteValue("moved from: alertExists", copy.alertExists("{a1e7-0003}"));
        noteValue("moved from: alertExistsWithKeyVals", copy.alertExistsWithKeyVals("{a1e7-0003}"));
    }
    m_catalogue.step("ReadOnlyEventDataStore: open a missing file");
    test::NamedStore<ReadOnlyEventDataStore> missing(m_catalogue, "missing");
    expectThrow("ReadOnlyEventDataStore(path)",
                [&] { missing.emplace(String(file("absent.db"))); });
}

void EventCatalogueTest::journalMode() {
    test::writeFile(m_settings, "[libDataStore]\nSQLiteDataStore.JournalMode = WAL\n");
    m_catalogue.step("JournalMode WAL: open a new file and log");
    {
        Store store(m_catalogue, "wal");
        store.emplace(String(file("wal.db")));
        store->logAppStart("wal", "u", "t", at(kDay));
    }
    test::writeFile(m_settings, "[libDataStore]\nSQLiteDataStore.JournalMode = memory\n");
    m_catalogue.step("JournalMode unknown: open a new file");
    {
        Store store(m_catalogue, "unknown");
        store.emplace(String(file("unknown.db")));
    }
    test::writeFile(m_settings, "");
}

TEST_F(EventCatalogueTest, EveryOperationStatementMessageAndSchema) {
    {
        Store store(m_catalogue, "store");
        openAndAsk(store);
        runLogging(*store);
        missingIds(*store);
        alerts(*store);
        failingAlerts(*store);
        scriptletsDiffsMeasurements(*store);
        applicationRunQuestions(*store);
        keyedReaders(*store);
        unkeyedReaders(*store);
        fails(*store);
        batches(*store);
        m_catalogue.unrecorded([&] {
            m_schema +=
                "## the file after the workload, every row\n" + test::schemaText(m_path, kTables);
        });
        readOnlyOpenings();
        readOnlyViews();
        retention(*store);
        closing(store);
    }
    copiesAndDefaultPaths();
    failedOpenings();
    upgrades();
    journalMode();
    test::expectGolden("event/statements.txt", m_catalogue.statements());
    test::expectGolden("event/messages.txt", m_catalogue.messages());
    test::expectGolden("event/schema.txt", m_schema);
}

}  // namespace
}  // namespace zrn
