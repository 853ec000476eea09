// One diagnostics day recorded several ways, side by side in one run, as multiples of the best
// hand-written program: prepared and bound statements, one transaction per test (and one per
// other group of rows), writing the same rows into files of the same schema, journal kind and
// synchronous mode.
//
// A day: one application run, 2 script runs of 25 tests with 20 events each, 5 alerts with key/
// values and a tip, 16 measurements, a generic log per device (3) with key/values, and one
// repair session with 3 diagnostics, issues and fix actions.
//
// The library is measured as it is, with a StoreBatch per test, and with one per test and per
// other group of rows (the hand-written program's transactions exactly).
//
// Every variant keeps its own files open for the whole run, and every iteration records one day
// with each variant, rotating which goes first, so the machine's load hits all alike. The table
// at the end gives each variant's median day over the iterations.
//
//   DiagnosticsDay_bench [--benchmark_min_time=...] (days: ZRN_BENCH_DAYS, default 7)
//   Files go to a fresh folder under $ZRN_BENCH_DIR (default $TMPDIR or /tmp), removed at exit.

#include <libDataStore/DataStore.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace zrn {
namespace {

using Clock = std::chrono::steady_clock;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

int const kScripts = 2;
int const kTestsPerScript = 25;
int const kEventsPerTest = 20;
int const kAlerts = 5;
int const kMeasurements = 16;
int const kDevices = 3;
int const kFindings = 3;

char const kScriptGuid[] = "6f1d2a9e-3b5c-4d7e-8f90-a1b2c3d4e5f6";
char const kScriptXml[] = "<script name=\"Overnight check\" version=\"2\"/>";
char const kHealthType[] = "2c5e8f1a-4b7d-4e3a-9f6c-0d1b2a3c4e5f";
char const* const kDeviceNames[kDevices] = {"DIMM A1", "NVMe SSD", "Main battery"};
char const* const kDeviceTypes[kDevices] = {"Memory", "Storage", "Battery"};

std::string n(long long value) { return std::to_string(value); }

// Every text of a day that does not change from day to day, made once before the first day is
// recorded, and handed to the library as String and to the hand-written program as the same
// bytes: neither side's measure counts the program's building of its arguments (the replay of
// the library's statements receives them ready-made too).
struct DayTexts {
    DayTexts() {
        for (int test = 0; test < kTestsPerScript; ++test) {
            testNames.emplace_back("Test " + n(test));
            testGuids.emplace_back("tg-" + n(test));
            steps.emplace_back();
            for (int e = 0; e < kEventsPerTest; ++e)
                steps.back().emplace_back("Step " + n(e) + " of 'Test " + n(test) + "'");
        }
        for (int e = 0; e < kEventsPerTest; ++e) eventCodes.emplace_back(n(1000 + e));
        for (int device = 0; device < kDevices; ++device) {
            deviceNames.emplace_back(kDeviceNames[device]);
            deviceTypes.emplace_back(kDeviceTypes[device]);
            deviceGuids.emplace_back("dg-" + n(device));
        }
        for (int k = 0; k < 5; ++k) {
            keys.emplace_back("key" + n(k));
            values.emplace_back("value " + n(k));
        }
        for (int f = 0; f < kFindings; ++f) {
            diagnosticUuids.emplace_back("diag-" + n(f));
            diagnosticNames.emplace_back("Diagnostic " + n(f));
            issueNames.emplace_back("Issue " + n(f));
            fixUuids.emplace_back("fix-" + n(f));
            fixSummaries.emplace_back("Fix " + n(f));
        }
    }
    std::vector<String> testNames, testGuids, eventCodes, deviceNames, deviceTypes, deviceGuids,
        keys, values, diagnosticUuids, diagnosticNames, issueNames, fixUuids, fixSummaries;
    std::vector<std::vector<String>> steps;  // [test][event]
    String const info = "INFO", none = "", running = "RUNNING", pass = "PASS", fail = "FAIL",
                 failCode = "E17";
};

DayTexts const& texts() {
    static DayTexts const made;
    return made;
}

// ---- The library -------------------------------------------------------------------------

struct LibraryStores {
    explicit LibraryStores(std::string const& folder)
        : events(String(folder + "/event.db")),
          general(String(folder + "/genstore.db")),
          repair(String(folder + "/softwarediagevent.db")) {}
    EventDataStore events;
    GeneralDataStore general;
    SoftwareDiagEventDataStore repair;
};

// How the library variants group their operations: none (the library as it is), a StoreBatch
// per test, or also one per group of other rows, as the hand-written program commits them.
enum class Batching { None, PerTest, PerGroup };

void repairSession(SoftwareDiagEventDataStore& repair);

template <class Store, class Body>
void grouped(Store& store, bool batch, Body const& body) {
    if (!batch) return body();
    StoreBatch scope(store);
    body();
    scope.commit();
}

void libraryDay(LibraryStores& s, long long day, Batching batching) {
    bool const perTest = batching != Batching::None;
    bool const perGroup = batching == Batching::PerGroup;
    DayTexts const& x = texts();
    EventDataStore& events = s.events;
    long long const app =
        *events.logAppStart("Diagnostics Suite", "technician", "Scheduled", at(day));
    long long t = day;
    for (int script = 0; script < kScripts; ++script) {
        long long const scriptId = *events.logScriptStart(
            app, "RUNNING", kScriptGuid, "Overnight check", at(++t), 1, kScriptXml);
        for (int test = 0; test < kTestsPerScript; ++test) {
            int const device = test % kDevices;
            grouped(events, perTest, [&] {
                long long const testId = *events.logTestStart(
                    scriptId, x.testNames[test], x.deviceNames[device], x.testGuids[test],
                    x.deviceGuids[device], x.deviceTypes[device], x.running, at(++t), 1);
                for (int e = 0; e < kEventsPerTest; ++e) {
                    events.logTestRunEvent(testId, x.steps[test][e], x.info, x.eventCodes[e],
                                           x.none, at(++t));
                }
                events.logTestFinished(testId, test % 7 ? x.pass : x.fail,
                                       test % 7 ? x.none : x.failCode, at(++t));
            });
        }
        events.logScriptFinished(scriptId, "PASS", at(++t));
    }
    std::vector<EventDataStore::AlertData> alerts;
    for (int a = 0; a < kAlerts; ++a) {
        EventDataStore::AlertData alert{app,
                                        "alert-" + n(day) + "-" + n(a),
                                        "disk.smart",
                                        "Hardware",
                                        "Disk health warning",
                                        "Reallocated sectors rose",
                                        kDeviceNames[1],
                                        at(++t),
                                        {},
                                        {}};
        for (int k = 0; k < 3; ++k) alert.keyValues.emplace_back(x.keys[k], x.values[k]);
        alert.tips.emplace_back("disk.backup", "Action", "Back up", "Copy your files", "", at(t));
        alerts.push_back(alert);
    }
    events.logAlerts(alerts);
    grouped(events, perGroup, [&] {
        for (int m = 0; m < kMeasurements; ++m) {
            auto const start = static_cast<unsigned>(++t);
            events.logMeasurement("CPU temperature", start, start + 1800, start + 3599, 71.5, 38.0,
                                  49.5, 48.0, 360);
        }
    });
    events.logAppStop(app, at(++t));

    grouped(s.general, perGroup, [&] {
        for (int device = 0; device < kDevices; ++device) {
            LogKeyValueSet keyValues;
            for (int k = 0; k < 5; ++k) keyValues.append(LogKeyValue(x.keys[k], x.values[k]));
            s.general.logOrUpdate(GenericLog(kHealthType, "log-" + n(day) + "-" + n(device),
                                             x.deviceTypes[device], x.deviceNames[device], 1u,
                                             keyValues));
        }
    });
    grouped(s.repair, perGroup, [&] { repairSession(s.repair); });
}

void repairSession(SoftwareDiagEventDataStore& repair) {
    DayTexts const& x = texts();
    repair.logSessionStarted();
    SessionLog const session = repair.getLastSessionLog();
    repair.logRunTransactionStarted(session);
    RunTransactionLog const run = repair.getRunTransactionBySession(session);
    std::vector<IssueLog> issues;
    for (int f = 0; f < kFindings; ++f) {
        repair.logSoftwareDiagnosticStarted(session, run, x.diagnosticUuids[f],
                                            x.diagnosticNames[f]);
        SoftwareDiagnosticLog const diagnostic =
            repair.getSoftwareDiagnosticsByRunTransaction(run, true, 1).get(0);
        repair.logIssue(session, diagnostic, x.issueNames[f], "What was found");
        issues.push_back(repair.getIssuesBySoftwareDiagnostic(diagnostic, true, 1).get(0));
        repair.logSoftwareDiagnosticFinished(diagnostic, "ISSUES FOUND");
    }
    repair.logRunTransactionFinished(run);
    repair.logFixTransactionStarted(session, "");
    FixTransactionLog const fixes = repair.getFixTransactionBySession(session);
    for (int f = 0; f < kFindings; ++f) {
        repair.logFixAction(session, x.fixUuids[f], x.fixSummaries[f]);
        FixActionLog const fix = repair.getFixActionsBySession(session, true, 1).get(0);
        repair.associateIssueToFixAction(issues[static_cast<std::size_t>(f)], fix);
        repair.logFixActionStarted(fix);
        repair.logFixActionFinished(fix, static_cast<FixActionState>(1), "Done");
    }
    repair.logFixTransactionFinished(fixes);
    repair.logSessionFinished(session);
}

// ---- The hand-written program ------------------------------------------------------------

class Statement {
public:
    Statement(sqlite3* db, char const* sql) : m_db(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &m_statement, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string(sqlite3_errmsg(db)) + " in: " + sql);
    }
    ~Statement() { sqlite3_finalize(m_statement); }
    Statement(Statement const&) = delete;
    Statement& operator=(Statement const&) = delete;

