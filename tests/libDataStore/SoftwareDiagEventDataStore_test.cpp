#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/ResultSet.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "SqlTrace.h"
#include "TestSupport.h"

namespace zrn {
namespace {

using Rows = test::RawDb::Rows;

using StatementTrace = test::SqlTrace;

// A record carrying only an id, for operations that look the id up.
template <class Record>
Record withId(long long id, unsigned int columns) {
    std::vector<String> cells(columns);
    cells[0] = std::to_string(id);
    return Record::fromDbRow(ResultSetRow(nullptr, std::move(cells)));
}

std::string const kFile = "softwarediagevent.db";

TEST(SoftwareDiagEventDataStoreTest, NewFileHasExactSchemaVersionAndIndexes) {
    test::TempDir dir;
    test::LogCapture log;
    StatementTrace trace;
    {
        SoftwareDiagEventDataStore store{String(dir.file(kFile))};
        EXPECT_EQ(store.getVersion(), 1);
    }

    test::RawDb raw(dir.file(kFile));
    char const* const id = "INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL";
    EXPECT_EQ(raw.query("SELECT sql FROM sqlite_master WHERE type='table' AND name NOT LIKE "
                        "'sqlite%' ORDER BY rowid"),
              (Rows{
                  {"CREATE TABLE `Versioning` (`version` " + std::string(id) + ")"},
                  {"CREATE TABLE `Sessions` (`sessionId` " + std::string(id) +
                   ",`startTimeStamp` INTEGER,`endTimeStamp` INTEGER)"},
                  {"CREATE TABLE `RunTransactions` (`runTransactionId` " + std::string(id) +
                   ",`sessionId` INTEGER,`startTimeStamp` INTEGER,`endTimeStamp` INTEGER)"},
                  {"CREATE TABLE `FixTransactions` (`fixTransactionId` " + std::string(id) +
                   ",`sessionId` INTEGER,`restorePointUuid` TEXT,`startTimeStamp` INTEGER,"
                   "`endTimeStamp` INTEGER)"},
                  {"CREATE TABLE `SoftwareDiagnostics` (`softwareDiagnosticId` " + std::string(id) +
                   ",`sessionId` INTEGER,`runTransactionId` INTEGER,`diagnosticUuid` TEXT,"
                   "`diagnosticName` TEXT,`diagnosticResult` TEXT,`startTimeStamp` INTEGER,"
                   "`endTimeStamp` INTEGER)"},
                  {"CREATE TABLE `Issues` (`issueId` " + std::string(id) +
                   ",`sessionId` INTEGER,`softwareDiagnosticId` INTEGER,`issueName` TEXT,"
                   "`issueDescription` TEXT,`timeStamp` INTEGER)"},
                  {"CREATE TABLE `FixActions` (`fixActionId` " + std::string(id) +
                   ",`sessionId` INTEGER,`fixState` INTEGER,`fixTypeUuid` TEXT,"
                   "`fixSummary` TEXT,`fixResult` TEXT,`startTimeStamp` INTEGER,"
                   "`endTimeStamp` INTEGER)"},
                  {"CREATE TABLE `Issues_FixActions` (`issueFixActionId` " + std::string(id) +
                   ",`issueId` INTEGER,`fixActionId` INTEGER)"},
              }));
    EXPECT_EQ(raw.query("SELECT * FROM Versioning"), (Rows{{"1"}}));

    // Names as existing files carry them: direction-less ones end in a blank.
    Rows const indexes = raw.query(
        "SELECT name, tbl_name, sql FROM sqlite_master WHERE type='index' ORDER BY rowid");
    std::string names;
    for (auto const& row : indexes) names += (names.empty() ? "" : "|") + row[0];
    EXPECT_EQ(names,
              "SessionssessionId |SessionsstartTimeStamp ASC|SessionsstartTimeStamp DESC|"
              "SessionsendTimeStamp ASC|SessionsendTimeStamp DESC|"
              "RunTransactionsrunTransactionId |RunTransactionsstartTimeStamp ASC|"
              "RunTransactionsstartTimeStamp DESC|RunTransactionsendTimeStamp ASC|"
              "RunTransactionsendTimeStamp DESC|FixTransactionsfixTransactionId |"
              "FixTransactionsstartTimeStamp ASC|FixTransactionsstartTimeStamp DESC|"
              "FixTransactionsendTimeStamp ASC|FixTransactionsendTimeStamp DESC|"
              "SoftwareDiagnosticssoftwareDiagnosticId |"
              "SoftwareDiagnosticsstartTimeStamp ASC|SoftwareDiagnosticsstartTimeStamp DESC|"
              "SoftwareDiagnosticsendTimeStamp ASC|SoftwareDiagnosticsendTimeStamp DESC|"
              "IssuesissueId |IssuessoftwareDiagnosticId |IssuestimeStamp ASC|"
              "IssuestimeStamp DESC|FixActionsfixActionId |FixActionssessionId |"
              "FixActionsstartTimeStamp ASC|FixActionsstartTimeStamp DESC|"
              "FixActionsendTimeStamp ASC|FixActionsendTimeStamp DESC|"
              "Issues_FixActionsissueId |Issues_FixActionsfixActionId ");
    EXPECT_EQ(indexes[26][2],
              "CREATE INDEX 'FixActionsstartTimeStamp ASC' ON `FixActions` (`startTimeStamp` ASC)");

    // The statements as run: each on its own, the empty kind leaving two blanks.
    auto const created = trace.startingWith("CREATE  INDEX IF NOT EXISTS ");
    ASSERT_EQ(created.size(), 32u);
    EXPECT_EQ(created[0],
              "CREATE  INDEX IF NOT EXISTS 'SessionssessionId ' ON `Sessions` (`sessionId` )");
    EXPECT_EQ(created[31],
              "CREATE  INDEX IF NOT EXISTS 'Issues_FixActionsfixActionId ' ON "
              "`Issues_FixActions` (`fixActionId` )");
    EXPECT_EQ(trace.startingWith("INSERT OR IGNORE INTO Versioning"),
              std::vector<std::string>{"INSERT OR IGNORE INTO Versioning (version) values (1)"});
    EXPECT_TRUE(trace.startingWith("UPDATE Versioning").empty());

    // The three debug lines name the same object.
    auto const lines = log.messages("libDataStore.SoftwareDiagEventDataStore");
    ASSERT_EQ(lines.size(), 3u);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(
        lines[0], match, std::regex("355 SoftwareDiagEventDataStore\\(\\) this: ([0-9]+)")));
    std::string const self = match[1];
    EXPECT_EQ(lines[1], "358 " + self + " using " + dir.file(kFile));
    EXPECT_EQ(lines[2], "432 ~SoftwareDiagEventDataStore() this: " + self);

