// ReadOnlyEventDataStore: opens existing files only, never writes, shares its connection.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <utility>

#include "TestSupport.h"

namespace zrn {
namespace {

using Rows = test::RawDb::Rows;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

class ReadOnlyEventDataStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        EventDataStore store{String(m_path)};
        ASSERT_TRUE(store.logAlerts(
            {EventDataStore::AlertData{
                 1, "with'kv ✓", "k", "t", "ti", "m", "d", at(1), {}, {{"a", "b"}}},
             EventDataStore::AlertData{1, "plain", "k", "t", "ti", "m", "d", at(2), {}, {}}}));
    }

    test::TempDir m_dir;
    std::string const m_path = m_dir.file("event.db");
};

TEST_F(ReadOnlyEventDataStoreTest, AnswersWithoutEverChangingTheFile) {
    std::string const before = test::readFile(m_path);
    test::LogCapture log;
    std::ostringstream address;
    {
        ReadOnlyEventDataStore view{String(m_path)};
        address << static_cast<void const*>(&view);
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(view.alertExists("with'kv ✓"));
            EXPECT_TRUE(view.alertExistsWithKeyVals("with'kv ✓"));
            EXPECT_TRUE(view.alertExists("plain"));
            EXPECT_FALSE(view.alertExistsWithKeyVals("plain"));
            EXPECT_FALSE(view.alertExists("with''kv ✓"));
            EXPECT_FALSE(view.alertExists("missing"));
        }
        // Rows another store adds later are seen at the next question.
        EventDataStore writer{String(m_path)};
        EXPECT_TRUE(writer.logAlert(
            EventDataStore::AlertData{1, "later", "k", "t", "ti", "m", "d", at(3), {}, {}}));
        EXPECT_TRUE(view.alertExists("later"));
    }
    EXPECT_EQ(log.messagesStartingWith("libDataStore.EventDataStore", "2783 ").at(0),
              "2783 ReadOnlyEventDataStore(" + m_path + ") this: " + address.str());

    // Only the writer changed the file; after that, lookups leave its bytes alone.
    std::string const written = test::readFile(m_path);
    EXPECT_NE(written, before);
    {
        ReadOnlyEventDataStore view{String(m_path)};
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(view.alertExistsWithKeyVals("with'kv ✓"));
    }
    EXPECT_EQ(test::readFile(m_path), written);
}

TEST_F(ReadOnlyEventDataStoreTest, NeverCreatesUpgradesOrAddsTables) {
    std::string const missing = m_dir.file("missing.db");
    EXPECT_THROW(ReadOnlyEventDataStore{String(missing)}, DatabaseError);
    EXPECT_FALSE(std::filesystem::exists(missing));

    std::string const old = m_dir.file("old.db");
    {
        test::RawDb raw(old);
        raw.exec(
            "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"
            "INSERT INTO Versioning VALUES(2);"
            "CREATE TABLE `Alerts` (`guid` TEXT, `tracked` INTEGER);"
            "INSERT INTO Alerts VALUES('g', 0);");
    }
    std::string const before = test::readFile(old);
    ReadOnlyEventDataStore view{String(old)};
    EXPECT_TRUE(view.alertExists("g"));
    // No AlertKeyValues table in this file, and none is made: the lookup fails.
    EXPECT_THROW(view.alertExistsWithKeyVals("g"), DatabaseError);
    EXPECT_EQ(test::readFile(old), before);
    test::RawDb raw(old);
    EXPECT_EQ(raw.query("SELECT name FROM sqlite_master ORDER BY rowid"),
              (Rows{{"Versioning"}, {"Alerts"}}));
    EXPECT_EQ(raw.query("SELECT version FROM Versioning"), (Rows{{"2"}}));

    std::string const text = m_dir.file("text.db");
    test::writeFile(text, "plain text, not a database\n");
    EXPECT_THROW(ReadOnlyEventDataStore{String(text)}, DatabaseError);
}

TEST_F(ReadOnlyEventDataStoreTest, CopiesShareOneConnectionAndMovedFromViewsAnswerFalse) {
    auto original = std::make_unique<ReadOnlyEventDataStore>(String(m_path));
    ReadOnlyEventDataStore copy(*original);
    ReadOnlyEventDataStore assigned{String(m_dir.file("event.db"))};
    assigned = copy;
    original.reset();
    EXPECT_TRUE(copy.alertExists("plain"));
    EXPECT_TRUE(assigned.alertExistsWithKeyVals("with'kv ✓"));

    ReadOnlyEventDataStore moved(std::move(copy));
    EXPECT_TRUE(moved.alertExists("plain"));
    // The source of a move has no connection left: it answers false, touching nothing.
    EXPECT_FALSE(copy.alertExists("plain"));                 // NOLINT: use after move is the point
    EXPECT_FALSE(copy.alertExistsWithKeyVals("with'kv ✓"));  // NOLINT
}

}  // namespace
}  // namespace zrn
