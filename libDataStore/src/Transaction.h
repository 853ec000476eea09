#pragma once

// The one place that runs transaction statements: every store begins, commits, rolls back and
// leaves open its transactions through the guards below.

#include <libCommon/SQLite3Database.h>
#include <libCommon/String.h>

namespace zrn {

// The statements a store's own transaction is written with. Each store keeps the texts it has
// always used; the rollback is "ROLLBACK" for both.
enum class TransactionText {
    Begin,             // "BEGIN" … "COMMIT"
    BeginTransaction,  // "BEGIN TRANSACTION" … "END TRANSACTION"
};

// A savepoint of a given name, for a step that must be undone on its own inside a transaction.
struct Savepoint {
    char const* name;
};

// One transaction on a connection, on the model of a scoped lock: begun by the constructor (or
// by begin()), ended by commit(), rolled back by the destructor unless committed or left open.
// The destructor never throws.
//
// Inside a caller-owned batch on the same connection (OuterTransaction below) the store's own
// transaction nests instead: "SAVEPOINT transaction_<n>", commit "RELEASE transaction_<n>",
// rollback "ROLLBACK TO transaction_<n>" then "RELEASE transaction_<n>", so the store's
// operation stays all-or-nothing and the batch decides what reaches the file. With no batch the
// statements are exactly the TransactionText ones.
//
// Not for sharing between threads: the store family's mutex is held around every guard.
class Transaction {
public:
    // Begins at once. Should the begin statement fail, nothing is left to end.
    Transaction(SQLite3Database& database, TransactionText text);
    // "SAVEPOINT name": commit "RELEASE name", rollback "ROLLBACK TO name" then "RELEASE name",
    // with or without a batch.
    Transaction(SQLite3Database& database, Savepoint savepoint);
    // Armed, not begun: begin() begins it. Unlike the forms above, the destructor rolls back even
    // when begin() was never reached or failed, as a failure path that documents "ROLLBACK on
    // the connection" does whatever happened before it: it is also what ends a transaction an
    // earlier call left open, once the begin statement has been refused because of it. Inside a
    // batch a guard that never began rolls nothing back.
    explicit Transaction(SQLite3Database& database);

    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;
    ~Transaction();

    // Only for the armed form, once.
    void begin(TransactionText text);
    // Ends the transaction for good. Should that fail, the destructor still rolls back.
    void commit();
    // Rolls back now and passes on a failure of the rollback itself.
    void rollback();
    // The transaction stays open on the connection: the destructor does nothing. For the paths
    // whose documented behaviour is to end neither way.
    void leaveOpen() noexcept;

private:
    enum class State { Armed, Begun, Ended };

    void execute(String const& statement);
    void rollBackNow();

    SQLite3Database& m_database;
    State m_state = State::Armed;
    // Empty outside a batch; the savepoint's name inside one (or for a named savepoint).
    String m_savepoint;
    String m_commit;
    // Decided when the guard is made: whether a batch held the connection then.
    bool const m_nested;
};

// A caller-owned transaction that the stores' own transactions join. "BEGIN" when it is the
// first on its connection, a savepoint when another batch already holds it (so batches nest
// too); commit() commits, the destructor rolls back what was not committed and never throws.
// While it lives every Transaction made on the same connection nests inside it as a savepoint.
// REQUIRES: the caller holds the store family's mutex from before the constructor until after
// the destructor, and keeps the connection alive as long.
class OuterTransaction {
public:
    explicit OuterTransaction(SQLite3Database& database);
    OuterTransaction(OuterTransaction const&) = delete;
    OuterTransaction& operator=(OuterTransaction const&) = delete;
    ~OuterTransaction();

    // Commits (or releases, when nested). A failure is passed on and the destructor then rolls
    // back, so a failed commit leaves nothing.
    void commit();

    // How many batches hold `database` now: 0 outside any.
    static int depth(SQLite3Database const& database);

private:
    void unmark() noexcept;

    SQLite3Database& m_database;
    Transaction m_transaction;
    bool m_marked = false;
};

}  // namespace zrn