    // Without a path the store opens the configured location.
    std::string const folder = dir.file("configured");
    ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    DataStoreSettings::setSoftwareDiagEventDataStorePath(String(folder));
    SoftwareDiagEventDataStore configured;
    EXPECT_EQ(log.messagesStartingWith("libDataStore.SoftwareDiagEventDataStore", "358 ").back(),
              "358 " + std::to_string(reinterpret_cast<std::uintptr_t>(&configured)) + " using " +
                  folder + "/" + kFile);
    EXPECT_EQ(test::RawDb(folder + "/" + kFile).scalar("SELECT version FROM Versioning"), "1");
}

TEST(SoftwareDiagEventDataStoreTest, ReopeningRewritesAnyVersionToOne) {
    test::TempDir dir;
    { SoftwareDiagEventDataStore store{String(dir.file(kFile))}; }
    test::RawDb raw(dir.file(kFile));
    raw.exec("UPDATE Versioning SET version = 7");

    StatementTrace trace;
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    EXPECT_EQ(raw.query("SELECT * FROM Versioning"), (Rows{{"1"}}));
    EXPECT_EQ(trace.startingWith("UPDATE Versioning"),
              std::vector<std::string>{"UPDATE Versioning SET version = 1"});
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM sqlite_master WHERE type='index'"), "32");

    raw.exec("DELETE FROM Versioning");
    EXPECT_EQ(store.getVersion(), -1);
}

TEST(SoftwareDiagEventDataStoreTest, CheckValidityNamesTheFirstFailingMember) {
    test::TempDir dir;
    String error = "untouched";
    {
        SoftwareDiagEventDataStore store{String(dir.file(kFile))};
        EXPECT_TRUE(store.checkValidity(error));
        EXPECT_EQ(error, "untouched");

        store.close();
        store.close();  // a second close is harmless, and so is the destructor's
        EXPECT_FALSE(store.checkValidity(error));
        EXPECT_EQ(error, "m_versionDataStore: Database is not open");
        EXPECT_THROW(store.getVersion(), DatabaseError);
    }
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    ASSERT_EQ(::unlink(dir.file(kFile).c_str()), 0);
    EXPECT_FALSE(store.checkValidity(error));
    EXPECT_EQ(error, "m_versionDataStore: Database file does not exist");
}

TEST(SoftwareDiagEventDataStoreTest, UnusableFilesThrowDatabaseError) {
    test::TempDir dir;
    test::writeFile(dir.file("garbage.db"), std::string(4096, 'x'));
    EXPECT_THROW(SoftwareDiagEventDataStore{String(dir.file("garbage.db"))}, DatabaseError);

    // A parent that is a regular file: no user, root included, can create the database.
    test::writeFile(dir.file("plain"), "not a directory");
    EXPECT_THROW(SoftwareDiagEventDataStore{String(dir.file("plain") + "/" + kFile)},
                 DatabaseError);

    // Root ignores directory permissions, so this case only proves something for other users.
    if (::geteuid() != 0) {
        std::string const locked = dir.file("locked");
        ASSERT_EQ(::mkdir(locked.c_str(), 0555), 0);
        EXPECT_THROW(SoftwareDiagEventDataStore{String(locked + "/" + kFile)}, DatabaseError);
    }

    // The failed openings left the named mutex free for the next one.
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    EXPECT_EQ(store.getVersion(), 1);
}

// The opening is one transaction: a failure part-way leaves the file as it was, and a new file
// costs one commit.
TEST(SoftwareDiagEventDataStoreTest, OpeningIsAllOrNothing) {
    test::TempDir dir;
    std::string const path = dir.file(kFile);
    {
        // A table holding the name of the last index but one makes that index fail, after
        // every table, the version row and most indexes were made.
        test::RawDb raw(path);
        raw.exec("CREATE TABLE `Issues_FixActionsissueId ` (x)");
    }
    EXPECT_THROW(SoftwareDiagEventDataStore{String(path)}, DatabaseError);
    {
        test::RawDb raw(path, true);
        EXPECT_EQ(raw.query("SELECT name FROM sqlite_master"),
                  (Rows{{"Issues_FixActionsissueId "}}));
    }

    std::string const fresh = dir.file("fresh.db");
    StatementTrace trace;
    SoftwareDiagEventDataStore store{String(fresh)};
    std::vector<std::string> const statements = trace.statements();
    auto const begin = std::find(statements.begin(), statements.end(), "BEGIN TRANSACTION");
    ASSERT_NE(begin, statements.end());
    // Nothing of the schema before it: only the connection's own settings.
    for (auto s = statements.begin(); s != begin; ++s) EXPECT_EQ(s->rfind("PRAGMA ", 0), 0u) << *s;
    EXPECT_EQ(statements.back(), "END TRANSACTION");
    EXPECT_EQ(std::count(statements.begin(), statements.end(), "BEGIN TRANSACTION"), 1);
}

TEST(SoftwareDiagEventDataStoreTest, WholeRepairSessionReadsBackThroughEveryQuery) {
    test::TempDir dir;
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    test::RawDb raw(dir.file(kFile));
    String const odd = "it's \"quoted\" – Größe 日本語 ✓";

    EXPECT_EQ(store.getSessions(TimeStamp(), TimeStamp(), true, 0).size(), 0u);
    long long const before = TimeStamp::getCurrentTimeStamp().getUnixTimeStamp();
    ASSERT_TRUE(store.logSessionStarted());
    SessionLog const session = store.getLastSessionLog();
    EXPECT_EQ(session.sessionId(), 1);
    EXPECT_GE(session.startTimeStamp().getUnixTimeStamp(), before);
    EXPECT_EQ(session.endTimeStamp().getUnixTimeStamp(), 0);
    EXPECT_EQ(raw.query("SELECT endTimeStamp FROM Sessions"), (Rows{{"<NULL>"}}));

    EXPECT_FALSE(store.sessionHasRunTransaction(session));
    ASSERT_TRUE(store.logRunTransactionStarted(session));
    ASSERT_TRUE(store.sessionHasRunTransaction(session));
    RunTransactionLog const run = store.getRunTransactionBySession(session);
    EXPECT_EQ(run.sessionId(), 1);

    for (char const* name : {"first", "second", "third"}) {
        ASSERT_TRUE(store.logSoftwareDiagnosticStarted(session, run, odd + name, odd));
    }
    SoftwareDiagnosticList const diagnostics =
        store.getSoftwareDiagnosticsByRunTransaction(run, false, 0);
    ASSERT_EQ(diagnostics.size(), 3u);
    EXPECT_EQ(diagnostics.get(2).diagnosticUuid(), odd + "third");
    EXPECT_EQ(diagnostics.get(0).diagnosticName(), odd);
    store.logSoftwareDiagnosticFinished(diagnostics.get(0), odd);
    EXPECT_EQ(raw.query("SELECT diagnosticResult, diagnosticName FROM SoftwareDiagnostics "
                        "WHERE softwareDiagnosticId = 1"),
              (Rows{{odd.str(), odd.str()}}));
    EXPECT_EQ(store.getSoftwareDiagnosticsByRunTransaction(run, true, 2).get(0).diagnosticUuid(),
              odd + "third");

    ASSERT_TRUE(store.logIssue(session, diagnostics.get(0), odd, "one"));
    ASSERT_TRUE(store.logIssue(session, diagnostics.get(2), "two", odd));
    IssueList const issues = store.getIssuesBySession(session, true, 0);
    ASSERT_EQ(issues.size(), 2u);
    EXPECT_EQ(issues.get(0).issueName(), "two");  // newest first
    EXPECT_EQ(issues.get(0).issueDescription(), odd);
    EXPECT_EQ(store.getIssuesBySoftwareDiagnostic(diagnostics.get(0), false, 0).get(0).issueName(),
              odd);
    EXPECT_EQ(store.getIssuesBySoftwareDiagnostic(diagnostics.get(1), false, 0).size(), 0u);

    EXPECT_FALSE(store.sessionHasFixTransaction(session));
    ASSERT_TRUE(store.logFixTransactionStarted(session, ""));
    FixTransactionLog const fix = store.getFixTransactionBySession(session);
    EXPECT_FALSE(store.restorePointHasFixTransaction(odd));
    EXPECT_TRUE(store.associateRestorePointToFixTransaction(fix, odd));
    EXPECT_TRUE(store.restorePointHasFixTransaction(odd));
    EXPECT_EQ(store.getFixTransactionByRestorePointUuid(odd).fixTransactionId(),
              fix.fixTransactionId());

    ASSERT_TRUE(store.logFixAction(session, odd, "summary"));
    FixActionLog const action = store.getFixActionsBySession(session, true, 1).get(0);
    EXPECT_EQ(raw.query("SELECT fixState, startTimeStamp, fixResult FROM FixActions"),
              (Rows{{"0", "<NULL>", "<NULL>"}}));
    EXPECT_TRUE(store.associateIssueToFixAction(issues.get(0), action));
    store.logFixActionStarted(action);
    store.logFixActionFinished(action, static_cast<FixActionState>(4294967295u), odd);
    FixActionLog const done = store.getFixActionsByIssue(issues.get(0), false, 0).get(0);
    EXPECT_EQ(done.fixActionId(), action.fixActionId());
    EXPECT_EQ(static_cast<unsigned int>(done.fixState()), 4294967295u);
    EXPECT_EQ(done.fixResult(), odd);
    EXPECT_EQ(done.fixTypeUuid(), odd);
    EXPECT_GE(done.startTimeStamp().getUnixTimeStamp(), before);
    EXPECT_GE(done.endTimeStamp().getUnixTimeStamp(), done.startTimeStamp().getUnixTimeStamp());
    EXPECT_EQ(store.getFixActionsByIssue(issues.get(1), false, 0).size(), 0u);

    store.logRunTransactionFinished(run);
    store.logFixTransactionFinished(fix);
    store.logSessionFinished(session);
    SessionList const finished = store.getSession(1);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_GE(finished.get(0).endTimeStamp().getUnixTimeStamp(), before);
    EXPECT_EQ(store.getSession(2).size(), 0u);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM RunTransactions WHERE endTimeStamp IS NULL"), "0");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM FixTransactions WHERE endTimeStamp IS NULL"), "0");

    TimeStamp const all;
    EXPECT_EQ(store.getRunTransactionsByDate(all, all, false, 0).size(), 1u);
    EXPECT_EQ(store.getFixTransactionsByDate(all, all, false, 0).get(0).restorePointUuid(), odd);
    EXPECT_EQ(store.getSoftwareDiagnosticsByDate(all, all, true, 0).get(0).diagnosticUuid(),
              odd + "third");
    EXPECT_EQ(store.getSoftwareDiagnosticsByDate(TimeStamp(before + 3600), all, true, 0).size(),
              0u);
}

