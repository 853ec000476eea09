#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/FileSystem.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

TEST(SQLite3DatabaseTest, ResultsArriveAsTextByIndexAndByName) {
    SQLite3Database db(":memory:", SQLite3Database::OFF);
    EXPECT_TRUE(db.isInMemoryDB());
    db.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, n INTEGER, r REAL)");
    db.execute("INSERT INTO t (name, n, r) VALUES ('O''Brien', 42, 1.5)");
    EXPECT_EQ(db.lastInsertId(), 1);
    db.execute("INSERT INTO t (name, n) VALUES (NULL, -7);");
    EXPECT_EQ(db.lastInsertId(), 2);

    ResultSet result;
    db.execute("SELECT rowid, * FROM t ORDER BY id", &result);
    ASSERT_EQ(result.rowCount(), 2u);
    ResultSetRow const& first = result.row(0);
    EXPECT_EQ(first.columnCount(), 5u);
    EXPECT_EQ(first.columnValue(2).str(), "O'Brien");
    EXPECT_EQ(first.columnValue("n").str(), "42");
    EXPECT_EQ(first.columnValue("r").str(), "1.5");
    EXPECT_EQ(result.row(1).columnValue("name").str(), "");     // NULL
    EXPECT_EQ(result.row(1).columnValue("missing").str(), "");  // no such column
    EXPECT_EQ(result.row(1).columnValue(99).str(), "");
    for (int index : {2, -1}) {
        try {
            result.row(index);
            ADD_FAILURE() << index;
        } catch (Exception const& e) {
            EXPECT_EQ(e.getMessage().str(), "ResultSet: row index " + std::to_string(index) +
                                                " is out of range (row count 2)");
        }
    }
    EXPECT_TRUE(ResultSet().columnNames().empty());

    // A statement without rows still resets the result.
    db.execute("SELECT * FROM t WHERE 0", &result);
    EXPECT_EQ(result.rowCount(), 0u);
}

// The streamed form sees the same cells as the held one: a longer text after a shorter one
// and a NULL after a text in the same column must not leave bytes of the row before.
TEST(SQLite3DatabaseTest, StreamedRowsReadAsTheHeldOnesAndStopOnAnException) {
    SQLite3Database db(":memory:", SQLite3Database::OFF);
    db.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, n INTEGER)");
    db.execute("INSERT INTO t (name, n) VALUES ('a much longer name than the next', 1)");
    db.execute("INSERT INTO t (name, n) VALUES ('b', NULL)");
    db.execute("INSERT INTO t (name, n) VALUES (NULL, 3)");
    db.execute("INSERT INTO t (name, n) VALUES ('O''Brien', 4)");

    std::string const select = "SELECT id, name, n FROM t ORDER BY id";
    ResultSet held;
    db.execute(select, &held);
    std::vector<std::vector<std::string>> streamed;
    db.forEachRow(select, [&](ResultSetRow const& row) {
        EXPECT_EQ(row.columnValue("name").str(), row.columnValue(1).str());
        std::vector<std::string> cells;
        for (unsigned i = 0; i < row.columnCount(); ++i) {
            cells.push_back(row.columnValue(static_cast<int>(i)).str());
        }
        streamed.push_back(cells);
    });
    ASSERT_EQ(streamed.size(), held.rowCount());
    for (unsigned r = 0; r < held.rowCount(); ++r) {
        ASSERT_EQ(streamed[r].size(), held.row(static_cast<int>(r)).columnCount());
        for (unsigned c = 0; c < streamed[r].size(); ++c) {
            EXPECT_EQ(streamed[r][c],
                      held.row(static_cast<int>(r)).columnValue(static_cast<int>(c)).str())
                << "row " << r << " cell " << c;
        }
    }
    EXPECT_EQ(streamed[1][1], "b");
    EXPECT_EQ(streamed[2][1], "");
    EXPECT_EQ(streamed[3][1], "O'Brien");

    // The same refusals as execute(), and a throwing callback ends the statement: the
    // connection is free for the next one (an unfinished statement would keep the table
    // locked against the DROP).
    EXPECT_NE(test::messageOf<DatabaseError>([&] {
                  db.forEachRow("SELECT 1; DELETE FROM t", [](ResultSetRow const&) {});
              }).find("more than one statement"),
              std::string::npos);
    int seen = 0;
    EXPECT_THROW(db.forEachRow(select,
                               [&](ResultSetRow const&) {
                                   if (++seen == 2) throw Exception("stop");
                               }),
                 Exception);
    EXPECT_EQ(seen, 2);
    db.execute("DROP TABLE t");
    db.close();
    EXPECT_NE(test::messageOf<DatabaseError>([&] {
                  db.forEachRow(select, [](ResultSetRow const&) {});
              }).find("closed"),
              std::string::npos);
}

