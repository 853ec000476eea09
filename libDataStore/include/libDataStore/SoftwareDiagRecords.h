#pragma once

// The records of the software-diagnostics store (sessions, run and fix transactions,
// diagnostics, issues, fix actions) and the lists its queries return. All are plain values:
// copies are independent, nothing refers back to the store.

#include <libCommon/Array.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>
#include <libDataStore/TimeStamp.h>

#include <utility>

namespace zrn {

class ResultSetRow;
class SoftwareDiagEventDataStore;

// The state a fix action finished in, stored as an INTEGER in `fixState`. The store writes 0
// when it creates a fix action; every other value is the caller's and is stored as given.
// The underlying type is fixed (and matches the unsigned 32-bit conversion the column is read
// back with), so any integer a caller casts to it is a valid value and comes back unchanged.
enum FixActionState : unsigned int {
    FIX_ACTION_STATE_NONE = 0,  // created, not finished yet
};

// ---- Records ------------------------------------------------------------------------------
//
// One row of a table each, fields in the table's column order. Only fromDbRow and the store
// make them. Times are Unix seconds; a time column that holds NULL (an unfinished record)
// reads as Unix second 0, and a NULL text as the empty text.
//
// fromDbRow reads the columns by position. A row with fewer columns than the record needs is
// a data defect: it is logged at priority 4 on "DEFECT.GENERIC", never thrown, and the missing
// columns read as 0 or the empty text. Identifiers are read with an unsigned 32-bit conversion,
// so an id beyond 4294967295 does not come back unchanged.

class ZRN_DATASTORE_API SessionLog {
public:
    long long sessionId() const { return m_sessionId; }
    TimeStamp const& startTimeStamp() const { return m_startTimeStamp; }
    TimeStamp const& endTimeStamp() const { return m_endTimeStamp; }

    // Columns: sessionId, startTimeStamp, endTimeStamp.
    static SessionLog fromDbRow(ResultSetRow const& row);

protected:
    SessionLog(long long sessionId, TimeStamp const& startTimeStamp, TimeStamp const& endTimeStamp);

private:
    long long m_sessionId;
    TimeStamp m_startTimeStamp;
    TimeStamp m_endTimeStamp;
};

class ZRN_DATASTORE_API RunTransactionLog {
public:
    long long runTransactionId() const { return m_runTransactionId; }
    long long sessionId() const { return m_sessionId; }
    TimeStamp const& startTimeStamp() const { return m_startTimeStamp; }
    TimeStamp const& endTimeStamp() const { return m_endTimeStamp; }

    // Columns: runTransactionId, sessionId, startTimeStamp, endTimeStamp.
    static RunTransactionLog fromDbRow(ResultSetRow const& row);

protected:
    RunTransactionLog(long long runTransactionId, long long sessionId,
                      TimeStamp const& startTimeStamp, TimeStamp const& endTimeStamp);

private:
    long long m_runTransactionId;
    long long m_sessionId;
    TimeStamp m_startTimeStamp;
    TimeStamp m_endTimeStamp;
};

class ZRN_DATASTORE_API FixTransactionLog {
public:
    long long fixTransactionId() const { return m_fixTransactionId; }
    long long sessionId() const { return m_sessionId; }
    // The system restore point taken for this fix transaction; may be empty.
    String const& restorePointUuid() const { return m_restorePointUuid; }
    TimeStamp const& startTimeStamp() const { return m_startTimeStamp; }
    TimeStamp const& endTimeStamp() const { return m_endTimeStamp; }

    // Columns: fixTransactionId, sessionId, restorePointUuid, startTimeStamp, endTimeStamp.
    static FixTransactionLog fromDbRow(ResultSetRow const& row);

protected:
    FixTransactionLog(long long fixTransactionId, long long sessionId,
                      String const& restorePointUuid, TimeStamp const& startTimeStamp,
                      TimeStamp const& endTimeStamp);

private:
    long long m_fixTransactionId;
    long long m_sessionId;
    String m_restorePointUuid;
    TimeStamp m_startTimeStamp;
    TimeStamp m_endTimeStamp;
};

class ZRN_DATASTORE_API SoftwareDiagnosticLog {
public:
    long long softwareDiagnosticId() const { return m_softwareDiagnosticId; }
    long long sessionId() const { return m_sessionId; }
    long long runTransactionId() const { return m_runTransactionId; }
    String const& diagnosticUuid() const { return m_diagnosticUuid; }
    String const& diagnosticName() const { return m_diagnosticName; }
    // Empty until the diagnostic has finished.
    String const& diagnosticResult() const { return m_diagnosticResult; }
    TimeStamp const& startTimeStamp() const { return m_startTimeStamp; }
    TimeStamp const& endTimeStamp() const { return m_endTimeStamp; }

    // Columns: softwareDiagnosticId, sessionId, runTransactionId, diagnosticUuid,
    // diagnosticName, diagnosticResult, startTimeStamp, endTimeStamp.
    static SoftwareDiagnosticLog fromDbRow(ResultSetRow const& row);

protected:
    SoftwareDiagnosticLog(long long softwareDiagnosticId, long long sessionId,
                          long long runTransactionId, String const& diagnosticUuid,
                          String const& diagnosticName, String const& diagnosticResult,
                          TimeStamp const& startTimeStamp, TimeStamp const& endTimeStamp);

private:
    long long m_softwareDiagnosticId;
    long long m_sessionId;
    long long m_runTransactionId;
    String m_diagnosticUuid;
    String m_diagnosticName;
    String m_diagnosticResult;
    TimeStamp m_startTimeStamp;
    TimeStamp m_endTimeStamp;
};

class ZRN_DATASTORE_API IssueLog {
public:
    long long issueId() const { return m_issueId; }
    long long sessionId() const { return m_sessionId; }
    // The diagnostic that found the issue.
    long long softwareDiagnosticId() const { return m_softwareDiagnosticId; }
    String const& issueName() const { return m_issueName; }
    String const& issueDescription() const { return m_issueDescription; }
    // When the issue was logged.
    TimeStamp const& timeStamp() const { return m_timeStamp; }

