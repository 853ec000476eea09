#pragma once

// What a store opened with ReadOnly holds in place of its process-wide named mutex.

#include <libCommon/GlobalMutex.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/SharedResource.h>
#include <libCommon/String.h>
#include <libDataStore/ReadOnly.h>

#include <memory>
#include <mutex>
#include <optional>

#include "Transaction.h"

namespace zrn {

class SQLiteDataStore;
struct SQLiteDataStoreColumnSpec;

// Serialises the threads of one read-only store (they share one connection) and wraps the
// outermost operation of a thread in one read transaction: a reader that runs several
// statements sees one state of the file. SQLite's own shared lock keeps writers of other
// processes out meanwhile, so no named mutex is needed.
class ReaderLock {
public:
    using Database = SharedResource<PointerStorage<SQLite3Database>>;

    explicit ReaderLock(Database database) : m_database(std::move(database)) {}

    void enter();
    void leave() noexcept;

private:
    std::recursive_mutex m_mutex;
    int m_depth = 0;
    Database m_database;
    // The read transaction of the outermost operation, while one runs.
    std::optional<Transaction> m_read;
};

// The lock of one store operation: the store family's named mutex for a writing store, the
// store's ReaderLock for a read-only one.
class StoreLock {
public:
    StoreLock(GlobalMutex& named, ReaderLock* reader) : m_reader(reader) {
        if (m_reader) {
            m_reader->enter();
        } else {
            m_named.emplace(named);
        }
    }
    StoreLock(StoreLock const&) = delete;
    StoreLock& operator=(StoreLock const&) = delete;
    ~StoreLock() {
        if (m_reader) m_reader->leave();
    }

private:
    ReaderLock* m_reader;
    std::optional<AutoGlobalMutex> m_named;
};

namespace readonly {

// Opens `path` for reading: DatabaseError when the file is missing or cannot be read.
ReaderLock::Database open(String const& path, ReadOnly const& options);

// The table `name` of a read-only store, after checking that the file has it with every
// column of `columns`; DatabaseError naming the file and what is missing otherwise.
std::unique_ptr<SQLiteDataStore> table(ReaderLock::Database const& database, char const* name,
                                       SQLiteDataStoreColumnSpec const* columns);

}  // namespace readonly
}  // namespace zrn
