// Every statement, message and schema text of the table layer, compared whole with the golden
// files under tests/golden/sqlitedatastore/.

#include <gtest/gtest.h>
#include <libDataStore/SQLiteDataStore.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "CatalogueTest.h"
#include "TestSupport.h"

namespace zrn {
namespace {

SQLiteDataStoreColumnSpec const kColumns[] = {
    {"setID", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}, {nullptr, nullptr}};
SQLiteDataStoreColumnSpec const kNone[] = {{nullptr, nullptr}};

HashTable<String, String> row(std::initializer_list<std::pair<char const*, char const*>> cells) {
    HashTable<String, String> result;
    for (auto const& cell : cells) result.insert(cell.first, cell.second);
    return result;
}

// The cells in brackets, in order.
std::string joined(Array<String> const& cells) {
    std::string text;
    for (std::size_t i = 0; i < cells.size(); ++i) text += "[" + cells[i].str() + "]";
    return text;
}

class SQLiteDataStoreCatalogueTest : public test::CatalogueTest {
protected:
    SQLiteDataStoreCatalogueTest() {
        // Older shapes of a table, made before anything is recorded.
        test::RawDb older(file("older.db"));
        older.exec("CREATE TABLE t (value INTEGER, extra TEXT); INSERT INTO t VALUES (7, 'x');");
        test::RawDb wider(file("wider.db"));
        wider.exec(
            "CREATE TABLE t (setID INTEGER, key TEXT, value TEXT, later TEXT);"
            "INSERT INTO t VALUES (1, 'k', 'v', 'l');"
            "CREATE INDEX idx ON t (key);");
        test::writeFile(file("garbage.db"), std::string(4096, 'G'));
        start();
    }

