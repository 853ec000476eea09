#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/ResultSet.h>
#include <libDataStore/DataStoreExceptions.h>
#include <libDataStore/SQLiteDataStore.h>
#include <unistd.h>

#include "TestSupport.h"

namespace zrn {
namespace {

char const* const kLogger = "libDataStore.SQLiteDataStore";

SQLiteDataStoreColumnSpec const kColumns[] = {
    {"setID", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}, {nullptr, nullptr}};

HashTable<String, String> row(std::initializer_list<std::pair<char const*, char const*>> cells) {
    HashTable<String, String> result;
    for (auto const& cell : cells) result.insert(cell.first, cell.second);
    return result;
}

template <class E, class F>
std::string messageOf(F&& action) {
    try {
        action();
    } catch (E const& e) {
        return e.getMessage().str();
    }
    return "<nothing thrown>";
}

class SQLiteDataStoreTest : public testing::Test {
protected:
    test::TempDir m_dir;
    std::string m_path = m_dir.file("t.db");
    // No settings file: every connection is opened at the default FULL level.
    test::ScopedEnv m_settings{"ZRN_SETTINGS_FILE", m_dir.file("none.ini").c_str()};
};

TEST_F(SQLiteDataStoreTest, CreatesTheTableWithTheExactStatementAndSkipsRepeatedNames) {
    SQLiteDataStoreColumnSpec const columns[] = {
        {"setID", "INTEGER"}, {"key", "TEXT"},   {"setID", "TEXT"}, {"Group", "TEXT"},
        {"value", nullptr},   {"never", "TEXT"}, {nullptr, nullptr}};
    SQLiteDataStore store(String(m_path), "t", columns);
    test::RawDb raw(m_path);
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE name='t'"),
              "CREATE TABLE `t` (`setID` INTEGER,`key` TEXT,`Group` TEXT)");
    ASSERT_EQ(store.columns().size(), 3u);
    EXPECT_EQ(store.tableName(), "t");
    EXPECT_EQ(store.dbFilePath().str(), m_path);
}

TEST_F(SQLiteDataStoreTest, MigrationAddsOnlyTheMissingColumnsInDeclarationOrder) {
    {
        test::RawDb raw(m_path);
        raw.exec("CREATE TABLE t (value INTEGER, extra TEXT); INSERT INTO t VALUES (7, 'x');");
    }
    test::LogCapture log;
    SQLiteDataStore store(String(m_path), "t", kColumns);

    EXPECT_EQ(log.messages(kLogger),
              (std::vector<std::string>{"159 Adding new column `setID` to table `t`",
                                        "159 Adding new column `key` to table `t`"}));
    test::RawDb raw(m_path);
    // The existing column keeps its type and place; the extra column stays.
    EXPECT_EQ(raw.query("SELECT name, type FROM pragma_table_info('t')"),
              (test::RawDb::Rows{
                  {"value", "INTEGER"}, {"extra", "TEXT"}, {"setID", "INTEGER"}, {"key", "TEXT"}}));
    EXPECT_EQ(raw.query("SELECT * FROM t"), (test::RawDb::Rows{{"7", "x", "<NULL>", "<NULL>"}}));

    // Opening again changes nothing.
    log.clear();
    SQLiteDataStore again(String(m_path), "t", kColumns);
    EXPECT_TRUE(log.messages(kLogger).empty());
}

TEST_F(SQLiteDataStoreTest, ZeroColumnsAndTheReservedName) {
    SQLiteDataStoreColumnSpec const none[] = {{nullptr, nullptr}};
    std::string const expected = "Database: " + m_path + " table: t cannot have zero columns";
    {
        test::LogCapture log;
        EXPECT_EQ(messageOf<ZeroTableColumnsException>(
                      [&] { SQLiteDataStore s(String(m_path), "t", none); }),
                  expected);
        EXPECT_EQ(log.messages(kLogger),
                  std::vector<std::string>{
                      "137 SQLiteDataStore: Cannot create a table with zero columns"});
    }
    EXPECT_EQ(messageOf<ZeroTableColumnsException>(
                  [&] { SQLiteDataStore s(String(m_path), "t", nullptr); }),
              expected);

    SQLiteDataStore store(String(m_path), "t", kColumns);
    EXPECT_EQ(messageOf<ZeroTableColumnsException>(
                  [&] { SQLiteDataStore s(store.database(), "u", nullptr); }),
              "Database: " + m_path + " table: u cannot have zero columns");
    // An existing table is only ever extended: an empty declaration opens it without error.
    EXPECT_NO_THROW(SQLiteDataStore(store.database(), "t", none));

    SQLiteDataStoreColumnSpec const reserved[] = {
        {"id", "INTEGER"}, {"group", "TEXT"}, {nullptr, nullptr}};
    EXPECT_EQ(messageOf<InvalidColumnNameException>(
                  [&] { SQLiteDataStore s(store.database(), "g", reserved); }),
              "The name \"group\" is reserved and is not allowed as a column name");
    test::RawDb raw(m_path);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM sqlite_master WHERE name='g'"), "0");
}

TEST_F(SQLiteDataStoreTest, TableNamesAreQuotedAsValuesButNotEscapedAsIdentifiers) {
    SQLiteDataStore first(String(m_path), "it's", kColumns);
    // Found by the existence test the second time (the quote is doubled in the value).
    EXPECT_NO_THROW(SQLiteDataStore(String(m_path), "it's", kColumns));
    EXPECT_THROW(SQLiteDataStore(String(m_path), "bad`name", kColumns), DatabaseError);
    // Any schema object of the name counts as the table existing: nothing is created for an
    // index name, and extending the "table" then fails in SQLite.
    test::RawDb raw(m_path);
    raw.exec("CREATE INDEX idx ON `it's` (`key`)");
    EXPECT_THROW(SQLiteDataStore(String(m_path), "idx", kColumns), DatabaseError);
    EXPECT_EQ(raw.scalar("SELECT type FROM sqlite_master WHERE name='idx'"), "index");
}

TEST_F(SQLiteDataStoreTest, RowOperationsLogTheirExactStatements) {
    SQLiteDataStore store(String(m_path), "t", kColumns);
    test::LogCapture log;
    std::string const path = m_path;

    store.append(row({{"key", "k"}}));
    store.update(row({{"value", "O'Brien"}}), "key", "k");
    String cell("untouched");
    EXPECT_TRUE(store.cellData("value", cell, "key", "k"));
    EXPECT_EQ(cell, "O'Brien");
    EXPECT_FALSE(store.cellData("value", cell, "key", "missing"));
    EXPECT_EQ(cell, "O'Brien");
    EXPECT_TRUE(store.contains("key", "k"));
    EXPECT_EQ(store.count("", ""), 1u);
    EXPECT_EQ(store.count("value", ""), 1u);
    EXPECT_EQ(store.count("key", "k"), 1u);
    store.cellDataAtIndex(0, cell, "key", "", "");
    store.cellDataAtIndex(0, cell, "key", "key", "k");
    Array<String> cells{"kept"};
    EXPECT_TRUE(store.rowData(cells, "key", "k"));
    EXPECT_EQ(cells, (Array<String>{"kept", "", "k", "O'Brien"}));  // appended, not replaced
    store.rowDataAtIndex(0, cells, "", "");
    store.rowDataAtIndex(0, cells, "key", "k");
    store.remove("key", "k");
    EXPECT_FALSE(store.contains("key", "k"));

    std::vector<std::string> const expected = {
        "204 Appending data with less columns (1 ) to " + path + " table: t; column count = 3",
        "227 Append SQL Command: INSERT OR REPLACE INTO `t` (`key`) VALUES('k')",
        "250 Update SQL Command: UPDATE `t` SET `value` = 'O''Brien' WHERE `key`='k'",
        "263 CellData SQL Command: SELECT `value` FROM `t` WHERE `key`='k'",
        "263 CellData SQL Command: SELECT `value` FROM `t` WHERE `key`='missing'",
        "309 Count SQL Command: SELECT count(*) FROM `t`",
        "309 Count SQL Command: SELECT count(`value`) FROM `t`",
        "309 Count SQL Command: SELECT count(`key`) FROM `t` WHERE `key`='k'",
        "320 CellDataAtIndex SQL Command: SELECT `key` FROM `t`",
        "320 CellDataAtIndex SQL Command: SELECT `key` FROM `t` WHERE `key`='k'",
        "279 RowData SQL Command: SELECT * FROM `t` WHERE `key`='k'",
        "331 RowDataAtIndex SQL Command: SELECT * FROM `t`",
        "331 RowDataAtIndex SQL Command: SELECT * FROM `t` WHERE `key`='k'",
        "256 Remove SQL Command: DELETE FROM `t` WHERE `key`='k'",
    };
    EXPECT_EQ(log.messages(kLogger), expected);
    auto const entries = log.entries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries[0].priority, 3);  // the short-row warning
    EXPECT_EQ(entries[1].priority, 1);  // statements are traces
}