    // Binds the values in order (numbers as integers, texts as text), runs the statement once
    // and returns the new rowid.
    template <class... Values>
    long long run(Values const&... values) {
        int index = 0;
        (bind(++index, values), ...);
        int const rc = sqlite3_step(m_statement);
        sqlite3_reset(m_statement);
        if (rc != SQLITE_DONE && rc != SQLITE_ROW) throw std::runtime_error(sqlite3_errmsg(m_db));
        return sqlite3_last_insert_rowid(m_db);
    }
    // The first column of the first row as an integer, 0 when there is no row.
    template <class... Values>
    long long first(Values const&... values) {
        int index = 0;
        (bind(++index, values), ...);
        long long const value =
            sqlite3_step(m_statement) == SQLITE_ROW ? sqlite3_column_int64(m_statement, 0) : 0;
        sqlite3_reset(m_statement);
        return value;
    }

private:
    void bind(int i, long long v) { sqlite3_bind_int64(m_statement, i, v); }
    void bind(int i, int v) { sqlite3_bind_int64(m_statement, i, v); }
    void bind(int i, double v) { sqlite3_bind_double(m_statement, i, v); }
    void bind(int i, char const* v) { sqlite3_bind_text(m_statement, i, v, -1, SQLITE_STATIC); }
    void bind(int i, std::string const& v) {
        sqlite3_bind_text(m_statement, i, v.c_str(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    }

    sqlite3* m_db;
    sqlite3_stmt* m_statement = nullptr;
};

class HandWritten {
public:
    HandWritten(std::string const& folder, int syncMode, bool wal)
        : m_events(folder + "/event.db", syncMode),
          m_general(folder + "/genstore.db", syncMode),
          m_repair(folder + "/softwarediagevent.db", syncMode) {
        for (auto* raw : {&m_events, &m_general, &m_repair}) {
            if (wal) raw->exec("PRAGMA journal_mode=WAL");
        }
        sqlite3* e = m_events.handle();
        m_appStart.reset(new Statement(e,
                                       "INSERT INTO ApplicationRuns (name,typeOfRun,userName,"
                                       "startTime) VALUES(?,?,?,?)"));
        m_appStop.reset(new Statement(e, "UPDATE ApplicationRuns SET endTime=? WHERE appId=?"));
        m_spec.reset(new Statement(e, "SELECT specId FROM ScriptSpecs WHERE scriptXml=?"));
        m_scriptStart.reset(new Statement(e,
                                          "INSERT INTO ScriptRuns (appId,result,name,startTime,"
                                          "totalPasses,specId,scriptGuid) VALUES(?,?,?,?,?,?,?)"));
        m_scriptStop.reset(
            new Statement(e, "UPDATE ScriptRuns SET result=?,endTime=? WHERE scriptId=?"));
        m_testStart.reset(new Statement(e,
                                        "INSERT INTO TestRuns (scriptId,testName,deviceName,"
                                        "testGuid,deviceGuid,deviceType,result,startTime,pass) "
                                        "VALUES(?,?,?,?,?,?,?,?,?)"));
        m_testEvent.reset(new Statement(e,
                                        "INSERT INTO TestRunEvents (testId,message,type,"
                                        "eventCode,customerEventCode,dateTime) "
                                        "VALUES(?,?,?,?,?,?)"));
        m_testStop.reset(
            new Statement(e, "UPDATE TestRuns SET result=?,errorCode=?,endTime=? WHERE testId=?"));
        m_alert.reset(new Statement(e,
                                    "INSERT INTO Alerts (appId,guid,key,type,title,message,"
                                    "deviceName,dateTime,tracked) VALUES(?,?,?,?,?,?,?,?,0)"));
        m_alertKeyValue.reset(
            new Statement(e, "INSERT INTO AlertKeyValues (alertId,key,value) VALUES(?,?,?)"));
        m_alertTip.reset(new Statement(e,
                                       "INSERT INTO AlertTips (alertId,key,type,title,text,"
                                       "extended_text,dateTime) VALUES(?,?,?,?,?,?,?)"));
        m_measurement.reset(new Statement(e,
                                          "INSERT INTO Measurements (type,spanStartTime,"
                                          "spanEndTime,spanMiddleTime,maximum,minimum,average,"
                                          "median,numberOfSamples) VALUES(?,?,?,?,?,?,?,?,?)"));
        sqlite3* g = m_general.handle();
        m_log.reset(new Statement(g,
                                  "INSERT INTO GenericLog (typeUUID,guid,category,subCategory,"
                                  "creationTimeStamp,updateTimeStamp,tracked,flags) "
                                  "VALUES(?,?,?,?,?,?,0,?)"));
        m_logKeyValue.reset(new Statement(g,
                                          "INSERT INTO KeyValues (setID,key,value,tracked,"
                                          "updateTimeStamp) VALUES(?,?,?,0,?)"));
        sqlite3* r = m_repair.handle();
        m_session.reset(new Statement(r, "INSERT INTO Sessions (startTimeStamp) VALUES(?)"));
        m_sessionEnd.reset(
            new Statement(r, "UPDATE Sessions SET endTimeStamp=? WHERE sessionId=?"));
        m_run.reset(
            new Statement(r, "INSERT INTO RunTransactions (sessionId,startTimeStamp) VALUES(?,?)"));
        m_runEnd.reset(
            new Statement(r, "UPDATE RunTransactions SET endTimeStamp=? WHERE runTransactionId=?"));
        m_diagnostic.reset(new Statement(r,
                                         "INSERT INTO SoftwareDiagnostics (sessionId,"
                                         "runTransactionId,diagnosticUuid,diagnosticName,"
                                         "startTimeStamp) VALUES(?,?,?,?,?)"));
        m_diagnosticEnd.reset(new Statement(r,
                                            "UPDATE SoftwareDiagnostics SET diagnosticResult=?,"
                                            "endTimeStamp=? WHERE softwareDiagnosticId=?"));
        m_issue.reset(new Statement(r,
                                    "INSERT INTO Issues (sessionId,softwareDiagnosticId,"
                                    "issueName,issueDescription,timeStamp) VALUES(?,?,?,?,?)"));
        m_fixTransaction.reset(new Statement(r,
                                             "INSERT INTO FixTransactions (sessionId,"
                                             "restorePointUuid,startTimeStamp) VALUES(?,?,?)"));
        m_fixTransactionEnd.reset(
            new Statement(r, "UPDATE FixTransactions SET endTimeStamp=? WHERE fixTransactionId=?"));
        m_fix.reset(new Statement(r,
                                  "INSERT INTO FixActions (sessionId,fixState,fixTypeUuid,"
                                  "fixSummary) VALUES(?,0,?,?)"));
        m_fixLink.reset(
            new Statement(r, "INSERT INTO Issues_FixActions (issueId,fixActionId) VALUES(?,?)"));
        m_fixStart.reset(
            new Statement(r, "UPDATE FixActions SET startTimeStamp=? WHERE fixActionId=?"));
        m_fixEnd.reset(new Statement(r,
                                     "UPDATE FixActions SET fixState=?,fixResult=?,"
                                     "endTimeStamp=? WHERE fixActionId=?"));
    }

    void day(long long day) {
        DayTexts const& x = texts();
        m_events.exec("BEGIN");
        long long const app = m_appStart->run("Diagnostics Suite", "Scheduled", "technician", day);
        m_events.exec("COMMIT");
        long long t = day;
        for (int script = 0; script < kScripts; ++script) {
            m_events.exec("BEGIN");
            // The script text is stored once, by the first day's library run.
            long long const specId = m_spec->first(kScriptXml);
            long long const scriptId =
                m_scriptStart->run(app, "RUNNING", "Overnight check", ++t, 1, specId, kScriptGuid);
            m_events.exec("COMMIT");
            for (int test = 0; test < kTestsPerScript; ++test) {
                int const device = test % kDevices;
                m_events.exec("BEGIN");
                long long const testId =
                    m_testStart->run(scriptId, x.testNames[test].str(), kDeviceNames[device],
                                     x.testGuids[test].str(), x.deviceGuids[device].str(),
                                     kDeviceTypes[device], "RUNNING", ++t, 1);
                for (int e = 0; e < kEventsPerTest; ++e) {
                    m_testEvent->run(testId, x.steps[test][e].str(), "INFO", x.eventCodes[e].str(),
                                     "", ++t);
                }
                m_testStop->run(test % 7 ? "PASS" : "FAIL", test % 7 ? "" : "E17", ++t, testId);
                m_events.exec("COMMIT");
            }
            m_events.exec("BEGIN");
            m_scriptStop->run("PASS", ++t, scriptId);
            m_events.exec("COMMIT");
        }
        m_events.exec("BEGIN");
        for (int a = 0; a < kAlerts; ++a) {
            long long const alert = m_alert->run(app, "alert-" + n(day) + "-" + n(a), "disk.smart",
                                                 "Hardware", "Disk health warning",
                                                 "Reallocated sectors rose", kDeviceNames[1], ++t);
            for (int k = 0; k < 3; ++k)
                m_alertKeyValue->run(alert, x.keys[k].str(), x.values[k].str());
            m_alertTip->run(alert, "disk.backup", "Action", "Back up", "Copy your files", "", t);
        }
        m_events.exec("COMMIT");
        m_events.exec("BEGIN");
        for (int m = 0; m < kMeasurements; ++m) {
            long long const start = ++t;
            m_measurement->run("CPU temperature", start, start + 3599, start + 1800, 71.5, 38.0,
                               49.5, 48.0, 360);
        }
        m_events.exec("COMMIT");
        m_events.exec("BEGIN");
        m_appStop->run(++t, app);
        m_events.exec("COMMIT");

        m_general.exec("BEGIN");
        for (int device = 0; device < kDevices; ++device) {
            long long const log = m_log->run(kHealthType, "log-" + n(day) + "-" + n(device),
                                             kDeviceTypes[device], kDeviceNames[device], t, t, 1);
            for (int k = 0; k < 5; ++k)
                m_logKeyValue->run(log, x.keys[k].str(), x.values[k].str(), t);
        }
        m_general.exec("COMMIT");

        m_repair.exec("BEGIN");
        long long const session = m_session->run(t);
        long long const run = m_run->run(session, t);
        std::vector<long long> issues;
        for (int f = 0; f < kFindings; ++f) {
            long long const diagnostic = m_diagnostic->run(session, run, x.diagnosticUuids[f].str(),
                                                           x.diagnosticNames[f].str(), t);
            issues.push_back(
                m_issue->run(session, diagnostic, x.issueNames[f].str(), "What was found", t));
            m_diagnosticEnd->run("ISSUES FOUND", t, diagnostic);
        }
        m_runEnd->run(t, run);
        long long const fixes = m_fixTransaction->run(session, "", t);
        for (int f = 0; f < kFindings; ++f) {
            long long const fix = m_fix->run(session, x.fixUuids[f].str(), x.fixSummaries[f].str());
            m_fixLink->run(issues[static_cast<std::size_t>(f)], fix);
            m_fixStart->run(t, fix);
            m_fixEnd->run(1, "Done", t, fix);
        }
        m_fixTransactionEnd->run(t, fixes);
        m_sessionEnd->run(t, session);
        m_repair.exec("COMMIT");
    }

private:
    bench::RawConnection m_events, m_general, m_repair;
    std::unique_ptr<Statement> m_appStart, m_appStop, m_spec, m_scriptStart, m_scriptStop,
        m_testStart, m_testEvent, m_testStop, m_alert, m_alertKeyValue, m_alertTip, m_measurement,
        m_log, m_logKeyValue, m_session, m_sessionEnd, m_run, m_runEnd, m_diagnostic,
        m_diagnosticEnd, m_issue, m_fixTransaction, m_fixTransactionEnd, m_fix, m_fixLink,
        m_fixStart, m_fixEnd;
};

// ---- Variants ----------------------------------------------------------------------------

struct Variant {
    std::string name;
    std::string mode;  // the settings, e.g. "FULL/DELETE": compared with the hand-written one
    std::function<void(long long)> recordDay;
    std::vector<double> seconds;
};

std::vector<Variant>& variants() {
    static std::vector<Variant> all;
    return all;
}

// Makes the schema of the three stores in `folder` with the library, then opens the variant.
void addVariant(bench::Scratch& scratch, std::string const& name, char const* syncMode,
                char const* journalMode,
                std::function<std::function<void(long long)>(std::string const&)> open) {
    std::string const folder = scratch.folder(name);
    scratch.useSettings(syncMode, journalMode);
    { LibraryStores schema(folder); }
    variants().push_back(
        Variant{name, std::string(syncMode) + "/" + journalMode, open(folder), {}});
}

void diagnosticsDay(benchmark::State& state) {
    long long day = 1700000000;
    std::size_t first = 0;
    for (auto _ : state) {
        std::vector<Variant>& all = variants();
        for (std::size_t k = 0; k < all.size(); ++k) {
            Variant& v = all[(first + k) % all.size()];
            auto const start = Clock::now();
            v.recordDay(day);
            v.seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
        }
        first = (first + 1) % all.size();
        day += 86400;
    }
}

// ---- Same statements: the library against sqlite3_exec of exactly what it ran ------------
//
// `DiagnosticsDay_bench --same-statements` records ZRN_BENCH_DAYS days (default 7) with the
// library as it is, at SyncMode OFF, while every statement SQLite runs is traced with the
// connection it ran on. It then records the same days again untraced in fresh files
// (measuredLibraryDays) and replays the traced statements with sqlite3_exec on one raw
// connection per library connection, in fresh files (replayStatements). Counting the
// instructions of each, e.g.
//   valgrind --tool=callgrind --toggle-collect='*measuredLibraryDays*' DiagnosticsDay_bench ...
//   valgrind --tool=callgrind --toggle-collect='*replayStatements*' DiagnosticsDay_bench ...
// gives the library's own cost on top of SQLite's as a ratio that the machine's load does not
// change. Wall-clock times of both are printed too.

struct TracedStatement {
    std::size_t connection;
    std::string sql;
};

struct StatementTrace {
    std::map<sqlite3*, std::size_t> connections;
    std::vector<std::string> files;  // per connection, in order of first statement
    std::vector<TracedStatement> statements;
};

StatementTrace* g_trace = nullptr;

int traceStatement(unsigned /*type*/, void* /*context*/, void* statement, void* text) {
    if (!g_trace) return 0;
    sqlite3* const db = sqlite3_db_handle(static_cast<sqlite3_stmt*>(statement));
    auto const found = g_trace->connections.emplace(db, g_trace->files.size());
    if (found.second) {
        char const* file = sqlite3_db_filename(db, "main");
        g_trace->files.emplace_back(file ? file : "");
    }
    auto const* sql = static_cast<char const*>(text);
    if (sql[0] == '-' && sql[1] == '-') return 0;  // a trigger's body, run by its statement
    g_trace->statements.push_back(TracedStatement{found.first->second, sql});
    return 0;
}

int attachTrace(sqlite3* db, char const** /*error*/, sqlite3_api_routines const* /*api*/) {
    sqlite3_trace_v2(db, SQLITE_TRACE_STMT, traceStatement, nullptr);
    return SQLITE_OK;
}

void recordDays(std::string const& folder, int days) {
    LibraryStores stores(folder);
    for (int d = 0; d < days; ++d) libraryDay(stores, 1700000000LL + 86400LL * d, Batching::None);
}

__attribute__((noinline)) void measuredLibraryDays(std::string const& folder, int days) {
    recordDays(folder, days);
}

__attribute__((noinline)) void replayStatements(StatementTrace const& trace,
                                                std::string const& tracedFolder,
                                                std::string const& folder) {
    std::vector<sqlite3*> connections;
    for (std::string const& file : trace.files) {
        std::string path = ":memory:";
        if (!file.empty()) path = folder + file.substr(tracedFolder.size());
        sqlite3* db = nullptr;
        sqlite3_open_v2(path.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr);
        sqlite3_busy_timeout(db, 30000);
        connections.push_back(db);
    }
    for (TracedStatement const& statement : trace.statements) {
        char* error = nullptr;
        // Every cell read as text, as the library reads them.
        sqlite3_exec(
            connections[statement.connection], statement.sql.c_str(),
            [](void*, int columns, char** cells, char**) {
                for (int i = 0; i < columns; ++i) benchmark::DoNotOptimize(cells[i]);
                return 0;
            },
            nullptr, &error);
        if (error) {
            std::fprintf(stderr, "replay: %s in: %s\n", error, statement.sql.c_str());
            sqlite3_free(error);
        }
    }
    for (sqlite3* db : connections) sqlite3_close_v2(db);
}

int sameStatements() {
    int days = 7;
    if (char const* text = std::getenv("ZRN_BENCH_DAYS")) days = std::max(1, std::atoi(text));
    bench::Scratch scratch("same");
    scratch.useSettings("OFF");
    StatementTrace trace;
    std::string const traced = scratch.folder("traced");
    g_trace = &trace;
    sqlite3_auto_extension(reinterpret_cast<void (*)(void)>(&attachTrace));
    recordDays(traced, days);
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)(void)>(&attachTrace));
    g_trace = nullptr;

