// The event store's catalogue: a scripted workload calling every public operation of
// EventDataStore and ReadOnlyEventDataStore, on its success path and on each failure path,
// with every statement SQLite ran, every message logged (priority 1 and up) and the schema of
// every file compared byte for byte with tests/golden/event/.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/DataStore.h>

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <locale>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "CatalogueTest.h"
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

using test::join;
using test::n;
std::string t(EventTimePoint time) { return n(time.time_since_epoch().count()); }
std::string d(double value) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << value;
    return out.str();
}
std::string text(ScriptResultLog const& r) {
    return join({n(r.scriptId()), r.name().str(), r.result().str(), t(r.startTime()),
                 t(r.endTime()), n(r.totalPasses()), r.scriptXml().str(), r.guid().str()});
}
std::string text(TestRunResultLog const& r) {
    return join({n(r.testId()), r.testName().str(), r.deviceName().str(), r.testGuid().str(),
                 r.deviceGuid().str(), r.deviceType().str(), r.errorCode().str(), r.result().str(),
                 t(r.timeStamp()), n(r.pass())});
}
std::string text(TestRunEventResultLog const& r) {
    return join({r.message().str(), r.type().str(), r.eventCode().str(),
                 r.customerEventCode().str(), t(r.timeStamp())});
}
std::string text(TipResultLog const& r) {
    return join({r.key().str(), r.type().str(), r.title().str(), r.text().str(),
                 r.extendedText().str(), t(r.timeStamp())});
}
std::string text(AlertResultLog const& r) {
    return join({n(r.alertId()), r.guid().str(), r.key().str(), r.type().str(), r.title().str(),
                 r.message().str(), r.deviceName().str(), t(r.timeStamp())});
}
std::string text(AlertKeyValueResultLog const& r) { return join({r.key().str(), r.value().str()}); }
std::string text(ScriptletResultLog const& r) {
    return join(
        {r.key().str(), r.category().str(), r.status().str(), r.result().str(), t(r.timeStamp())});
}
std::string text(MeasurementLog const& r) {
    return join({r.type().str(), t(r.spanStart()), t(r.spanMiddle()), t(r.spanEnd()),
                 d(r.maximum()), d(r.minimum()), d(r.average()), d(r.median()),
                 n(r.numberOfSamples())});
}
std::string text(ProfilerDiffLog const& r) {
    return join(
        {r.category().str(), t(r.timeStamp()), n(r.changesCount()), r.serializedDiff().str()});
}

std::vector<std::string> const kTables = {
    "Versioning",    "ApplicationRuns", "ScriptRuns",  "ScriptSpecs",    "TestRuns",
    "TestRunEvents", "TestRunTips",     "AlertTips",   "AlertKeyValues", "ScriptletRuns",
    "Alerts",        "ProfilerDiffs",   "Measurements"};

class EventCatalogueTest : public test::CatalogueTest {
protected:
    EventCatalogueTest() {
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
        note(what + " is set", set);
        m_created = false;
    }

    // The number of records, then each of them on a line of its own.
    template <class Record>
    void noteRecords(std::string const& what, std::vector<Record> const& records) {
        note(what, records.size());
        for (Record const& record : records) note("  " + text(record));
    }

    void openAndAsk(Store& store);
    void runLogging(EventDataStore& store);
    void missingIds(EventDataStore& store);
    void alerts(EventDataStore& store);
    void failingAlerts(EventDataStore& store);
    void scriptletsDiffsMeasurements(EventDataStore& store);
    void applicationRunQuestions(EventDataStore& store);
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

    std::string const m_path = m_dir.file("event.db");
    bool m_created = false;
};

void EventCatalogueTest::openAndAsk(Store& store) {
    step("open a new file");
    store.emplace(String(m_path));
    step("getVersion, checkValidity");
    note("getVersion()", store->getVersion());
    noteValidity(*store, "untouched");
    dumpSchema("a new file", m_path);
    step("application-run questions on an empty store");
    note("firstApplicationRunId", store->firstApplicationRunId(""));
    note("lastApplicationRunId", store->lastApplicationRunId(""));
    note("firstApplicationRun", store->firstApplicationRun().time_since_epoch().count());
    note("lastApplicationRun", store->lastApplicationRun().time_since_epoch().count());

    step("open the file again");
    Store again(m_catalogue, "again");
    again.emplace(String(m_path));
    again.reset();
    step("create(path)");
    created("create(path)", [&] { return EventDataStore::create(String(m_path)); });
}

