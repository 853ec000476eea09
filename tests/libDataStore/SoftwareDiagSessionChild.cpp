// Child process of the software-diagnostics store test: runs whole repair sessions against one
// file while another child does the same, and checks what it reads back.
//
//   SoftwareDiagSessionChild <file> <tag> <sessions> <diagnostics> <issues> <fixActions>
//
// Exit status 0 when every session was logged and read back as written.

#include <libCommon/Exception.h>
#include <libCommon/GlobalMutex.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace zrn;

namespace {

int g_failures = 0;

void check(bool ok, std::string const& what) {
    if (ok) return;
    ++g_failures;
    std::fprintf(stderr, "SoftwareDiagSessionChild: %s\n", what.c_str());
}

void runSession(SoftwareDiagEventDataStore& store, std::string const& tag, int number,
                int diagnostics, int issuesPerDiagnostic, int fixActions) {
    std::string const name = tag + "-" + std::to_string(number);

    // The store hands out no ids: a caller learns the new session from the highest id, so it
    // holds the store's named mutex (re-entrant) across the insert and the read.
    SessionLog session = [&] {
        GlobalMutex mutex("softwarediag_store");
        AutoGlobalMutex lock(mutex);
        check(store.logSessionStarted(), name + ": session not inserted");
        return store.getLastSessionLog();
    }();

    check(store.logRunTransactionStarted(session), name + ": run transaction not inserted");
    check(store.sessionHasRunTransaction(session), name + ": no run transaction");
    RunTransactionLog const run = store.getRunTransactionBySession(session);
    check(run.sessionId() == session.sessionId(), name + ": run transaction of another session");

    for (int d = 0; d < diagnostics; ++d) {
        std::string const uuid = name + "-diag-" + std::to_string(d);
        store.logSoftwareDiagnosticStarted(session, run, uuid, "Prüfung '" + uuid + "'");
        // Only this process writes diagnostics of this run transaction.
        SoftwareDiagnosticList const latest =
            store.getSoftwareDiagnosticsByRunTransaction(run, true, 1);
        check(latest.size() == 1 && latest.get(0).diagnosticUuid() == uuid.c_str(),
              uuid + ": not read back");
        SoftwareDiagnosticLog const diagnostic = latest.get(0);
        for (int i = 0; i < issuesPerDiagnostic; ++i) {
            store.logIssue(session, diagnostic, uuid + "-issue-" + std::to_string(i), "it's bad");
        }
        store.logSoftwareDiagnosticFinished(diagnostic, "result of " + uuid);
    }
    store.logRunTransactionFinished(run);

    std::string const restorePoint = name + "-restore-point";
    store.logFixTransactionStarted(session, "");
    FixTransactionLog const fix = store.getFixTransactionBySession(session);
    check(store.associateRestorePointToFixTransaction(fix, restorePoint),
          name + ": restore point refused");
    check(store.getFixTransactionByRestorePointUuid(restorePoint).fixTransactionId() ==
              fix.fixTransactionId(),
          name + ": restore point not found");

    IssueList const issues = store.getIssuesBySession(session, false, 0);
    check(static_cast<int>(issues.size()) == diagnostics * issuesPerDiagnostic,
          name + ": wrong issue count");
    for (int f = 0; f < fixActions; ++f) {
        store.logFixAction(session, name + "-fix-" + std::to_string(f), "summary");
        FixActionLog const action = store.getFixActionsBySession(session, true, 1).get(0);
        store.logFixActionStarted(action);
        for (unsigned int i = static_cast<unsigned int>(f); i < issues.size();
             i += static_cast<unsigned int>(fixActions)) {
            check(store.associateIssueToFixAction(issues.get(i), action), name + ": link refused");
        }
        store.logFixActionFinished(action, static_cast<FixActionState>(f + 1), "fixed");
    }
    store.logFixTransactionFinished(fix);
    store.logSessionFinished(session);

    SessionList const readBack = store.getSession(session.sessionId());
    check(readBack.size() == 1 && readBack.get(0).endTimeStamp().getUnixTimeStamp() > 0,
          name + ": session not finished");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s file tag sessions diagnostics issues fixActions\n",
                     argv[0]);
        return 2;
    }
    try {
        SoftwareDiagEventDataStore store{String(argv[1])};
        int const sessions = std::atoi(argv[3]);
        for (int s = 0; s < sessions; ++s) {
            runSession(store, argv[2], s, std::atoi(argv[4]), std::atoi(argv[5]),
                       std::atoi(argv[6]));
        }
    } catch (Exception const& e) {
        std::fprintf(stderr, "SoftwareDiagSessionChild: %s\n", e.getMessage().c_str());
        return 3;
    }
    return g_failures == 0 ? 0 : 1;
}
