// ReadOnlyEventDataStore: opens existing files only, never writes, shares its connection.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>

#include <string>
#include <utility>

#include "TestSupport.h"

namespace zrn {
namespace {

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
    {
        ReadOnlyEventDataStore view{String(m_path)};
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

    // Only the writer changed the file; after that, lookups leave its bytes alone.
    std::string const written = test::readFile(m_path);
    EXPECT_NE(written, before);
    {
        ReadOnlyEventDataStore view{String(m_path)};
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(view.alertExistsWithKeyVals("with'kv ✓"));
    }
    EXPECT_EQ(test::readFile(m_path), written);
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
