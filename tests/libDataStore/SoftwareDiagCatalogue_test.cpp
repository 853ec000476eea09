// The software-diagnostics store's catalogue: a scripted workload calling every public operation
// of SoftwareDiagEventDataStore and its records, on its success path and on each failure path,
// with every statement SQLite ran, every message logged (priority 1 and up) and the schema of
// every file compared byte for byte with tests/golden/softwarediag/. The store writes "now":
// times taken during the run are recorded as <now>.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/ResultSet.h>
#include <libDataStore/DataStore.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "CatalogueTest.h"
#include "NamedStore.h"
#include "TestSupport.h"

namespace zrn {
namespace {

using Store = test::NamedStore<SoftwareDiagEventDataStore>;

// Fixed times of the workload's own: bounds of the queries and prune cut-offs.
long long const kFrom = 1763800000;
long long const kTo = 1763886400;

ResultSetRow row(std::vector<String> cells) { return ResultSetRow(nullptr, std::move(cells)); }

using test::join;
using test::n;
std::string t(TimeStamp const& time) { return n(time.getUnixTimeStamp()); }
std::string text(SessionLog const& r) {
    return join({"session", n(r.sessionId()), t(r.startTimeStamp()), t(r.endTimeStamp())});
}
std::string text(RunTransactionLog const& r) {
    return join({"run transaction", n(r.runTransactionId()), n(r.sessionId()),
                 t(r.startTimeStamp()), t(r.endTimeStamp())});
}
std::string text(FixTransactionLog const& r) {
    return join({"fix transaction", n(r.fixTransactionId()), n(r.sessionId()),
                 r.restorePointUuid().str(), t(r.startTimeStamp()), t(r.endTimeStamp())});
}
std::string text(SoftwareDiagnosticLog const& r) {
    return join({"diagnostic", n(r.softwareDiagnosticId()), n(r.sessionId()),
                 n(r.runTransactionId()), r.diagnosticUuid().str(), r.diagnosticName().str(),
                 r.diagnosticResult().str(), t(r.startTimeStamp()), t(r.endTimeStamp())});
}
std::string text(IssueLog const& r) {
    return join({"issue", n(r.issueId()), n(r.sessionId()), n(r.softwareDiagnosticId()),
                 r.issueName().str(), r.issueDescription().str(), t(r.timeStamp())});
}
std::string text(FixActionLog const& r) {
    return join({"fix action", n(r.fixActionId()), n(r.sessionId()),
                 n(static_cast<unsigned int>(r.fixState())), r.fixTypeUuid().str(),
                 r.fixSummary().str(), r.fixResult().str(), t(r.startTimeStamp()),
                 t(r.endTimeStamp())});
}

std::vector<std::string> const kTables = {
    "Versioning",          "Sessions", "RunTransactions", "FixTransactions",
    "SoftwareDiagnostics", "Issues",   "FixActions",      "Issues_FixActions"};

class SoftwareDiagCatalogueTest : public test::CatalogueTest {
protected:
    SoftwareDiagCatalogueTest() {
        m_catalogue.rewrite([this](std::string text) { return withoutNow(std::move(text)); });
    }

    // Unix seconds taken while the workload runs are the store's "now": they become <now>.
    std::string withoutNow(std::string const& text) const {
        static std::regex const number("\\b1[0-9]{9}\\b");
        long long const end = std::time(nullptr) + 2;
        std::string out;
        auto last = text.cbegin();
        for (std::sregex_iterator it(text.begin(), text.end(), number), none; it != none; ++it) {
            long long const value = std::stoll(it->str());
            out.append(last, text.cbegin() + it->position());
            out += (value >= m_start && value <= end) ? "<now>" : it->str();
            last = text.cbegin() + it->position() + it->length();
        }
        return out.append(last, text.cend());
    }

    // The list's size, then each of its records on a line of its own.
    template <class List>
    void noteList(std::string const& what, List const& list) {
        note(what, list.size());
        for (unsigned int i = 0; i < list.size(); ++i) note("  " + text(list.get(i)));
    }

    void openAndAsk(Store& store);
    void logging(SoftwareDiagEventDataStore& store);
    void missingIds(SoftwareDiagEventDataStore& store);
    void queries(SoftwareDiagEventDataStore& store);
    void singleRecords(SoftwareDiagEventDataStore const& store);
    void associations(SoftwareDiagEventDataStore& store);
    void shortRows();
    void batches(SoftwareDiagEventDataStore& store);
    void retention(SoftwareDiagEventDataStore& store);
    void closing(Store& store);
    void defaultPath();
    void failedOpenings();
    void olderFiles();
    void readOnlyOpenings();
    void journalMode();

