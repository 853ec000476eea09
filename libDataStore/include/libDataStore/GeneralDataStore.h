#pragma once

#include <libCommon/SharedResource.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>
#include <libDataStore/GeneralRecords.h>
#include <libDataStore/PruneResult.h>
#include <libDataStore/ReadOnly.h>

#include <memory>

namespace zrn {

class Logger;
class ReaderLock;
class SQLite3Database;
class SQLiteDataStore;

// Generic logs and their key/values in "genstore.db": tables `Version`, `GenericLog` and
// `KeyValues` on one connection. A log is identified by (typeUUID, guid); logging the same
// pair again updates the stored log and merges its key/values into the stored ones.
//
// A failed opening is logged ("536 ") and shows only as isInitialized() false: logOrUpdate
// then returns false and getLogs an empty list. Not copyable. Every database operation holds
// the process-wide "general_store" mutex, so threads and processes may share the file;
// isInitialized and getDBFilePath take no lock.
class ZRN_DATASTORE_API GeneralDataStore {
public:
    // Opens DataStoreSettings::generalDataStoreFilePath().
    GeneralDataStore();
    // Opens or creates the database at `path`. A new file gets the version row, the unique
    // indexes on (typeUUID, guid) and (setID, key) and the view kv_by_unique_id; an existing
    // one only has its version set to 1 again.
    explicit GeneralDataStore(String const& path);
    // Opens the existing file at `path` for reading only (see ReadOnly); logOrUpdate then
    // returns false and writes nothing. Unlike the constructor above it does not swallow a
    // failure: @throw DatabaseError naming the file when it is missing, lacks a table or
    // column of the store, is locked by a writer past `options.wait`, or has a hot journal.
    GeneralDataStore(String const& path, ReadOnly const& options);
    GeneralDataStore(GeneralDataStore const&) = delete;
    GeneralDataStore& operator=(GeneralDataStore const&) = delete;
    // Closes the connection; never throws.
    ~GeneralDataStore();

    // Closes the connection of every table; a closed connection stays closed.
    // @throw Exception when the process-wide mutex cannot be taken.
    void close();
    // The schema version, or -1 when the `Version` table is empty or the store has no tables.
    // @throw DatabaseError on a closed connection or another SQL failure.
    int getVersion() const;
    bool isInitialized() const { return m_initialized; }
    // True when all three tables can be used; otherwise false with `error` naming the first
    // table that cannot ("m_versionDataStore: ", "m_eventDataStore: " or
    // "m_eventKeyValueDataStore: " followed by the table's reason).
    bool checkValidity(String& error) const;
    // The path given at construction.
    String getDBFilePath() const { return m_filePath; }

    // Adds the log, or updates the stored log of the same (typeUUID, guid), in one transaction.
    // The stored log gets the category, sub-category, flags, tracked mark and the time of this
    // call; its creation time and identity stay. Key/values are merged: new keys are added and
    // changed ones (value or tracked mark) rewritten with the time of this call; unchanged ones
    // keep their time; none is ever deleted.
    // False when the store is not initialized, or on an Exception (logged "651 ", rolled back).
    bool logOrUpdate(GenericLog const& log);

    // The logs that `filter` selects, each with all its stored key/values, in SQLite's order
    // (callers sort if they need an order). A failure is logged ("717 ") and returns the logs
    // read before it. Empty, without touching the database, when the store is not initialized.
    GenericLogList getLogs(GenericLogFilter const& filter) const;

    // Removes the logs last updated before `cutoff` with their key/values (and key/values
    // whose log is missing, when written before `cutoff`). One transaction under the
    // "general_store" mutex; then VACUUM if asked. Nothing, when the store is not initialized.
    // @throw DatabaseError on a SQL failure or a read-only store: nothing is removed (a
    // failing VACUUM comes after the commit; VACUUM cannot run inside a StoreBatch).
    PruneResult pruneBefore(TimeStamp const& cutoff, PruneOptions const& options = PruneOptions());
    // What pruneBefore(cutoff) would remove, counted in one read; changes nothing.
    PruneResult prunableBefore(TimeStamp const& cutoff) const;

private:
    // Takes the store's named mutex and joins its connection.
    friend class StoreBatch;

    using Database = SharedResource<PointerStorage<SQLite3Database>>;

    void createDataStores();
    // REQUIRES (all three): caller holds the "general_store" mutex.
    int getVersionUnlocked() const;
    long long getSetIDUnlocked(String const& typeUUID, String const& guid) const;
    long long getSetIDUnlocked(GenericLog const& log) const;
    // REQUIRES: caller holds the "general_store" mutex, inside the transaction of logOrUpdate.
    void writeKeyValuesUnlocked(GenericLog const& log, long long setId, String const& nowText);

    // The SELECT of getLogs for `filter`.
    static String logsStatement(GenericLogFilter const& filter);
    void closeUnlocked();
    static Logger* logger();

    bool m_initialized = false;
    Database m_database;
    std::unique_ptr<SQLiteDataStore> m_versionDataStore;
    std::unique_ptr<SQLiteDataStore> m_eventDataStore;
    std::unique_ptr<SQLiteDataStore> m_eventKeyValueDataStore;
    String m_filePath;
    // Set only for a store opened with ReadOnly.
    std::shared_ptr<ReaderLock> m_reader;
};

}  // namespace zrn