// The number readers of a streamed row read SQLite's numbers directly; they must give exactly
// what parsing SQLite's text of the same cell gives, for every kind of cell: reals whose text
// (15 significant digits) does not read back as the stored value, integers past 18 digits and
// past 32 bits, negative zero, texts and NULL. A copy of a streamed row keeps its texts.
TEST(SQLite3DatabaseTest, StreamedNumberReadersGiveWhatTheTextGives) {
    SQLite3Database db(":memory:", SQLite3Database::OFF);
    db.execute("CREATE TABLE t (v)");
    std::vector<std::string> const values = test::split(
        "0|-0.0|0.0|1|-1|42|4294967295|4294967296|-4294967297|999999999999999|1000000000000000|"
        "999999999999999999|1000000000000000000|-1000000000000000000|9223372036854775807|"
        "-9223372036854775808|71.5|0.1 + 0.2|1.0 / 3|2.0 / 3 * 1e300|1e-300 / 7|"
        "123456789012345.67|12345678901234.5|-55.125|1e15|1e16|1.5e300|9e999|-9e999|'12abc'|"
        "' 7'|'0x1f'|'3.25'|NULL|x'41'");
    db.execute("BEGIN");
    for (std::string const& v : values) db.execute("INSERT INTO t VALUES (" + v + ")");
    // Doubles of every magnitude with random digits (a fixed sequence, the same every run).
    unsigned long long state = 88172645463325252ULL;
    for (int i = 0; i < 2000; ++i) {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17;
        double value = 0;
        unsigned long long const bits = (state & ~(0x7ffULL << 52)) | ((state % 2046 + 1) << 52);
        std::memcpy(&value, &bits, sizeof value);
        db.execute("INSERT INTO t VALUES (" + std::to_string(i % 3 ? value : value * 0) + ")");
        char text[40];
        std::snprintf(text, sizeof text, "%.17g", value);
        db.execute(std::string("INSERT INTO t VALUES (") + text + ")");
        std::snprintf(text, sizeof text, "%.*g", 1 + i % 16, value);
        db.execute(std::string("INSERT INTO t VALUES (") + text + ")");
        db.execute("INSERT INTO t VALUES (" + std::to_string(static_cast<long long>(state)) + ")");
    }
    db.execute("COMMIT");
    ResultSet texts;
    db.execute("SELECT v, v, v FROM t", &texts);
    unsigned int at = 0;
    std::vector<ResultSetRow> copies;
    db.forEachRow("SELECT v, v, v FROM t", [&](ResultSetRow const& row) {
        ResultSetRow const& text = texts.row(static_cast<int>(at++));
        String const& cell = text.columnValue(0);
        EXPECT_EQ(row.int64Value(0), String::strToInt64(cell, 10)) << cell;
        EXPECT_EQ(row.uintValue(1), String::strToUInt(cell, 10)) << cell;
        double const expected = String::strToReal64(cell);
        double const real = row.realValue(2);
        EXPECT_EQ(std::memcmp(&real, &expected, sizeof real), 0) << cell << " read " << real;
        if (at % 500 == 1) copies.push_back(row);
    });
    EXPECT_EQ(at, texts.rowCount());
    ASSERT_EQ(copies.size(), 17u);
    EXPECT_EQ(copies[0].columnValue(2).str(), "0");
    EXPECT_EQ(copies[0].int64Value(1), 0);
    EXPECT_EQ(copies[1].columnValue(0), texts.row(500).columnValue(0));
}

TEST(SQLite3DatabaseTest, RefusesASecondStatementAndRunsNothingOfIt) {
    test::TempDir dir;
    SQLite3Database db(dir.file("a.db"), SQLite3Database::FULL);
    db.execute("CREATE TABLE t (v TEXT)");
    // A value that smuggles a statement in through unescaped text.
    std::string const message = test::messageOf<DatabaseError>(
        [&] { db.execute("INSERT INTO t VALUES ('x'); DROP TABLE t"); });
    EXPECT_EQ(message, "SQLite database '" + dir.file("a.db") +
                           "': refused to run more than one statement in one call");

    test::RawDb raw(dir.file("a.db"));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM t"), "0");  // first statement did not run either

    db.execute("INSERT INTO t VALUES ('y') ; \n ;  ");  // trailing blanks and semicolons are fine
    EXPECT_EQ(raw.scalar("SELECT v FROM t"), "y");
}

TEST(SQLite3DatabaseTest, ErrorsNameTheFileAndCarrySQLiteText) {
    test::TempDir dir;
    std::string const path = dir.file("e.db");
    SQLite3Database db(path, SQLite3Database::NORMAL);
    db.execute("CREATE TABLE t (k TEXT UNIQUE)");
    db.execute("INSERT INTO t VALUES ('a')");

    std::string message =
        test::messageOf<DatabaseError>([&] { db.execute("SELECT * FROM nowhere"); });
    EXPECT_EQ(message, "SQLite database '" + path +
                           "': cannot prepare the statement: no such table: nowhere (code 1)");

    message = test::messageOf<DatabaseError>([&] { db.execute("INSERT INTO t VALUES ('a')"); });
    EXPECT_EQ(message, "SQLite database '" + path +
                           "': statement failed: UNIQUE constraint failed: t.k (code 2067)");

    // close() is idempotent; anything afterwards is a DatabaseError, never a crash.
    EXPECT_FALSE(db.isClosed());
    db.close();
    db.close();
    EXPECT_TRUE(db.isClosed());
    message = test::messageOf<DatabaseError>([&] { db.execute("SELECT 1"); });
    EXPECT_EQ(message, "SQLite database '" + path + "': the connection is closed");
    EXPECT_EQ(db.dbFilePath().str(), path);
}

