#pragma once

#include <libCommon/HashTable.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>
#include <libDataStore/PruneResult.h>
#include <libDataStore/ReadOnly.h>
#include <libDataStore/SQLiteDataStore.h>
#include <libDataStore/SoftwareDiagRecords.h>
#include <libDataStore/TimeStamp.h>

#include <memory>

namespace zrn {

class Logger;
class ReaderLock;
class ResultSet;

// The store of software-diagnostics sessions (by default "softwarediagevent.db"): sessions,
// the run transaction (diagnostics) and fix transaction (repairs, tied to a restore point) of
// each session, the diagnostics run and the issues they found, the fix actions and the links
// between issues and fix actions.
//
// Eight tables share one connection. Every operation holds the process-wide mutex
// "softwarediag_store", so threads and processes that use the same file take turns. The store
// is not copyable. SQL failures pass through as DatabaseError; data defects (unknown ids,
// duplicate links) are logged on "DEFECT.GENERIC" and reported by the result only.
class ZRN_DATASTORE_API SoftwareDiagEventDataStore {
public:
    // ---- Lifecycle ----------------------------------------------------------------------

    // Opens DataStoreSettings::softwareDiagEventDataStoreFilePath().
    SoftwareDiagEventDataStore();
    // Opens or creates the file at `filePath`: creates the missing tables, adds missing
    // columns, sets the schema version to 1 and creates the indexes.
    // @throw DatabaseError when the file cannot be opened or is not a database.
    explicit SoftwareDiagEventDataStore(String const& filePath);
    // Opens the existing file at `filePath` for reading only (see ReadOnly): nothing is
    // created, versioned or indexed. @throw DatabaseError naming the file when it is missing,
    // lacks a table or column of the store, is locked by a writer past `options.wait`, or has
    // a hot journal.
    SoftwareDiagEventDataStore(String const& filePath, ReadOnly const& options);
    SoftwareDiagEventDataStore(SoftwareDiagEventDataStore const&) = delete;
    SoftwareDiagEventDataStore& operator=(SoftwareDiagEventDataStore const&) = delete;
    // Closes the connection; never throws.
    ~SoftwareDiagEventDataStore();

    // Closes the connection. Afterwards the store may only be destroyed; a second close is
    // harmless.
    void close();
    // The stored schema version, or -1 when the Versioning table has no row.
    int getVersion() const;
    // True when every table is usable; otherwise false with `errorMessage` set to the first
    // failing member's label ("m_sessionDataStore: ", ...) and the table layer's reason.
    bool checkValidity(String& errorMessage) const;

    // ---- Logging ------------------------------------------------------------------------
    //
    // Times are "now". Inserting operations return whether SQLite allocated an id; the new id
    // is not returned (read it back with the queries, e.g. getLastSessionLog) and parent ids
    // are not checked. Finishing operations update the row named by the id inside the record;
    // an unknown id is logged on "DEFECT.GENERIC" and changes nothing. A finish may be logged
    // again, overwriting the values.

    bool logSessionStarted();
    void logSessionFinished(SessionLog const& session);
    bool logRunTransactionStarted(SessionLog const& session);
    void logRunTransactionFinished(RunTransactionLog const& runTransaction);
    bool logFixTransactionStarted(SessionLog const& session, String const& restorePointUuid);
    void logFixTransactionFinished(FixTransactionLog const& fixTransaction);
    bool logSoftwareDiagnosticStarted(SessionLog const& session,
                                      RunTransactionLog const& runTransaction,
                                      String const& diagnosticUuid, String const& diagnosticName);
    void logSoftwareDiagnosticFinished(SoftwareDiagnosticLog const& diagnostic,
                                       String const& diagnosticResult);
    // The session is taken from `session`, not from the diagnostic record.
    bool logIssue(SessionLog const& session, SoftwareDiagnosticLog const& diagnostic,
                  String const& issueName, String const& issueDescription);
    // Creates a fix action in state 0 with no start time; logFixActionStarted sets that.
    bool logFixAction(SessionLog const& session, String const& fixTypeUuid,
                      String const& fixSummary);
    void logFixActionStarted(FixActionLog const& fixAction);
    void logFixActionFinished(FixActionLog const& fixAction, FixActionState fixState,
                              String const& fixResult);

    // ---- Queries ------------------------------------------------------------------------
    //
    // `descending` true gives the highest id first; `limit` > 0 caps the number of records,
    // 0 or less means no cap. Date ranges apply to the start time and include both bounds; an
    // uninitialised TimeStamp leaves that bound out.

