#pragma once

#include <libCommon/SharedResource.h>
#include <libCommon/String.h>
#include <libDataStore/EventRecords.h>
#include <libDataStore/Export.h>
#include <libDataStore/PruneResult.h>
#include <libDataStore/ReadOnly.h>

#include <boost/optional.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace zrn {

class Logger;
class ReaderLock;
class ResultSet;
class ResultSetRow;
class SQLite3Database;
class SQLiteDataStore;

// The store of application runs, script runs, test runs and what they report (events, tips,
// alerts with their key/values and tips, scriptlet results, profiler diffs, measurements),
// kept in one SQLite file ("event.db" by default) of thirteen tables at schema version 3.
//
// One connection is shared by the store's tables. Every operation holds the process-wide
// "event_store" mutex for its database work, so one object may be used from several threads,
// and several objects (also in several processes) on one file serialise. A copy opens its own
// connection and tables, on an empty path. Unless a method says otherwise, SQL failures pass
// through as the runtime library's DatabaseError.
class ZRN_DATASTORE_API EventDataStore {
public:
    // One alert to record. An alert is identified by its guid; its tips and key/values are
    // stored under the alert's row id.
    struct AlertData {
        long long appId = 0;
        String guid;
        String key;
        String type;
        String title;
        String message;
        String deviceName;
        EventTimePoint time;
        std::vector<TipResultLog> tips;
        std::vector<std::pair<String, String>> keyValues;
    };

    // ---- Lifecycle

    // Opens DataStoreSettings::eventDataStoreFilePath().
    EventDataStore();
    // Opens (creating when missing) the file at `path`: creates the missing tables, adds
    // missing columns, upgrades versions 1 and 2, writes version 3 and creates the indexes,
    // all in one transaction. @throw DatabaseError (or another Exception) when the file cannot
    // be opened or prepared; nothing of the transaction is kept then.
    explicit EventDataStore(String const& path);
    // Opens the existing file at `path` for reading only (see ReadOnly): nothing is created,
    // upgraded or indexed. @throw DatabaseError naming the file when it is missing, lacks a
    // table or column of the store, is locked by a writer past `options.wait`, or has a hot
    // journal.
    EventDataStore(String const& path, ReadOnly const& options);
    // Opens a store of its own on an empty path (the runtime's private temporary database);
    // the source's path, tables and connection are deliberately not taken over.
    EventDataStore(EventDataStore const& other);
    EventDataStore& operator=(EventDataStore const&) = delete;
    // Logs, closes the connection and frees the tables. Never throws.
    ~EventDataStore();

    // A new store on `path`, or an empty pointer (with message 488 or 490 logged) when it
    // cannot be opened. Never throws.
    static std::shared_ptr<EventDataStore> create(String const& path) noexcept;
    // The same on DataStoreSettings::eventDataStoreFilePath(). Never throws.
    static std::shared_ptr<EventDataStore> create() noexcept;

    // The version row of the file; -1 when there is none or it is empty.
    int getVersion() const;
    // True when the store can be used; otherwise false with `error` naming the first failing
    // table member (for example "m_appDataStore: Database is not open").
    bool checkValidity(String& error) const;
    // Closes the shared connection; later operations fail with DatabaseError. Harmless when
    // already closed.
    void close();

    // ---- Run logging. Starting operations return the new row id, or an empty optional when
    // SQLite hands out none. Operations addressing a missing id change nothing and log the
    // defect on "DEFECT.GENERIC".

    // An application run of `name`, `userName` and `typeOfRun`, started at `start`.
    boost::optional<long long> logAppStart(String const& name, String const& userName,
                                           String const& typeOfRun, EventTimePoint start);
    void logAppStop(long long appId, EventTimePoint end);
    void setAppName(long long appId, String const& name);
    void setAppUser(long long appId, String const& userName);
    void setTypeOfAppRun(long long appId, String const& typeOfRun);