void EventCatalogueTest::runLogging(EventDataStore& store) {
    step("application runs");
    auto const app = store.logAppStart("Diagnostics", "O'Brien", "Scheduled", at(kDay));
    note("logAppStart", *app);
    store.setAppName(*app, "Diagnostics 'nightly'");
    store.setAppUser(*app, "alice");
    store.setTypeOfAppRun(*app, "Interactive");
    step("script runs");
    auto const script =
        store.logScriptStart(*app, "RUNNING", "{5c0f6e1a-0001-4b2c-9d3e-1f2a3b4c5d6e}",
                             "Morning check", at(kDay + 5), 2, "<script id='1'/>");
    note("logScriptStart", *script);
    note("logScriptStart, same XML",
         *store.logScriptStart(*app, "RUNNING", "{5c0f6e1a-0002-4b2c-9d3e-1f2a3b4c5d6e}",
                               "Evening check", at(kDay + 6), 1, "<script id='1'/>"));
    store.setScriptName(*script, "Morning check (full)");
    store.setScriptResult(*script, "PASSING");
    step("test runs, events and tips");
    auto const test = store.logTestStart(
        *script, "Memory pattern", "DIMM A1", "{7e3d2c1b-0001-4a5b-8c9d-0e1f2a3b4c5d}",
        "{9a8b7c6d-0001-4e5f-a0b1-c2d3e4f5a6b7}", "Memory", "", at(kDay + 10), 1);
    note("logTestStart", *test);
    auto const second = store.logTestInitializing(
        *script, "Disk surface", "Disk 0", "{7e3d2c1b-0002-4a5b-8c9d-0e1f2a3b4c5d}",
        "{9a8b7c6d-0002-4e5f-a0b1-c2d3e4f5a6b7}", "Disk", "INITIALIZING", at(kDay + 11), 2);
    note("logTestInitializing", *second);
    note("logTestInitialized", store.logTestInitialized(*second, "RUNNING", at(kDay + 12)));
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
    step("operations on ids that do not exist");
    store.logAppStop(999, at(kDay));
    store.setAppName(999, "x");
    store.setAppUser(999, "x");
    store.setTypeOfAppRun(999, "x");
    store.logScriptFinished(998, "x", at(kDay));
    store.setScriptName(998, "x");
    store.setScriptResult(998, "x");
    store.logTestFinished(997, "x", "x", at(kDay));
    note("logTestInitialized", store.logTestInitialized(997, "x", at(kDay)));
    step("events and tips of a test run that does not exist");
    store.logTestRunEvent(997, "Orphan", "Info", "I-9", "", at(kDay + 23));
    store.logTestRunTip(997, "tip.orphan", "Info", "t", "x", "", at(kDay + 31));
}

void EventCatalogueTest::alerts(EventDataStore& store) {
    step("logAlert: a new alert with key/values and tips");
    std::vector<TipResultLog> const tips = {
        TipResultLog("tip.disk", "Advice", "Back up", "Back up now.", "Disk 0 may fail.",
                     at(kDay + 41)),
        TipResultLog("tip.disk2", "Info", "Replace", "Plan a replacement.", "", at(kDay + 42))};
    note("logAlert", store.logAlert(alert("{a1e7-0001}", kDay + 40,
                                          {{"sectors", "12"}, {"model", "ST'1000"}}, tips)));
    step("logAlert: the same alert again");
    note("logAlert", store.logAlert(alert("{a1e7-0001}", kDay + 40, {{"other", "1"}}, tips)));
    step("logAlert: a stored alert without key/values gains them");
    note("logAlert", store.logAlert(alert("{a1e7-0002}", kDay + 43, {})));
    note("logAlert", store.logAlert(alert("{a1e7-0002}", kDay + 43, {{"late", "yes"}})));
    note("logAlert, stored, no key/values", store.logAlert(alert("{a1e7-0002}", kDay + 43, {})));
    step("logAlerts: a batch, one of them without guid");
    note("logAlerts", store.logAlerts({alert("{a1e7-0003}", kDay + 44, {{"k", "v"}}),
                                       alert("", kDay + 45, {})}));
    step("alert questions, markAlertAsTracked, firstAlert");
    note("alertExists", store.alertExists("{a1e7-0001}"));
    note("alertExists, missing", store.alertExists("{a1e7-'none'}"));
    note("alertExistsWithKeyVals", store.alertExistsWithKeyVals("{a1e7-0002}"));
    note("alertTracked", store.alertTracked("{a1e7-0001}"));
    store.markAlertAsTracked("{a1e7-0001}");
    note("alertTracked", store.alertTracked("{a1e7-0001}"));
    note("firstAlert", store.firstAlert().time_since_epoch().count());
}