    SessionList getSessions(TimeStamp const& from, TimeStamp const& to, bool descending,
                            int limit) const;
    // The session with that id: 0 or 1 entries.
    SessionList getSession(long long sessionId);
    // The session with the highest id. On an empty table: a record of id 0.
    SessionLog getLastSessionLog() const;
    RunTransactionList getRunTransactionsByDate(TimeStamp const& from, TimeStamp const& to,
                                                bool descending, int limit) const;
    FixTransactionList getFixTransactionsByDate(TimeStamp const& from, TimeStamp const& to,
                                                bool descending, int limit) const;
    SoftwareDiagnosticList getSoftwareDiagnosticsByDate(TimeStamp const& from, TimeStamp const& to,
                                                        bool descending, int limit) const;
    SoftwareDiagnosticList getSoftwareDiagnosticsByRunTransaction(
        RunTransactionLog const& runTransaction, bool descending, int limit) const;
    IssueList getIssuesBySession(SessionLog const& session, bool descending, int limit) const;
    IssueList getIssuesBySoftwareDiagnostic(SoftwareDiagnosticLog const& diagnostic,
                                            bool descending, int limit) const;
    FixActionList getFixActionsBySession(SessionLog const& session, bool descending,
                                         int limit) const;
    // The fix actions linked to the issue, ordered by start time and then id. A fix action
    // that never started comes first in ascending order and last in descending order.
    FixActionList getFixActionsByIssue(IssueLog const& issue, bool descending, int limit) const;

    // The single-record getters REQUIRE a match: with none they stop the process (the list's
    // "index < size()" assertion). Ask the matching "has" operation first.
    RunTransactionLog getRunTransactionBySession(SessionLog const& session) const;
    FixTransactionLog getFixTransactionBySession(SessionLog const& session) const;
    FixTransactionLog getFixTransactionByRestorePointUuid(String const& restorePointUuid) const;
    bool sessionHasRunTransaction(SessionLog const& session) const;
    bool sessionHasFixTransaction(SessionLog const& session) const;
    bool restorePointHasFixTransaction(String const& restorePointUuid) const;

    // ---- Associations -------------------------------------------------------------------

    // Links the issue to the fix action. An existing link of the pair is refused: false, and
    // logged on "DEFECT.GENERIC". Neither id is checked for existence.
    bool associateIssueToFixAction(IssueLog const& issue, FixActionLog const& fixAction);
    // Attaches the restore point to a fix transaction that has none yet. An unknown fix
    // transaction, or one that already has a restore point, is refused: false and logged; an
    // attached restore point is never replaced.
    bool associateRestorePointToFixTransaction(FixTransactionLog const& fixTransaction,
                                               String const& restorePointUuid);

    // ---- Retention -----------------------------------------------------------------------

    // Removes the sessions started before `cutoff` with their run and fix transactions,
    // diagnostics, issues, fix actions and the links of those issues and fix actions (rows
    // whose session is missing go when their own start is before `cutoff`). One transaction
    // under the "softwarediag_store" mutex; then VACUUM if asked.
    // @throw DatabaseError on a SQL failure or a read-only store: nothing is removed (a
    // failing VACUUM comes after the commit; VACUUM cannot run inside a StoreBatch).
    PruneResult pruneBefore(TimeStamp const& cutoff, PruneOptions const& options = PruneOptions());
    // What pruneBefore(cutoff) would remove, counted in one read; changes nothing.
    PruneResult prunableBefore(TimeStamp const& cutoff) const;

private:
    // Takes the store's named mutex and joins its connection.
    friend class StoreBatch;

    static Logger* logger();

    // REQUIRES: caller holds the "softwarediag_store" mutex.
    int readVersionUnlocked() const;
    void createIndexesUnlocked();
    // Runs a hand-built INSERT under the mutex; true when SQLite allocated an id.
    bool insert(char const* table, String const& columns, String const& values);
    // Updates the row whose `keyColumn` is `id` with `row` (plus the key itself) under the
    // mutex; an unknown id logs `missingIdMessage` + id on "DEFECT.GENERIC".
    void finish(SQLiteDataStore& table, char const* keyColumn, long long id,
                HashTable<String, String> row, char const* missingIdMessage);
    // Runs a query under the mutex (held for the execution only).
    void query(String const& statement, ResultSet& result) const;
    // The records `statement` selects, one per row in row order, through Record::fromDbRow.
    template <class Record>
    LogList<Record> records(String const& statement, int limit = 0) const;

    SQLiteDataStore::Database m_database;
    // Owned; created in this order, checked and closed in this order, deleted in this order.
    std::unique_ptr<SQLiteDataStore> m_versionDataStore;
    std::unique_ptr<SQLiteDataStore> m_sessionDataStore;
    std::unique_ptr<SQLiteDataStore> m_runTransactionDataStore;
    std::unique_ptr<SQLiteDataStore> m_fixTransactionDataStore;
    std::unique_ptr<SQLiteDataStore> m_softwareDiagnosticDataStore;
    std::unique_ptr<SQLiteDataStore> m_issueDataStore;
    std::unique_ptr<SQLiteDataStore> m_fixActionDataStore;
    std::unique_ptr<SQLiteDataStore> m_issueFixActionDataStore;
    // Set only for a store opened with ReadOnly.
    std::shared_ptr<ReaderLock> m_reader;
};

}  // namespace zrn