    // A script run within application run `appId`: `result` is its initial result text,
    // `scriptGuid` its GUID, `name` its name. Runs of byte-identical `scriptXml` share one
    // ScriptSpecs row. Returns an engaged 0 (and records no run) when the new ScriptSpecs row
    // got no id.
    boost::optional<long long> logScriptStart(long long appId, String const& result,
                                              String const& scriptGuid, String const& name,
                                              EventTimePoint start, unsigned int totalPasses,
                                              String const& scriptXml);
    void logScriptFinished(long long scriptId, String const& result, EventTimePoint end);
    void setScriptName(long long scriptId, String const& name);
    void setScriptResult(long long scriptId, String const& result);

    // A test run within script run `scriptId`.
    boost::optional<long long> logTestStart(long long scriptId, String const& testName,
                                            String const& deviceName, String const& testGuid,
                                            String const& deviceGuid, String const& deviceType,
                                            String const& result, EventTimePoint start,
                                            unsigned int pass);
    // The same as logTestStart.
    boost::optional<long long> logTestInitializing(long long scriptId, String const& testName,
                                                   String const& deviceName, String const& testGuid,
                                                   String const& deviceGuid,
                                                   String const& deviceType, String const& result,
                                                   EventTimePoint start, unsigned int pass);
    // Sets the run's result and start time; false (message 932 logged) for a missing id.
    bool logTestInitialized(long long testId, String const& result, EventTimePoint start);
    void logTestFinished(long long testId, String const& result, String const& errorCode,
                         EventTimePoint end);
    // Appends an event or a tip; the test run is not required to exist.
    void logTestRunEvent(long long testId, String const& message, String const& type,
                         String const& eventCode, String const& customerEventCode,
                         EventTimePoint time);
    void logTestRunTip(long long testId, String const& key, String const& type, String const& title,
                       String const& text, String const& extendedText, EventTimePoint time);

    // ---- Alerts, scriptlet results, profiler diffs and measurements

    // Records the alert with its key/values and tips in one transaction. An alert whose guid
    // is already stored is never stored again: only its key/values are added when it has
    // none yet. An empty guid always makes a new alert. Returns false (message 1279 logged,
    // the transaction rolled back) on failure; @throw Exception only when the store's mutex
    // cannot be taken.
    bool logAlert(AlertData const& alert);
    // The same for a batch, in one transaction: when one alert fails, none of the batch is
    // kept (message 1262).
    bool logAlerts(std::vector<AlertData> const& alerts);
    // Whether an alert of that guid is stored; with key/values; marked as tracked.
    bool alertExists(String const& guid) const;
    bool alertExistsWithKeyVals(String const& guid) const;
    bool alertTracked(String const& guid) const;
    // Marks every alert of that guid as tracked; no check that one exists.
    void markAlertAsTracked(String const& guid);
    // The time of the earliest alert with a positive time; the zero point when there is none.
    EventTimePoint firstAlert() const;

    // Records a scriptlet result, unless the latest result for `key` in run `appId` is the
    // same text. `key` is written into the look-up statement as it is, quotes not doubled:
    // a key holding a single quote fails there with DatabaseError.
    void logScriptletResult(long long appId, String const& key, String const& category,
                            String const& result, String const& status, EventTimePoint time);
    // `time` is in seconds.
    void logProfilerDiff(long long appId, String const& category, long long time,
                         unsigned int numberOfChanges, String const& serializedDiff);
    // The span times are in seconds. A value that is not finite makes no SQL number and fails
    // with DatabaseError.
    void logMeasurement(String const& type, unsigned int spanStartTime, unsigned int spanMiddleTime,
                        unsigned int spanEndTime, double maximum, double minimum, double average,
                        double median, unsigned int numberOfSamples);

    // ---- Application-run questions. Missing runs and empty cells give 0, the zero time
    // point or the empty text.

    // The smallest run id of all runs: `typeOfAppRun` is deliberately not used.
    long long firstApplicationRunId(String const& typeOfAppRun) const;
    // The id of the run before the newest one (of that type when `typeOfAppRun` is not
    // empty): the newest, normally the one now running, is passed over.
    long long lastApplicationRunId(String const& typeOfAppRun) const;
    // The earliest and latest start time of all runs.
    EventTimePoint firstApplicationRun() const;
    EventTimePoint lastApplicationRun() const;
    EventTimePoint getAppStartTime(long long appId) const;
    EventTimePoint getAppEndTime(long long appId) const;
    // End minus start of the run, in seconds; no check that either is set.
    long long appRunTime(long long appId) const;
    String getAppTypeOfRun(long long appId) const;