TEST(SoftwareDiagEventDataStoreTest, QueriesRunTheirExactStatements) {
    test::TempDir dir;
    StatementTrace trace;  // before the store opens its connection
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    SessionLog const session = withId<SessionLog>(12, 3);
    trace.clear();

    store.getSessions(TimeStamp(100), TimeStamp(200), true, 5);
    store.getSessions(TimeStamp(), TimeStamp(), false, 0);
    store.getSession(12);
    store.getLastSessionLog();
    store.getRunTransactionsByDate(TimeStamp(), TimeStamp(300), false, -1);
    store.getFixTransactionsByDate(TimeStamp(400), TimeStamp(), true, 0);
    store.getSoftwareDiagnosticsByDate(TimeStamp(), TimeStamp(), false, 1);
    store.getSoftwareDiagnosticsByRunTransaction(withId<RunTransactionLog>(7, 4), true, 0);
    store.getIssuesBySession(session, true, 3);
    store.getIssuesBySoftwareDiagnostic(withId<SoftwareDiagnosticLog>(8, 8), false, 0);
    store.getFixActionsBySession(session, false, 0);
    store.getFixActionsByIssue(withId<IssueLog>(9, 6), true, 2);
    store.getFixActionsByIssue(withId<IssueLog>(9, 6), false, 0);
    store.sessionHasRunTransaction(session);
    store.sessionHasFixTransaction(session);
    store.restorePointHasFixTransaction("rp'1");

    std::string const fa =
        "SELECT  fa.`fixActionId`, fa.`sessionId`, fa.`fixState`, fa.`fixTypeUuid`, "
        "fa.`fixSummary`, fa.`fixResult`, fa.`startTimeStamp`, fa.`endTimeStamp` FROM "
        "`Issues_FixActions` ifa INNER JOIN `FixActions` fa ON ifa.`fixActionId` = "
        "fa.`fixActionId` WHERE ifa.`issueId` = 9";
    EXPECT_EQ(
        trace.startingWith("SELECT"),
        (std::vector<std::string>{
            "SELECT sessionId, startTimeStamp, endTimeStamp FROM Sessions WHERE `startTimeStamp` "
            ">= 100 AND `startTimeStamp` <= 200 ORDER BY `rowid` DESC, `sessionId` DESC LIMIT 5",
            "SELECT sessionId, startTimeStamp, endTimeStamp FROM Sessions ORDER BY `rowid` ASC, "
            "`sessionId` ASC",
            "SELECT `sessionId`, `startTimeStamp`, `endTimeStamp` FROM Sessions WHERE "
            "`sessionId` = 12 LIMIT 1",
            "SELECT max(`sessionId`), `startTimeStamp`, `endTimeStamp` FROM `Sessions`",
            "SELECT runTransactionId, sessionId, startTimeStamp, endTimeStamp FROM "
            "RunTransactions WHERE `startTimeStamp` <= 300 ORDER BY `rowid` ASC, "
            "`runTransactionId` ASC",
            "SELECT fixTransactionId, sessionId, restorePointUuid, startTimeStamp, endTimeStamp "
            "FROM FixTransactions WHERE `startTimeStamp` >= 400 ORDER BY `rowid` DESC, "
            "`fixTransactionId` DESC",
            "SELECT softwareDiagnosticId, sessionId, runTransactionId, diagnosticUuid, "
            "diagnosticName, diagnosticResult, startTimeStamp, endTimeStamp FROM "
            "SoftwareDiagnostics ORDER BY `rowid` ASC, `softwareDiagnosticId` ASC LIMIT 1",
            "SELECT softwareDiagnosticId, sessionId, runTransactionId, diagnosticUuid, "
            "diagnosticName, diagnosticResult, startTimeStamp, endTimeStamp FROM "
            "SoftwareDiagnostics WHERE `runTransactionId` = 7 ORDER BY `rowid` DESC, "
            "`softwareDiagnosticId` DESC",
            "SELECT issueId, sessionId, softwareDiagnosticId, issueName, issueDescription, "
            "timeStamp FROM Issues WHERE `sessionId` = 12 ORDER BY `rowid` DESC LIMIT 3",
            "SELECT issueId, sessionId, softwareDiagnosticId, issueName, issueDescription, "
            "timeStamp FROM Issues WHERE `softwareDiagnosticId` = 8 ORDER BY `rowid` ASC",
            "SELECT fixActionId, sessionId, fixState, fixTypeUuid, fixSummary, fixResult, "
            "startTimeStamp, endTimeStamp FROM FixActions WHERE `sessionId` = 12 ORDER BY "
            "`rowid` ASC, `fixActionId` ASC",
            fa + " ORDER BY fa.`startTimeStamp` DESC, fa.`fixActionId` DESC LIMIT 2",
            fa + " ORDER BY fa.`startTimeStamp` ASC, fa.`fixActionId` ASC",
            "SELECT runTransactionId, sessionId, startTimeStamp, endTimeStamp FROM "
            "RunTransactions WHERE `sessionId` = 12 LIMIT 1",
            "SELECT fixTransactionId, sessionId, restorePointUuid, startTimeStamp, endTimeStamp "
            "FROM FixTransactions WHERE `sessionId` = 12 LIMIT 1",
            "SELECT fixTransactionId, sessionId, restorePointUuid, startTimeStamp, endTimeStamp "
            "FROM FixTransactions WHERE `restorePointUuid` = 'rp''1' LIMIT 1",
        }));

    // Inserts list bare columns and comma-joined values, texts as literals.
    trace.clear();
    store.logFixTransactionStarted(session, "o'k");
    store.logFixAction(session, "t'1", "s");
    auto const inserts = trace.startingWith("INSERT");
    ASSERT_EQ(inserts.size(), 2u);
    EXPECT_TRUE(std::regex_match(
        inserts[0], std::regex("INSERT INTO FixTransactions \\(sessionId,restorePointUuid,"
                               "startTimeStamp\\) VALUES\\(12,'o''k',[0-9]+\\);")))
        << inserts[0];
    EXPECT_EQ(inserts[1],
              "INSERT INTO FixActions (sessionId,fixState,fixTypeUuid,fixSummary) "
              "VALUES(12,0,'t''1','s');");
}

