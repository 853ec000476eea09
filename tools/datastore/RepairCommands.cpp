// datastore sessions | session ID: the repair tool's sessions in softwarediagevent.db.

#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <boost/optional.hpp>
#include <iostream>
#include <map>
#include <memory>

#include "Commands.h"
#include "Output.h"
#include "Records.h"

namespace datastore {

namespace {

struct RepairArgs {
    long long sessionId = 0;
    bool ascending = false;
};

std::unique_ptr<zrn::SoftwareDiagEventDataStore> openStore(Options const& options,
                                                           std::string& path) {
    path = existingStorePath(options, Store::SoftwareDiag);
    auto store = openOrFail(path, [&] {
        return std::make_unique<zrn::SoftwareDiagEventDataStore>(zrn::String(path),
                                                                 readOnly(options));
    });
    zrn::String error;
    if (!store->checkValidity(error)) storeFailure(path, "not usable: " + error.str());
    return store;
}

zrn::TimeStamp bound(long long seconds) {
    return seconds > 0 ? zrn::TimeStamp(seconds) : zrn::TimeStamp();
}

void sessions(Options const& options, RepairArgs const& args) {
    TimeRange const range = timeRange(options);
    std::string path;
    auto const store = openStore(options, path);
    zrn::SessionList const list = store->getSessions(
        bound(range.since), bound(range.until), !args.ascending, static_cast<int>(options.limit));
    std::vector<Field> fields = sessionFields();
    fields.insert(fields.end(), {{"issues", "ISSUES", 1},
                                 {"fixActions", "FIX ACTIONS", 2},
                                 {"restorePoint", "RESTORE POINT", 0, true}});
    RecordPrinter printer(fields, options.json);
    for (unsigned i = 0; i < list.size(); ++i) {
        zrn::SessionLog const session = list.get(i);
        Json restorePoint;
        if (store->sessionHasFixTransaction(session)) {
            restorePoint = store->getFixTransactionBySession(session).restorePointUuid().str();
        }
        Json record = sessionRecord(options.json, session);
        record["issues"] = store->getIssuesBySession(session, false, 0).size();
        record["fixActions"] = store->getFixActionsBySession(session, false, 0).size();
        record["restorePoint"] = restorePoint;
        printer.add(std::move(record));
    }
    printer.print(std::cout);
}

// Human output: one table per kind of record. JSON: one object per record with its "record"
// kind.
void section(Options const& options, char const* title, RecordPrinter const& printer) {
    printSection(std::cout, options.json, title, printer);
}

using DiagStore = zrn::SoftwareDiagEventDataStore;

void printSessionHead(Options const& options, zrn::SessionLog const& session) {
    RecordPrinter sessionPrinter(sessionFields(), options.json);
    sessionPrinter.add(tagged("session", sessionRecord(options.json, session)));
    if (options.json) {
        sessionPrinter.print(std::cout);
    } else {
        std::cout << "Session " << session.sessionId() << "\n";
        sessionPrinter.print(std::cout);
    }
}

// The session's run and fix transactions; the run transaction, which its diagnostics belong to.
boost::optional<zrn::RunTransactionLog> printTransactions(Options const& options, DiagStore& store,
                                                          zrn::SessionLog const& session) {
    RecordPrinter transactions({{"record", "KIND"},
                                {"id", "ID"},
                                {"restorePoint", "RESTORE POINT", 0, true},
                                {"start", "STARTED"},
                                {"end", "ENDED"}},
                               options.json);
    // The single-record getters stop the process when there is no match: ask first.
    boost::optional<zrn::RunTransactionLog> run;
    if (store.sessionHasRunTransaction(session)) run = store.getRunTransactionBySession(session);
    if (run) {
        transactions.add(Json{{"record", "runTransaction"},
                              {"id", run->runTransactionId()},
                              {"sessionId", run->sessionId()},
                              {"restorePoint", nullptr},
                              {"start", timeOf(options.json, run->startTimeStamp())},
                              {"end", timeOf(options.json, run->endTimeStamp())}});
    }
    if (store.sessionHasFixTransaction(session)) {
        zrn::FixTransactionLog const fix = store.getFixTransactionBySession(session);
        transactions.add(Json{{"record", "fixTransaction"},
                              {"id", fix.fixTransactionId()},
                              {"sessionId", fix.sessionId()},
                              {"restorePoint", fix.restorePointUuid().str()},
                              {"start", timeOf(options.json, fix.startTimeStamp())},
                              {"end", timeOf(options.json, fix.endTimeStamp())}});
    }
    section(options, "Transactions", transactions);
    return run;
}

void printDiagnostics(Options const& options, DiagStore& store,
                      boost::optional<zrn::RunTransactionLog> const& run) {
    RecordPrinter diagnostics(diagnosticFields(), options.json);
    if (run) {
        zrn::SoftwareDiagnosticList const list =
            store.getSoftwareDiagnosticsByRunTransaction(*run, false, 0);
        for (unsigned i = 0; i < list.size(); ++i) {
            diagnostics.add(tagged("diagnostic", diagnosticRecord(options.json, list.get(i))));
        }
    }
    section(options, "Diagnostics", diagnostics);
}

// The session's issues; for each fix action, the issues it fixes.
std::map<long long, std::vector<long long>> printIssues(Options const& options, DiagStore& store,
                                                        zrn::SessionLog const& session) {
    zrn::IssueList const issues = store.getIssuesBySession(session, false, 0);
    std::map<long long, std::vector<long long>> issuesOfFix;
    std::vector<Field> issueColumns = issueFields();
    issueColumns.push_back({"fixActionIds", "FIXES", 2});
    RecordPrinter issuePrinter(issueColumns, options.json);
    for (unsigned i = 0; i < issues.size(); ++i) {
        zrn::IssueLog const issue = issues.get(i);
        zrn::FixActionList const fixes = store.getFixActionsByIssue(issue, false, 0);
        Json fixIds = Json::array();
        std::string fixList;
        for (unsigned f = 0; f < fixes.size(); ++f) {
            long long const id = fixes.get(f).fixActionId();
            fixIds.push_back(id);
            fixList += (fixList.empty() ? "" : ",") + std::to_string(id);
            issuesOfFix[id].push_back(issue.issueId());
        }
        Json record = tagged("issue", issueRecord(options.json, issue));
        record["fixActionIds"] = options.json ? fixIds : Json(fixList);
        issuePrinter.add(std::move(record));
    }
    section(options, "Issues", issuePrinter);
    return issuesOfFix;
}

void printFixActions(Options const& options, DiagStore& store, zrn::SessionLog const& session,
                     std::map<long long, std::vector<long long>>& issuesOfFix) {
    zrn::FixActionList const fixes = store.getFixActionsBySession(session, false, 0);
    std::vector<Field> fixColumns = fixActionFields();
    fixColumns.push_back({"issues", "ISSUES"});
    RecordPrinter fixPrinter(fixColumns, options.json);
    for (unsigned i = 0; i < fixes.size(); ++i) {
        zrn::FixActionLog const fix = fixes.get(i);
        std::string issueList;
        Json issueIds = Json::array();
        for (long long id : issuesOfFix[fix.fixActionId()]) {
            issueList += (issueList.empty() ? "" : ",") + std::to_string(id);
            issueIds.push_back(id);
        }
        Json record = tagged("fixAction", fixActionRecord(options.json, fix));
        record["issues"] = options.json ? issueIds : Json(issueList);
        fixPrinter.add(std::move(record));
    }
    section(options, "Fix actions", fixPrinter);
}

void session(Options const& options, RepairArgs const& args) {
    std::string path;
    auto const store = openStore(options, path);
    zrn::SessionList const found = store->getSession(args.sessionId);
    if (found.size() == 0) {
        throw ToolError(NOT_FOUND, path + ": no session " + std::to_string(args.sessionId));
    }
    zrn::SessionLog const session = found.get(0);
    printSessionHead(options, session);
    printDiagnostics(options, *store, printTransactions(options, *store, session));
    auto issuesOfFix = printIssues(options, *store, session);
    printFixActions(options, *store, session, issuesOfFix);
}

}  // namespace

void addRepairCommands(CLI::App& app, Options& options) {
    static RepairArgs args;
    CLI::App* list = addInspection(app, options, "sessions",
                                   "Repair sessions (softwarediagevent.db), newest first",
                                   "datastore sessions --since 2026-11-01 --limit 10");
    list->add_flag("--oldest-first", args.ascending, "Oldest first");
    list->callback([&options] { sessions(options, args); });

    CLI::App* one =
        addInspection(app, options, "session",
                      "One whole repair session: transactions, diagnostics, issues, fix actions",
                      "datastore session 3 --json", false, false);
    one->add_option("session-id", args.sessionId, "The session (see 'datastore sessions')")
        ->required();
    one->callback([&options] { session(options, args); });
}

}  // namespace datastore