    // ---- Result-log readers. A zero time point as a bound, an empty optional or an empty
    // text filter adds no condition; a limit of 0 or less returns every row. Rows come newest
    // first unless stated otherwise.

    // The events of every test run of script run `scriptId`.
    std::vector<TestRunEventResultLog> scriptRunEventResultLogs(long long scriptId,
                                                                EventTimePoint from,
                                                                EventTimePoint to, int limit) const;
    // Script runs with their script text, filtered by start time, type of their application
    // run, name and guid. An optional holding an empty text still filters on it.
    std::vector<ScriptResultLog> scriptResultLogs(boost::optional<EventTimePoint> from,
                                                  boost::optional<EventTimePoint> to,
                                                  boost::optional<String> typeOfRun,
                                                  boost::optional<String> name,
                                                  boost::optional<String> scriptGuid,
                                                  int limit) const;
    // The test runs of script run `scriptId`, by start time.
    std::vector<TestRunResultLog> testRunResultLogs(long long scriptId, EventTimePoint from,
                                                    EventTimePoint to, int limit) const;
    std::vector<TestRunEventResultLog> testRunEventResultLogs(long long testId, EventTimePoint from,
                                                              EventTimePoint to, int limit) const;
    // The tips of every test run of script run `scriptId`.
    std::vector<TipResultLog> scriptRunTipResultLogs(long long scriptId, EventTimePoint from,
                                                     EventTimePoint to, int limit) const;
    std::vector<TipResultLog> testRunTipResultLogs(long long testId, EventTimePoint from,
                                                   EventTimePoint to, int limit) const;
    std::vector<TipResultLog> alertTipResultLogs(long long alertId, EventTimePoint from,
                                                 EventTimePoint to, int limit) const;
    // Every key/value of the alert, in no particular order.
    std::vector<AlertKeyValueResultLog> alertKeyValueResultLogs(long long alertId) const;
    // Alerts of `type` (any when empty), only the untracked ones when `untrackedOnly`;
    // newest first, the later-stored first among equal times.
    std::vector<AlertResultLog> alertResultLogs(EventTimePoint from, EventTimePoint to,
                                                String const& type, bool untrackedOnly,
                                                int limit) const;
    std::vector<ProfilerDiffLog> profilerDiffLogs(EventTimePoint from, EventTimePoint to,
                                                  String const& category, int limit) const;
    // Scriptlet results, of the application runs of `userName` when it is not empty; newest
    // first, then by key descending.
    std::vector<ScriptletResultLog> scriptletResultLogs(EventTimePoint from, EventTimePoint to,
                                                        String const& userName,
                                                        String const& category,
                                                        String const& status, int limit) const;
    // Measurements whose span middle lies in the range, oldest first.
    std::vector<MeasurementLog> measurementLogs(EventTimePoint from, EventTimePoint to,
                                                String const& type, int limit) const;
    // Every test run whose result is "FAIL", by start time, without limit.
    std::vector<TestRunResultLog> getAllFails(EventTimePoint from, EventTimePoint to) const;
    // For device `deviceGuid`, the newest run (ended by `until`) of each test whose newest
    // failing-or-passing run failed. The results counting as failures are `failureResults`
    // ("FAIL" when null), as passes `passResults` ("PASS" when null or empty). An empty
    // failure list is a defect: it is logged on "DEFECT.GENERIC" and nothing is returned.
    std::vector<TestRunResultLog> getRecentFails(String const& deviceGuid,
                                                 std::vector<String> const* failureResults,
                                                 std::vector<String> const* passResults,
                                                 EventTimePoint until) const;

    // ---- The same readers, streamed: `each` gets every record as its row is read, from the
    // same statement (and trace) in the same order, so that memory does not grow with the
    // number of rows. The store's lock is held until the last record: `each` may call this
    // store's readers (the lock is re-entrant, and on a read-only store they see the same
    // state of the file) but must not write to the store or close it. An exception thrown by
    // `each` ends the read and reaches the caller.
    template <class Record>
    using Each = std::function<void(Record const&)>;