TEST(SoftwareDiagEventDataStoreTest, DateRangesIncludeBothBoundsAndOrderById) {
    test::TempDir dir;
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(store.logSessionStarted());
    test::RawDb raw(dir.file(kFile));
    // Start times out of id order: the lists sort by id, not by time.
    raw.exec(
        "UPDATE Sessions SET startTimeStamp = CASE sessionId WHEN 1 THEN 300 WHEN 2 THEN "
        "100 WHEN 3 THEN 200 WHEN 4 THEN 500 ELSE 400 END");
    auto ids = [](SessionList const& list) {
        std::vector<long long> result;
        for (unsigned int i = 0; i < list.size(); ++i) result.push_back(list.get(i).sessionId());
        return result;
    };
    using Ids = std::vector<long long>;
    EXPECT_EQ(ids(store.getSessions(TimeStamp(200), TimeStamp(400), false, 0)), (Ids{1, 3, 5}));
    EXPECT_EQ(ids(store.getSessions(TimeStamp(200), TimeStamp(400), true, 2)), (Ids{5, 3}));
    EXPECT_EQ(ids(store.getSessions(TimeStamp(), TimeStamp(), true, 0)), (Ids{5, 4, 3, 2, 1}));
    EXPECT_EQ(ids(store.getSessions(TimeStamp(), TimeStamp(200), false, -3)), (Ids{2, 3}));
    EXPECT_EQ(ids(store.getSessions(TimeStamp(500), TimeStamp(), false, 0)), (Ids{4}));
    EXPECT_EQ(ids(store.getSessions(TimeStamp(501), TimeStamp(99), false, 0)), (Ids{}));
    // The last session is the one with the highest id, with its own times.
    EXPECT_EQ(store.getLastSessionLog().startTimeStamp().getUnixTimeStamp(), 400);
}

