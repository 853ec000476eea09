// datastore demo: records one realistic diagnostics day of one machine into all four stores,
// then prints what the stores' queries read back and where the files are.
//
// Each run records a new day: the first the latest day that is over (today once it is past
// 17:00, else yesterday), every later one the day before the earliest application run
// already stored. The machine's devices, tests and script keep their GUIDs from day to day,
// so days can be compared; alerts, logs, restore points and repairs get new ones. Each test,
// and each store's other records, go in as one StoreBatch, as a program that records a day
// should write them.

#include <libCommon/DateTime.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>
#include <libDataStore/StoreBatch.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"

namespace datastore {

namespace {

using zrn::EventTimePoint;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint time) { return time.time_since_epoch().count(); }

struct Device {
    char const* name;
    char const* guid;
    char const* type;
};

Device const kMemory{"DIMM A1 16 GB DDR4", "3f6b9c2e-1a4d-4e7b-9c0f-5d2e8a7b6c41", "Memory"};
Device const kDisk{"NVMe SSD 512 GB", "8d2f4a61-5b3c-4f9e-a7d0-1c6e9b2f3a58", "Storage"};
Device const kBattery{"Main battery", "c71e5d3a-9f2b-4a6c-8e1d-7b4f0a9c2d63", "Battery"};

char const kScriptGuid[] = "6f1d2a9e-3b5c-4d7e-8f90-a1b2c3d4e5f6";
char const kScriptName[] = "Quick hardware check";
char const kScriptXml[] =
    "<script name=\"Quick hardware check\" version=\"2\">\n"
    "  <test name=\"Memory pattern test\" guid=\"0b8e7c61-2f4a-4d3b-9e5c-7a1f6d2b8c90\" "
    "device=\"Memory\"/>\n"
    "  <test name=\"Disk SMART check\" guid=\"5a3d9f02-6c1e-4b7a-8d4f-2e9c0b7a1f63\" "
    "device=\"Storage\"/>\n"
    "  <test name=\"Battery health\" guid=\"e2c4a7f9-8b1d-4c6e-a3f5-9d0b2e7c4a18\" "
    "device=\"Battery\"/>\n"
    "</script>";

char const kHealthType[] = "2c5e8f1a-4b7d-4e3a-9f6c-0d1b2a3c4e5f";     // hardware health summaries
char const kInventoryType[] = "91d4b6e3-7a2c-4f5e-8b0d-3c6a9e1f2b74";  // software inventory changes

std::string newGuid() {
    static std::mt19937_64 random{std::random_device{}()};
    unsigned long long const a = random(), b = random();
    char text[40];
    std::snprintf(text, sizeof text, "%08llx-%04llx-4%03llx-%04llx-%012llx", a >> 32,
                  (a >> 16) & 0xffff, a & 0xfff, 0x8000 | (b >> 48 & 0x3fff),
                  b & 0xffffffffffffULL);
    return text;
}

// Local wall-clock times of the recorded day.
class Day {
public:
    // The day `daysBack` days before the local day of `reference`.
    Day(long long reference, int daysBack) {
        std::time_t const t = static_cast<std::time_t>(reference);
        localtime_r(&t, &m_midnight);
        m_midnight.tm_mday -= daysBack;
        m_midnight.tm_hour = m_midnight.tm_min = m_midnight.tm_sec = 0;
        m_midnight.tm_isdst = -1;
        std::time_t const midnight = std::mktime(&m_midnight);
        localtime_r(&midnight, &m_midnight);
    }
    long long at(int hour, int minute, int second = 0) const {
        std::tm tm = m_midnight;
        tm.tm_hour = hour;
        tm.tm_min = minute;
        tm.tm_sec = second;
        tm.tm_isdst = -1;
        return static_cast<long long>(std::mktime(&tm));
    }
    std::string date() const {
        char text[16];
        std::strftime(text, sizeof text, "%Y-%m-%d", &m_midnight);
        return text;
    }

private:
    std::tm m_midnight{};
};

Day dayToRecord(zrn::EventDataStore& store) {
    long long const earliest = secondsOf(store.firstApplicationRun());
    if (earliest > 0) return Day(earliest, 1);
    long long const now = static_cast<long long>(std::time(nullptr));
    Day const today(now, 0);
    return now >= today.at(17, 0) ? today : Day(now, 1);
}

std::string userName() {
    char const* user = std::getenv("USER");
    return user && *user ? user : "technician";
}

// ---- event.db

struct TestPlan {
    char const* name;
    char const* guid;
    Device device;
    char const* result;
    char const* errorCode;
};

struct EventDay {
    long long appId = 0;
    std::vector<long long> scriptIds;
    std::vector<std::string> alertGuids;
};

long long required(boost::optional<long long> const& id, char const* what) {
    if (!id || *id <= 0)
        throw zrn::Exception(zrn::String(std::string("no id for the new ") + what));
    return *id;
}

void runTest(zrn::EventDataStore& store, long long scriptId, TestPlan const& test, long long start,
             bool initialize) {
    // One transaction per test, as a test runner should record: a few syncs instead of one set
    // per row. The batch holds "event_store" only for the test's own operations.
    zrn::StoreBatch batch(store);
    long long testId;
    if (initialize) {
        // A test that reports an initialisation phase before it runs.
        testId = required(store.logTestInitializing(scriptId, test.name, test.device.name,
                                                    test.guid, test.device.guid, test.device.type,
                                                    "INITIALIZING", at(start), 1),
                          "test run");
        store.logTestInitialized(testId, "RUNNING", at(start + 20));
    } else {
        testId = required(
            store.logTestStart(scriptId, test.name, test.device.name, test.guid, test.device.guid,
                               test.device.type, "RUNNING", at(start), 1),
            "test run");
    }
    store.logTestRunEvent(testId, zrn::String(std::string("Started on ") + test.device.name),
                          "INFO", "1000", "", at(start + 1));
    bool const failed = std::string(test.result) == "FAIL";
    if (test.device.type == kMemory.type && failed) {
        store.logTestRunEvent(testId, "Pattern 0x55AA mismatch at 0x3A2F1000 (bit 17)", "ERROR",
                              "2031", "MEM-31", at(start + 95));
        store.logTestRunTip(testId, "memory.reseat", "Action", "Reseat the memory module",
                            "Switch off, unplug, and press DIMM A1 firmly into its slot.",
                            "If the error returns after reseating, replace the module.",
                            at(start + 96));
    } else if (test.device.type == kDisk.type && failed) {
        store.logTestRunEvent(testId, "Reallocated sector count 112 exceeds threshold 100", "ERROR",
                              "3112", "DSK-112", at(start + 40));
        store.logTestRunTip(testId, "disk.backup", "Action", "Back up your data",
                            "Copy important files to another drive today.",
                            "The drive is remapping failing sectors; more failures are likely.",
                            at(start + 41));
    } else if (test.device.type == kBattery.type) {
        store.logTestRunEvent(testId, "Full charge capacity 39800 mWh of 56000 mWh design (71%)",
                              "WARNING", "4071", "", at(start + 30));
    }
    store.logTestRunEvent(testId, zrn::String(std::string("Finished: ") + test.result), "INFO",
                          "1001", "", at(start + 120));
    store.logTestFinished(testId, test.result, test.errorCode, at(start + 120));
    batch.commit();
}

long long runScript(zrn::EventDataStore& store, long long appId, long long start,
                    std::vector<TestPlan> const& tests) {
    long long const scriptId = required(
        store.logScriptStart(appId, "RUNNING", kScriptGuid, kScriptName, at(start), 1, kScriptXml),
        "script run");
    bool failed = false;
    for (std::size_t i = 0; i < tests.size(); ++i) {
        runTest(store, scriptId, tests[i], start + 10 + static_cast<long long>(i) * 150, i == 0);
        failed = failed || std::string(tests[i].result) == "FAIL";
    }
    store.logScriptFinished(scriptId, failed ? "FAIL" : "PASS",
                            at(start + 10 + static_cast<long long>(tests.size()) * 150));
    return scriptId;
}

zrn::EventDataStore::AlertData alertData(long long appId, long long time, char const* key,
                                         char const* type, char const* title, char const* message,
                                         char const* device,
                                         std::vector<std::pair<zrn::String, zrn::String>> keyValues,
                                         zrn::TipResultLog tip) {
    zrn::EventDataStore::AlertData alert;
    alert.appId = appId;
    alert.guid = newGuid();
    alert.key = key;
    alert.type = type;
    alert.title = title;
    alert.message = message;
    alert.deviceName = device;
    alert.time = at(time);
    alert.tips.push_back(std::move(tip));
    alert.keyValues = std::move(keyValues);
    return alert;
}

void recordScripts(zrn::EventDataStore& store, long long app, Day const& day, EventDay& recorded) {
    // Morning: memory and disk fail. Afternoon, after the memory was reseated: only the disk.
    TestPlan const memoryFail{"Memory pattern test", "0b8e7c61-2f4a-4d3b-9e5c-7a1f6d2b8c90",
                              kMemory, "FAIL", "MEM-0031"};
    TestPlan const memoryPass{"Memory pattern test", "0b8e7c61-2f4a-4d3b-9e5c-7a1f6d2b8c90",
                              kMemory, "PASS", ""};
    TestPlan const disk{"Disk SMART check", "5a3d9f02-6c1e-4b7a-8d4f-2e9c0b7a1f63", kDisk, "FAIL",
                        "DSK-0112"};
    TestPlan const battery{"Battery health", "e2c4a7f9-8b1d-4c6e-a3f5-9d0b2e7c4a18", kBattery,
                           "PASS", ""};
    recorded.scriptIds.push_back(runScript(store, app, day.at(9, 0), {memoryFail, disk, battery}));
    recorded.scriptIds.push_back(runScript(store, app, day.at(14, 0), {memoryPass, disk, battery}));
}

// Three alerts, the disk's followed up.
void recordAlerts(zrn::EventDataStore& store, long long app, Day const& day, EventDay& recorded) {
    std::vector<zrn::EventDataStore::AlertData> const alerts{
        alertData(app, day.at(9, 7), "disk.smart.reallocated", "Hardware", "Disk health warning",
                  "Reallocated sector count rose to 112 (threshold 100).", kDisk.name,
                  {{"attribute", "Reallocated sectors"}, {"value", "112"}, {"threshold", "100"}},
                  zrn::TipResultLog("disk.backup", "Action", "Back up your data",
                                    "Copy important files to another drive today.",
                                    "The drive is remapping failing sectors.", at(day.at(9, 7)))),
        alertData(
            app, day.at(9, 12), "battery.wear", "Hardware", "Battery capacity low",
            "The battery holds 71% of its design capacity.", kBattery.name,
            {{"designCapacity", "56000 mWh"}, {"fullChargeCapacity", "39800 mWh"}, {"wear", "29%"}},
            zrn::TipResultLog("battery.calibrate", "Advice", "Calibrate the battery",
                              "Charge to 100%, then run on battery until it switches off.", "",
                              at(day.at(9, 12)))),
    };
    if (!store.logAlerts(alerts)) throw zrn::Exception("the morning's alerts were not recorded");
    zrn::EventDataStore::AlertData const driver = alertData(
        app, day.at(11, 30), "driver.update", "Software", "Driver update available",
        "A newer Wi-Fi driver is available: 22.10.0 (installed 21.40.1).", "Wi-Fi adapter",
        {{"driver", "Example Wi-Fi driver"}, {"installed", "21.40.1"}, {"available", "22.10.0"}},
        zrn::TipResultLog("driver.update", "Action", "Update the driver",
                          "Let the repair tool install 22.10.0.", "", at(day.at(11, 30))));
    if (!store.logAlert(driver)) throw zrn::Exception("the driver alert was not recorded");
    for (auto const& alert : alerts) recorded.alertGuids.push_back(alert.guid.str());
    recorded.alertGuids.push_back(driver.guid.str());
    // Somebody follows up the disk.
    store.markAlertAsTracked(alerts[0].guid);
}

// Measurements, profiler diffs and scriptlet results.
void recordMonitoring(zrn::EventDataStore& store, long long app, Day const& day) {
    // Hourly measurements over the working day.
    for (int hour = 9; hour < 17; ++hour) {
        double const load = std::sin((hour - 9) * 0.45);
        auto const start = static_cast<unsigned>(day.at(hour, 0));
        auto const middle = static_cast<unsigned>(day.at(hour, 30));
        auto const end = static_cast<unsigned>(day.at(hour, 59, 59));
        store.logMeasurement("CPU temperature", start, middle, end, 71.0 + 12 * load,
                             38.0 + 2 * load, 49.5 + 6 * load, 48.0 + 6 * load, 360);
        store.logMeasurement("Memory usage", start, middle, end, 82.0 + 9 * load, 41.0,
                             58.0 + 8 * load, 57.5 + 8 * load, 360);
    }

    store.logProfilerDiff(app, "Drivers", day.at(14, 30), 2,
                          "{\"added\":[\"Example Wi-Fi driver 22.10.0\"],\"removed\":[\"Example "
                          "Wi-Fi driver 21.40.1\"]}");
    store.logProfilerDiff(app, "Startup programs", day.at(14, 31), 3,
                          "{\"disabled\":[\"Updater Helper\",\"Chat Launcher\",\"Photo Sync\"]}");

    store.logScriptletResult(app, "disk.freeSpace", "Storage", "23% free", "WARN",
                             at(day.at(9, 10)));
    store.logScriptletResult(app, "network.latency", "Network", "14 ms", "OK", at(day.at(9, 10)));
    store.logScriptletResult(app, "os.pendingUpdates", "System", "3 updates", "WARN",
                             at(day.at(9, 11)));
    // The afternoon's checks: an unchanged result is not recorded again.
    store.logScriptletResult(app, "disk.freeSpace", "Storage", "23% free", "WARN",
                             at(day.at(14, 10)));
    store.logScriptletResult(app, "os.pendingUpdates", "System", "0 updates", "OK",
                             at(day.at(14, 11)));
}

EventDay recordEvents(zrn::EventDataStore& store, Day const& day) {
    EventDay recorded;
    long long const app = required(store.logAppStart("Diagnostics Suite", zrn::String(userName()),
                                                     "Scheduled", at(day.at(8, 55))),
                                   "application run");
    recorded.appId = app;
    recordScripts(store, app, day, recorded);
    recordAlerts(store, app, day, recorded);
    // The rest of the day's records as one batch: a handful of syncs rather than one set each.
    zrn::StoreBatch rest(store);
    recordMonitoring(store, app, day);
    store.logAppStop(app, at(day.at(16, 45)));
    rest.commit();
    return recorded;
}

// ---- genstore.db

std::vector<std::pair<std::string, std::string>> recordGeneral(zrn::GeneralDataStore& store,
                                                               std::string const& path) {
    zrn::StoreBatch batch(store);
    auto keyValues = [](std::vector<std::pair<char const*, char const*>> const& pairs) {
        zrn::LogKeyValueSet set;
        for (auto const& [key, value] : pairs) set.append(zrn::LogKeyValue(key, value));
        return set;
    };
    auto log = [&](zrn::GenericLog const& generic) {
        if (!store.logOrUpdate(generic)) storeFailure(path, "cannot record a generic log");
    };
    std::vector<std::pair<std::string, std::string>> recorded;

    std::string const disk = newGuid();
    zrn::GenericLog diskLog(
        kHealthType, zrn::String(disk), "Storage", "NVMe", 0x1,
        keyValues({{"Status", "Warning"}, {"ReallocatedSectors", "112"}, {"Model", kDisk.name}}));
    log(diskLog);
    // Checked again in the afternoon: one value changes, one is added.
    diskLog.keyValues().updateKeyValue("ReallocatedSectors", "114");
    diskLog.keyValues().append(zrn::LogKeyValue("CheckedBy", "Quick hardware check"));
    log(diskLog);
    recorded.emplace_back(kHealthType, disk);

    std::string const battery = newGuid();
    log(zrn::GenericLog(kHealthType, zrn::String(battery), "Power", "Battery", 0x1,
                        keyValues({{"Status", "Warning"}, {"Wear", "29%"}})));
    recorded.emplace_back(kHealthType, battery);

    std::string const driver = newGuid();
    zrn::GenericLog driverLog(
        kInventoryType, zrn::String(driver), "Software", "Drivers", 0x4,
        keyValues(
            {{"Driver", "Example Wi-Fi driver"}, {"Version", "22.10.0"}, {"Previous", "21.40.1"}}));
    driverLog.setTracked(true);
    log(driverLog);
    recorded.emplace_back(kInventoryType, driver);
    batch.commit();
    return recorded;
}

// ---- appstate.db

void recordState(zrn::AppStateDataStore& store, std::string const& path, Day const& day) {
    zrn::StoreBatch batch(store);
    auto put = [&](char const* key, std::string const& data, char const* group) {
        // The day's value replaces the previous one.
        if (!replaceStateItem(store, key, zrn::String(data), group)) {
            storeFailure(path, std::string("cannot store '") + key + "'");
        }
    };
    put("ui.lastView", "alerts", "ui");
    put("ui.theme", "dark", "ui");
    put("scheduler.lastRun",
        zrn::DateTime::fromUnixTimeStamp(day.at(16, 45)).toLocalTime().toString().str(),
        "scheduler");
    put("scheduler.lastResult", "FAIL: Disk SMART check", "scheduler");
    put("scheduler.nextRun",
        zrn::DateTime::fromUnixTimeStamp(day.at(33, 0)).toLocalTime().toString().str(),
        "scheduler");
    batch.commit();
}

// ---- softwarediagevent.db

zrn::SessionLog recordRepair(zrn::SoftwareDiagEventDataStore& store, std::string const& path) {
    auto check = [&](bool done, char const* what) {
        if (!done) storeFailure(path, std::string("cannot record ") + what);
    };
    zrn::StoreBatch batch(store);  // the whole session, as the repair tool runs it
    check(store.logSessionStarted(), "the session");
    zrn::SessionLog const session = store.getLastSessionLog();
    check(store.logRunTransactionStarted(session), "the run transaction");
    check(store.sessionHasRunTransaction(session), "the run transaction");
    zrn::RunTransactionLog const run = store.getRunTransactionBySession(session);

    struct Finding {
        char const* diagnostic;
        char const* issue;
        char const* description;
        char const* fix;
        char const* fixResult;
        unsigned state;  // this suite's fix states: 1 done, 2 done in part
    };
    std::vector<Finding> const findings{
        {"Startup programs", "Slow start-up",
         "7 programs start with the system; 3 are rarely used.",
         "Disable 3 rarely used start-up programs", "Disabled 3 programs", 1},
        {"Wi-Fi driver check", "Outdated Wi-Fi driver", "Installed 21.40.1; 22.10.0 is available.",
         "Update the Wi-Fi driver to 22.10.0", "Installed 22.10.0", 1},
        {"Disk cleanup candidates", "Temporary files", "4.2 GB of temporary files in 3 folders.",
         "Remove temporary files", "3.9 GB removed; 2 files were in use", 2},
    };
    std::vector<zrn::IssueLog> issues;
    for (Finding const& finding : findings) {
        check(store.logSoftwareDiagnosticStarted(session, run, zrn::String(newGuid()),
                                                 finding.diagnostic),
              "a diagnostic");
        zrn::SoftwareDiagnosticLog const diagnostic =
            store.getSoftwareDiagnosticsByRunTransaction(run, true, 1).get(0);
        check(store.logIssue(session, diagnostic, finding.issue, finding.description), "an issue");
        issues.push_back(store.getIssuesBySoftwareDiagnostic(diagnostic, true, 1).get(0));
        store.logSoftwareDiagnosticFinished(diagnostic, "ISSUES FOUND");
    }
    store.logRunTransactionFinished(run);

    // The repair: a restore point first, then one fix per issue.
    check(store.logFixTransactionStarted(session, ""), "the fix transaction");
    check(store.sessionHasFixTransaction(session), "the fix transaction");
    zrn::FixTransactionLog const fixTransaction = store.getFixTransactionBySession(session);
    check(store.associateRestorePointToFixTransaction(fixTransaction,
                                                      zrn::String("{" + newGuid() + "}")),
          "the restore point");
    for (std::size_t i = 0; i < findings.size(); ++i) {
        check(store.logFixAction(session, zrn::String(newGuid()), findings[i].fix), "a fix action");
        zrn::FixActionLog const fix = store.getFixActionsBySession(session, true, 1).get(0);
        check(store.associateIssueToFixAction(issues[i], fix), "an issue's fix action");
        store.logFixActionStarted(fix);
        store.logFixActionFinished(fix, static_cast<zrn::FixActionState>(findings[i].state),
                                   findings[i].fixResult);
    }
    store.logFixTransactionFinished(fixTransaction);
    store.logSessionFinished(session);
    batch.commit();
    return session;
}

// ---- The day, read back

// The day named "YYYY-MM-DD" (local), so that what the demo records is the same on every run;
// none when no day is named. Read before any store is opened: a mistyped day creates nothing.
std::optional<Day> namedDay(std::string const& named) {
    if (named.empty()) return std::nullopt;
    std::tm noon{};
    std::istringstream in(named);
    in >> std::get_time(&noon, "%Y-%m-%d");
    if (in.fail() || in.peek() != std::char_traits<char>::eof())
        throw ToolError(USAGE, "--day: expected YYYY-MM-DD, got '" + named + "'");
    noon.tm_hour = 12;
    noon.tm_isdst = -1;
    return Day(static_cast<long long>(std::mktime(&noon)), 0);
}

struct Recorded {
    Day day;
    EventDay events;
    std::vector<std::pair<std::string, std::string>> logs;  // type, GUID
    zrn::SessionLog session;
};

// The event store's part of what was read back.
void printEventReadBack(zrn::EventDataStore& events, Recorded const& recorded) {
    EventTimePoint const from = at(recorded.day.at(0, 0));
    EventTimePoint const to = at(recorded.day.at(23, 59, 59));
    std::size_t tests = 0, failed = 0, eventCount = 0, tips = 0;
    for (long long scriptId : recorded.events.scriptIds) {
        auto const runs = events.testRunResultLogs(scriptId, at(0), at(0), 0);
        tests += runs.size();
        for (auto const& run : runs) failed += run.result() == "FAIL";
        eventCount += events.scriptRunEventResultLogs(scriptId, at(0), at(0), 0).size();
        tips += events.scriptRunTipResultLogs(scriptId, at(0), at(0), 0).size();
    }
    std::size_t tracked = 0;
    for (auto const& guid : recorded.events.alertGuids)
        tracked += events.alertTracked(zrn::String(guid));
    std::size_t const scripts =
        events.scriptResultLogs(from, to, boost::none, boost::none, zrn::String(kScriptGuid), 0)
            .size();
    std::cout << "  event.db              " << scripts << " script runs, " << tests
              << " test runs (" << failed << " failed), " << eventCount << " events, " << tips
              << " tips,\n"
              << "                        " << events.alertResultLogs(from, to, "", false, 0).size()
              << " alerts (" << tracked << " tracked), "
              << events.measurementLogs(from, to, "", 0).size() << " measurements, "
              << events.profilerDiffLogs(from, to, "", 0).size() << " profiler diffs, "
              << events.scriptletResultLogs(from, to, "", "", "", 0).size()
              << " scriptlet results\n";
}

// The other stores' part of what was read back, then the note on their times.
void printOtherReadBack(zrn::GeneralDataStore& general, zrn::AppStateDataStore& state,
                        zrn::SoftwareDiagEventDataStore& repair, Recorded const& recorded) {
    std::size_t generalCount = 0, keyValues = 0;
    for (auto const& [type, guid] : recorded.logs) {
        zrn::GenericLogList const found =
            general.getLogs(zrn::GenericLogFilter(zrn::String(type), zrn::String(guid)));
        generalCount += found.size();
        for (unsigned i = 0; i < found.size(); ++i) keyValues += found.get(i).keyValues().size();
    }
    zrn::SessionLog const& session = recorded.session;
    zrn::RunTransactionLog const run = repair.getRunTransactionBySession(session);
    std::cout << "  genstore.db           " << generalCount << " generic logs with " << keyValues
              << " key/values\n"
              << "  appstate.db           " << state.count("") << " items: " << state.count("ui")
              << " in \"ui\", " << state.count("scheduler") << " in \"scheduler\"\n"
              << "  softwarediagevent.db  "
              << repair.getSoftwareDiagnosticsByRunTransaction(run, false, 0).size()
              << " diagnostics, " << repair.getIssuesBySession(session, false, 0).size()
              << " issues, " << repair.getFixActionsBySession(session, false, 0).size()
              << " fix actions, restore point "
              << repair.getFixTransactionBySession(session).restorePointUuid()
              << "\n"
              // The general and repair stores stamp what they record with the moment of
              // recording: their API takes no time, so their records cannot join the day.
              << "Note: genstore.db and softwarediagevent.db take no time for what they record "
                 "(they stamp it with the moment of recording):\n"
              << "  their generic logs and repair session carry the time of this run, not "
              << recorded.day.date() << ".\n"
              << "Files:\n";
}

template <typename Record>
auto recordOrFail(std::string const& path, Record record) {
    try {
        return record();
    } catch (zrn::Exception const& e) {
        storeFailure(path, "cannot record: " + e.getMessage().str());
    }
}

void demo(Options const& options, std::string const& dayNamed) {
    std::optional<Day> const named = namedDay(dayNamed);
    std::string const eventPath = recordingStorePath(options, Store::Event);
    std::string const generalPath = recordingStorePath(options, Store::General);
    std::string const statePath = recordingStorePath(options, Store::AppState);
    std::string const repairPath = recordingStorePath(options, Store::SoftwareDiag);

    auto events = openOrFail(
        eventPath, [&] { return std::make_unique<zrn::EventDataStore>(zrn::String(eventPath)); });
    Day const day = named ? *named : dayToRecord(*events);
    EventDay const eventDay = recordOrFail(eventPath, [&] { return recordEvents(*events, day); });

    auto general = openOrFail(generalPath, [&] {
        return std::make_unique<zrn::GeneralDataStore>(zrn::String(generalPath));
    });
    if (!general->isInitialized()) storeFailure(generalPath, "cannot open");
    auto const logs = recordGeneral(*general, generalPath);

    zrn::AppStateDataStore state{zrn::String(statePath)};
    zrn::String error;
    if (!state.checkValidity(error)) storeFailure(statePath, "cannot open");
    recordState(state, statePath, day);

    auto repair = openOrFail(repairPath, [&] {
        return std::make_unique<zrn::SoftwareDiagEventDataStore>(zrn::String(repairPath));
    });
    Recorded const recorded{day, eventDay, logs, recordOrFail(repairPath, [&] {
                                return recordRepair(*repair, repairPath);
                            })};

    // Everything below is read back through the stores' queries.
    std::cout << "Recorded a diagnostics day, " << day.date() << " (application run "
              << eventDay.appId << ", repair session " << recorded.session.sessionId()
              << "). Read back:\n";
    printEventReadBack(*events, recorded);
    printOtherReadBack(*general, state, *repair, recorded);
    for (auto const* path : {&eventPath, &generalPath, &statePath, &repairPath})
        std::cout << "  " << *path << "\n";
}

}  // namespace

void addDemoCommand(CLI::App& app, Options& options) {
    CLI::App* c =
        app.add_subcommand("demo",
                           "Record a realistic diagnostics day into all four stores (a new, "
                           "earlier day on each run) and print what was read back");
    addDirOption(*c, options);
    static std::string day;
    c->add_option("--day", day,
                  "Record this local day (YYYY-MM-DD), the same records on every run, rather "
                  "than a new day before the stores' earliest");
    c->footer("Example: datastore demo --dir /tmp/stores && datastore alerts --dir /tmp/stores");
    c->callback([&options] { demo(options, day); });
}

}  // namespace datastore