    void scriptResultLogs(boost::optional<EventTimePoint> from, boost::optional<EventTimePoint> to,
                          boost::optional<String> typeOfRun, boost::optional<String> name,
                          boost::optional<String> scriptGuid, int limit,
                          Each<ScriptResultLog> const& each) const;
    void scriptRunEventResultLogs(long long scriptId, EventTimePoint from, EventTimePoint to,
                                  int limit, Each<TestRunEventResultLog> const& each) const;
    void testRunResultLogs(long long scriptId, EventTimePoint from, EventTimePoint to, int limit,
                           Each<TestRunResultLog> const& each) const;
    void testRunEventResultLogs(long long testId, EventTimePoint from, EventTimePoint to, int limit,
                                Each<TestRunEventResultLog> const& each) const;
    void scriptRunTipResultLogs(long long scriptId, EventTimePoint from, EventTimePoint to,
                                int limit, Each<TipResultLog> const& each) const;
    void testRunTipResultLogs(long long testId, EventTimePoint from, EventTimePoint to, int limit,
                              Each<TipResultLog> const& each) const;
    void alertTipResultLogs(long long alertId, EventTimePoint from, EventTimePoint to, int limit,
                            Each<TipResultLog> const& each) const;
    void alertResultLogs(EventTimePoint from, EventTimePoint to, String const& type,
                         bool untrackedOnly, int limit, Each<AlertResultLog> const& each) const;
    void profilerDiffLogs(EventTimePoint from, EventTimePoint to, String const& category, int limit,
                          Each<ProfilerDiffLog> const& each) const;
    void scriptletResultLogs(EventTimePoint from, EventTimePoint to, String const& userName,
                             String const& category, String const& status, int limit,
                             Each<ScriptletResultLog> const& each) const;
    void measurementLogs(EventTimePoint from, EventTimePoint to, String const& type, int limit,
                         Each<MeasurementLog> const& each) const;

    // ---- Retention

    // Removes the application runs started before `cutoff` with everything recorded under
    // them (script and test runs, their events and tips, alerts with their key/values and
    // tips, scriptlet results, profiler diffs), the measurements whose span ended before it
    // and the script specifications no remaining script run uses. A row whose owner is
    // already missing goes when its own time is before `cutoff`, so no row is left without
    // its owner. One transaction under the "event_store" mutex; then VACUUM if asked.
    // @throw DatabaseError on a SQL failure or a read-only store: nothing is removed (a
    // failing VACUUM comes after the commit; VACUUM cannot run inside a StoreBatch).
    PruneResult pruneBefore(EventTimePoint cutoff, PruneOptions const& options = PruneOptions());
    // What pruneBefore(cutoff) would remove, counted in one read; changes nothing.
    PruneResult prunableBefore(EventTimePoint cutoff) const;

private:
    // Takes the store's named mutex and joins its connection.
    friend class StoreBatch;

    using Database = SharedResource<PointerStorage<SQLite3Database>>;

    static Logger* logger();

    // Opens the connection and creates, migrates and indexes every table in one transaction.
    void createDataStores();
    // The version row, the migration, the tables and their indexes, on `database`.
    // REQUIRES: caller holds the "event_store" mutex, inside the opening transaction.
    void createTablesUnlocked(Database const& database);
    // REQUIRES: caller holds the "event_store" mutex.
    int getVersionUnlocked() const;
    // Applies `columns` to the row of `idColumn` = `id` of `table`, or logs `missingMessage`
    // with the id on "DEFECT.GENERIC". Returns whether the row existed. Takes the store lock
    // (re-entrant for a caller that holds it already).
    bool updateExisting(SQLiteDataStore& table, char const* idColumn, long long id,
                        std::vector<std::pair<char const*, String>> const& columns,
                        char const* missingMessage);

