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
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "Golden.h"
#include "NamedStore.h"
#include "TestSupport.h"

namespace zrn {
namespace {

using Store = test::NamedStore<SoftwareDiagEventDataStore>;

// Fixed times of the workload's own: bounds of the queries and prune cut-offs.
long long const kFrom = 1763800000;
long long const kTo = 1763886400;

ResultSetRow row(std::vector<String> cells) { return ResultSetRow(nullptr, std::move(cells)); }

std::vector<std::string> const kTables = {
    "Versioning",          "Sessions", "RunTransactions", "FixTransactions",
    "SoftwareDiagnostics", "Issues",   "FixActions",      "Issues_FixActions"};

class SoftwareDiagCatalogueTest : public ::testing::Test {
protected:
    SoftwareDiagCatalogueTest() {
        test::writeFile(m_settings, "");
        m_catalogue.replace(m_dir.path(), "<dir>");
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

    std::string file(std::string const& name) const { return m_dir.file(name); }

    void expectThrow(std::string const& what, std::function<void()> const& work) {
        try {
            work();
            ADD_FAILURE() << what << " did not throw";
        } catch (DatabaseError const& e) {
            m_catalogue.note(what + " threw DatabaseError: " + e.getMessage().c_str());
        } catch (Exception const& e) {
            m_catalogue.note(what + " threw Exception: " + e.getMessage().c_str());
        }
    }
    void noteValue(std::string const& what, long long value) {
        m_catalogue.note(what + " = " + std::to_string(value));
    }
    void dumpSchema(std::string const& title, std::string const& path,
                    std::vector<std::string> const& tables = {"Versioning"}) {
        m_catalogue.unrecorded(
            [&] { m_schema += "## " + title + "\n" + withoutNow(test::schemaText(path, tables)); });
    }
    void prepare(std::string const& path, std::string const& sql) {
        m_catalogue.unrecorded([&] {
            test::RawDb raw(path);
            raw.exec(sql);
        });
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
    test::TempDir m_dir;
    std::string const m_settings = m_dir.file("settings.ini");
    test::ScopedEnv m_env{"ZRN_SETTINGS_FILE", m_settings.c_str()};
    std::string const m_path = m_dir.file("softwarediagevent.db");
    test::Catalogue m_catalogue;
    std::string m_schema;
};

void SoftwareDiagCatalogueTest::openAndAsk(Store& store) {
    m_catalogue.step("open a new file");
    store.emplace(String(m_path));
    m_catalogue.step("getVersion, checkValidity");
    noteValue("getVersion()", store->getVersion());
    String error("untouched");
    noteValue("checkValidity(error)", store->checkValidity(error));
    m_catalogue.note(std::string("error: ") + error.c_str());
    dumpSchema("a new file", m_path);
    m_catalogue.step("getLastSessionLog on an empty table");
    noteValue("getLastSessionLog().sessionId()", store->getLastSessionLog().sessionId());
    m_catalogue.step("open the file again");
    Store again(m_catalogue, "again");
    again.emplace(String(m_path));
}

void SoftwareDiagCatalogueTest::logging(SoftwareDiagEventDataStore& store) {
    m_catalogue.step("a session with its run transaction, diagnostic and issue");
    noteValue("logSessionStarted", store.logSessionStarted());
    SessionLog const session = store.getLastSessionLog();
    noteValue("logRunTransactionStarted", store.logRunTransactionStarted(session));
    RunTransactionLog const run = store.getRunTransactionBySession(session);
    noteValue("logSoftwareDiagnosticStarted",
              store.logSoftwareDiagnosticStarted(session, run, "{d1a9-0001}", "Disk's check"));
    SoftwareDiagnosticLog const diagnostic =
        store.getSoftwareDiagnosticsByRunTransaction(run, false, 0).get(0);
    noteValue("logIssue", store.logIssue(session, diagnostic, "Driver 'old'", "Out of date"));
    store.logSoftwareDiagnosticFinished(diagnostic, "ISSUES");
    store.logRunTransactionFinished(run);
    m_catalogue.step("the fix transaction and a fix action");
    noteValue("logFixTransactionStarted", store.logFixTransactionStarted(session, ""));
    FixTransactionLog const fix = store.getFixTransactionBySession(session);
    noteValue("logFixAction", store.logFixAction(session, "{f1a0-0001}", "Update the driver"));
    FixActionLog const action = store.getFixActionsBySession(session, false, 0).get(0);
    store.logFixActionStarted(action);
    store.logFixActionFinished(action, static_cast<FixActionState>(2), "Updated");
    store.logFixTransactionFinished(fix);
    store.logSessionFinished(session);
}

void SoftwareDiagCatalogueTest::missingIds(SoftwareDiagEventDataStore& store) {
    m_catalogue.step("finishing records whose ids do not exist");
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
    m_catalogue.step("queries without bounds, ascending, no limit");
    noteValue("getSessions", store.getSessions(none, none, false, 0).size());
    noteValue("getRunTransactionsByDate",
              store.getRunTransactionsByDate(none, none, false, 0).size());
    noteValue("getFixTransactionsByDate",
              store.getFixTransactionsByDate(none, none, false, 0).size());
    noteValue("getSoftwareDiagnosticsByDate",
              store.getSoftwareDiagnosticsByDate(none, none, false, 0).size());
    noteValue("getIssuesBySession", store.getIssuesBySession(session, false, 0).size());
    noteValue("getIssuesBySoftwareDiagnostic",
              store.getIssuesBySoftwareDiagnostic(diagnostic, false, 0).size());
    noteValue("getFixActionsBySession", store.getFixActionsBySession(session, false, 0).size());
    noteValue("getFixActionsByIssue", store.getFixActionsByIssue(issue, false, 0).size());
    m_catalogue.step("queries with both bounds, descending, limit 2");
    noteValue("getSessions", store.getSessions(from, to, true, 2).size());
    noteValue("getRunTransactionsByDate", store.getRunTransactionsByDate(from, to, true, 2).size());
    noteValue("getFixTransactionsByDate", store.getFixTransactionsByDate(from, to, true, 2).size());
    noteValue("getSoftwareDiagnosticsByDate",
              store.getSoftwareDiagnosticsByDate(from, to, true, 2).size());
    noteValue("getSoftwareDiagnosticsByRunTransaction",
              store.getSoftwareDiagnosticsByRunTransaction(run, true, 2).size());
    noteValue("getIssuesBySession", store.getIssuesBySession(session, true, 2).size());
    noteValue("getIssuesBySoftwareDiagnostic",
              store.getIssuesBySoftwareDiagnostic(diagnostic, true, 2).size());
    noteValue("getFixActionsBySession", store.getFixActionsBySession(session, true, 2).size());
    noteValue("getFixActionsByIssue", store.getFixActionsByIssue(issue, true, 2).size());
    m_catalogue.step("queries with one bound each");
    noteValue("getSessions", store.getSessions(from, none, false, 0).size());
    noteValue("getSessions", store.getSessions(none, to, false, 0).size());
    m_catalogue.step("getSession");
    noteValue("getSession", store.getSession(session.sessionId()).size());
    noteValue("getSession, missing", store.getSession(999).size());
}

void SoftwareDiagCatalogueTest::singleRecords(SoftwareDiagEventDataStore const& store) {
    SessionLog const session = store.getLastSessionLog();
    SessionLog const stranger = SessionLog::fromDbRow(row({"999", "", ""}));
    m_catalogue.step("single records and the questions before them");
    noteValue("sessionHasRunTransaction", store.sessionHasRunTransaction(session));
    noteValue("getRunTransactionBySession",
              store.getRunTransactionBySession(session).runTransactionId());
    noteValue("sessionHasFixTransaction", store.sessionHasFixTransaction(session));
    noteValue("getFixTransactionBySession",
              store.getFixTransactionBySession(session).fixTransactionId());
    noteValue("restorePointHasFixTransaction",
              store.restorePointHasFixTransaction("{cb2ea802-87bf-4635-8ae8-c818ed425d8a}"));
    noteValue("getFixTransactionByRestorePointUuid",
              store.getFixTransactionByRestorePointUuid("{cb2ea802-87bf-4635-8ae8-c818ed425d8a}")
                  .fixTransactionId());
    m_catalogue.step("the questions on what does not exist");
    noteValue("sessionHasRunTransaction", store.sessionHasRunTransaction(stranger));
    noteValue("sessionHasFixTransaction", store.sessionHasFixTransaction(stranger));
    noteValue("restorePointHasFixTransaction", store.restorePointHasFixTransaction("{it's}"));
}

void SoftwareDiagCatalogueTest::associations(SoftwareDiagEventDataStore& store) {
    SessionLog const session = store.getLastSessionLog();
    IssueLog const issue = store.getIssuesBySession(session, false, 0).get(0);
    FixActionLog const action = store.getFixActionsBySession(session, false, 0).get(0);
    FixTransactionLog const fix = store.getFixTransactionBySession(session);
    m_catalogue.step("associateIssueToFixAction, then the same pair again");
    noteValue("associateIssueToFixAction", store.associateIssueToFixAction(issue, action));
    noteValue("associateIssueToFixAction", store.associateIssueToFixAction(issue, action));
    m_catalogue.step("associateRestorePointToFixTransaction, then again");
    noteValue(
        "associateRestorePointToFixTransaction",
        store.associateRestorePointToFixTransaction(fix, "{cb2ea802-87bf-4635-8ae8-c818ed425d8a}"));
    noteValue("associateRestorePointToFixTransaction",
              store.associateRestorePointToFixTransaction(fix, "{second}"));
    m_catalogue.step("associateRestorePointToFixTransaction on a missing fix transaction");
    noteValue("associateRestorePointToFixTransaction",
              store.associateRestorePointToFixTransaction(
                  FixTransactionLog::fromDbRow(row({"997", "1", "", "", ""})), "{x}"));
}

void SoftwareDiagCatalogueTest::shortRows() {
    m_catalogue.step("records from rows one column short");
    SessionLog::fromDbRow(row({"1", "2"}));
    RunTransactionLog::fromDbRow(row({"1", "2", "3"}));
    FixTransactionLog::fromDbRow(row({"1", "2", "3", "4"}));
    SoftwareDiagnosticLog::fromDbRow(row({"1", "2", "3", "4", "5", "6", "7"}));
    IssueLog::fromDbRow(row({"1", "2", "3", "4", "5"}));
    FixActionLog::fromDbRow(row({"1", "2", "3", "4", "5", "6", "7"}));
}

void SoftwareDiagCatalogueTest::batches(SoftwareDiagEventDataStore& store) {
    m_catalogue.step("StoreBatch: committed");
    {
        StoreBatch batch(store);
        noteValue("logSessionStarted", store.logSessionStarted());
        store.logSessionFinished(store.getLastSessionLog());
        batch.commit();
    }
    m_catalogue.step("StoreBatch: a nested batch, then the outer one rolled back");
    {
        StoreBatch outer(store);
        noteValue("logSessionStarted", store.logSessionStarted());
        {
            StoreBatch inner(store);
            noteValue("logFixAction", store.logFixAction(store.getLastSessionLog(), "{f}", "s"));
            inner.commit();
        }
        {
            StoreBatch inner(store);
            store.logSessionFinished(store.getLastSessionLog());
        }
    }
}

void SoftwareDiagCatalogueTest::retention(SoftwareDiagEventDataStore& store) {
    m_catalogue.step("prunableBefore");
    noteValue("prunableBefore", store.prunableBefore(TimeStamp(kTo)).total());
    m_catalogue.step("pruneBefore");
    noteValue("pruneBefore", store.pruneBefore(TimeStamp(kFrom)).total());
    m_catalogue.step("pruneBefore with vacuum");
    PruneOptions options;
    options.vacuum = true;
    noteValue("pruneBefore", store.pruneBefore(TimeStamp(kFrom), options).total());
}

void SoftwareDiagCatalogueTest::closing(Store& store) {
    m_catalogue.step("checkValidity on a file moved away");
    std::filesystem::rename(m_path, m_path + ".moved");
    String error;
    noteValue("checkValidity(error)", store->checkValidity(error));
    m_catalogue.note(std::string("error: ") + error.c_str());
    std::filesystem::rename(m_path + ".moved", m_path);
    m_catalogue.step("close, close again, then use the closed store");
    store->close();
    store->close();
    noteValue("checkValidity(error)", store->checkValidity(error));
    m_catalogue.note(std::string("error: ") + error.c_str());
    expectThrow("logSessionStarted", [&] { store->logSessionStarted(); });
    expectThrow("getVersion", [&] { store->getVersion(); });
    m_catalogue.step("destroy the closed store");
    store.reset();
}

void SoftwareDiagCatalogueTest::defaultPath() {
    std::filesystem::create_directory(file("default"));
    DataStoreSettings::setSoftwareDiagEventDataStorePath(String(file("default")));
    m_catalogue.step("the default path");
    Store store(m_catalogue, "default");
    store.emplace();
}

void SoftwareDiagCatalogueTest::failedOpenings() {
    std::string const notADatabase = file("notes.db");
    test::writeFile(notADatabase, "These are not the pages of a database, just some text.\n");
    for (auto const& path : {notADatabase, file("missing/softwarediagevent.db")}) {
        m_catalogue.step("open " + path.substr(m_dir.path().size() + 1));
        Store store(m_catalogue, "failing");
        expectThrow("SoftwareDiagEventDataStore(path)", [&] { store.emplace(String(path)); });
    }
}

void SoftwareDiagCatalogueTest::olderFiles() {
    struct Old {
        char const* title;
        std::string sql;
    };
    std::vector<Old> const olds = {
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
    int n = 0;
    for (auto const& old : olds) {
        std::string const path = file("old" + std::to_string(++n) + ".db");
        prepare(path, old.sql);
        m_catalogue.step("open a file of " + std::string(old.title));
        {
            Store store(m_catalogue, "upgraded");
            store.emplace(String(path));
            noteValue("getVersion()", store->getVersion());
        }
        dumpSchema(std::string("a file of ") + old.title + ", opened", path);
    }
    std::string const emptied = file("emptied.db");
    m_catalogue.step("open a new file to empty its Versioning table");
    Store store(m_catalogue, "emptied");
    store.emplace(String(emptied));
    prepare(emptied, "DELETE FROM Versioning;");
    m_catalogue.step("getVersion on an emptied Versioning table");
    noteValue("getVersion()", store->getVersion());
}

void SoftwareDiagCatalogueTest::readOnlyOpenings() {
    m_catalogue.step("ReadOnly: open, ask, refuse to write");
    {
        Store store(m_catalogue, "reader");
        store.emplace(String(m_path), ReadOnly{});
        noteValue("getVersion()", store->getVersion());
        noteValue("getSessions", store->getSessions({}, {}, true, 0).size());
        noteValue("getLastSessionLog().sessionId()", store->getLastSessionLog().sessionId());
        expectThrow("logSessionStarted", [&] { store->logSessionStarted(); });
        expectThrow("StoreBatch", [&] { StoreBatch batch(*store); });
        expectThrow("pruneBefore", [&] { store->pruneBefore(TimeStamp(kFrom)); });
    }
    m_catalogue.step("ReadOnly immutable: open and ask");
    {
        Store store(m_catalogue, "immutable");
        store.emplace(String(m_path), ReadOnly{std::chrono::seconds(2), true});
        noteValue("getSession", store->getSession(1).size());
        noteValue("prunableBefore", store->prunableBefore(TimeStamp(kTo)).total());
    }
    std::string const other = file("versioning-only.db");
    prepare(other,
            "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL);");
    for (auto const& path : {file("absent.db"), other}) {
        m_catalogue.step("ReadOnly: open " + path.substr(m_dir.path().size() + 1));
        Store store(m_catalogue, "refused");
        expectThrow("SoftwareDiagEventDataStore(path, ReadOnly)",
                    [&] { store.emplace(String(path), ReadOnly{}); });
    }
}

void SoftwareDiagCatalogueTest::journalMode() {
    test::writeFile(m_settings, "[libDataStore]\nSQLiteDataStore.JournalMode = WAL\n");
    m_catalogue.step("JournalMode WAL: open a new file and log");
    {
        Store store(m_catalogue, "wal");
        store.emplace(String(file("wal.db")));
        noteValue("logSessionStarted", store->logSessionStarted());
    }
    test::writeFile(m_settings, "");
}

TEST_F(SoftwareDiagCatalogueTest, EveryOperationStatementMessageAndSchema) {
    {
        Store store(m_catalogue, "store");
        openAndAsk(store);
        logging(*store);
        missingIds(*store);
        queries(*store);
        associations(*store);
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
    test::expectGolden("softwarediag/statements.txt", m_catalogue.statements());
    test::expectGolden("softwarediag/messages.txt", m_catalogue.messages());
    test::expectGolden("softwarediag/schema.txt", m_schema);
}

}  // namespace
}  // namespace zrn