    auto const start = Clock::now();
    measuredLibraryDays(scratch.folder("library"), days);
    auto const middle = Clock::now();
    replayStatements(trace, traced, scratch.folder("raw"));
    auto const end = Clock::now();
    std::printf(
        "%d days: %zu statements on %zu connections; library %.1f ms, "
        "sqlite3_exec of the same statements %.1f ms\n",
        days, trace.statements.size(), trace.files.size(),
        std::chrono::duration<double, std::milli>(middle - start).count(),
        std::chrono::duration<double, std::milli>(end - middle).count());
    return 0;
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    using namespace zrn;
    if (argc > 1 && std::string(argv[1]) == "--same-statements") return sameStatements();
    bench::Scratch scratch("day");
    texts();  // made before the first day is timed
    std::vector<std::unique_ptr<LibraryStores>> libraries;
    std::vector<std::unique_ptr<HandWritten>> handWritten;
    auto library = [&](Batching batching) {
        return [&, batching](std::string const& folder) -> std::function<void(long long)> {
            libraries.emplace_back(new LibraryStores(folder));
            LibraryStores* stores = libraries.back().get();
            return [stores, batching](long long day) { libraryDay(*stores, day, batching); };
        };
    };
    auto raw = [&](int syncMode, bool wal) {
        return [&, syncMode, wal](std::string const& folder) -> std::function<void(long long)> {
            handWritten.emplace_back(new HandWritten(folder, syncMode, wal));
            HandWritten* program = handWritten.back().get();
            return [program](long long day) { program->day(day); };
        };
    };
    // The first is the yardstick.
    addVariant(scratch, "hand-written, FULL", "FULL", "DELETE", raw(2, false));
    addVariant(scratch, "library as specified (FULL)", "FULL", "DELETE", library(Batching::None));
    addVariant(scratch, "library, StoreBatch per test (FULL)", "FULL", "DELETE",
               library(Batching::PerTest));
    addVariant(scratch, "library, StoreBatch per test and group", "FULL", "DELETE",
               library(Batching::PerGroup));
    addVariant(scratch, "library, WAL + NORMAL", "NORMAL", "WAL", library(Batching::None));
    addVariant(scratch, "library, StoreBatch + WAL + NORMAL", "NORMAL", "WAL",
               library(Batching::PerTest));
    addVariant(scratch, "hand-written, WAL + NORMAL", "NORMAL", "WAL", raw(1, true));