    // Runs the INSERT `statement` on `table`'s connection and returns the new row id, none when
    // SQLite allocated none. Takes the store lock for both.
    boost::optional<long long> insertReturningId(SQLiteDataStore& table, String const& statement);
    // Logs the alerts in one transaction; `failure` is the message used when one fails.
    bool logAlertsInTransaction(AlertData const* alerts, std::size_t count, char const* failure);
    // REQUIRES: caller holds the "event_store" mutex.
    void logAlertUnlocked(AlertData const& alert);
    // REQUIRES: caller holds the "event_store" mutex.
    void storeAlertKeyValues(long long alertId,
                             std::vector<std::pair<String, String>> const& keyValues);
    // Runs `statement` on the store's connection under the mutex.
    void query(String const& statement, ResultSet& result) const;
    // One record per row of `statement`, each made by `make(row)` as the row is read, under
    // the mutex (held until the last record is made).
    template <class Record, class Make>
    std::vector<Record> records(String const& statement, Make make) const;
    // `each(make(row))` for every row of `statement`, under the mutex.
    template <class Record, class Make>
    void eachRecord(String const& statement, Make make, Each<Record> const& each) const;
    // The first cell of `statement`'s first row parsed as a number; 0 when there is none.
    long long aggregate(String const& statement) const;
    // A per-run lookup: the cell of `column` of run `appId`, or false when the run is missing.
    bool appCell(long long appId, char const* column, String& value) const;
    std::vector<TestRunResultLog> testRuns(String const& statement) const;
    std::vector<TipResultLog> tips(String const& statement) const;
    std::vector<TestRunEventResultLog> events(String const& statement) const;
    void testRuns(String const& statement, Each<TestRunResultLog> const& each) const;
    // The test-run record of a row of testRunColumns(); it reads its events through this store.
    TestRunResultLog testRunOf(ResultSetRow const& row) const;

    std::unique_ptr<SQLiteDataStore> m_versionDataStore;
    std::unique_ptr<SQLiteDataStore> m_appDataStore;
    std::unique_ptr<SQLiteDataStore> m_scriptDataStore;
    std::unique_ptr<SQLiteDataStore> m_scriptSpecDataStore;
    std::unique_ptr<SQLiteDataStore> m_testRunDataStore;
    std::unique_ptr<SQLiteDataStore> m_eventDataStore;
    std::unique_ptr<SQLiteDataStore> m_testRunTipsDataStore;
    std::unique_ptr<SQLiteDataStore> m_alertTipsDataStore;
    std::unique_ptr<SQLiteDataStore> m_alertKeyValueDataStore;
    std::unique_ptr<SQLiteDataStore> m_scriptletDataStore;
    std::unique_ptr<SQLiteDataStore> m_alertDataStore;
    std::unique_ptr<SQLiteDataStore> m_profilerDiffDataStore;
    std::unique_ptr<SQLiteDataStore> m_measurementDataStore;
    // Set only for a store opened with ReadOnly.
    std::shared_ptr<ReaderLock> m_reader;
    // Declared last so it is destroyed first, before the tables go in reverse order.
    String m_dataStorePath;
};

// A view of an existing event database for callers that only ask about alerts. It opens the
// file read-only: it never creates a file, a table or a row, and never upgrades. Copies share
// the connection; every lookup holds the "event_store" mutex.
class ZRN_DATASTORE_API ReadOnlyEventDataStore {
public:
    // Opens DataStoreSettings::eventDataStoreFilePath().
    ReadOnlyEventDataStore();
    // @throw DatabaseError when the file is missing or is not a database.
    explicit ReadOnlyEventDataStore(String const& path);
    ReadOnlyEventDataStore(ReadOnlyEventDataStore const& other);
    ReadOnlyEventDataStore(ReadOnlyEventDataStore&& other) noexcept;
    ReadOnlyEventDataStore& operator=(ReadOnlyEventDataStore const& other);
    ReadOnlyEventDataStore& operator=(ReadOnlyEventDataStore&& other) noexcept;
    // Releases this copy's share of the connection; logs nothing.
    ~ReadOnlyEventDataStore();

    // As EventDataStore's questions; false without touching the file when the view has no
    // open connection (closed, or moved from). Other database failures pass through.
    bool alertExistsWithKeyVals(String const& guid) const;
    bool alertExists(String const& guid) const;

private:
    static Logger* logger();
    bool lookup(String const& guid, bool withKeyValues) const;

    SharedResource<PointerStorage<SQLite3Database>> m_database;
    String m_path;
};

}  // namespace zrn
