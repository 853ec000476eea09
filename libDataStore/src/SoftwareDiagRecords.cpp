#include <libDataStore/SoftwareDiagRecords.h>

#include <libCommon/DateTime.h>
#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>

#include "StoreSupport.h"

namespace zrn {

namespace {

// A short row is logged and then read anyway: the missing cells read as the empty text, so
// callers still get a record (deliberately lenient, old files must stay readable).
void checkColumnCount(ResultSetRow const& row, unsigned int required, char const* message) {
    unsigned int const actual = row.columnCount();
    if (actual >= required) return;
    logAt(defectLogger(), LoggerPriority::ERROR, [&] { return LoggerStream() + message + actual; });
}

// Identifiers go through the unsigned 32-bit conversion even though the fields are 64-bit:
// an id past 4294967295 does not come back unchanged, which is accepted.
long long idAt(ResultSetRow const& row, int index) { return row.uintValue(index); }

TimeStamp timeAt(ResultSetRow const& row, int index) {
    return TimeStamp::fromUnixTimeStamp(row.int64Value(index));
}

String const& textAt(ResultSetRow const& row, int index) { return row.columnValue(index); }

}  // namespace

// ---- Records ------------------------------------------------------------------------------

SessionLog::SessionLog(long long sessionId, TimeStamp const& startTimeStamp,
                       TimeStamp const& endTimeStamp)
    : m_sessionId(sessionId), m_startTimeStamp(startTimeStamp), m_endTimeStamp(endTimeStamp) {}

SessionLog SessionLog::fromDbRow(ResultSetRow const& row) {
    checkColumnCount(row, 3, "SessionLog::fromDbRow() row column count is less than 3: ");
    return SessionLog(idAt(row, 0), timeAt(row, 1), timeAt(row, 2));
}

RunTransactionLog::RunTransactionLog(long long runTransactionId, long long sessionId,
                                     TimeStamp const& startTimeStamp, TimeStamp const& endTimeStamp)
    : m_runTransactionId(runTransactionId),
      m_sessionId(sessionId),
      m_startTimeStamp(startTimeStamp),
      m_endTimeStamp(endTimeStamp) {}

RunTransactionLog RunTransactionLog::fromDbRow(ResultSetRow const& row) {
    checkColumnCount(row, 4, "RunTransactionLog::fromDbRow() row column count is less than 4: ");
    return RunTransactionLog(idAt(row, 0), idAt(row, 1), timeAt(row, 2), timeAt(row, 3));
}

FixTransactionLog::FixTransactionLog(long long fixTransactionId, long long sessionId,
                                     String const& restorePointUuid,
                                     TimeStamp const& startTimeStamp, TimeStamp const& endTimeStamp)
    : m_fixTransactionId(fixTransactionId),
      m_sessionId(sessionId),
      m_restorePointUuid(restorePointUuid),
      m_startTimeStamp(startTimeStamp),
      m_endTimeStamp(endTimeStamp) {}

FixTransactionLog FixTransactionLog::fromDbRow(ResultSetRow const& row) {
    checkColumnCount(row, 5, "FixTransactionLog::fromDbRow() row column count is less than 5: ");
    return FixTransactionLog(idAt(row, 0), idAt(row, 1), textAt(row, 2), timeAt(row, 3),
                             timeAt(row, 4));
}

SoftwareDiagnosticLog::SoftwareDiagnosticLog(
    long long softwareDiagnosticId, long long sessionId, long long runTransactionId,
    String const& diagnosticUuid, String const& diagnosticName, String const& diagnosticResult,
    TimeStamp const& startTimeStamp, TimeStamp const& endTimeStamp)
    : m_softwareDiagnosticId(softwareDiagnosticId),
      m_sessionId(sessionId),
      m_runTransactionId(runTransactionId),
      m_diagnosticUuid(diagnosticUuid),
      m_diagnosticName(diagnosticName),
      m_diagnosticResult(diagnosticResult),
      m_startTimeStamp(startTimeStamp),
      m_endTimeStamp(endTimeStamp) {}

SoftwareDiagnosticLog SoftwareDiagnosticLog::fromDbRow(ResultSetRow const& row) {
    checkColumnCount(row, 8,
                     "SoftwareDiagnosticLog::fromDbRow() row column count is less than 8: ");
    return SoftwareDiagnosticLog(idAt(row, 0), idAt(row, 1), idAt(row, 2), textAt(row, 3),
                                 textAt(row, 4), textAt(row, 5), timeAt(row, 6), timeAt(row, 7));
}

IssueLog::IssueLog(long long issueId, long long sessionId, long long softwareDiagnosticId,
                   String const& issueName, String const& issueDescription,
                   TimeStamp const& timeStamp)
    : m_issueId(issueId),
      m_sessionId(sessionId),
      m_softwareDiagnosticId(softwareDiagnosticId),
      m_issueName(issueName),
      m_issueDescription(issueDescription),
      m_timeStamp(timeStamp) {}

IssueLog IssueLog::fromDbRow(ResultSetRow const& row) {
    checkColumnCount(row, 6, "IssueLog::fromDbRow() row column count is less than 6: ");
    // Made through DateTime rather than TimeStamp::fromUnixTimeStamp; the value is the same.
    TimeStamp const timeStamp(DateTime::fromUnixTimeStamp(row.int64Value(5)));
    return IssueLog(idAt(row, 0), idAt(row, 1), idAt(row, 2), textAt(row, 3), textAt(row, 4),
                    timeStamp);
}

FixActionLog::FixActionLog(long long fixActionId, long long sessionId, FixActionState fixState,
                           String const& fixTypeUuid, String const& fixSummary,
                           String const& fixResult, TimeStamp const& startTimeStamp,
                           TimeStamp const& endTimeStamp)
    : m_fixActionId(fixActionId),
      m_sessionId(sessionId),
      m_fixState(fixState),
      m_fixTypeUuid(fixTypeUuid),
      m_fixSummary(fixSummary),
      m_fixResult(fixResult),
      m_startTimeStamp(startTimeStamp),
      m_endTimeStamp(endTimeStamp) {}

FixActionLog FixActionLog::fromDbRow(ResultSetRow const& row) {
    checkColumnCount(row, 8, "FixActionLog::fromDbRow() row column count is less than 8: ");
    // Every unsigned 32-bit value is a valid FixActionState (fixed underlying type).
    auto const state = static_cast<FixActionState>(row.uintValue(2));
    return FixActionLog(idAt(row, 0), idAt(row, 1), state, textAt(row, 3), textAt(row, 4),
                        textAt(row, 5), timeAt(row, 6), timeAt(row, 7));
}

// ---- Lists --------------------------------------------------------------------------------

SessionList::SessionList(LogList<SessionLog> const& logs) : m_logs(logs) {}
SessionList::SessionList(LogList<SessionLog>&& logs) : m_logs(std::move(logs)) {}
unsigned int SessionList::size() const { return m_logs.size(); }
SessionLog SessionList::get(unsigned int index) const { return m_logs.at(index); }

RunTransactionList::RunTransactionList(LogList<RunTransactionLog> const& logs) : m_logs(logs) {}
RunTransactionList::RunTransactionList(LogList<RunTransactionLog>&& logs)
    : m_logs(std::move(logs)) {}
unsigned int RunTransactionList::size() const { return m_logs.size(); }
RunTransactionLog RunTransactionList::get(unsigned int index) const { return m_logs.at(index); }

FixTransactionList::FixTransactionList(LogList<FixTransactionLog> const& logs) : m_logs(logs) {}
FixTransactionList::FixTransactionList(LogList<FixTransactionLog>&& logs)
    : m_logs(std::move(logs)) {}
unsigned int FixTransactionList::size() const { return m_logs.size(); }
FixTransactionLog FixTransactionList::get(unsigned int index) const { return m_logs.at(index); }

SoftwareDiagnosticList::SoftwareDiagnosticList(LogList<SoftwareDiagnosticLog> const& logs)
    : m_logs(logs) {}
SoftwareDiagnosticList::SoftwareDiagnosticList(LogList<SoftwareDiagnosticLog>&& logs)
    : m_logs(std::move(logs)) {}
unsigned int SoftwareDiagnosticList::size() const { return m_logs.size(); }
SoftwareDiagnosticLog SoftwareDiagnosticList::get(unsigned int index) const {
    return m_logs.at(index);
}

IssueList::IssueList(LogList<IssueLog> const& logs) : m_logs(logs) {}
IssueList::IssueList(LogList<IssueLog>&& logs) : m_logs(std::move(logs)) {}
unsigned int IssueList::size() const { return m_logs.size(); }
IssueLog IssueList::get(unsigned int index) const { return m_logs.at(index); }

FixActionList::FixActionList(LogList<FixActionLog> const& logs) : m_logs(logs) {}
FixActionList::FixActionList(LogList<FixActionLog>&& logs) : m_logs(std::move(logs)) {}
unsigned int FixActionList::size() const { return m_logs.size(); }
FixActionLog FixActionList::get(unsigned int index) const { return m_logs.at(index); }

}  // namespace zrn
