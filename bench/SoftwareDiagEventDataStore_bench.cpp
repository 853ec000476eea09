// The software-diagnostics store against raw sqlite3 running the same statements in the same
// run: a whole repair session as a caller logs it, and the two heavy queries on a file of
// 10,000 sessions. Prints the library/raw time ratio of each pair at the end.

#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "RatioReport.h"

namespace zrn {
namespace {

int const kDiagnostics = 20;
int const kIssues = 10;
int const kFixActions = 10;
int const kSessionsInFile = 10000;

std::vector<std::string>& filesToRemove() {
    static std::vector<std::string> files;
    return files;
}

// The library reads its synchronous mode from the settings file; raw connections get the
// same level directly.
struct SyncMode {
    char const* name;
    int level;
};
SyncMode const kFull{"FULL", 2};
SyncMode const kOff{"OFF", 0};

void useSyncMode(SyncMode mode) {
    static std::string const file =
        "/tmp/zrn-bench-" + std::to_string(::getpid()) + "-settings.ini";
    static bool const registered = (filesToRemove().push_back(file), true);
    (void)registered;
    std::ofstream(file) << "[libDataStore]\nSQLiteDataStore.SyncMode=" << mode.name << "\n";
    ::setenv("ZRN_SETTINGS_FILE", file.c_str(), 1);
}

// A file with the store's schema, made by the store itself; removed when the program ends.
std::string freshStoreFile(std::string const& name) {
    std::string const path = bench::freshPath(name);
    filesToRemove().push_back(path);
    SoftwareDiagEventDataStore{String(path)};
    return path;
}

// ---- A whole session ----------------------------------------------------------------------

// As a caller logs it: each insert followed by the query that gives back the new record.
void librarySession(SoftwareDiagEventDataStore& store) {
    store.logSessionStarted();
    SessionLog const session = store.getLastSessionLog();
    store.logRunTransactionStarted(session);
    RunTransactionLog const run = store.getRunTransactionBySession(session);

    std::vector<SoftwareDiagnosticLog> diagnostics;
    for (int d = 0; d < kDiagnostics; ++d) {
        std::string const n = std::to_string(d);
        store.logSoftwareDiagnosticStarted(session, run, "uuid-" + n, "Diagnostic " + n);
        diagnostics.push_back(store.getSoftwareDiagnosticsByRunTransaction(run, true, 1).get(0));
    }
    std::vector<IssueLog> issues;
    for (int i = 0; i < kIssues; ++i) {
        store.logIssue(session, diagnostics[i], "Issue " + std::to_string(i), "description");
        issues.push_back(store.getIssuesBySoftwareDiagnostic(diagnostics[i], true, 1).get(0));
    }
    for (auto const& diagnostic : diagnostics) {
        store.logSoftwareDiagnosticFinished(diagnostic, "passed");
    }
    for (int f = 0; f < kFixActions; ++f) {
        std::string const n = std::to_string(f);
        store.logFixAction(session, "fix-" + n, "Summary " + n);
        FixActionLog const action = store.getFixActionsBySession(session, true, 1).get(0);
        store.logFixActionStarted(action);
        store.associateIssueToFixAction(issues[f], action);
        store.logFixActionFinished(action, static_cast<FixActionState>(1), "fixed");
    }
    store.logRunTransactionFinished(run);
    store.logSessionFinished(session);
}

// The same statements, in the same order, on a raw connection. Ids come from
// sqlite3_last_insert_rowid, which is what the library's queries read back.
class RawSession {
public:
    explicit RawSession(bench::RawConnection& db) : m_db(db) {}