    // Columns: issueId, sessionId, softwareDiagnosticId, issueName, issueDescription, timeStamp.
    static IssueLog fromDbRow(ResultSetRow const& row);

protected:
    IssueLog(long long issueId, long long sessionId, long long softwareDiagnosticId,
             String const& issueName, String const& issueDescription, TimeStamp const& timeStamp);

private:
    long long m_issueId;
    long long m_sessionId;
    long long m_softwareDiagnosticId;
    String m_issueName;
    String m_issueDescription;
    TimeStamp m_timeStamp;
};

class ZRN_DATASTORE_API FixActionLog {
public:
    long long fixActionId() const { return m_fixActionId; }
    long long sessionId() const { return m_sessionId; }
    FixActionState fixState() const { return m_fixState; }
    String const& fixTypeUuid() const { return m_fixTypeUuid; }
    String const& fixSummary() const { return m_fixSummary; }
    // Empty until the fix action has finished.
    String const& fixResult() const { return m_fixResult; }
    // Unix second 0 until the fix action has started.
    TimeStamp const& startTimeStamp() const { return m_startTimeStamp; }
    TimeStamp const& endTimeStamp() const { return m_endTimeStamp; }

    // Columns: fixActionId, sessionId, fixState, fixTypeUuid, fixSummary, fixResult,
    // startTimeStamp, endTimeStamp.
    static FixActionLog fromDbRow(ResultSetRow const& row);

protected:
    FixActionLog(long long fixActionId, long long sessionId, FixActionState fixState,
                 String const& fixTypeUuid, String const& fixSummary, String const& fixResult,
                 TimeStamp const& startTimeStamp, TimeStamp const& endTimeStamp);

private:
    long long m_fixActionId;
    long long m_sessionId;
    FixActionState m_fixState;
    String m_fixTypeUuid;
    String m_fixSummary;
    String m_fixResult;
    TimeStamp m_startTimeStamp;
    TimeStamp m_endTimeStamp;
};

// ---- Lists --------------------------------------------------------------------------------

// Records in the order the result rows came.
template <class T>
class LogList {
public:
    LogList() = default;

    void append(T const& record) { m_records.append(record); }
    void append(T&& record) { m_records.append(std::move(record)); }
    void reserve(unsigned int count) { m_records.reserve(count); }

    unsigned int size() const { return static_cast<unsigned int>(m_records.size()); }
    bool empty() const { return m_records.empty(); }
    // `index` must be below size(): past the end is an assertion failure that stops the
    // process.
    T const& at(unsigned int index) const { return m_records[index]; }

private:
    Array<T> m_records;
};

// The lists the store's queries return. get(index) copies the record at `index` (0-based,
// in result order); an index at or past size() is a programming error that stops the process
// ("index < size()"), so ask size() first.

class ZRN_DATASTORE_API SessionList {
public:
    unsigned int size() const;
    SessionLog get(unsigned int index) const;

protected:
    explicit SessionList(LogList<SessionLog> const& logs);

private:
    friend class SoftwareDiagEventDataStore;
    explicit SessionList(LogList<SessionLog>&& logs);
    LogList<SessionLog> m_logs;
};

class ZRN_DATASTORE_API RunTransactionList {
public:
    unsigned int size() const;
    RunTransactionLog get(unsigned int index) const;

protected:
    explicit RunTransactionList(LogList<RunTransactionLog> const& logs);

private:
    friend class SoftwareDiagEventDataStore;
    explicit RunTransactionList(LogList<RunTransactionLog>&& logs);
    LogList<RunTransactionLog> m_logs;
};

class ZRN_DATASTORE_API FixTransactionList {
public:
    unsigned int size() const;
    FixTransactionLog get(unsigned int index) const;

protected:
    explicit FixTransactionList(LogList<FixTransactionLog> const& logs);

private:
    friend class SoftwareDiagEventDataStore;
    explicit FixTransactionList(LogList<FixTransactionLog>&& logs);
    LogList<FixTransactionLog> m_logs;
};

class ZRN_DATASTORE_API SoftwareDiagnosticList {
public:
    unsigned int size() const;
    SoftwareDiagnosticLog get(unsigned int index) const;

protected:
    explicit SoftwareDiagnosticList(LogList<SoftwareDiagnosticLog> const& logs);

private:
    friend class SoftwareDiagEventDataStore;
    explicit SoftwareDiagnosticList(LogList<SoftwareDiagnosticLog>&& logs);
    LogList<SoftwareDiagnosticLog> m_logs;
};

class ZRN_DATASTORE_API IssueList {
public:
    unsigned int size() const;
    IssueLog get(unsigned int index) const;

protected:
    explicit IssueList(LogList<IssueLog> const& logs);

private:
    friend class SoftwareDiagEventDataStore;
    explicit IssueList(LogList<IssueLog>&& logs);
    LogList<IssueLog> m_logs;
};

class ZRN_DATASTORE_API FixActionList {
public:
    unsigned int size() const;
    FixActionLog get(unsigned int index) const;

protected:
    explicit FixActionList(LogList<FixActionLog> const& logs);

private:
    friend class SoftwareDiagEventDataStore;
    explicit FixActionList(LogList<FixActionLog>&& logs);
    LogList<FixActionLog> m_logs;
};

}  // namespace zrn