    int days = 7;
    if (char const* text = std::getenv("ZRN_BENCH_DAYS")) days = std::max(1, std::atoi(text));
    benchmark::RegisterBenchmark("DiagnosticsDay", diagnosticsDay)
        ->Iterations(days)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::vector<Variant> const& all = variants();
    if (all.front().seconds.empty()) return 0;
    double const yardstick = bench::median(all.front().seconds);
    std::printf(
        "\nOne diagnostics day (%d tests x %d events, %d alerts, %d measurements, %d logs, "
        "a repair session), median of %zu days:\n",
        kScripts * kTestsPerScript, kEventsPerTest, kAlerts, kMeasurements, kDevices,
        all.front().seconds.size());
    std::printf("  %-40s %10s %10s %12s\n", "variant", "ms/day", "multiple", "same mode");
    for (Variant const& v : all) {
        double const median = bench::median(v.seconds);
        // The hand-written program of the same journal and synchronous modes.
        double same = 0;
        for (Variant const& w : all) {
            if (w.mode == v.mode && w.name.rfind("hand-written", 0) == 0)
                same = bench::median(w.seconds);
        }
        std::printf("  %-40s %10.1f %10.2f %12.2f\n", v.name.c_str(), median * 1000,
                    median / yardstick, same > 0 ? median / same : 0.0);
    }
    libraries.clear();
    handWritten.clear();
    return 0;
}