void EventCatalogueTest::failingAlerts(EventDataStore& store) {
    // Another program guards the file with a rule of its own: key/values named "poison" are
    // refused, so the alert failing comes after rows of the same call were written.
    prepare(m_path,
            "CREATE TRIGGER refusePoison BEFORE INSERT ON AlertKeyValues "
            "WHEN NEW.key = 'poison' BEGIN SELECT RAISE(ABORT, 'poison refused'); END;");
    step("logAlerts: one alert fails, the batch is rolled back");
    note("logAlerts", store.logAlerts({alert("{a1e7-0004}", kDay + 46, {{"ok", "1"}}),
                                       alert("{a1e7-0005}", kDay + 47, {{"poison", "2"}})}));
    step("logAlert: the alert fails");
    note("logAlert", store.logAlert(alert("{a1e7-0006}", kDay + 48, {{"poison", "3"}})));
    prepare(m_path, "DROP TRIGGER refusePoison;");
}

void EventCatalogueTest::scriptletsDiffsMeasurements(EventDataStore& store) {
    step("logScriptletResult: PASS, PASS, FAIL");
    store.logScriptletResult(1, "scriptlet.av", "Security", "PASS", "Done", at(kDay + 50));
    store.logScriptletResult(1, "scriptlet.av", "Security", "PASS", "Done", at(kDay + 51));
    store.logScriptletResult(1, "scriptlet.av", "Security", "FAIL", "Done", at(kDay + 52));
    step("logScriptletResult: a key with a quote");
    noteThrow("logScriptletResult", [&] {
        store.logScriptletResult(1, "it's", "Security", "PASS", "Done", at(kDay + 53));
    });
    step("logProfilerDiff, logMeasurement");
    store.logProfilerDiff(1, "Drivers", kDay + 60, 3, "<diff a='1'/>");
    store.logMeasurement("cpu.temperature", kDay, kDay + 1800, kDay + 3600, 71.5, 40.25, 55.125, 54,
                         120);
    store.logMeasurement("cpu.load", kDay + 3600, kDay + 5400, kDay + 7200, 1, 0, 0.5, 0.5, 2);
}

void EventCatalogueTest::applicationRunQuestions(EventDataStore& store) {
    step("two more application runs, the later one not stopped");
    note("logAppStart", *store.logAppStart("Diagnostics", "bob", "Repair", at(kDay - 200)));
    note("logAppStart", *store.logAppStart("Diagnostics", "carol", "Interactive", at(kDay + 200)));
    step("application-run questions");
    note("firstApplicationRunId", store.firstApplicationRunId("Interactive"));
    note("lastApplicationRunId", store.lastApplicationRunId(""));
    note("lastApplicationRunId", store.lastApplicationRunId("Sched'uled"));
    note("firstApplicationRun", store.firstApplicationRun().time_since_epoch().count());
    note("lastApplicationRun", store.lastApplicationRun().time_since_epoch().count());
    note("getAppStartTime", store.getAppStartTime(1).time_since_epoch().count());
    note("getAppEndTime", store.getAppEndTime(1).time_since_epoch().count());
    note("appRunTime", store.appRunTime(1));
    note("getAppTypeOfRun = " + std::string(store.getAppTypeOfRun(1).c_str()));
    note("lastApplicationRunId", store.lastApplicationRunId("Interactive"));
    note("appRunTime, not stopped", store.appRunTime(3));
    step("application-run questions on a missing run");
    note("getAppStartTime", store.getAppStartTime(999).time_since_epoch().count());
    note("getAppEndTime", store.getAppEndTime(999).time_since_epoch().count());
    note("appRunTime", store.appRunTime(999));
    note("getAppTypeOfRun = " + std::string(store.getAppTypeOfRun(999).c_str()));
}

