#include <libDataStore/StoreBatch.h>

#include <libCommon/Exception.h>
#include <libCommon/GlobalMutex.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SQLiteDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <memory>
#include <optional>

#include "ModuleState.h"
#include "Transaction.h"

namespace zrn {

// Declared in this order so that they unwind in reverse: the transaction ends (rolls back when
// not committed) before the connection's share and then the named mutex are let go.
struct StoreBatch::State {
    State(GlobalMutex& mutex, SQLiteDataStore::Database const& database, bool readOnly)
        : lock(mutex), connection(database) {
        if (!connection) {
            throw DatabaseError("StoreBatch: the store has no database open");
        }
        if (readOnly) {
            throw DatabaseError("SQLite database '" + connection->dbFilePath() +
                                "': opened read-only: refused to write");
        }
        // BEGIN, or a savepoint when a batch already holds the connection. A closed connection
        // throws DatabaseError here.
        outer.emplace(*connection);
    }

    AutoGlobalMutex lock;
    SQLiteDataStore::Database connection;
    std::optional<OuterTransaction> outer;
    bool committed = false;
};

namespace {

SQLiteDataStore::Database tableConnection(SQLiteDataStore const* table) {
    return table ? table->database() : SQLiteDataStore::Database();
}

}  // namespace

StoreBatch::StoreBatch(EventDataStore& store)
    : m_state(std::make_unique<State>(module::eventStoreMutex(),
                                      tableConnection(store.m_versionDataStore.get()),
                                      store.m_reader != nullptr)) {}

StoreBatch::StoreBatch(GeneralDataStore& store)
    : m_state(std::make_unique<State>(
          module::generalStoreMutex(),
          store.m_initialized ? store.m_database : SQLiteDataStore::Database(),
          store.m_reader != nullptr)) {}

StoreBatch::StoreBatch(SoftwareDiagEventDataStore& store)
    : m_state(std::make_unique<State>(module::softwareDiagStoreMutex(), store.m_database,
                                      store.m_reader != nullptr)) {}

StoreBatch::StoreBatch(AppStateDataStore& store)
    : m_state(std::make_unique<State>(module::appStateStoreMutex(),
                                      tableConnection(store.m_table.get()),
                                      store.m_reader != nullptr)) {}

StoreBatch::~StoreBatch() = default;

void StoreBatch::commit() {
    if (m_state->committed) {
        throw DatabaseError("SQLite database '" + m_state->connection->dbFilePath() +
                            "': this batch was committed already");
    }
    // A failed COMMIT throws here; the transaction's destructor then rolls back, so the batch
    // leaves nothing.
    m_state->outer->commit();
    m_state->committed = true;
}

}  // namespace zrn
