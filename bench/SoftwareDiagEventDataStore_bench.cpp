// The software-diagnostics store against raw sqlite3 running the same statements in the same
// run: a whole repair session as a caller logs it, and the two heavy queries on a file of
// 10,000 sessions, and every session of files of 10,000 to 1,000,000 with the peak memory of one
// call. Both sides run in every iteration; the table at the end gives medians of repetitions.

#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace zrn {
namespace {

int const kDiagnostics = 20;
int const kIssues = 10;
int const kFixActions = 10;
int const kSessionsInFile = 10000;

// The library reads its synchronous mode from the settings file; raw connections get the
// same level directly.
struct SyncMode {
    char const* name;
    int level;
};
SyncMode const kFull{"FULL", 2};
SyncMode const kOff{"OFF", 0};

void useSyncMode(SyncMode mode) { bench::useSyncMode(mode.level); }

// A file with the store's schema, made by the store itself; removed when the program ends.
std::string freshStoreFile(std::string const& name) {
    std::string const path = bench::freshPath(name);
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

void session(benchmark::State& state, SyncMode mode) {
    useSyncMode(mode);
    SoftwareDiagEventDataStore store{
        String(freshStoreFile(std::string("session-ours-") + mode.name))};
    bench::RawConnection db(freshStoreFile(std::string("session-raw-") + mode.name), mode.level);
    RawSession raw(db);
    bench::paired(
        state, [&](long long) { librarySession(store); }, [&](long long) { raw.run(); });
}

// ---- Queries on files of many sessions
// -----------------------------------------------------------

// Each session has one issue linked to two fix actions; start times are one second apart.
std::string const& populatedFile(int sessions = kSessionsInFile) {
    static std::map<int, std::string> made;
    auto const found = made.find(sessions);
    if (found != made.end()) return found->second;
    {
        useSyncMode(kOff);
        std::string const p = freshStoreFile("sd-" + std::to_string(sessions));
        bench::RawConnection db(p, 0);
        db.exec("BEGIN");
        for (int s = 1; s <= sessions; ++s) {
            std::string const id = std::to_string(s);
            std::string const t = std::to_string(1600000000 + s);
            db.exec("INSERT INTO Sessions (startTimeStamp,endTimeStamp) VALUES(" + t + "," + t +
                    ");");
            // Only getSessions reads the larger files: they hold sessions alone.
            if (sessions > kSessionsInFile) continue;
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
        made[sessions] = p;
    }
    return made[sessions];
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

// Every session of the file; the raw side keeps what it read as a program would, as numbers.
void allSessions(benchmark::State& state, int sessions) {
    std::string const& path = populatedFile(sessions);
    SoftwareDiagEventDataStore store{String(path)};
    bench::RawConnection db(path, 2);
    struct Session {
        long long id, start, end;
    };
    bench::paired(
        state,
        [&](long long) {
            SessionList const list = store.getSessions(TimeStamp(), TimeStamp(), true, 0);
            benchmark::DoNotOptimize(list.size());
        },
        [&](long long) {
            std::vector<Session> list;
            sqlite3_stmt* statement = nullptr;
            sqlite3_prepare_v2(db.handle(), kAllSessionsSql.c_str(), -1, &statement, nullptr);
            while (sqlite3_step(statement) == SQLITE_ROW) {
                list.push_back(Session{sqlite3_column_int64(statement, 0),
                                       sqlite3_column_int64(statement, 1),
                                       sqlite3_column_int64(statement, 2)});
            }
            sqlite3_finalize(statement);
            benchmark::DoNotOptimize(list.data());
        },
        true);
}

void rangeSessions(benchmark::State& state) {
    SoftwareDiagEventDataStore store{String(populatedFile())};
    bench::RawConnection db(populatedFile(), 2);
    TimeStamp const from(1600005000);
    TimeStamp const to(1600006000);
    bench::paired(
        state,
        [&](long long) {
            SessionList const list = store.getSessions(from, to, true, 100);
            benchmark::DoNotOptimize(list.size());
        },
        [&](long long) { db.exec(kRangeSessionsSql); });
}

void fixActionsByIssue(benchmark::State& state) {
    SoftwareDiagEventDataStore store{String(populatedFile())};
    bench::RawConnection db(populatedFile(), 2);
    std::vector<IssueLog> issues;
    std::vector<long long> ids;
    for (long long id = 1; id <= kSessionsInFile; id += 97) {
        issues.push_back(issueWithId(store, id));
        ids.push_back(id);
    }
    bench::paired(
        state,
        [&](long long i) {
            FixActionList const list = store.getFixActionsByIssue(
                issues[static_cast<std::size_t>(i) % issues.size()], true, 0);
            benchmark::DoNotOptimize(list.size());
        },
        [&](long long i) {
            db.exec(fixActionsByIssueSql(ids[static_cast<std::size_t>(i) % ids.size()]));
        });
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    using namespace zrn;
    benchmark::RegisterBenchmark("Session@FULL", session, kFull)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Session@OFF", session, kOff)->Unit(benchmark::kMillisecond);
    for (int sessions : {10000, 100000, 1000000}) {
        benchmark::RegisterBenchmark(("getSessions(all)/" + std::to_string(sessions)).c_str(),
                                     allSessions, sessions)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("getSessions(range, limit 100)", rangeSessions);
    benchmark::RegisterBenchmark("getFixActionsByIssue", fixActionsByIssue);
    return bench::runPaired(argc, argv);
}