void EventCatalogueTest::keyedReaders(EventDataStore const& store) {
    EventTimePoint const none;
    step("keyed readers without bounds");
    noteRecords("scriptRunEventResultLogs", store.scriptRunEventResultLogs(1, none, none, 0));
    noteRecords("testRunResultLogs", store.testRunResultLogs(1, none, none, 0));
    noteRecords("testRunEventResultLogs", store.testRunEventResultLogs(1, none, none, 0));
    noteRecords("scriptRunTipResultLogs", store.scriptRunTipResultLogs(1, none, none, 0));
    noteRecords("testRunTipResultLogs", store.testRunTipResultLogs(1, none, none, 0));
    noteRecords("alertTipResultLogs", store.alertTipResultLogs(1, none, none, 0));
    noteRecords("alertKeyValueResultLogs", store.alertKeyValueResultLogs(1));
    step("keyed readers with both bounds and a limit");
    EventTimePoint const from = at(kDay), to = at(kDay + 86400);
    noteRecords("scriptRunEventResultLogs", store.scriptRunEventResultLogs(1, from, to, 5));
    noteRecords("testRunResultLogs", store.testRunResultLogs(1, from, to, 5));
    noteRecords("testRunEventResultLogs", store.testRunEventResultLogs(1, from, to, 5));
    noteRecords("scriptRunTipResultLogs", store.scriptRunTipResultLogs(1, from, to, 5));
    noteRecords("testRunTipResultLogs", store.testRunTipResultLogs(1, from, to, 5));
    noteRecords("alertTipResultLogs", store.alertTipResultLogs(1, from, to, 5));
    step("keyed readers with one bound each");
    noteRecords("testRunResultLogs", store.testRunResultLogs(1, from, none, 0));
    noteRecords("testRunEventResultLogs", store.testRunEventResultLogs(1, none, to, 0));
    step("scriptResultLogs without and with every filter");
    noteRecords("scriptResultLogs", store.scriptResultLogs({}, {}, {}, {}, {}, 0));
    noteRecords(
        "scriptResultLogs",
        store.scriptResultLogs(from, to, String("Interactive"), String("Morning check (full)"),
                               String("{5c0f6e1a-0001-4b2c-9d3e-1f2a3b4c5d6e}"), 3));
    noteRecords("scriptResultLogs, empty texts",
                store.scriptResultLogs({}, {}, String(""), String("O'Brien"), {}, 0));
}

void EventCatalogueTest::unkeyedReaders(EventDataStore const& store) {
    EventTimePoint const none, from = at(kDay), to = at(kDay + 86400);
    step("unkeyed readers without filters");
    noteRecords("alertResultLogs", store.alertResultLogs(none, none, "", false, 0));
    noteRecords("profilerDiffLogs", store.profilerDiffLogs(none, none, "", 0));
    noteRecords("scriptletResultLogs", store.scriptletResultLogs(none, none, "", "", "", 0));
    noteRecords("measurementLogs", store.measurementLogs(none, none, "", 0));
    step("unkeyed readers with every filter");
    noteRecords("alertResultLogs", store.alertResultLogs(from, to, "Warning", true, 2));
    noteRecords("profilerDiffLogs", store.profilerDiffLogs(from, to, "Drivers", 2));
    noteRecords("scriptletResultLogs",
                store.scriptletResultLogs(from, to, "alice", "Security", "Done", 2));
    noteRecords("measurementLogs", store.measurementLogs(from, to, "cpu.temperature", 2));
    step("unkeyed readers with one filter each");
    noteRecords("alertResultLogs", store.alertResultLogs(none, to, "", false, 0));
    noteRecords("alertResultLogs", store.alertResultLogs(none, none, "Warning", false, 0));
    noteRecords("alertResultLogs", store.alertResultLogs(none, none, "", true, 0));
    noteRecords("profilerDiffLogs", store.profilerDiffLogs(from, none, "", 0));
    noteRecords("profilerDiffLogs", store.profilerDiffLogs(none, none, "Drivers", 0));
    noteRecords("scriptletResultLogs", store.scriptletResultLogs(none, to, "", "", "", 0));
    noteRecords("scriptletResultLogs",
                store.scriptletResultLogs(none, none, "", "Security", "", 0));
    noteRecords("scriptletResultLogs", store.scriptletResultLogs(none, none, "", "", "Done", 0));
    noteRecords("measurementLogs", store.measurementLogs(from, none, "", 0));
    noteRecords("measurementLogs", store.measurementLogs(none, none, "cpu.load", 0));
}

