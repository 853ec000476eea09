#pragma once

#include <libCommon/SQLite3Database.h>
#include <libCommon/String.h>

namespace zrn {

// One transaction on a connection, begun by the constructor with the statement given (so each
// store keeps its own texts) and rolled back by the destructor unless commit() succeeded: a
// failure anywhere in between leaves the file as it was. The destructor never throws.
class Transaction {
public:
    Transaction(SQLite3Database& database, String const& begin) : m_database(database) {
        m_database.execute(begin);
    }
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;

    ~Transaction() {
        if (m_committed) return;
        try {
            m_database.execute("ROLLBACK");
        } catch (...) {
            // SQLite may have rolled back already (some errors end the transaction
            // themselves), or the connection is gone; either way nothing is left to undo.
        }
    }

    // Ends the transaction with `statement`. Should that fail, the destructor rolls back.
    void commit(String const& statement = "COMMIT") {
        m_database.execute(statement);
        m_committed = true;
    }

private:
    SQLite3Database& m_database;
    bool m_committed = false;
};

}  // namespace zrn