TEST_F(SQLiteDataStoreTest, MultiColumnRowsListColumnsInTheTablesIterationOrder) {
    SQLiteDataStore store(String(m_path), "t", kColumns);
    HashTable<String, String> const full = row({{"setID", "1"}, {"key", "k"}, {"value", "v"}});
    std::string names;
    std::string values;
    for (auto const& cell : full) {
        names += (names.empty() ? "`" : ",`") + cell.first.str() + "`";
        values += (values.empty() ? "'" : ",'") + cell.second.str() + "'";
    }
    test::LogCapture log;
    store.append(full);
    EXPECT_EQ(log.messages(kLogger),
              std::vector<std::string>{"227 Append SQL Command: INSERT OR REPLACE INTO `t` (" +
                                       names + ") VALUES(" + values + ")"});
}

TEST_F(SQLiteDataStoreTest, ValuesRoundTripThroughTheFileUnchanged) {
    SQLiteDataStore store(String(m_path), "t", kColumns);
    std::string const tricky[] = {"O'Brien",
                                  "''",
                                  "'",
                                  "'a'b''c'",
                                  "Grüße 世界 😀",
                                  "a\nb\tc",
                                  "",
                                  "x'); DROP TABLE t; --",
                                  std::string(100000, 'q')};
    int id = 0;
    for (auto const& value : tricky) {
        store.append(
            row({{"setID", std::to_string(id).c_str()}, {"key", "k"}, {"value", value.c_str()}}));
        ++id;
    }
    test::RawDb raw(m_path);
    auto const rows = raw.query("SELECT value FROM t ORDER BY setID");
    ASSERT_EQ(rows.size(), std::size(tricky));
    for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i][0], tricky[i]);
    String cell;
    EXPECT_TRUE(store.cellData("value", cell, "value", String(tricky[2])));
    EXPECT_EQ(cell.str(), tricky[2]);
}