void EventCatalogueTest::fails(EventDataStore const& store) {
    String const device("{9a8b7c6d-0001-4e5f-a0b1-c2d3e4f5a6b7}");
    step("getAllFails");
    noteRecords("getAllFails", store.getAllFails({}, {}));
    noteRecords("getAllFails", store.getAllFails(at(kDay), at(kDay + 86400)));
    step("getRecentFails without lists");
    noteRecords("getRecentFails", store.getRecentFails(device, nullptr, nullptr, at(kDay + 86400)));
    step("getRecentFails with lists");
    std::vector<String> const failures = {"FAIL", "ERR'OR"}, passes = {"PASS", "WARN"};
    noteRecords("getRecentFails",
                store.getRecentFails(device, &failures, &passes, at(kDay + 86400)));
    step("getRecentFails with an empty failure list");
    std::vector<String> const empty;
    noteRecords("getRecentFails", store.getRecentFails(device, &empty, &empty, at(kDay + 86400)));
}

void EventCatalogueTest::batches(EventDataStore& store) {
    step("StoreBatch: committed, with an alert inside");
    {
        StoreBatch batch(store);
        store.logTestRunEvent(2, "In a batch", "Info", "I-2", "", at(kDay + 22));
        note("logAlert", store.logAlert(alert("{a1e7-0007}", kDay + 49, {{"b", "1"}})));
        batch.commit();
    }
    step("StoreBatch: a nested batch, then the outer one rolled back");
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
    step("prunableBefore");
    note("prunableBefore", store.prunableBefore(at(kDay + 1)).total());
    step("pruneBefore");
    note("pruneBefore", store.pruneBefore(at(kDay - 86400)).total());
    step("pruneBefore with vacuum");
    PruneOptions options;
    options.vacuum = true;
    note("pruneBefore", store.pruneBefore(at(kDay - 86400), options).total());
}

void EventCatalogueTest::closing(Store& store) {
    CatalogueTest::closing(store, m_path, [&] {
        noteThrow("logAppStart", [&] { store->logAppStart("a", "b", "c", at(kDay)); });
        noteThrow("getVersion", [&] { store->getVersion(); });
        note("logAlert", store->logAlert(alert("{a1e7-0008}", kDay, {})));
    });
}

void EventCatalogueTest::copiesAndDefaultPaths() {
    step("a copy opens its own store on an empty path");
    {
        Store original(m_catalogue, "original");
        original.emplace(String(file("copied.db")));
        Store copy(m_catalogue, "copy");
        copy.emplace(*original);
        note("copy: logAppStart", *copy->logAppStart("copy", "u", "t", at(kDay)));
    }
    std::filesystem::create_directory(file("default"));
    DataStoreSettings::setEventDataStorePath(String(file("default")));
    step("the default path");
    {
        Store store(m_catalogue, "default");
        store.emplace();
    }
    step("create() on the default path");
    created("create()", [] { return EventDataStore::create(); });
    step("a read-only view of the default path");
    test::NamedStore<ReadOnlyEventDataStore> view(m_catalogue, "view");
    view.emplace();
    note("alertExists", view->alertExists("{a1e7-0001}"));
}

