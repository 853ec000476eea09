#include <libDataStore/SQLiteDataStore.h>

#include <libDataStore/DataStoreExceptions.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace zrn {
namespace {

SQLiteDataStoreColumnSpec const kColumns[] = {
    {"setID", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}, {nullptr, nullptr}};

TEST(SQLiteDataStoreTest, CreatesTableWithExactStatement) {
    test::TempDir dir;
    test::LogCapture log;
    SQLiteDataStore store(String(dir.file("t.db")), "t", kColumns);
    test::RawDb raw(dir.file("t.db"));
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE name='t'"),
              "CREATE TABLE `t` (`setID` INTEGER,`key` TEXT,`value` TEXT)");
}

}  // namespace
}  // namespace zrn