    void rowOperations(SQLiteDataStore& store);
    void readsAndIds(SQLiteDataStore& store);
    void openings();
    void connections();
};

void SQLiteDataStoreCatalogueTest::rowOperations(SQLiteDataStore& store) {
    step("append a full row");
    store.append(row({{"setID", "1"}, {"key", "k"}, {"value", "O'Brien"}}));
    step("append a row with fewer columns than declared");
    store.append(row({{"key", "short"}}));
    step("append a row with more columns than declared");
    noteThrow([&] {
        store.append(row({{"setID", "2"}, {"key", "k"}, {"value", "v"}, {"extra", "x"}}));
    });
    step("append a row naming an unknown column");
    noteThrow([&] { store.append(row({{"nope", "x"}})); });
    step("update");
    store.update(row({{"value", "it's"}}), "key", "k");
    step("update several columns of no matching row");
    store.update(row({{"setID", "9"}, {"value", "v"}}), "key", "missing");
    step("update with more columns than declared");
    noteThrow([&] {
        store.update(row({{"setID", "2"}, {"key", "k"}, {"value", "v"}, {"extra", "x"}}), "key",
                     "k");
    });
    step("remove a missing row");
    store.remove("key", "missing");
}

void SQLiteDataStoreCatalogueTest::readsAndIds(SQLiteDataStore& store) {
    step("contains");
    note(std::string("found: ") + (store.contains("key", "k") ? "yes" : "no"));
    note(std::string("found: ") + (store.contains("key", "it's") ? "yes" : "no"));
    step("cellData");
    String cell("untouched");
    note(std::string("found: ") + (store.cellData("value", cell, "key", "k") ? "yes" : "no"));
    note("cell: " + cell.str());
    note(std::string("found: ") + (store.cellData("value", cell, "key", "missing") ? "yes" : "no"));
    note("cell: " + cell.str());
    step("rowData");
    Array<String> cells{"kept"};
    note(std::string("found: ") + (store.rowData(cells, "key", "k") ? "yes" : "no"));
    note(std::string("found: ") + (store.rowData(cells, "key", "missing") ? "yes" : "no"));
    note("cells: " + joined(cells));
    step("count");
    note("all: " + std::to_string(store.count("", "")));
    note("non-null values: " + std::to_string(store.count("value", "")));
    note("matching: " + std::to_string(store.count("key", "k")));
    step("cellDataAtIndex");
    store.cellDataAtIndex(0, cell, "key", "", "");
    note("cell: " + cell.str());
    store.cellDataAtIndex(0, cell, "value", "key", "k");
    note("cell: " + cell.str());
    step("cellDataAtIndex past the result");
    noteThrow([&] { store.cellDataAtIndex(5, cell, "key", "key", "missing"); });
    step("rowDataAtIndex");
    cells = Array<String>();
    store.rowDataAtIndex(0, cells, "", "");
    store.rowDataAtIndex(0, cells, "key", "k");
    note("cells: " + joined(cells));
    step("remove");
    store.remove("key", "short");
    store.remove("key", "k");
    step("getUniqueIdForColumn on an empty table");
    note("id: " + std::to_string(store.getUniqueIdForColumn("setID")));
    store.append(row({{"setID", "0"}}));
    step("getUniqueIdForColumn after 0");
    note("id: " + std::to_string(store.getUniqueIdForColumn("setID")));
    store.append(row({{"setID", "16777214"}}));
    step("getUniqueIdForColumn after 16777214");
    note("id: " + std::to_string(store.getUniqueIdForColumn("setID")));
    store.append(row({{"setID", "16777215"}}));
    step("getUniqueIdForColumn after 16777215");
    noteThrow([&] { store.getUniqueIdForColumn("setID"); });
}

void SQLiteDataStoreCatalogueTest::openings() {
    step("open a file made by an older schema");
    SQLiteDataStore older(String(file("older.db")), "t", kColumns);
    step("open it again");
    SQLiteDataStore again(String(file("older.db")), "t", kColumns);
    step("read rows of a file with more columns than declared");
    SQLiteDataStore wider(String(file("wider.db")), "t", kColumns);
    Array<String> cells;
    noteThrow([&] { wider.rowData(cells, "key", "k"); });
    noteThrow([&] { wider.rowDataAtIndex(0, cells, "", ""); });
    step("null column list");
    noteThrow([&] { SQLiteDataStore s(String(file("t.db")), "z", nullptr); });
    noteThrow([&] { SQLiteDataStore s(older.database(), "z", nullptr); });
    step("empty column list for a missing table");
    noteThrow([&] { SQLiteDataStore s(String(file("t.db")), "z", kNone); });
    step("empty column list for an existing table");
    noteThrow([&] { SQLiteDataStore s(older.database(), "t", kNone); });
    step("reserved column name");
    SQLiteDataStoreColumnSpec const reserved[] = {
        {"id", "INTEGER"}, {"group", "TEXT"}, {nullptr, nullptr}};
    noteThrow([&] { SQLiteDataStore s(older.database(), "g", reserved); });
    step("a table name with a single quote, twice");
    SQLiteDataStore quoted(older.database(), "it's", kColumns);
    SQLiteDataStore quotedAgain(older.database(), "it's", kColumns);
    step("a table name with a backquote");
    noteThrow([&] { SQLiteDataStore s(older.database(), "bad`name", kColumns); });
    step("a table name that names an index");
    noteThrow([&] { SQLiteDataStore s(wider.database(), "idx", kColumns); });
    step("a non-database file");
    noteThrow([&] { SQLiteDataStore s(String(file("garbage.db")), "t", kColumns); });
    step("a file in a missing folder");
    noteThrow([&] { SQLiteDataStore s(String(file("missing/t.db")), "t", kColumns); });
    step("a folder as the file");
    noteThrow([&] { SQLiteDataStore s(String(m_dir.path()), "t", kColumns); });
}

void SQLiteDataStoreCatalogueTest::connections() {
    step("copy and close shared connections");
    SQLiteDataStore first(String(file("shared.db")), "t", kColumns);
    SQLiteDataStore second(first.database(), "u", kColumns);
    SQLiteDataStore copy(first);
    String error;
    note(std::string("valid: ") + (second.checkValidity(error) ? "yes" : "no"));
    first.close();
    second.close();
    note(std::string("closed: ") + (copy.isClosed() ? "yes" : "no"));
    note(std::string("valid: ") + (second.checkValidity(error) ? "yes" : "no"));
    note("error: " + error.str());
    step("operations on a closed connection");
    noteThrow([&] { second.count("", ""); });
    noteThrow([&] { second.append(row({{"key", "k"}})); });
    step("validity of a deleted file and of an in-memory database");
    ::unlink(file("shared.db").c_str());
    note(std::string("valid: ") + (second.checkValidity(error) ? "yes" : "no"));
    note("error: " + error.str());
    SQLiteDataStore memory(String(":memory:"), "t", kColumns);
    note(std::string("valid: ") + (memory.checkValidity(error) ? "yes" : "no"));
    step("a moved-from store");
    SQLiteDataStore target(std::move(memory));
    noteThrow([&] { memory.count("", ""); });
    noteThrow([&] { memory.append(row({{"key", "k"}})); });
    noteThrow([&] { memory.remove("key", "k"); });
    noteThrow([&] { memory.dbFilePath(); });
    noteThrow([&] { memory.close(); });
    noteThrow([&] { memory.isClosed(); });
    noteThrow([&] { memory.checkValidity(error); });
    step("a moved-from store assigned again");
    memory = target;
    note("count: " + std::to_string(memory.count("", "")));
}

TEST_F(SQLiteDataStoreCatalogueTest, EveryStatementMessageAndSchema) {
    step("open a new file");
    SQLiteDataStore store(String(file("t.db")), "t", kColumns);
    step("a second table on the same connection, with a repeated name and a null type");
    SQLiteDataStoreColumnSpec const odd[] = {{"id", "INTEGER PRIMARY KEY"},
                                             {"Group", "TEXT"},
                                             {"id", "TEXT"},
                                             {"cut", nullptr},
                                             {"never", "TEXT"},
                                             {nullptr, nullptr}};
    SQLiteDataStore second(store.database(), "u", odd);
    step("a table from an ordered column table");
    OrderedHashTable<String, String> ordered;
    ordered.insert("b", "TEXT");
    ordered.insert("a", "INTEGER");
    SQLiteDataStore third(String(file("t.db")), "v", ordered);

    rowOperations(store);
    readsAndIds(store);
    openings();
    connections();

    step("SyncMode NORMAL, then OFF, then an unknown value");
    for (char const* mode : {"normal", "OFF", "2"}) {
        settings(std::string("SQLiteDataStore.SyncMode = ") + mode + "\n");
        SQLiteDataStore s(String(file("t.db")), "t", kColumns);
    }
    step("JournalMode WAL, TRUNCATE, PERSIST, DELETE, an unknown value, and an in-memory file");
    for (char const* mode : {"wal", "TRUNCATE", "Persist", "DELETE", "fast"}) {
        settings(std::string("SQLiteDataStore.JournalMode = ") + mode + "\n");
        SQLiteDataStore s(String(file(mode)), "t", kColumns);
    }
    settings("SQLiteDataStore.JournalMode = WAL\n");
    SQLiteDataStore inMemory(String(":memory:"), "t", kColumns);
    settings("");

    test::expectGolden("sqlitedatastore/statements.txt", m_catalogue.statements());
    test::expectGolden("sqlitedatastore/messages.txt", m_catalogue.messages());
    test::expectGolden("sqlitedatastore/schema.txt",
                       "## a new file with three tables\n" + test::schemaText(file("t.db"), {}) +
                           "## a file made by an older schema, upgraded\n" +
                           test::schemaText(file("older.db"), {"t"}));
}

}  // namespace
}  // namespace zrn
