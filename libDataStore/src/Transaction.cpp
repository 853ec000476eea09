#include "Transaction.h"

#include <map>
#include <mutex>
#include <string>

namespace zrn {

namespace {

// The batches of each connection. Keyed by address: a batch keeps its connection alive while
// it is registered, so an address is never reused under a live entry.
struct BatchState {
    int batches = 0;
    // Numbers the savepoints of one batch, so that each guard rolls back and releases its own
    // even when an earlier one was left open above it.
    unsigned long long nextSavepoint = 0;
};

std::mutex& registryMutex() {
    static std::mutex instance;
    return instance;
}

std::map<SQLite3Database const*, BatchState>& registry() {
    static std::map<SQLite3Database const*, BatchState> instance;
    return instance;
}

// The name of a new savepoint inside a batch on `database`; empty outside any batch.
String nestedSavepoint(SQLite3Database const& database) {
    std::lock_guard<std::mutex> guard(registryMutex());
    auto found = registry().find(&database);
    if (found == registry().end()) return String();
    return String("transaction_" + std::to_string(++found->second.nextSavepoint));
}

char const* beginText(TransactionText text) {
    return text == TransactionText::Begin ? "BEGIN" : "BEGIN TRANSACTION";
}

char const* commitText(TransactionText text) {
    return text == TransactionText::Begin ? "COMMIT" : "END TRANSACTION";
}

}  // namespace

// ---- Transaction -------------------------------------------------------------------------

Transaction::Transaction(SQLite3Database& database, TransactionText text)
    : m_database(database), m_nested(OuterTransaction::depth(database) > 0) {
    begin(text);
    // A begin statement that failed threw above: no destructor runs, nothing is rolled back.
}

Transaction::Transaction(SQLite3Database& database, Savepoint savepoint)
    : m_database(database), m_savepoint(savepoint.name), m_nested(false) {
    m_commit = "RELEASE " + m_savepoint;
    m_state = State::Begun;
    execute("SAVEPOINT " + m_savepoint);
}

Transaction::Transaction(SQLite3Database& database)
    : m_database(database), m_nested(OuterTransaction::depth(database) > 0) {}

Transaction::~Transaction() {
    try {
        if (m_state == State::Begun) {
            rollBackNow();
        } else if (m_state == State::Armed && !m_nested) {
            m_database.execute("ROLLBACK");
        }
    } catch (...) {
        // SQLite may have rolled back already (some errors end the transaction themselves),
        // none was open, or the connection is gone: either way nothing is left to undo.
    }
}

void Transaction::begin(TransactionText text) {
    if (m_nested) {
        m_savepoint = nestedSavepoint(m_database);
        m_commit = "RELEASE " + m_savepoint;
    } else {
        m_commit = commitText(text);
    }
    // Counted as begun before the statement runs: the armed form rolls back after a refused
    // begin too.
    m_state = State::Begun;
    execute(m_nested ? "SAVEPOINT " + m_savepoint : String(beginText(text)));
}

void Transaction::commit() {
    execute(m_commit);
    m_state = State::Ended;
}

void Transaction::rollback() { rollBackNow(); }

void Transaction::leaveOpen() noexcept { m_state = State::Ended; }

void Transaction::execute(String const& statement) { m_database.execute(statement); }

void Transaction::rollBackNow() {
    m_state = State::Ended;
    if (m_savepoint.empty()) {
        execute("ROLLBACK");
        return;
    }
    // ROLLBACK TO keeps the savepoint open; RELEASE then removes it without committing anything.
    execute("ROLLBACK TO " + m_savepoint);
    execute("RELEASE " + m_savepoint);
}

// ---- OuterTransaction --------------------------------------------------------------------

OuterTransaction::OuterTransaction(SQLite3Database& database)
    : m_database(database), m_transaction(database, TransactionText::Begin) {
    std::lock_guard<std::mutex> guard(registryMutex());
    ++registry()[&m_database].batches;
    m_marked = true;
}

OuterTransaction::~OuterTransaction() {
    unmark();
    // m_transaction then rolls back unless commit() succeeded.
}

void OuterTransaction::commit() {
    unmark();
    m_transaction.commit();
}

int OuterTransaction::depth(SQLite3Database const& database) {
    std::lock_guard<std::mutex> guard(registryMutex());
    auto found = registry().find(&database);
    return found == registry().end() ? 0 : found->second.batches;
}

void OuterTransaction::unmark() noexcept {
    if (!m_marked) return;
    m_marked = false;
    std::lock_guard<std::mutex> guard(registryMutex());
    auto found = registry().find(&m_database);
    if (found != registry().end() && --found->second.batches == 0) registry().erase(found);
}

}  // namespace zrn
