#include "ReaderLock.h"

#include <libCommon/Exception.h>
#include <libCommon/FileSystem.h>
#include <libDataStore/SQLiteDataStore.h>

#include <algorithm>
#include <climits>

namespace zrn {

void ReaderLock::enter() {
    m_mutex.lock();
    if (m_depth == 0 && m_database && !m_database->isClosed()) {
        try {
            m_database->execute("BEGIN");
        } catch (...) {
            m_mutex.unlock();
            throw;
        }
    }
    ++m_depth;
}

void ReaderLock::leave() noexcept {
    if (--m_depth == 0 && m_database && !m_database->isClosed()) {
        try {
            // Ends the read transaction; there is nothing to keep or to undo in it.
            m_database->execute("ROLLBACK");
        } catch (...) {
            // Already ended (a failed statement can end it); the shared lock is gone either way.
        }
    }
    m_mutex.unlock();
}

namespace readonly {

ReaderLock::Database open(String const& path, ReadOnly const& options) {
    // Checked first so that a missing file gets a plain message, and so that nothing of the
    // runtime's can ever create it.
    if (!FileSystem::exists(path)) {
        throw DatabaseError("SQLite database '" + path + "': no such file");
    }
    SQLite3Database::ReaderOptions reader;
    // Clamped: SQLite counts the wait in an int of milliseconds.
    reader.busyTimeoutMs =
        static_cast<int>(std::clamp<long long>(options.wait.count(), 0, INT_MAX));
    reader.immutable = options.immutable;
    return ReaderLock::Database(new SQLite3Database(path, reader));
}

std::unique_ptr<SQLiteDataStore> table(ReaderLock::Database const& database, char const* name,
                                       SQLiteDataStoreColumnSpec const* columns) {
    return std::make_unique<SQLiteDataStore>(database, name, columns);
}

}  // namespace readonly
}  // namespace zrn