TEST_F(SQLiteDataStoreTest, WidthMismatchesThrowBeforeOrInsteadOfAnyHarm) {
    SQLiteDataStore store(String(m_path), "t", kColumns);
    test::LogCapture log;
    HashTable<String, String> const tooWide =
        row({{"setID", "1"}, {"key", "k"}, {"value", "v"}, {"extra", "x"}});
    std::string const appendMessage =
        "Cannot append data to " + m_path + " table: t. Column count mismatch: 4 != 3";
    EXPECT_EQ(messageOf<RowDataMismatchException>([&] { store.append(tooWide); }), appendMessage);
    EXPECT_EQ(messageOf<RowDataMismatchException>([&] { store.update(tooWide, "key", "k"); }),
              "Cannot update data to " + m_path + " table: t. Column count mismatch: 4 != 3");
    EXPECT_EQ(log.messages(kLogger),
              (std::vector<std::string>{"208 " + appendMessage,
                                        "234 Cannot update data to " + m_path +
                                            " table: t. Column count mismatch: 4 != 3"}));
    EXPECT_EQ(store.count("", ""), 0u);

    // A file with more columns than the declaration cannot be read row-wise.
    store.append(row({{"setID", "1"}, {"key", "k"}, {"value", "v"}}));
    {
        test::RawDb raw(m_path);
        raw.exec("ALTER TABLE t ADD COLUMN later TEXT");
    }
    log.clear();
    Array<String> cells;
    EXPECT_EQ(messageOf<RowDataMismatchException>([&] { store.rowData(cells, "key", "k"); }),
              "Cannot get row data from " + m_path + " table: t");
    EXPECT_EQ(messageOf<RowDataMismatchException>([&] { store.rowDataAtIndex(0, cells, "", ""); }),
              "Cannot get row data from " + m_path + " table: t");
    EXPECT_EQ(log.messagesStartingWith(kLogger, "285 "),
              std::vector<std::string>{"285 Cannot get row data from " + m_path + " table: t"});
    EXPECT_EQ(log.messagesStartingWith(kLogger, "336 "),
              std::vector<std::string>{"336 Cannot get row data from " + m_path + " table: t"});
    EXPECT_TRUE(cells.empty());
    String cell;
    EXPECT_THROW(store.cellDataAtIndex(5, cell, "key", "", ""), Exception);
}

