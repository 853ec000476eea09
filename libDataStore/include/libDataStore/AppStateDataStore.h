#pragma once

#include <libCommon/SharedResource.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>
#include <libDataStore/ReadOnly.h>

#include <boost/optional.hpp>
#include <chrono>
#include <map>
#include <memory>

namespace zrn {

class Logger;
class ReaderLock;
class SQLiteDataStore;

// Small named items of application state in "appstate.db": table `AppState` with a text value
// under a unique key, a group name and the local date and time of insertion.
//
// No data operation ever throws: each one catches, logs one numbered message at priority 4 on
// "libDataStore.AppStateDataStore" and returns the failure value given at its declaration.
// An object whose opening failed holds no table; its operations fail the same way.
//
// Copies share one table and one connection; close() on any of them closes it for all.
// Every operation holds the process-wide "appstate_store" mutex while it touches the database,
// so threads and processes may use the same file at once.
class ZRN_DATASTORE_API AppStateDataStore {
public:
    // Whole seconds since the Unix epoch times 10^9. The clock is only a label: values are
    // meant to be compared with each other, never with steady_clock::now().
    using EntryTime = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;

    // Opens DataStoreSettings::appStateDataStoreFilePath(). The path lookup is not guarded:
    // its exception reaches the caller.
    AppStateDataStore();
    // Opens or creates the database at `path`, the table `AppState` and its unique index on
    // `key`. A failure is logged ("122 " or "124 ") and leaves the object without a table.
    explicit AppStateDataStore(String const& path);
    // Opens the existing file at `path` for reading only (see ReadOnly): no table or index is
    // made. A missing file, one without the table or its columns, a writer holding the file
    // past `options.wait` or a hot journal is logged ("122 ") and leaves the object without a
    // table, as above; the writing operations then return their failure values.
    AppStateDataStore(String const& path, ReadOnly const& options);
    // Share the other object's table and connection; the last owner closes them.
    AppStateDataStore(AppStateDataStore const& other);
    AppStateDataStore& operator=(AppStateDataStore const& other);
    ~AppStateDataStore();

    // An object opened at `path`; empty only when allocating or constructing it throws (the
    // constructor itself catches and logs a failed opening, so that still gives an object).
    static std::shared_ptr<AppStateDataStore> create(String const& path) noexcept;
    // create(DataStoreSettings::appStateDataStoreFilePath()); an Exception from the path lookup
    // is logged ("134 ") and gives an empty pointer.
    static std::shared_ptr<AppStateDataStore> create() noexcept;

    // Adds an item. An existing key is refused (false, "158 " with SQLite's constraint
    // message) and its stored value stays: to change an item, remove it first.
    bool insert(String const& key, String const& data, String const& group);
    // The item's value; the empty text when there is none or on failure ("176 ").
    String data(String const& key) const;
    // Whether the key exists; false on failure ("186 ").
    bool contains(String const& key) const;
    // Removes the item; a missing key is not an error. False on failure ("198 ").
    bool remove(String const& key);
    // Closes the shared connection; there is no reopening. False on failure ("210 ").
    bool close();
    // Whether the connection is closed; false on failure ("220 "), that is "not closed".
    bool isClosed() const;
    // When the item was inserted, to the second; none for a missing key or on failure ("238 ").
    boost::optional<EntryTime> entryTime(String const& key) const;
    // The item's group; the empty text when there is none or on failure ("252 ").
    String group(String const& key) const;
    // Number of items of `group`, of all items for an empty group; 0 on failure ("267 ").
    int count(String const& group) const;
    // Key to value for the items of `group`, or of all items for an empty group; empty on
    // failure ("300 ").
    std::map<String, String> getItems(String const& group) const;
    // The table's validity (see SQLiteDataStore::checkValidity); false on failure ("310 ").
    bool checkValidity(String& error) const;

private:
    // Takes the store's named mutex and joins its connection.
    friend class StoreBatch;

    using Table = SharedResource<PointerStorage<SQLiteDataStore>>;

    // The opened table. @throw Exception when the object holds none (its opening failed).
    SQLiteDataStore& table() const;
    static Logger* logger();

    Table m_table;
    // Set only for a store opened with ReadOnly; shared by copies, as the connection is.
    std::shared_ptr<ReaderLock> m_reader;
};

}  // namespace zrn
