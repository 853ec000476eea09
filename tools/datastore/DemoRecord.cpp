// The demo's days recorded into the four stores through their API, as the suite's programs
// record them: each test, and each store's other records, go in as one StoreBatch.

#include <libCommon/DateTime.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>
#include <libDataStore/StoreBatch.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "Demo.h"

namespace datastore {

namespace {

using zrn::EventTimePoint;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

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

std::string newGuid(std::mt19937_64& random) {
    unsigned long long const a = random(), b = random();
    char text[40];
    std::snprintf(text, sizeof text, "%08llx-%04llx-4%03llx-%04llx-%012llx", a >> 32,
                  (a >> 16) & 0xffff, a & 0xfff, 0x8000 | (b >> 48 & 0x3fff),
                  b & 0xffffffffffffULL);
    return text;
}

// ---- event.db

struct TestPlan {
    char const* name;
    char const* guid;
    Device device;
    char const* result;
    char const* errorCode;
};

long long required(boost::optional<long long> const& id, char const* what) {
    if (!id || *id <= 0)
        throw zrn::Exception(zrn::String(std::string("no id for the new ") + what));
    return *id;
}

long long startTest(zrn::EventDataStore& store, long long scriptId, TestPlan const& test,
                    long long start, bool initialize) {
    if (!initialize) {
        return required(
            store.logTestStart(scriptId, test.name, test.device.name, test.guid, test.device.guid,
                               test.device.type, "RUNNING", at(start), 1),
            "test run");
    }
    // A test that reports an initialisation phase before it runs.
    long long const testId = required(
        store.logTestInitializing(scriptId, test.name, test.device.name, test.guid,
                                  test.device.guid, test.device.type, "INITIALIZING", at(start), 1),
        "test run");
    store.logTestInitialized(testId, "RUNNING", at(start + 20));
    return testId;
}

void runTest(zrn::EventDataStore& store, long long scriptId, TestPlan const& test,
             ScriptPlan const& script, long long start, bool initialize) {
    // One transaction per test, as a test runner should record: a few syncs instead of one set
    // per row. The batch holds "event_store" only for the test's own operations.
    zrn::StoreBatch batch(store);
    long long const testId = startTest(store, scriptId, test, start, initialize);
    store.logTestRunEvent(testId, zrn::String(std::string("Started on ") + test.device.name),
                          "INFO", "1000", "", at(start + 1));
    bool const failed = std::string(test.result) == "FAIL";
    if (test.device.type == kMemory.type && failed) {
        store.logTestRunEvent(testId, "Pattern 0x55AA mismatch at 0x3A2F1000 (bit 17)", "ERROR",
                              "2031", "MEM-0031", at(start + 95));
        store.logTestRunTip(testId, "memory.reseat", "Action", "Reseat the memory module",
                            "Switch off, unplug, and press DIMM A1 firmly into its slot.",
                            "If the error returns after reseating, replace the module.",
                            at(start + 96));
    } else if (test.device.type == kDisk.type && failed) {
        store.logTestRunEvent(
            testId,
            zrn::String("Reallocated sector count " + std::to_string(script.reallocated) +
                        " exceeds threshold 100"),
            "ERROR", "3112", "DSK-0112", at(start + 40));
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

std::vector<TestPlan> testsOf(ScriptPlan const& script) {
    return {{"Memory pattern test", "0b8e7c61-2f4a-4d3b-9e5c-7a1f6d2b8c90", kMemory,
             script.memoryFails ? "FAIL" : "PASS", script.memoryFails ? "MEM-0031" : ""},
            {"Disk SMART check", "5a3d9f02-6c1e-4b7a-8d4f-2e9c0b7a1f63", kDisk,
             script.diskFails ? "FAIL" : "PASS", script.diskFails ? "DSK-0112" : ""},
            {"Battery health", "e2c4a7f9-8b1d-4c6e-a3f5-9d0b2e7c4a18", kBattery, "PASS", ""}};
}

long long runScript(zrn::EventDataStore& store, long long appId, ScriptPlan const& script) {
    long long const start = script.start;
    long long const scriptId = required(
        store.logScriptStart(appId, "RUNNING", kScriptGuid, kScriptName, at(start), 1, kScriptXml),
        "script run");
    std::vector<TestPlan> const tests = testsOf(script);
    bool failed = false;
    for (std::size_t i = 0; i < tests.size(); ++i) {
        runTest(store, scriptId, tests[i], script, start + 10 + static_cast<long long>(i) * 150,
                i == 0);
        failed = failed || std::string(tests[i].result) == "FAIL";
    }
    store.logScriptFinished(scriptId, failed ? "FAIL" : "PASS",
                            at(start + 10 + static_cast<long long>(tests.size()) * 150));
    return scriptId;
}

zrn::EventDataStore::AlertData alertData(long long appId, std::string const& guid, long long time,
                                         char const* key, char const* type, char const* title,
                                         std::string const& message, char const* device,
                                         std::vector<std::pair<zrn::String, zrn::String>> keyValues,
                                         zrn::TipResultLog tip) {
    zrn::EventDataStore::AlertData alert;
    alert.appId = appId;
    alert.guid = guid;
    alert.key = key;
    alert.type = type;
    alert.title = title;
    alert.message = zrn::String(message);
    alert.deviceName = device;
    alert.time = at(time);
    alert.tips.push_back(std::move(tip));
    alert.keyValues = std::move(keyValues);
    return alert;
}

zrn::EventDataStore::AlertData diskAlert(long long app, std::string const& guid,
                                         AlertPlan const& plan) {
    std::string const count = std::to_string(plan.reallocated);
    return alertData(
        app, guid, plan.time, "disk.smart.reallocated", "Hardware", "Disk health warning",
        "Reallocated sector count rose to " + count + " (threshold 100).", kDisk.name,
        {{"attribute", "Reallocated sectors"}, {"value", zrn::String(count)}, {"threshold", "100"}},
        zrn::TipResultLog("disk.backup", "Action", "Back up your data",
                          "Copy important files to another drive today.",
                          "The drive is remapping failing sectors.", at(plan.time)));
}

zrn::EventDataStore::AlertData alertOf(long long app, std::string const& guid,
                                       AlertPlan const& plan) {
    switch (plan.kind) {
        case AlertKind::Disk:
            return diskAlert(app, guid, plan);
        case AlertKind::Battery:
            return alertData(
                app, guid, plan.time, "battery.wear", "Hardware", "Battery capacity low",
                "The battery holds 71% of its design capacity.", kBattery.name,
                {{"designCapacity", "56000 mWh"},
                 {"fullChargeCapacity", "39800 mWh"},
                 {"wear", "29%"}},
                zrn::TipResultLog("battery.calibrate", "Advice", "Calibrate the battery",
                                  "Charge to 100%, then run on battery until it switches off.", "",
                                  at(plan.time)));
        case AlertKind::Driver:
            break;
    }
    return alertData(
        app, guid, plan.time, "driver.update", "Software", "Driver update available",
        "A newer Wi-Fi driver is available: 22.10.0 (installed 21.40.1).", "Wi-Fi adapter",
        {{"driver", "Example Wi-Fi driver"}, {"installed", "21.40.1"}, {"available", "22.10.0"}},
        zrn::TipResultLog("driver.update", "Action", "Update the driver",
                          "Let the repair tool install 22.10.0.", "", at(plan.time)));
}

// Each group in one call; then the alerts somebody followed up are marked.
void recordAlerts(zrn::EventDataStore& store, long long app, DayPlan& plan, EventDay& recorded) {
    std::vector<std::string> tracked;
    for (std::vector<AlertPlan> const& group : plan.alertGroups) {
        std::vector<zrn::EventDataStore::AlertData> alerts;
        for (AlertPlan const& alert : group) {
            alerts.push_back(alertOf(app, newGuid(plan.random), alert));
            if (alert.tracked) tracked.push_back(alerts.back().guid.str());
        }
        bool const done = alerts.size() == 1 ? store.logAlert(alerts[0]) : store.logAlerts(alerts);
        if (!done) throw zrn::Exception("the day's alerts were not recorded");
        for (auto const& alert : alerts) recorded.alertGuids.push_back(alert.guid.str());
    }
    for (std::string const& guid : tracked) store.markAlertAsTracked(zrn::String(guid));
}

void recordMeasurements(zrn::EventDataStore& store, DayPlan const& plan) {
    // Hourly measurements over the working day.
    MeasurementPlan const& m = plan.measurements;
    for (int hour = 9; hour < 17; ++hour) {
        double const load = std::sin((hour - 9) * 0.45);
        double const spike = hour == m.spikeHour ? 1 : 0;
        auto const start = static_cast<unsigned>(plan.day.at(hour, 0));
        auto const middle = static_cast<unsigned>(plan.day.at(hour, 30));
        auto const end = static_cast<unsigned>(plan.day.at(hour, 59, 59));
        double const c = m.cpuOffset, u = m.memoryOffset;
        store.logMeasurement("CPU temperature", start, middle, end,
                             71.0 + 12 * load + c + 16 * spike, 38.0 + 2 * load + c,
                             49.5 + 6 * load + c + 3 * spike, 48.0 + 6 * load + c, 360);
        store.logMeasurement("Memory usage", start, middle, end,
                             std::min(99.0, 82.0 + 9 * load + u + 7 * spike), 41.0 + u,
                             58.0 + 8 * load + u + 2 * spike, 57.5 + 8 * load + u, 360);
    }
}

// Profiler diffs (on the repair's day) and scriptlet results, checked after each script run.
void recordChecks(zrn::EventDataStore& store, long long app, DayPlan const& plan) {
    Day const& day = plan.day;
    if (plan.repair) {
        store.logProfilerDiff(app, "Drivers", day.at(14, 30), 2,
                              "{\"added\":[\"Example Wi-Fi driver 22.10.0\"],\"removed\":"
                              "[\"Example Wi-Fi driver 21.40.1\"]}");
        store.logProfilerDiff(
            app, "Startup programs", day.at(14, 31), 3,
            "{\"disabled\":[\"Updater Helper\",\"Chat Launcher\",\"Photo Sync\"]}");
    }
    zrn::String const free(std::to_string(plan.freeSpace) + "% free");
    char const* freeStatus = plan.freeSpace < 25 ? "WARN" : "OK";
    long long const morning = plan.scripts.front().start + 600;
    store.logScriptletResult(app, "disk.freeSpace", "Storage", free, freeStatus, at(morning));
    store.logScriptletResult(app, "network.latency", "Network",
                             zrn::String(std::to_string(plan.latency) + " ms"), "OK", at(morning));
    store.logScriptletResult(app, "os.pendingUpdates", "System",
                             zrn::String(std::to_string(plan.pendingUpdates) + " updates"),
                             plan.pendingUpdates > 0 ? "WARN" : "OK", at(morning + 60));
    if (plan.scripts.size() < 2) return;
    // The afternoon's checks: an unchanged result is not recorded again.
    long long const afternoon = plan.scripts[1].start + 600;
    store.logScriptletResult(app, "disk.freeSpace", "Storage", free, freeStatus, at(afternoon));
    store.logScriptletResult(app, "os.pendingUpdates", "System", "0 updates", "OK",
                             at(afternoon + 60));
}

}  // namespace

EventDay recordEvents(zrn::EventDataStore& store, DayPlan& plan, std::string const& user) {
    EventDay recorded;
    long long const app = required(
        store.logAppStart("Diagnostics Suite", zrn::String(user), "Scheduled", at(plan.appStart)),
        "application run");
    recorded.appId = app;
    for (ScriptPlan const& script : plan.scripts)
        recorded.scriptIds.push_back(runScript(store, app, script));
    recordAlerts(store, app, plan, recorded);
    // The rest of the day's records as one batch: a handful of syncs rather than one set each.
    zrn::StoreBatch rest(store);
    recordMeasurements(store, plan);
    recordChecks(store, app, plan);
    store.logAppStop(app, at(plan.appStop));
    rest.commit();
    return recorded;
}

// ---- genstore.db

namespace {

zrn::LogKeyValueSet keyValues(std::vector<std::pair<std::string, std::string>> const& pairs) {
    zrn::LogKeyValueSet set;
    for (auto const& [key, value] : pairs)
        set.append(zrn::LogKeyValue(zrn::String(key), zrn::String(value)));
    return set;
}

}  // namespace

LogKeys recordGeneral(zrn::GeneralDataStore& store, std::string const& path, DayPlan& plan) {
    zrn::StoreBatch batch(store);
    auto log = [&](zrn::GenericLog const& generic) {
        if (!store.logOrUpdate(generic)) storeFailure(path, "cannot record a generic log");
    };
    LogKeys recorded;
    std::string const disk = newGuid(plan.random);
    zrn::GenericLog diskLog(kHealthType, zrn::String(disk), "Storage", "NVMe", 0x1,
                            keyValues({{"Status", plan.diskLogSectors > 100 ? "Warning" : "OK"},
                                       {"ReallocatedSectors", std::to_string(plan.diskLogSectors)},
                                       {"Model", kDisk.name}}));
    log(diskLog);
    // Checked again in the afternoon: one value changes, one is added.
    diskLog.keyValues().updateKeyValue("ReallocatedSectors",
                                       zrn::String(std::to_string(plan.diskLogSectors + 2)));
    diskLog.keyValues().append(zrn::LogKeyValue("CheckedBy", "Quick hardware check"));
    log(diskLog);
    recorded.emplace_back(kHealthType, disk);

    std::string const battery = newGuid(plan.random);
    log(zrn::GenericLog(kHealthType, zrn::String(battery), "Power", "Battery", 0x1,
                        keyValues({{"Status", "Warning"}, {"Wear", plan.batteryWear}})));
    recorded.emplace_back(kHealthType, battery);
    if (plan.repair) {
        std::string const driver = newGuid(plan.random);
        zrn::GenericLog driverLog(kInventoryType, zrn::String(driver), "Software", "Drivers", 0x4,
                                  keyValues({{"Driver", "Example Wi-Fi driver"},
                                             {"Version", "22.10.0"},
                                             {"Previous", "21.40.1"}}));
        driverLog.setTracked(true);
        log(driverLog);
        recorded.emplace_back(kInventoryType, driver);
    }
    batch.commit();
    return recorded;
}

// ---- appstate.db

void recordState(zrn::AppStateDataStore& store, std::string const& path, DayPlan const& plan) {
    zrn::StoreBatch batch(store);
    auto put = [&](char const* key, std::string const& data, char const* group) {
        // The day's value replaces the previous one.
        if (!replaceStateItem(store, key, zrn::String(data), group)) {
            storeFailure(path, std::string("cannot store '") + key + "'");
        }
    };
    auto localText = [](long long seconds) {
        return zrn::DateTime::fromUnixTimeStamp(seconds).toLocalTime().toString().str();
    };
    put("ui.lastView", "alerts", "ui");
    put("ui.theme", "dark", "ui");
    put("scheduler.lastRun", localText(plan.appStop), "scheduler");
    put("scheduler.lastResult", plan.lastResult, "scheduler");
    put("scheduler.nextRun", localText(plan.day.at(33, 0)), "scheduler");
    batch.commit();
}

// ---- softwarediagevent.db

namespace {

// The diagnostics of the session's run transaction, each with the issue it found.
std::vector<zrn::IssueLog> diagnose(zrn::SoftwareDiagEventDataStore& store,
                                    zrn::SessionLog const& session, DayPlan& plan,
                                    std::function<void(bool, char const*)> const& check) {
    check(store.logRunTransactionStarted(session), "the run transaction");
    check(store.sessionHasRunTransaction(session), "the run transaction");
    zrn::RunTransactionLog const run = store.getRunTransactionBySession(session);
    std::vector<zrn::IssueLog> issues;
    for (Finding const& finding : plan.findings) {
        check(store.logSoftwareDiagnosticStarted(session, run, zrn::String(newGuid(plan.random)),
                                                 zrn::String(finding.diagnostic)),
              "a diagnostic");
        zrn::SoftwareDiagnosticLog const diagnostic =
            store.getSoftwareDiagnosticsByRunTransaction(run, true, 1).get(0);
        check(store.logIssue(session, diagnostic, zrn::String(finding.issue),
                             zrn::String(finding.description)),
              "an issue");
        issues.push_back(store.getIssuesBySoftwareDiagnostic(diagnostic, true, 1).get(0));
        store.logSoftwareDiagnosticFinished(diagnostic, "ISSUES FOUND");
    }
    store.logRunTransactionFinished(run);
    return issues;
}

}  // namespace

zrn::SessionLog recordRepair(zrn::SoftwareDiagEventDataStore& store, std::string const& path,
                             DayPlan& plan) {
    auto check = [&](bool done, char const* what) {
        if (!done) storeFailure(path, std::string("cannot record ") + what);
    };
    zrn::StoreBatch batch(store);  // the whole session, as the repair tool runs it
    check(store.logSessionStarted(), "the session");
    zrn::SessionLog const session = store.getLastSessionLog();
    std::vector<zrn::IssueLog> const issues = diagnose(store, session, plan, check);

    // The repair: a restore point first, then one fix per issue.
    check(store.logFixTransactionStarted(session, ""), "the fix transaction");
    check(store.sessionHasFixTransaction(session), "the fix transaction");
    zrn::FixTransactionLog const fixTransaction = store.getFixTransactionBySession(session);
    check(store.associateRestorePointToFixTransaction(
              fixTransaction, zrn::String("{" + newGuid(plan.random) + "}")),
          "the restore point");
    for (std::size_t i = 0; i < plan.findings.size(); ++i) {
        Finding const& finding = plan.findings[i];
        check(store.logFixAction(session, zrn::String(newGuid(plan.random)),
                                 zrn::String(finding.fix)),
              "a fix action");
        zrn::FixActionLog const fix = store.getFixActionsBySession(session, true, 1).get(0);
        check(store.associateIssueToFixAction(issues[i], fix), "an issue's fix action");
        store.logFixActionStarted(fix);
        store.logFixActionFinished(fix, static_cast<zrn::FixActionState>(finding.state),
                                   zrn::String(finding.fixResult));
    }
    store.logFixTransactionFinished(fixTransaction);
    store.logSessionFinished(session);
    batch.commit();
    return session;
}

}  // namespace datastore