TEST(SoftwareDiagEventDataStoreTest, FixActionsByIssueOrderByStartTimeWithNeverStartedAtEnds) {
    test::TempDir dir;
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    SessionLog const session = withId<SessionLog>(1, 3);
    IssueLog const issue = withId<IssueLog>(1, 6);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(store.logFixAction(session, "t", "s"));
    FixActionList const actions = store.getFixActionsBySession(session, false, 0);
    for (unsigned int i = 0; i < 4; ++i) {  // the fifth stays unlinked
        ASSERT_TRUE(store.associateIssueToFixAction(issue, actions.get(i)));
    }
    test::RawDb raw(dir.file(kFile));
    // 1 and 4 start together (the id breaks the tie), 2 never starts, 5 is the latest.
    raw.exec(
        "UPDATE FixActions SET startTimeStamp = CASE fixActionId WHEN 1 THEN 300 WHEN 2 "
        "THEN NULL WHEN 3 THEN 100 WHEN 4 THEN 300 ELSE 999 END");
    auto ids = [](FixActionList const& list) {
        std::vector<long long> result;
        for (unsigned int i = 0; i < list.size(); ++i) result.push_back(list.get(i).fixActionId());
        return result;
    };
    using Ids = std::vector<long long>;
    EXPECT_EQ(ids(store.getFixActionsByIssue(issue, false, 0)), (Ids{2, 3, 1, 4}));
    EXPECT_EQ(ids(store.getFixActionsByIssue(issue, true, 0)), (Ids{4, 1, 3, 2}));
    EXPECT_EQ(ids(store.getFixActionsByIssue(issue, true, 2)), (Ids{4, 1}));
    EXPECT_EQ(ids(store.getFixActionsBySession(session, true, 2)), (Ids{5, 4}));
    EXPECT_EQ(ids(store.getFixActionsByIssue(withId<IssueLog>(2, 6), true, 0)), (Ids{}));
}