void EventCatalogueTest::failedOpenings() {
    CatalogueTest::failedOpenings<EventDataStore>(
        "EventDataStore(path)", "event.db", [&](std::string const& path, std::string const& name) {
            step("create(" + name + ")");
            created("create(path)", [&] { return EventDataStore::create(String(path)); });
        });
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
    std::vector<OldFile> const olds = {
        {"version 1",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);INSERT INTO Versioning "
         "VALUES(1);" +
             scriptRunsV2},
        {"version 2",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);INSERT INTO Versioning "
         "VALUES(2);" +
             scriptRunsV2},
        {"version 7",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);INSERT INTO Versioning "
         "VALUES(7);"},
        {"an empty version cell",
         "CREATE TABLE `Versioning` (`version` TEXT);INSERT INTO Versioning VALUES('');"},
        {"an empty Versioning table", "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"},
        {"older tables lacking columns",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);INSERT INTO Versioning "
         "VALUES(3);" +
             olderTables},
    };
    openOldFiles<EventDataStore>(olds, "upgraded");
}

void EventCatalogueTest::readOnlyOpenings() {
    step("ReadOnly: open, ask, refuse to write");
    {
        Store store(m_catalogue, "reader");
        store.emplace(String(m_path), ReadOnly{});
        note("getVersion()", store->getVersion());
        note("alertTracked", store->alertTracked("{a1e7-0001}"));
        noteRecords("testRunResultLogs", store->testRunResultLogs(1, {}, {}, 0));
        note("logAlert", store->logAlert(alert("{a1e7-0009}", kDay, {})));
        noteThrow("logAppStart", [&] { store->logAppStart("a", "b", "c", at(kDay)); });
        noteThrow("StoreBatch", [&] { StoreBatch batch(*store); });
        noteThrow("pruneBefore", [&] { store->pruneBefore(at(kDay)); });
    }
    step("ReadOnly immutable: open and ask");
    {
        Store store(m_catalogue, "immutable");
        store.emplace(String(m_path), ReadOnly{std::chrono::seconds(2), true});
        note("alertExists", store->alertExists("{a1e7-0001}"));
        note("prunableBefore", store->prunableBefore(at(kDay + 1)).total());
    }
    refusedReadOnly<EventDataStore>(m_path, "EventDataStore(path, ReadOnly)",
                                    "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);");
}

void EventCatalogueTest::readOnlyViews() {
    step("ReadOnlyEventDataStore: open and ask");
    test::NamedStore<ReadOnlyEventDataStore> view(m_catalogue, "view");
    view.emplace(String(m_path));
    note("alertExists", view->alertExists("{a1e7-0001}"));
    note("alertExists, missing", view->alertExists("{a1e7-'none'}"));
    note("alertExistsWithKeyVals", view->alertExistsWithKeyVals("{a1e7-0002}"));
    step("ReadOnlyEventDataStore: copied, then moved from");
    {
        ReadOnlyEventDataStore copy(*view);
        note("copy: alertExists", copy.alertExists("{a1e7-0003}"));
        ReadOnlyEventDataStore moved(std::move(copy));
        note("moved from: alertExists", copy.alertExists("{a1e7-0003}"));
        note("moved from: alertExistsWithKeyVals", copy.alertExistsWithKeyVals("{a1e7-0003}"));
    }
    step("ReadOnlyEventDataStore: open a missing file");
    test::NamedStore<ReadOnlyEventDataStore> missing(m_catalogue, "missing");
    noteThrow("ReadOnlyEventDataStore(path)", [&] { missing.emplace(String(file("absent.db"))); });
}

void EventCatalogueTest::journalMode() {
    walFile<EventDataStore>(
        [](EventDataStore& store) { store.logAppStart("wal", "u", "t", at(kDay)); });
    test::writeFile(m_settings, "[libDataStore]\nSQLiteDataStore.JournalMode = memory\n");
    step("JournalMode unknown: open a new file");
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
        dumpSchema("the file after the workload, every row", m_path, kTables);
        readOnlyOpenings();
        readOnlyViews();
        retention(*store);
        closing(store);
    }
    copiesAndDefaultPaths();
    failedOpenings();
    upgrades();
    journalMode();
    expectGoldens("event", m_schema);
}

