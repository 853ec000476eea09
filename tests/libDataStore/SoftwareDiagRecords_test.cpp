#include <gtest/gtest.h>
#include <libCommon/ResultSet.h>
#include <libDataStore/SoftwareDiagRecords.h>

#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

ResultSetRow makeRow(std::vector<String> cells) { return ResultSetRow(nullptr, std::move(cells)); }

// Builds a list the way the store does; the list constructors are protected.
struct TestSessionList : SessionList {
    explicit TestSessionList(LogList<SessionLog> const& logs) : SessionList(logs) {}
};

// Full rows, read from a store, and the defect each short row logs are pinned by
// SoftwareDiagCatalogue_test; here, the values short rows still give.
TEST(SoftwareDiagRecordsTest, ShortRowsStillConvert) {
    SessionLog const s = SessionLog::fromDbRow(makeRow({"1", "5"}));
    EXPECT_EQ(s.sessionId(), 1);
    EXPECT_EQ(s.startTimeStamp().getUnixTimeStamp(), 5);
    EXPECT_EQ(s.endTimeStamp().getUnixTimeStamp(), 0);  // missing column
    EXPECT_EQ(RunTransactionLog::fromDbRow(makeRow({"1", "2", "5"})).sessionId(), 2);
    EXPECT_EQ(FixTransactionLog::fromDbRow(makeRow({"1", "2", "rp", "5"})).restorePointUuid(),
              "rp");
    EXPECT_EQ(SoftwareDiagnosticLog::fromDbRow(makeRow({"1", "2", "3", "u", "n", "r", "5"}))
                  .diagnosticResult(),
              "r");
    EXPECT_EQ(IssueLog::fromDbRow(makeRow({"1", "2", "3", "n", "d"})).issueDescription(), "d");
    EXPECT_EQ(FixActionLog::fromDbRow(makeRow({"1", "2", "3", "t", "s", "r", "5"})).fixState(),
              static_cast<FixActionState>(3));

    // An empty row is the extreme case: everything reads as 0 or the empty text.
    test::LogCapture log;
    FixActionLog const empty = FixActionLog::fromDbRow(makeRow({}));
    EXPECT_EQ(empty.fixActionId(), 0);
    EXPECT_EQ(empty.fixState(), FIX_ACTION_STATE_NONE);
    EXPECT_TRUE(empty.fixResult().empty());
    EXPECT_EQ(log.messages("DEFECT.GENERIC").size(), 1u);
}

TEST(SoftwareDiagRecordsTest, NumbersUseTheUnsigned32BitConversions) {
    // Ids beyond 32 bits wrap (unsigned 32-bit conversion).
    EXPECT_EQ(SessionLog::fromDbRow(makeRow({"4294967297", "0", "0"})).sessionId(), 1);
    EXPECT_EQ(SessionLog::fromDbRow(makeRow({"4294967295", "0", "0"})).sessionId(), 4294967295LL);

    // Every unsigned 32-bit state comes back as stored.
    for (char const* state : {"0", "1", "2147483648", "4294967295"}) {
        FixActionLog const action =
            FixActionLog::fromDbRow(makeRow({"1", "1", state, "", "", "", "", ""}));
        EXPECT_EQ(std::to_string(static_cast<unsigned int>(action.fixState())), state);
    }

    // A NULL time (unfinished) reads as second 0, which is still an initialised time stamp.
    SessionLog const open = SessionLog::fromDbRow(makeRow({"1", "-5", ""}));
    EXPECT_EQ(open.startTimeStamp().getUnixTimeStamp(), -5);
    EXPECT_TRUE(open.endTimeStamp().isInitialized());
    EXPECT_EQ(open.endTimeStamp().getUnixTimeStamp(), 0);
}

TEST(SoftwareDiagRecordsTest, ListsCopyRecordsInOrderAndStopPastTheEnd) {
    LogList<SessionLog> logs;
    logs.append(SessionLog::fromDbRow(makeRow({"1", "10", "11"})));
    logs.append(SessionLog::fromDbRow(makeRow({"2", "20", "21"})));
    TestSessionList const list(logs);
    SessionList const copy = list;
    ASSERT_EQ(copy.size(), 2u);
    EXPECT_EQ(copy.get(0).sessionId(), 1);
    EXPECT_EQ(copy.get(1).startTimeStamp().getUnixTimeStamp(), 20);

    TestSessionList const empty{LogList<SessionLog>()};
    EXPECT_EQ(empty.size(), 0u);
    // Reported through the runtime's assertion logger with the array's source and line.
    EXPECT_DEATH(empty.get(0),
                 "ERROR libCommon\\.Assert: Assertion failed: index < size\\(\\) "
                 "\\(libCommon\\\\ZRNArray\\\\ZRN\\\\ZRNArrayCommon, line [1-9][0-9]*\\)");
    EXPECT_DEATH(list.get(2), "index < size\\(\\)");
}

}  // namespace
}  // namespace zrn