    void run() {
        std::string const now = std::to_string(std::time(nullptr));
        m_db.exec("INSERT INTO Sessions (startTimeStamp) VALUES(" + now + ");");
        std::string const session = lastId();
        m_db.exec("SELECT max(`sessionId`), `startTimeStamp`, `endTimeStamp` FROM `Sessions`");
        m_db.exec("INSERT INTO RunTransactions (sessionId,startTimeStamp) VALUES(" + session + "," +
                  now + ");");
        std::string const run = lastId();
        m_db.exec(
            "SELECT runTransactionId, sessionId, startTimeStamp, endTimeStamp FROM "
            "RunTransactions WHERE `sessionId` = " +
            session + " LIMIT 1");

        std::vector<std::string> diagnostics;
        for (int d = 0; d < kDiagnostics; ++d) {
            std::string const n = std::to_string(d);
            m_db.exec(
                "INSERT INTO SoftwareDiagnostics (sessionId,runTransactionId,diagnosticUuid,"
                "diagnosticName,startTimeStamp) VALUES(" +
                session + "," + run + ",'uuid-" + n + "','Diagnostic " + n + "'," + now + ");");
            diagnostics.push_back(lastId());
            m_db.exec(
                "SELECT softwareDiagnosticId, sessionId, runTransactionId, diagnosticUuid, "
                "diagnosticName, diagnosticResult, startTimeStamp, endTimeStamp FROM "
                "SoftwareDiagnostics WHERE `runTransactionId` = " +
                run + " ORDER BY `rowid` DESC, `softwareDiagnosticId` DESC LIMIT 1");
        }
        std::vector<std::string> issues;
        for (int i = 0; i < kIssues; ++i) {
            m_db.exec(
                "INSERT INTO Issues (sessionId,softwareDiagnosticId,issueName,"
                "issueDescription,timeStamp) VALUES(" +
                session + "," + diagnostics[i] + ",'Issue " + std::to_string(i) +
                "','description'," + now + ");");
            issues.push_back(lastId());
            m_db.exec(
                "SELECT issueId, sessionId, softwareDiagnosticId, issueName, "
                "issueDescription, timeStamp FROM Issues WHERE `softwareDiagnosticId` = " +
                diagnostics[i] + " ORDER BY `rowid` DESC LIMIT 1");
        }
        for (auto const& id : diagnostics) {
            finish("SoftwareDiagnostics", "softwareDiagnosticId", id,
                   "`diagnosticResult` = 'passed',`endTimeStamp` = '" + now + "'");
        }
        for (int f = 0; f < kFixActions; ++f) {
            std::string const n = std::to_string(f);
            m_db.exec("INSERT INTO FixActions (sessionId,fixState,fixTypeUuid,fixSummary) VALUES(" +
                      session + ",0,'fix-" + n + "','Summary " + n + "');");
            std::string const action = lastId();
            m_db.exec(
                "SELECT fixActionId, sessionId, fixState, fixTypeUuid, fixSummary, "
                "fixResult, startTimeStamp, endTimeStamp FROM FixActions WHERE "
                "`sessionId` = " +
                session + " ORDER BY `rowid` DESC, `fixActionId` DESC LIMIT 1");
            finish("FixActions", "fixActionId", action, "`startTimeStamp` = '" + now + "'");
            m_db.exec(
                "SELECT  ifa.`issueId`, ifa.`fixActionId` FROM `Issues_FixActions` ifa "
                "WHERE ifa.`issueId` = " +
                issues[f] + " AND ifa.`fixActionId` = " + action);
            m_db.exec("INSERT INTO Issues_FixActions (issueId,fixActionId) VALUES(" + issues[f] +
                      "," + action + ");");
            finish("FixActions", "fixActionId", action,
                   "`fixState` = '1',`fixResult` = 'fixed',`endTimeStamp` = '" + now + "'");
        }
        finish("RunTransactions", "runTransactionId", run, "`endTimeStamp` = '" + now + "'");
        finish("Sessions", "sessionId", session, "`endTimeStamp` = '" + now + "'");
    }

private:
    std::string lastId() const { return std::to_string(sqlite3_last_insert_rowid(m_db.handle())); }

    // The existence check and the update the table layer runs for a finish.
    void finish(std::string const& table, std::string const& key, std::string const& id,
                std::string const& assignments) {
        m_db.exec("SELECT `" + key + "` FROM `" + table + "` WHERE `" + key + "`='" + id + "'");
        m_db.exec("UPDATE `" + table + "` SET `" + key + "` = '" + id + "'," + assignments +
                  " WHERE `" + key + "`='" + id + "'");
    }