// Each streamed reader runs the statement and writes the trace of its collecting form, hands
// over the same records in the same order, and leaves the store usable when its consumer
// throws. The collecting forms are pinned by the golden texts above.
class StreamedReadersTest : public EventCatalogueTest {
protected:
    // The statements and messages of `read` with the records it gave, as text.
    template <class Record, class Read>
    std::string recorded(Read read) {
        start();
        std::vector<Record> const records = read();
        noteRecords("records", records);
        EXPECT_FALSE(records.empty());
        return m_catalogue.statements() + m_catalogue.messages();
    }

    // `collect(args...)` against `stream(args..., each)`.
    template <class Record, class... Args>
    void compare(std::vector<Record> (EventDataStore::*collect)(Args...) const,
                 void (EventDataStore::*stream)(Args..., EventDataStore::Each<Record> const&) const,
                 EventDataStore const& store, std::decay_t<Args>... args) {
        std::string const collected = recorded<Record>([&] { return (store.*collect)(args...); });
        std::string const streamed = recorded<Record>([&] {
            std::vector<Record> records;
            (store.*stream)(args..., [&](Record const& r) { records.push_back(r); });
            return records;
        });
        EXPECT_EQ(streamed, collected);
    }
};

TEST_F(StreamedReadersTest, RunTheCollectingReadersStatementsAndGiveTheirRecords) {
    {
        Store store(m_catalogue, "store");
        store.emplace(String(m_path));
        runLogging(*store);
        alerts(*store);
        scriptletsDiffsMeasurements(*store);
        EventDataStore const& s = *store;
        EventTimePoint const none, from = at(kDay), to = at(kDay + 86400);
        using E = EventDataStore;
        using Text = boost::optional<String>;
        compare(&E::scriptResultLogs, &E::scriptResultLogs, s,
                boost::optional<EventTimePoint>(from), boost::optional<EventTimePoint>(), Text(),
                Text(String("Morning check (full)")), Text(), 0);
        compare(&E::scriptRunEventResultLogs, &E::scriptRunEventResultLogs, s, 1, from, to, 5);
        compare(&E::testRunResultLogs, &E::testRunResultLogs, s, 1, none, none, 0);
        compare(&E::testRunEventResultLogs, &E::testRunEventResultLogs, s, 1, from, none, 0);
        compare(&E::scriptRunTipResultLogs, &E::scriptRunTipResultLogs, s, 1, none, to, 0);
        compare(&E::testRunTipResultLogs, &E::testRunTipResultLogs, s, 1, none, none, 0);
        compare(&E::alertTipResultLogs, &E::alertTipResultLogs, s, 1, none, none, 0);
        compare(&E::alertResultLogs, &E::alertResultLogs, s, from, to, String("Warning"), false, 2);
        compare(&E::profilerDiffLogs, &E::profilerDiffLogs, s, none, none, String("Drivers"), 0);
        compare(&E::scriptletResultLogs, &E::scriptletResultLogs, s, from, to, String("alice"),
                String("Security"), String("Done"), 0);
        compare(&E::measurementLogs, &E::measurementLogs, s, from, none, String("cpu.temperature"),
                0);
    }

    // On a read-only store a consumer may ask the store again while the rows come, and what it
    // throws ends the read without holding the file.
    EventDataStore reader(String(m_path), ReadOnly{});
    std::vector<std::string> guids;
    int tracked = 0;
    reader.alertResultLogs(at(0), at(0), "", false, 0, [&](AlertResultLog const& log) {
        guids.push_back(log.guid().str());
        tracked += reader.alertTracked(log.guid());
    });
    ASSERT_EQ(guids.size(), reader.alertResultLogs(at(0), at(0), "", false, 0).size());
    EXPECT_GT(guids.size(), 1u);
    EXPECT_EQ(tracked, 1);
    int seen = 0;
    EXPECT_THROW(reader.measurementLogs(at(0), at(0), "", 0,
                                        [&](MeasurementLog const&) {
                                            ++seen;
                                            throw std::runtime_error("enough");
                                        }),
                 std::runtime_error);
    EXPECT_EQ(seen, 1);
    EventDataStore writer{String(m_path)};
    EXPECT_TRUE(writer.logAppStart("after", "u", "t", at(kDay)));
    EXPECT_EQ(reader.measurementLogs(at(0), at(0), "", 0).size(),
              writer.measurementLogs(at(0), at(0), "", 0).size());
}

}  // namespace
}  // namespace zrn