TEST(SoftwareDiagEventDataStoreTest, RefusalsAndMissingIdsAreLoggedAndChangeNothing) {
    test::TempDir dir;
    SoftwareDiagEventDataStore store{String(dir.file(kFile))};
    SessionLog const session = withId<SessionLog>(1, 3);
    ASSERT_TRUE(store.logFixTransactionStarted(session, "rp-A"));
    ASSERT_TRUE(store.logFixTransactionStarted(session, ""));
    test::RawDb raw(dir.file(kFile));
    auto const dump = [&] {
        Rows all;
        for (char const* table :
             {"Sessions", "RunTransactions", "FixTransactions", "SoftwareDiagnostics", "Issues",
              "FixActions", "Issues_FixActions"}) {
            for (auto& row : raw.query(std::string("SELECT * FROM ") + table)) all.push_back(row);
        }
        return all;
    };

    test::LogCapture log;
    EXPECT_TRUE(
        store.associateIssueToFixAction(withId<IssueLog>(3, 6), withId<FixActionLog>(4, 8)));
    Rows const before = dump();

    EXPECT_FALSE(
        store.associateIssueToFixAction(withId<IssueLog>(3, 6), withId<FixActionLog>(4, 8)));
    EXPECT_FALSE(store.associateRestorePointToFixTransaction(withId<FixTransactionLog>(1, 5), "B"));
    EXPECT_FALSE(
        store.associateRestorePointToFixTransaction(withId<FixTransactionLog>(42, 5), "B"));
    store.logSessionFinished(withId<SessionLog>(99, 3));
    store.logRunTransactionFinished(withId<RunTransactionLog>(99, 4));
    store.logFixTransactionFinished(withId<FixTransactionLog>(99, 5));
    store.logSoftwareDiagnosticFinished(withId<SoftwareDiagnosticLog>(99, 8), "r");
    store.logFixActionStarted(withId<FixActionLog>(99, 8));
    store.logFixActionFinished(withId<FixActionLog>(99, 8), FIX_ACTION_STATE_NONE, "r");
    EXPECT_EQ(dump(), before);

    EXPECT_EQ(log.messages("DEFECT.GENERIC"),
              (std::vector<std::string>{
                  "associateIssueToFixAction() id pair already exists - issueId:3, fixActionId:4",
                  "associateRestorePointToFixTransaction() id does not exist: 42",
                  "logSessionFinished() id does not exist: 99",
                  "logRunTransactionFinished() id does not exist: 99",
                  "logFixTransactionFinished() id does not exist: 99",
                  "logSoftwareDiagnosticFinished() id does not exist: 99",
                  "logFixActionStarted() id does not exist: 99",
                  "logFixActionFinished() id does not exist: 99",
              }));
    for (auto const& entry : log.entries()) {
        if (entry.logger == "DEFECT.GENERIC") {
            EXPECT_EQ(entry.priority, 4);
        }
    }
    auto const refused =
        log.messagesStartingWith("libDataStore.SoftwareDiagEventDataStore", "849 ");
    EXPECT_EQ(refused, std::vector<std::string>{
                           "849 Fix transaction 1 already has an associated restore point"});

    // An empty restore point counts as none: attached once, then kept.
    EXPECT_TRUE(store.associateRestorePointToFixTransaction(withId<FixTransactionLog>(2, 5), "C"));
    EXPECT_FALSE(store.associateRestorePointToFixTransaction(withId<FixTransactionLog>(2, 5), "D"));
    EXPECT_EQ(raw.query("SELECT restorePointUuid FROM FixTransactions ORDER BY fixTransactionId"),
              (Rows{{"rp-A"}, {"C"}}));
}

