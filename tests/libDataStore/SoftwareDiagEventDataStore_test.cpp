// SoftwareDiagEventDataStore: what the catalogue (SoftwareDiagCatalogue_test) does not show:
// files left alone by a failed opening, the records the queries return and their order, and
// two processes running whole sessions on one file.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/ResultSet.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>
#include <sqlite3.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

using Rows = test::RawDb::Rows;

// A record carrying only an id, for operations that look the id up.
template <class Record>
Record withId(long long id, unsigned int columns) {
    std::vector<String> cells(columns);
    cells[0] = std::to_string(id);
    return Record::fromDbRow(ResultSetRow(nullptr, std::move(cells)));
}

std::string const kFile = "softwarediagevent.db";

// The opening is one transaction: a failure part-way leaves the file as it was.
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