TEST_F(SQLiteDataStoreTest, UniqueIdsStartAtZeroAndStopAt16777215) {
    SQLiteDataStore store(String(m_path), "t", kColumns);
    test::LogCapture log;
    EXPECT_EQ(store.getUniqueIdForColumn("setID"), 0u);
    store.append(row({{"setID", "0"}}));
    EXPECT_EQ(store.getUniqueIdForColumn("setID"), 1u);
    store.append(row({{"setID", "16777214"}}));
    EXPECT_EQ(store.getUniqueIdForColumn("setID"), 16777215u);
    store.append(row({{"setID", "16777215"}}));
    EXPECT_EQ(messageOf<OutOfUniqueIdsException>([&] { store.getUniqueIdForColumn("setID"); }),
              "No more unique identifiers are available");
    auto const lines = log.messages(kLogger);
    EXPECT_EQ(lines[0],
              "346 getUniqueIdForColumn SQL Command: SELECT `setID` FROM `t` ORDER BY `setID` DESC "
              "LIMIT 1");
    EXPECT_EQ(lines[1], "351 getUniqueIdForColumn(setID) returning default: 0");
    EXPECT_EQ(log.messagesStartingWith(kLogger, "362 "),
              (std::vector<std::string>{"362 getUniqueIdForColumn(setID) returning: 1",
                                        "362 getUniqueIdForColumn(setID) returning: 16777215"}));
}

TEST_F(SQLiteDataStoreTest, SharedConnectionsCloseTogetherAndValidityTellsWhy) {
    SQLiteDataStore first(String(m_path), "t", kColumns);
    SQLiteDataStore second(first.database(), "u", kColumns);
    test::LogCapture log;
    SQLiteDataStore copy(first);  // shares, runs nothing
    EXPECT_TRUE(log.entries().empty());
    EXPECT_EQ(first.database().useCount(), 3);

    String error("untouched");
    EXPECT_TRUE(second.checkValidity(error));
    EXPECT_EQ(error, "untouched");
    first.close();
    EXPECT_TRUE(second.isClosed());
    EXPECT_TRUE(copy.isClosed());
    EXPECT_NO_THROW(second.close());
    EXPECT_FALSE(second.checkValidity(error));
    EXPECT_EQ(error, "Database is not open");
    EXPECT_THROW(second.count("", ""), DatabaseError);

    ::unlink(m_path.c_str());
    EXPECT_FALSE(second.checkValidity(error));
    EXPECT_EQ(error, "Database file does not exist");

    SQLiteDataStore memory(String(":memory:"), "t", kColumns);
    EXPECT_TRUE(memory.checkValidity(error));
}

TEST_F(SQLiteDataStoreTest, AMovedFromStoreRefusesEveryCallInsteadOfCrashing) {
    SQLiteDataStore source(String(m_path), "t", kColumns);
    SQLiteDataStore target(std::move(source));
    target.append(row({{"setID", "1"}, {"key", "k"}, {"value", "v"}}));
    String error;
    EXPECT_THROW(source.append(row({{"setID", "2"}})), CannotAccessClosedDatabaseException);
    EXPECT_THROW(source.count("", ""), CannotAccessClosedDatabaseException);
    EXPECT_THROW(source.remove("key", "k"), CannotAccessClosedDatabaseException);
    EXPECT_THROW(source.dbFilePath(), CannotAccessClosedDatabaseException);
    EXPECT_THROW(source.close(), CannotAccessClosedDatabaseException);
    EXPECT_THROW(source.isClosed(), CannotAccessClosedDatabaseException);
    EXPECT_THROW(source.checkValidity(error), CannotAccessClosedDatabaseException);
    EXPECT_EQ(target.count("", ""), 1u);
    source = target;  // assigned again, it is a store like any other
    EXPECT_EQ(source.count("", ""), 1u);
}

TEST_F(SQLiteDataStoreTest, SyncModeComesFromTheSettingsFileReadAfreshEachTime) {
    std::string const settings = m_dir.file("settings.ini");
    test::ScopedEnv env("ZRN_SETTINGS_FILE", settings.c_str());
    EXPECT_EQ(SQLiteDataStore::dbSyncMode(), SQLite3Database::FULL);  // no file

    struct Case {
        char const* value;
        SQLite3Database::SYNC_MODE expected;
    };
    Case const cases[] = {{"normal", SQLite3Database::NORMAL}, {"Off", SQLite3Database::OFF},
                          {"FULL", SQLite3Database::FULL},     {"2", SQLite3Database::FULL},
                          {"", SQLite3Database::FULL},         {"NORMAL", SQLite3Database::NORMAL}};
    for (auto const& c : cases) {
        test::writeFile(settings,
                        std::string("[libDataStore]\nSQLiteDataStore.SyncMode=") + c.value + "\n");
        EXPECT_EQ(SQLiteDataStore::dbSyncMode(), c.expected) << c.value;
    }
    // The connection a store opens uses the level in force at that moment.
    SQLiteDataStore store(String(m_path), "t", kColumns);
    ResultSet result;
    store.database()->execute("PRAGMA synchronous", &result);
    EXPECT_EQ(result.row(0).columnValue(0).str(), "1");
}

}  // namespace
}  // namespace zrn