    long long const m_start = std::time(nullptr) - 2;
    std::string const m_path = m_dir.file("softwarediagevent.db");
};

void SoftwareDiagCatalogueTest::openAndAsk(Store& store) {
    step("open a new file");
    store.emplace(String(m_path));
    step("getVersion, checkValidity");
    note("getVersion()", store->getVersion());
    noteValidity(*store, "untouched");
    dumpSchema("a new file", m_path);
    step("getLastSessionLog on an empty table");
    note("getLastSessionLog() = " + text(store->getLastSessionLog()));
    step("open the file again");
    Store again(m_catalogue, "again");
    again.emplace(String(m_path));
}

void SoftwareDiagCatalogueTest::logging(SoftwareDiagEventDataStore& store) {
    step("a session with its run transaction, diagnostic and issue");
    note("logSessionStarted", store.logSessionStarted());
    SessionLog const session = store.getLastSessionLog();
    note("logRunTransactionStarted", store.logRunTransactionStarted(session));
    RunTransactionLog const run = store.getRunTransactionBySession(session);
    note("logSoftwareDiagnosticStarted",
         store.logSoftwareDiagnosticStarted(session, run, "{d1a9-0001}", "Disk's check ✓ Größe"));
    SoftwareDiagnosticLog const diagnostic =
        store.getSoftwareDiagnosticsByRunTransaction(run, false, 0).get(0);
    note("logIssue", store.logIssue(session, diagnostic, "Driver 'old'", "Out of date"));
    store.logSoftwareDiagnosticFinished(diagnostic, "ISSUES");
    note("logSoftwareDiagnosticStarted",
         store.logSoftwareDiagnosticStarted(session, run, "{d1a9-0002}", "Memory check"));
    note("logIssue", store.logIssue(session, diagnostic, "Driver 'new'", ""));
    store.logRunTransactionFinished(run);
    step("the fix transaction and a fix action");
    note("logFixTransactionStarted", store.logFixTransactionStarted(session, ""));
    FixTransactionLog const fix = store.getFixTransactionBySession(session);
    note("logFixAction", store.logFixAction(session, "{f1a0-0001}", "Update the driver"));
    FixActionLog const action = store.getFixActionsBySession(session, false, 0).get(0);
    store.logFixActionStarted(action);
    store.logFixActionFinished(action, static_cast<FixActionState>(4294967295u), "Updated");
    store.logFixTransactionFinished(fix);
    store.logSessionFinished(session);
}

void SoftwareDiagCatalogueTest::missingIds(SoftwareDiagEventDataStore& store) {
    step("finishing records whose ids do not exist");
    store.logSessionFinished(SessionLog::fromDbRow(row({"999", "", ""})));
    store.logRunTransactionFinished(RunTransactionLog::fromDbRow(row({"998", "1", "", ""})));
    store.logFixTransactionFinished(FixTransactionLog::fromDbRow(row({"997", "1", "", "", ""})));
    store.logSoftwareDiagnosticFinished(
        SoftwareDiagnosticLog::fromDbRow(row({"996", "1", "1", "", "", "", "", ""})), "x");
    FixActionLog const action = FixActionLog::fromDbRow(row({"995", "1", "0", "", "", "", "", ""}));
    store.logFixActionStarted(action);
    store.logFixActionFinished(action, static_cast<FixActionState>(1), "x");
}

void SoftwareDiagCatalogueTest::queries(SoftwareDiagEventDataStore& store) {
    TimeStamp const none, from(kFrom), to(kTo);
    SessionLog const session = store.getLastSessionLog();
    RunTransactionLog const run = store.getRunTransactionBySession(session);
    SoftwareDiagnosticLog const diagnostic =
        store.getSoftwareDiagnosticsByRunTransaction(run, false, 0).get(0);
    IssueLog const issue = store.getIssuesBySession(session, false, 0).get(0);
    step("queries without bounds, ascending, no limit");
    noteList("getSessions", store.getSessions(none, none, false, 0));
    noteList("getRunTransactionsByDate", store.getRunTransactionsByDate(none, none, false, 0));
    noteList("getFixTransactionsByDate", store.getFixTransactionsByDate(none, none, false, 0));
    noteList("getSoftwareDiagnosticsByDate",
             store.getSoftwareDiagnosticsByDate(none, none, false, 0));
    noteList("getIssuesBySession", store.getIssuesBySession(session, false, 0));
    noteList("getIssuesBySoftwareDiagnostic",
             store.getIssuesBySoftwareDiagnostic(diagnostic, false, 0));
    noteList("getFixActionsBySession", store.getFixActionsBySession(session, false, 0));
    noteList("getFixActionsByIssue", store.getFixActionsByIssue(issue, false, 0));
    step("queries with both bounds, descending, limit 2");
    noteList("getSessions", store.getSessions(from, to, true, 2));
    noteList("getRunTransactionsByDate", store.getRunTransactionsByDate(from, to, true, 2));
    noteList("getFixTransactionsByDate", store.getFixTransactionsByDate(from, to, true, 2));
    noteList("getSoftwareDiagnosticsByDate", store.getSoftwareDiagnosticsByDate(from, to, true, 2));
    noteList("getSoftwareDiagnosticsByRunTransaction",
             store.getSoftwareDiagnosticsByRunTransaction(run, true, 2));
    noteList("getIssuesBySession", store.getIssuesBySession(session, true, 2));
    noteList("getIssuesBySoftwareDiagnostic",
             store.getIssuesBySoftwareDiagnostic(diagnostic, true, 2));
    noteList("getFixActionsBySession", store.getFixActionsBySession(session, true, 2));
    noteList("getFixActionsByIssue", store.getFixActionsByIssue(issue, true, 2));
    step("queries with one bound each");
    noteList("getSessions", store.getSessions(from, none, false, 0));
    noteList("getSessions", store.getSessions(none, to, false, 0));
    step("getSession");
    noteList("getSession", store.getSession(session.sessionId()));
    noteList("getSession, missing", store.getSession(999));
}

void SoftwareDiagCatalogueTest::singleRecords(SoftwareDiagEventDataStore const& store) {
    SessionLog const session = store.getLastSessionLog();
    SessionLog const stranger = SessionLog::fromDbRow(row({"999", "", ""}));
    step("single records and the questions before them");
    note("sessionHasRunTransaction", store.sessionHasRunTransaction(session));
    note(std::string("getRunTransactionBySession") + " = " +
         text(store.getRunTransactionBySession(session)));
    note("sessionHasFixTransaction", store.sessionHasFixTransaction(session));
    note(std::string("getFixTransactionBySession") + " = " +
         text(store.getFixTransactionBySession(session)));
    note("restorePointHasFixTransaction",
         store.restorePointHasFixTransaction("{cb2ea802-87bf-4635-8ae8-c818ed425d8a}"));
    note("getFixTransactionByRestorePointUuid = " +
         text(store.getFixTransactionByRestorePointUuid("{cb2ea802-87bf-4635-8ae8-c818ed425d8a}")));
    step("the questions on what does not exist");
    note("sessionHasRunTransaction", store.sessionHasRunTransaction(stranger));
    note("sessionHasFixTransaction", store.sessionHasFixTransaction(stranger));
    note("restorePointHasFixTransaction", store.restorePointHasFixTransaction("{it's}"));
}

void SoftwareDiagCatalogueTest::associations(SoftwareDiagEventDataStore& store) {
    SessionLog const session = store.getLastSessionLog();
    IssueLog const issue = store.getIssuesBySession(session, false, 0).get(0);
    FixActionLog const action = store.getFixActionsBySession(session, false, 0).get(0);
    FixTransactionLog const fix = store.getFixTransactionBySession(session);
    step("associateIssueToFixAction, then the same pair again");
    note("associateIssueToFixAction", store.associateIssueToFixAction(issue, action));
    note("associateIssueToFixAction", store.associateIssueToFixAction(issue, action));
    step("associateRestorePointToFixTransaction, then again");
    note(
        "associateRestorePointToFixTransaction",
        store.associateRestorePointToFixTransaction(fix, "{cb2ea802-87bf-4635-8ae8-c818ed425d8a}"));
    note("associateRestorePointToFixTransaction",
         store.associateRestorePointToFixTransaction(fix, "{second}"));
    step("associateRestorePointToFixTransaction on a missing fix transaction");
    note("associateRestorePointToFixTransaction",
         store.associateRestorePointToFixTransaction(
             FixTransactionLog::fromDbRow(row({"997", "1", "", "", ""})), "{x}"));
}

void SoftwareDiagCatalogueTest::shortRows() {
    step("records from rows one column short");
    SessionLog::fromDbRow(row({"1", "2"}));
    RunTransactionLog::fromDbRow(row({"1", "2", "3"}));
    FixTransactionLog::fromDbRow(row({"1", "2", "3", "4"}));
    SoftwareDiagnosticLog::fromDbRow(row({"1", "2", "3", "4", "5", "6", "7"}));
    IssueLog::fromDbRow(row({"1", "2", "3", "4", "5"}));
    FixActionLog::fromDbRow(row({"1", "2", "3", "4", "5", "6", "7"}));
}

void SoftwareDiagCatalogueTest::batches(SoftwareDiagEventDataStore& store) {
    step("StoreBatch: committed");
    {
        StoreBatch batch(store);
        note("logSessionStarted", store.logSessionStarted());
        store.logSessionFinished(store.getLastSessionLog());
        batch.commit();
    }
    step("StoreBatch: a nested batch, then the outer one rolled back");
    {
        StoreBatch outer(store);
        note("logSessionStarted", store.logSessionStarted());
        {
            StoreBatch inner(store);
            note("logFixAction", store.logFixAction(store.getLastSessionLog(), "{f}", "s"));
            inner.commit();
        }
        {
            StoreBatch inner(store);
            store.logSessionFinished(store.getLastSessionLog());
        }
    }
}

void SoftwareDiagCatalogueTest::retention(SoftwareDiagEventDataStore& store) {
    step("prunableBefore");
    note("prunableBefore", store.prunableBefore(TimeStamp(kTo)).total());
    step("pruneBefore");
    note("pruneBefore", store.pruneBefore(TimeStamp(kFrom)).total());
    step("pruneBefore with vacuum");
    PruneOptions options;
    options.vacuum = true;
    note("pruneBefore", store.pruneBefore(TimeStamp(kFrom), options).total());
}

void SoftwareDiagCatalogueTest::closing(Store& store) {
    CatalogueTest::closing(store, m_path, [&] {
        noteThrow("logSessionStarted", [&] { store->logSessionStarted(); });
        noteThrow("getVersion", [&] { store->getVersion(); });
    });
}

void SoftwareDiagCatalogueTest::defaultPath() {
    std::filesystem::create_directory(file("default"));
    DataStoreSettings::setSoftwareDiagEventDataStorePath(String(file("default")));
    step("the default path");
    Store store(m_catalogue, "default");
    store.emplace();
}

void SoftwareDiagCatalogueTest::failedOpenings() {
    CatalogueTest::failedOpenings<SoftwareDiagEventDataStore>("SoftwareDiagEventDataStore(path)",
                                                              "softwarediagevent.db");
}

void SoftwareDiagCatalogueTest::olderFiles() {
    std::vector<OldFile> const olds = {
        {"version 0",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL);"
         "INSERT INTO Versioning VALUES(0);"},
        {"an empty Versioning table",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL);"},
        {"older tables lacking columns",
         "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL);"
         "INSERT INTO Versioning VALUES(1);"
         "CREATE TABLE `FixTransactions` (`fixTransactionId` INTEGER PRIMARY KEY AUTOINCREMENT "
         "NOT NULL,`sessionId` INTEGER,`startTimeStamp` INTEGER);"
         "CREATE TABLE `FixActions` (`fixActionId` INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL,"
         "`sessionId` INTEGER,`fixTypeUuid` TEXT);"},
    };
    openOldFiles<SoftwareDiagEventDataStore>(olds, "opened");
}

void SoftwareDiagCatalogueTest::readOnlyOpenings() {
    step("ReadOnly: open, ask, refuse to write");
    {
        Store store(m_catalogue, "reader");
        store.emplace(String(m_path), ReadOnly{});
        note("getVersion()", store->getVersion());
        noteList("getSessions", store->getSessions({}, {}, true, 0));
        note("getLastSessionLog() = " + text(store->getLastSessionLog()));
        noteThrow("logSessionStarted", [&] { store->logSessionStarted(); });
        noteThrow("StoreBatch", [&] { StoreBatch batch(*store); });
        noteThrow("pruneBefore", [&] { store->pruneBefore(TimeStamp(kFrom)); });
    }
    step("ReadOnly immutable: open and ask");
    {
        Store store(m_catalogue, "immutable");
        store.emplace(String(m_path), ReadOnly{std::chrono::seconds(2), true});
        noteList("getSession", store->getSession(1));
        note("prunableBefore", store->prunableBefore(TimeStamp(kTo)).total());
    }
    refusedReadOnly<SoftwareDiagEventDataStore>(
        m_path, "SoftwareDiagEventDataStore(path, ReadOnly)",
        "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL);");
}

void SoftwareDiagCatalogueTest::journalMode() {
    walFile<SoftwareDiagEventDataStore>([&](SoftwareDiagEventDataStore& store) {
        note("logSessionStarted", store.logSessionStarted());
    });
}

TEST_F(SoftwareDiagCatalogueTest, EveryOperationStatementMessageAndSchema) {
    {
        Store store(m_catalogue, "store");
        openAndAsk(store);
        logging(*store);
        missingIds(*store);
        associations(*store);
        queries(*store);
        singleRecords(*store);
        shortRows();
        batches(*store);
        dumpSchema("the file after the workload, every row", m_path, kTables);
        readOnlyOpenings();
        retention(*store);
        closing(store);
    }
    defaultPath();
    failedOpenings();
    olderFiles();
    journalMode();
    expectGoldens("softwarediag", withoutNow(m_schema));
}

}  // namespace
}  // namespace zrn