    bench::RawConnection& m_db;
};

void sessionLibrary(benchmark::State& state, SyncMode mode) {
    useSyncMode(mode);
    SoftwareDiagEventDataStore store{String(freshStoreFile("sd-session-lib"))};
    for (auto _ : state) librarySession(store);
}

void sessionRaw(benchmark::State& state, SyncMode mode) {
    bench::RawConnection db(freshStoreFile("sd-session-raw"), mode.level);
    RawSession session(db);
    for (auto _ : state) session.run();
}

// ---- Queries on 10,000 sessions -----------------------------------------------------------

// Each session has one issue linked to two fix actions; start times are one second apart.
std::string const& populatedFile() {
    static std::string const path = [] {
        std::string const p = freshStoreFile("sd-10000");
        bench::RawConnection db(p, 0);
        db.exec("BEGIN");
        for (int s = 1; s <= kSessionsInFile; ++s) {
            std::string const id = std::to_string(s);
            std::string const t = std::to_string(1600000000 + s);
            db.exec("INSERT INTO Sessions (startTimeStamp,endTimeStamp) VALUES(" + t + "," + t +
                    ");");
            db.exec(
                "INSERT INTO Issues (sessionId,softwareDiagnosticId,issueName,"
                "issueDescription,timeStamp) VALUES(" +
                id + "," + id + ",'Issue','description'," + t + ");");
            for (int f = 0; f < 2; ++f) {
                db.exec(
                    "INSERT INTO FixActions (sessionId,fixState,fixTypeUuid,fixSummary,"
                    "fixResult,startTimeStamp,endTimeStamp) VALUES(" +
                    id + ",1,'fix','summary','fixed'," + t + "," + t + ");");
                db.exec("INSERT INTO Issues_FixActions (issueId,fixActionId) VALUES(" + id + "," +
                        std::to_string(sqlite3_last_insert_rowid(db.handle())) + ");");
            }
        }
        db.exec("COMMIT");
        return p;
    }();
    return path;
}

IssueLog issueWithId(SoftwareDiagEventDataStore& store, long long id) {
    // Records come only from the store; the issue of session `id` has the id `id`.
    return store.getIssuesBySession(store.getSession(id).get(0), false, 1).get(0);
}

std::string fixActionsByIssueSql(long long issueId) {
    return "SELECT  fa.`fixActionId`, fa.`sessionId`, fa.`fixState`, fa.`fixTypeUuid`, "
           "fa.`fixSummary`, fa.`fixResult`, fa.`startTimeStamp`, fa.`endTimeStamp` FROM "
           "`Issues_FixActions` ifa INNER JOIN `FixActions` fa ON ifa.`fixActionId` = "
           "fa.`fixActionId` WHERE ifa.`issueId` = " +
           std::to_string(issueId) + " ORDER BY fa.`startTimeStamp` DESC, fa.`fixActionId` DESC";
}

std::string const kAllSessionsSql =
    "SELECT sessionId, startTimeStamp, endTimeStamp FROM Sessions ORDER BY `rowid` DESC, "
    "`sessionId` DESC";
std::string const kRangeSessionsSql =
    "SELECT sessionId, startTimeStamp, endTimeStamp FROM Sessions WHERE `startTimeStamp` >= "
    "1600005000 AND `startTimeStamp` <= 1600006000 ORDER BY `rowid` DESC, `sessionId` DESC "
    "LIMIT 100";

void allSessionsLibrary(benchmark::State& state) {
    SoftwareDiagEventDataStore store{String(populatedFile())};
    for (auto _ : state) {
        SessionList const list = store.getSessions(TimeStamp(), TimeStamp(), true, 0);
        benchmark::DoNotOptimize(list.size());
    }
}

void allSessionsRaw(benchmark::State& state) {
    bench::RawConnection db(populatedFile(), 2);
    for (auto _ : state) db.exec(kAllSessionsSql);
}

void rangeSessionsLibrary(benchmark::State& state) {
    SoftwareDiagEventDataStore store{String(populatedFile())};
    TimeStamp const from(1600005000);
    TimeStamp const to(1600006000);
    for (auto _ : state) {
        SessionList const list = store.getSessions(from, to, true, 100);
        benchmark::DoNotOptimize(list.size());
    }
}

void rangeSessionsRaw(benchmark::State& state) {
    bench::RawConnection db(populatedFile(), 2);
    for (auto _ : state) db.exec(kRangeSessionsSql);
}

void fixActionsByIssueLibrary(benchmark::State& state) {
    SoftwareDiagEventDataStore store{String(populatedFile())};
    std::vector<IssueLog> issues;
    for (long long id = 1; id <= kSessionsInFile; id += 97)
        issues.push_back(issueWithId(store, id));
    std::size_t next = 0;
    for (auto _ : state) {
        FixActionList const list = store.getFixActionsByIssue(issues[next], true, 0);
        benchmark::DoNotOptimize(list.size());
        next = (next + 1) % issues.size();
    }
}

void fixActionsByIssueRaw(benchmark::State& state) {
    bench::RawConnection db(populatedFile(), 2);
    std::vector<long long> issues;
    for (long long id = 1; id <= kSessionsInFile; id += 97) issues.push_back(id);
    std::size_t next = 0;
    for (auto _ : state) {
        db.exec(fixActionsByIssueSql(issues[next]));
        next = (next + 1) % issues.size();
    }
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    using namespace zrn;
    benchmark::RegisterBenchmark("Session/FULL/ours", sessionLibrary, kFull)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Session/FULL/raw", sessionRaw, kFull)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Session/OFF/ours", sessionLibrary, kOff)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Session/OFF/raw", sessionRaw, kOff)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("getSessions(all 10000)/ours", allSessionsLibrary)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("getSessions(all 10000)/raw", allSessionsRaw)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("getSessions(range, limit 100)/ours", rangeSessionsLibrary)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("getSessions(range, limit 100)/raw", rangeSessionsRaw)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("getFixActionsByIssue/ours", fixActionsByIssueLibrary)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("getFixActionsByIssue/raw", fixActionsByIssueRaw)
        ->Unit(benchmark::kMicrosecond);

    benchmark::Initialize(&argc, argv);
    bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    for (std::string const& file : filesToRemove()) {
        ::unlink(file.c_str());
        ::unlink((file + "-journal").c_str());
    }
    return 0;
}
