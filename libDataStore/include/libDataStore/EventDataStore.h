#pragma once

#include <libDataStore/EventRecords.h>
#include <libDataStore/Export.h>

#include <libCommon/SharedResource.h>
#include <libCommon/String.h>

#include <boost/optional.hpp>

#include <memory>
#include <utility>
#include <vector>

namespace zrn {

class Logger;
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
    // ---- Lifecycle

    // Opens DataStoreSettings::eventDataStoreFilePath().
    EventDataStore();
    // Opens (creating when missing) the file at `path`: creates the missing tables, adds
    // missing columns, upgrades versions 1 and 2, writes version 3 and creates the indexes,
    // all in one transaction. @throw DatabaseError (or another Exception) when the file cannot
    // be opened or prepared; nothing of the transaction is kept then.
    explicit EventDataStore(String const& path);
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
                                                   String const& deviceName,
                                                   String const& testGuid,
                                                   String const& deviceGuid,
                                                   String const& deviceType,
                                                   String const& result, EventTimePoint start,
                                                   unsigned int pass);
    // Sets the run's result and start time; false (message 932 logged) for a missing id.
    bool logTestInitialized(long long testId, String const& result, EventTimePoint start);
    void logTestFinished(long long testId, String const& result, String const& errorCode,
                         EventTimePoint end);
    // Appends an event or a tip; the test run is not required to exist.
    void logTestRunEvent(long long testId, String const& message, String const& type,
                         String const& eventCode, String const& customerEventCode,
                         EventTimePoint time);
    void logTestRunTip(long long testId, String const& key, String const& type,
                       String const& title, String const& text, String const& extendedText,
                       EventTimePoint time);

private:
    using Database = SharedResource<PointerStorage<SQLite3Database>>;

    static Logger* logger();

    // Opens the connection and creates, migrates and indexes every table in one transaction.
    void createDataStores();
    // REQUIRES: caller holds the "event_store" mutex.
    int getVersionUnlocked() const;
    // Applies `columns` to the row of `idColumn` = `id` of `table`, or logs `missingMessage`
    // with the id on "DEFECT.GENERIC". Returns whether the row existed.
    // REQUIRES: caller holds the "event_store" mutex.
    bool updateExisting(SQLiteDataStore& table, char const* idColumn, long long id,
                        std::vector<std::pair<char const*, String>> const& columns,
                        char const* missingMessage);

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
    // Declared last so it is destroyed first, before the tables go in reverse order.
    String m_dataStorePath;
};

}  // namespace zrn