TEST(SQLite3DatabaseTest, ReadOnlyAccessNeverCreatesOrWrites) {
    test::TempDir dir;
    std::string const path = dir.file("ro.db");
    auto openReadOnly = [&] {
        SQLite3Database db(path, SQLite3Database::FULL, SQLite3Database::ENCODING_UTF8,
                           SQLite3Database::OPEN_EXISTING, SQLite3Database::READ_ONLY);
    };
    EXPECT_THROW(openReadOnly(), DatabaseError);
    EXPECT_FALSE(FileSystem::exists(path));

    {
        test::RawDb raw(path);
        raw.exec("CREATE TABLE t (v TEXT); INSERT INTO t VALUES ('kept');");
    }
    std::string const before = test::readFile(path);
    SQLite3Database db(path, SQLite3Database::FULL, SQLite3Database::ENCODING_UTF8,
                       SQLite3Database::OPEN_EXISTING, SQLite3Database::READ_ONLY);
    EXPECT_TRUE(db.isReadOnly());
    ResultSet result;
    db.execute("SELECT v FROM t", &result);
    EXPECT_EQ(result.row(0).columnValue(0).str(), "kept");
    EXPECT_NE(test::messageOf<DatabaseError>([&] {
                  db.execute("INSERT INTO t VALUES ('no')");
              }).find("readonly"),
              std::string::npos);
    db.close();
    EXPECT_EQ(test::readFile(path), before);
}

TEST(SQLite3DatabaseTest, GarbageFileAndMissingDirectoryFailInTheConstructor) {
    test::TempDir dir;
    test::writeFile(dir.file("garbage.db"), std::string(4096, 'x'));
    std::string message = test::messageOf<DatabaseError>(
        [&] { SQLite3Database db(dir.file("garbage.db"), SQLite3Database::FULL); });
    EXPECT_NE(message.find("file is not a database"), std::string::npos) << message;
    EXPECT_EQ(test::readFile(dir.file("garbage.db")), std::string(4096, 'x'));

    message = test::messageOf<DatabaseError>(
        [&] { SQLite3Database db(dir.file("no/such/dir/x.db"), SQLite3Database::FULL); });
    EXPECT_NE(message.find("unable to open database file"), std::string::npos) << message;
}

TEST(SQLite3DatabaseTest, CloseOnOneThreadWaitsForStatementsOnOthers) {
    test::TempDir dir;
    for (int round = 0; round < 20; ++round) {
        SQLite3Database db(String(dir.file("close.db")), SQLite3Database::OFF);
        std::atomic<int> ran{0};
        std::atomic<int> refused{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 200; ++i) {
                    try {
                        ResultSet rows;
                        db.execute("SELECT count(*) FROM sqlite_master", &rows);
                        ++ran;
                    } catch (DatabaseError const& e) {
                        EXPECT_NE(e.getMessage().str().find("the connection is closed"),
                                  std::string::npos)
                            << e.getMessage();
                        ++refused;
                    }
                }
            });
        }
        while (ran == 0) std::this_thread::yield();
        db.close();
        for (auto& thread : threads) thread.join();
        EXPECT_TRUE(db.isClosed());
        EXPECT_EQ(ran + refused, 600);
    }
}

TEST(SQLite3DatabaseTest, AppliesTheSynchronousLevel) {
    test::TempDir dir;
    for (auto mode : {SQLite3Database::OFF, SQLite3Database::NORMAL, SQLite3Database::FULL}) {
        SQLite3Database db(dir.file("s.db"), mode);
        ResultSet result;
        db.execute("PRAGMA synchronous", &result);
        EXPECT_EQ(result.row(0).columnValue(0).str(), std::to_string(mode));
        EXPECT_TRUE(db.isThreadSafe());
    }
}

TEST(SQLite3DatabaseTest, WaitsForAnotherConnectionsLockInsteadOfFailing) {
    test::TempDir dir;
    std::string const path = dir.file("busy.db");
    SQLite3Database db(path, SQLite3Database::OFF);
    db.execute("CREATE TABLE t (v INTEGER)");

    test::RawDb other(path);
    other.exec("BEGIN IMMEDIATE; INSERT INTO t VALUES (1);");
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        other.exec("COMMIT");
    });
    // Without a busy timeout this fails at once with "database is locked".
    EXPECT_NO_THROW(db.execute("INSERT INTO t VALUES (2)"));
    release.join();
    ResultSet result;
    db.execute("SELECT count(*) FROM t", &result);
    EXPECT_EQ(result.row(0).columnValue(0).str(), "2");
}

}  // namespace
}  // namespace zrn
