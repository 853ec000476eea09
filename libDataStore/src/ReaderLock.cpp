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
            m_read.emplace(*m_database, TransactionText::Begin);
        } catch (...) {
            m_mutex.unlock();
            throw;
        }
    }
    ++m_depth;
}

void ReaderLock::leave() noexcept {
    if (--m_depth == 0 && m_read) {
        // A closed connection has no transaction left: nothing is run on it.
        if (!m_database || m_database->isClosed()) m_read->leaveOpen();
        // Ends the read transaction with ROLLBACK: there is nothing to keep or to undo in it.
        // Should it already be over (a failed statement can end it), the guard says nothing.
        m_read.reset();
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