TEST(SoftwareDiagEventDataStoreTest, TwoProcessesRunningWholeSessionsLoseNothing) {
    test::TempDir dir;
    std::string const path = dir.file(kFile);
    int const sessions = 8, diagnostics = 3, issues = 2, fixActions = 2;
    int status[2] = {-1, -1};
    std::thread children[2];
    for (int i = 0; i < 2; ++i) {
        children[i] = std::thread([&, i] {
            status[i] = test::runProcess({CHILD_PATH, path, "p" + std::to_string(i),
                                          std::to_string(sessions), std::to_string(diagnostics),
                                          std::to_string(issues), std::to_string(fixActions)});
        });
    }
    for (auto& child : children) child.join();
    EXPECT_EQ(status[0], 0);
    EXPECT_EQ(status[1], 0);

    test::RawDb raw(path);
    int const total = 2 * sessions;
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM Sessions WHERE endTimeStamp NOT NULL"),
              std::to_string(total));
    EXPECT_EQ(raw.scalar("SELECT count(DISTINCT sessionId) FROM RunTransactions "
                         "WHERE endTimeStamp NOT NULL"),
              std::to_string(total));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM FixTransactions WHERE restorePointUuid "
                         "LIKE 'p_-%-restore-point'"),
              std::to_string(total));
    EXPECT_EQ(raw.scalar("SELECT count(DISTINCT restorePointUuid) FROM FixTransactions "
                         "WHERE endTimeStamp NOT NULL"),
              std::to_string(total));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM SoftwareDiagnostics d JOIN RunTransactions r "
                         "USING (runTransactionId) WHERE d.sessionId = r.sessionId AND "
                         "d.endTimeStamp NOT NULL"),
              std::to_string(total * diagnostics));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM Issues i JOIN SoftwareDiagnostics d "
                         "USING (softwareDiagnosticId) WHERE i.sessionId = d.sessionId"),
              std::to_string(total * diagnostics * issues));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM FixActions WHERE fixState > 0 AND "
                         "endTimeStamp NOT NULL"),
              std::to_string(total * fixActions));
    // Every issue linked exactly once, to a fix action of its own session.
    EXPECT_EQ(raw.scalar("SELECT count(DISTINCT l.issueId) FROM Issues_FixActions l "
                         "JOIN Issues i USING (issueId) JOIN FixActions f USING (fixActionId) "
                         "WHERE i.sessionId = f.sessionId"),
              std::to_string(total * diagnostics * issues));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM Issues_FixActions"),
              std::to_string(total * diagnostics * issues));
}

}  // namespace
}  // namespace zrn
