#include <gtest/gtest.h>
#include <libDataStore/SQLiteDataStore.h>

#include "TestSupport.h"

// The statements, messages and schemas of the table layer are pinned by its catalogue
// (SQLiteDataStoreCatalogue_test.cpp); this is the file content it does not show.

namespace zrn {
namespace {

SQLiteDataStoreColumnSpec const kColumns[] = {
    {"setID", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}, {nullptr, nullptr}};

HashTable<String, String> row(std::initializer_list<std::pair<char const*, char const*>> cells) {
    HashTable<String, String> result;
    for (auto const& cell : cells) result.insert(cell.first, cell.second);
    return result;
}

class SQLiteDataStoreTest : public testing::Test {
protected:
    test::TempDir m_dir;
    std::string m_path = m_dir.file("t.db");
    // No settings file: every connection is opened at the default FULL level.
    test::ScopedEnv m_settings{"ZRN_SETTINGS_FILE", m_dir.file("none.ini").c_str()};
};

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

}  // namespace
}  // namespace zrn
