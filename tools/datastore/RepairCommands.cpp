// datastore sessions | session ID: the repair tool's sessions in softwarediagevent.db.

#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <iostream>
#include <map>
#include <memory>

#include "Commands.h"
#include "Output.h"

namespace datastore {

namespace {

struct RepairArgs {
    long long sessionId = 0;
    bool ascending = false;
};

std::unique_ptr<zrn::SoftwareDiagEventDataStore> openStore(Options const& options, std::string& path) {
    path = existingStorePath(options, Store::SoftwareDiag);
    auto store = std::make_unique<zrn::SoftwareDiagEventDataStore>(zrn::String(path));
    zrn::String error;
    if (!store->checkValidity(error)) storeFailure(path, "cannot open: " + error.str());
    return store;
}

zrn::TimeStamp bound(long long seconds) {
    return seconds > 0 ? zrn::TimeStamp(seconds) : zrn::TimeStamp();
}

Json when(Options const& options, zrn::TimeStamp const& time) {
    long long const seconds = time.isInitialized() ? time.getUnixTimeStamp() : 0;
    return options.json ? isoTime(seconds) : Json(localTime(seconds));
}

void sessions(Options const& options, RepairArgs const& args) {
    std::string path;
    auto const store = openStore(options, path);
    zrn::SessionList const list = store->getSessions(bound(sinceSeconds(options)), bound(untilSeconds(options)),
                                                     !args.ascending, static_cast<int>(options.limit));
    RecordPrinter printer({{"sessionId", "SESSION"}, {"start", "STARTED"}, {"end", "ENDED"}}, options.json);
    for (unsigned i = 0; i < list.size(); ++i) {
        zrn::SessionLog const session = list.get(i);
        printer.add(Json{{"sessionId", session.sessionId()},
                         {"start", when(options, session.startTimeStamp())},
                         {"end", when(options, session.endTimeStamp())}});
    }
    printer.print(std::cout);
}

void session(Options const& options, RepairArgs const& args) {
    std::string path;
    auto const store = openStore(options, path);
    zrn::SessionList const found = store->getSession(args.sessionId);
    if (found.size() == 0) {
        throw ToolError(STORE, path + ": no session " + std::to_string(args.sessionId));
    }
    zrn::SessionLog const session = found.get(0);

    // Human output: one table per kind of record. JSON: one object per record with its "record" kind.
    auto section = [&](char const* title, RecordPrinter& printer) {
        if (!options.json) std::cout << "\n" << title << "\n";
        printer.print(std::cout);
    };

    RecordPrinter sessionPrinter({{"sessionId", "SESSION"}, {"start", "STARTED"}, {"end", "ENDED"}},
                                 options.json);
    sessionPrinter.add(Json{{"record", "session"},
                            {"sessionId", session.sessionId()},
                            {"start", when(options, session.startTimeStamp())},
                            {"end", when(options, session.endTimeStamp())}});
    if (options.json) {
        sessionPrinter.print(std::cout);
    } else {
        std::cout << "Session " << session.sessionId() << "\n";
        sessionPrinter.print(std::cout);
    }

    RecordPrinter transactions({{"record", "KIND"}, {"id", "ID"}, {"restorePoint", "RESTORE POINT"},
                                {"start", "STARTED"}, {"end", "ENDED"}},
                               options.json);
    bool const hasRun = store->sessionHasRunTransaction(session);
    zrn::RunTransactionLog const run = store->getRunTransactionBySession(session);
    if (hasRun) {
        transactions.add(Json{{"record", "runTransaction"}, {"id", run.runTransactionId()},
                              {"sessionId", run.sessionId()}, {"restorePoint", nullptr},
                              {"start", when(options, run.startTimeStamp())},
                              {"end", when(options, run.endTimeStamp())}});
    }
    if (store->sessionHasFixTransaction(session)) {
        zrn::FixTransactionLog const fix = store->getFixTransactionBySession(session);
        transactions.add(Json{{"record", "fixTransaction"}, {"id", fix.fixTransactionId()},
                              {"sessionId", fix.sessionId()},
                              {"restorePoint", fix.restorePointUuid().str()},
                              {"start", when(options, fix.startTimeStamp())},
                              {"end", when(options, fix.endTimeStamp())}});
    }
    section("Transactions", transactions);

    RecordPrinter diagnostics({{"softwareDiagnosticId", "ID"}, {"name", "DIAGNOSTIC"}, {"result", "RESULT"},
                               {"start", "STARTED"}, {"end", "ENDED"}, {"uuid", "UUID"}},
                              options.json);
    if (hasRun) {
        zrn::SoftwareDiagnosticList const list =
            store->getSoftwareDiagnosticsByRunTransaction(run, false, 0);
        for (unsigned i = 0; i < list.size(); ++i) {
            zrn::SoftwareDiagnosticLog const d = list.get(i);
            diagnostics.add(Json{{"record", "diagnostic"},
                                 {"softwareDiagnosticId", d.softwareDiagnosticId()},
                                 {"runTransactionId", d.runTransactionId()},
                                 {"name", d.diagnosticName().str()},
                                 {"result", d.diagnosticResult().str()},
                                 {"start", when(options, d.startTimeStamp())},
                                 {"end", when(options, d.endTimeStamp())},
                                 {"uuid", d.diagnosticUuid().str()}});
        }
    }
    section("Diagnostics", diagnostics);

    zrn::IssueList const issues = store->getIssuesBySession(session, false, 0);
    std::map<long long, std::vector<long long>> issuesOfFix;
    RecordPrinter issuePrinter({{"issueId", "ID"}, {"softwareDiagnosticId", "DIAGNOSTIC"}, {"name", "ISSUE"},
                                {"time", "FOUND"}, {"description", "DESCRIPTION"}},
                               options.json);
    for (unsigned i = 0; i < issues.size(); ++i) {
        zrn::IssueLog const issue = issues.get(i);
        zrn::FixActionList const fixes = store->getFixActionsByIssue(issue, false, 0);
        Json fixIds = Json::array();
        for (unsigned f = 0; f < fixes.size(); ++f) {
            fixIds.push_back(fixes.get(f).fixActionId());
            issuesOfFix[fixes.get(f).fixActionId()].push_back(issue.issueId());
        }
        issuePrinter.add(Json{{"record", "issue"},
                              {"issueId", issue.issueId()},
                              {"softwareDiagnosticId", issue.softwareDiagnosticId()},
                              {"name", issue.issueName().str()},
                              {"time", when(options, issue.timeStamp())},
                              {"description", issue.issueDescription().str()},
                              {"fixActionIds", fixIds}});
    }
    section("Issues", issuePrinter);

    zrn::FixActionList const fixes = store->getFixActionsBySession(session, false, 0);
    RecordPrinter fixPrinter({{"fixActionId", "ID"}, {"state", "STATE"}, {"summary", "FIX"},
                              {"result", "RESULT"}, {"issues", "ISSUES"}, {"start", "STARTED"},
                              {"end", "ENDED"}},
                             options.json);
    for (unsigned i = 0; i < fixes.size(); ++i) {
        zrn::FixActionLog const fix = fixes.get(i);
        std::string issueList;
        Json issueIds = Json::array();
        for (long long id : issuesOfFix[fix.fixActionId()]) {
            issueList += (issueList.empty() ? "" : ",") + std::to_string(id);
            issueIds.push_back(id);
        }
        fixPrinter.add(Json{{"record", "fixAction"},
                            {"fixActionId", fix.fixActionId()},
                            {"state", static_cast<unsigned>(fix.fixState())},
                            {"summary", fix.fixSummary().str()},
                            {"result", fix.fixResult().str()},
                            {"issues", options.json ? issueIds : Json(issueList)},
                            {"typeUuid", fix.fixTypeUuid().str()},
                            {"start", when(options, fix.startTimeStamp())},
                            {"end", when(options, fix.endTimeStamp())}});
    }
    section("Fix actions", fixPrinter);
}

}  // namespace

void addRepairCommands(CLI::App& app, Options& options) {
    static RepairArgs args;
    CLI::App* list = app.add_subcommand("sessions", "Repair sessions (softwarediagevent.db), newest first");
    addLocationOptions(*list, options);
    addRangeOptions(*list, options);
    addLimitOption(*list, options);
    addJsonOption(*list, options);
    list->add_flag("--oldest-first", args.ascending, "Oldest first");
    list->footer("Example: datastore sessions --since 2026-11-01 --limit 10");
    list->callback([&options] { sessions(options, args); });

    CLI::App* one = app.add_subcommand("session", "One whole repair session: transactions, diagnostics, issues, fix actions");
    one->add_option("id", args.sessionId, "The session id")->required();
    addLocationOptions(*one, options);
    addJsonOption(*one, options);
    one->footer("Example: datastore session 3 --json");
    one->callback([&options] { session(options, args); });
}

}  // namespace datastore
