// The transaction guard: its exact statements with and without a caller-owned batch, and what
// each way of ending leaves in the file, read back through a second, raw connection.

#include "Transaction.h"

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/SQLite3Database.h>

#include <string>
#include <vector>

#include "SqlTrace.h"
#include "TestSupport.h"

namespace zrn {
namespace {

using Statements = std::vector<std::string>;

// The statements traced, without the reads that check the file and the connection's set-up.
Statements written(test::SqlTrace const& trace) {
    Statements found;
    for (auto const& s : trace.statements()) {
        if (s.rfind("SELECT", 0) != 0 && s.rfind("PRAGMA", 0) != 0) found.push_back(s);
    }
    return found;
}

class TransactionTest : public ::testing::Test {
protected:
    TransactionTest() {
        SQLite3Database setup(String(path), SQLite3Database::FULL);
        setup.execute("CREATE TABLE t (v TEXT)");
    }

    // The values in the file, as another connection sees them.
    std::string stored() {
        test::RawDb raw(path, true);
        std::string values;
        for (auto const& row : raw.query("SELECT v FROM t ORDER BY rowid")) values += row.at(0);
        return values;
    }

    test::TempDir dir;
    std::string const path = dir.file("t.db");
};

TEST_F(TransactionTest, OutsideABatchAnArmedGuardRollsBackWhateverHappened) {
    // Traces the connections opened after it; the raw reads of stored() are left out below.
    test::SqlTrace trace;
    SQLite3Database db(String(path), SQLite3Database::FULL);
    // The plain texts (BEGIN, BEGIN TRANSACTION, savepoints) are pinned by the catalogues; the
    // armed form rolls back whatever happened: never begun, and begun but refused
    // because a transaction was left open, which that ROLLBACK then ends.
    trace.clear();
    { Transaction armed(db); }
    {
        Transaction open(db, TransactionText::Begin);
        db.execute("INSERT INTO t VALUES('z')");
        open.leaveOpen();
    }
    {
        Transaction armed(db);
        EXPECT_THROW(armed.begin(TransactionText::Begin), DatabaseError);
    }
    EXPECT_EQ(written(trace),
              (Statements{"ROLLBACK", "BEGIN", "INSERT INTO t VALUES('z')", "BEGIN", "ROLLBACK"}));
    EXPECT_EQ(stored(), "");
    // The connection is out of any transaction again.
    Transaction again(db, TransactionText::Begin);
    again.commit();
}

TEST_F(TransactionTest, InsideABatchStoreTransactionsNestAsSavepoints) {
    // Traces the connections opened after it; the raw reads of stored() are left out below.
    test::SqlTrace trace;
    SQLite3Database db(String(path), SQLite3Database::FULL);
    trace.clear();
    {
        OuterTransaction batch(db);
        EXPECT_EQ(OuterTransaction::depth(db), 1);
        {
            Transaction kept(db, TransactionText::BeginTransaction);
            db.execute("INSERT INTO t VALUES('a')");
            kept.commit();
        }
        {
            // A failed store operation undoes only its own rows.
            Transaction failed(db, TransactionText::Begin);
            db.execute("INSERT INTO t VALUES('x')");
        }
        {
            // A guard that never began rolls back nothing: the batch is the caller's.
            Transaction armed(db);
        }
        {
            // One left open above another: each guard still ends its own savepoint.
            Transaction open(db, TransactionText::Begin);
            db.execute("INSERT INTO t VALUES('b')");
            open.leaveOpen();
            Transaction failed(db, TransactionText::Begin);
            db.execute("INSERT INTO t VALUES('y')");
        }
        EXPECT_EQ(stored(), "");  // nothing reaches the file before the batch commits
        batch.commit();
        EXPECT_EQ(OuterTransaction::depth(db), 0);
    }
    EXPECT_EQ(stored(), "ab");
    EXPECT_EQ(
        written(trace),
        (Statements{"BEGIN", "SAVEPOINT transaction_1", "INSERT INTO t VALUES('a')",
                    "RELEASE transaction_1", "SAVEPOINT transaction_2", "INSERT INTO t VALUES('x')",
                    "ROLLBACK TO transaction_2", "RELEASE transaction_2", "SAVEPOINT transaction_3",
                    "INSERT INTO t VALUES('b')", "SAVEPOINT transaction_4",
                    "INSERT INTO t VALUES('y')", "ROLLBACK TO transaction_4",
                    "RELEASE transaction_4", "COMMIT"}));

    // After the batch, the plain statements again.
    trace.clear();
    {
        Transaction t(db, TransactionText::Begin);
        t.commit();
    }
    EXPECT_EQ(written(trace), (Statements{"BEGIN", "COMMIT"}));
}

// (Nesting and dropping batches are covered through StoreBatch, the public face of this guard.)
TEST_F(TransactionTest, ABatchWhoseCommitFailsLeavesNothing) {
    SQLite3Database db(String(path), SQLite3Database::FULL);
    db.execute("INSERT INTO t VALUES('a')");
    // A deferred constraint makes COMMIT itself fail: the batch throws and leaves nothing.
    db.execute("PRAGMA foreign_keys = ON");
    db.execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)");
    db.execute("CREATE TABLE kid (p INTEGER REFERENCES parent(id) DEFERRABLE INITIALLY DEFERRED)");
    {
        OuterTransaction failing(db);
        db.execute("INSERT INTO t VALUES('z')");
        db.execute("INSERT INTO kid VALUES(7)");
        EXPECT_THROW(failing.commit(), DatabaseError);
    }
    EXPECT_EQ(stored(), "a");
    EXPECT_EQ(OuterTransaction::depth(db), 0);
    test::RawDb raw(path, true);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM kid"), "0");
}

}  // namespace
}  // namespace zrn
