#include <gtest/gtest.h>
#include <libDataStore/GeneralDataStore.h>

#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

// The statements, messages and schemas of the store are pinned by its catalogue
// (GeneralCatalogue_test.cpp); these are the values read back and the several processes it does
// not show.

namespace zrn {
namespace {

LogKeyValueSet keyValues(std::vector<std::pair<std::string, std::string>> const& pairs) {
    LogKeyValueSet set;
    for (auto const& p : pairs) set.append(LogKeyValue(p.first, p.second));
    return set;
}

class GeneralDataStoreTest : public ::testing::Test {
protected:
    test::TempDir dir;
    std::string path = dir.file("genstore.db");
};

TEST_F(GeneralDataStoreTest, ValuesRoundTripIntact) {
    GeneralDataStore store{String(path)};
    std::string const big(1024 * 1024, 'z');
    std::string const nonAscii = "Grüße, 日本語 — ✓";
    LogKeyValueSet kvs =
        keyValues({{"quote", "it's \"so\" ''"}, {nonAscii, nonAscii}, {"empty", ""}, {"big", big}});
    ASSERT_TRUE(store.logOrUpdate(GenericLog("O'Type", nonAscii, "it's", "", 0xFFFFFFFFu, kvs)));
    GenericLogList const logs = store.getLogs(GenericLogFilter("O'Type", nonAscii));
    ASSERT_EQ(logs.size(), 1u);
    GenericLog const& log = logs.get(0);
    EXPECT_EQ(log.category().str(), "it's");
    EXPECT_EQ(log.flags(), 0xFFFFFFFFu);
    ASSERT_EQ(log.keyValues().size(), 4u);
    String value;
    EXPECT_TRUE(log.keyValues().getKeyValue("quote", value));
    EXPECT_EQ(value.str(), "it's \"so\" ''");
    EXPECT_TRUE(log.keyValues().getKeyValue(nonAscii, value));
    EXPECT_EQ(value.str(), nonAscii);
    EXPECT_TRUE(log.keyValues().getKeyValue("empty", value));
    EXPECT_EQ(value.str(), "");
    EXPECT_TRUE(log.keyValues().getKeyValue("big", value));
    EXPECT_EQ(value.str(), big);
}

TEST_F(GeneralDataStoreTest, TwoProcessesLoggingOneLogEndWithTheUnionOfTheirKeyValues) {
    int const rounds = 50;
    int exitCodes[2] = {-1, -1};
    std::vector<std::thread> children;
    for (int c = 0; c < 2; ++c) {
        children.emplace_back([&, c] {
            exitCodes[c] =
                test::runProcess({CHILD_PATH, path, "T", c == 0 ? "p" : "q", c == 0 ? "q" : "p",
                                  std::to_string(rounds), dir.path()});
        });
    }
    for (auto& child : children) child.join();
    EXPECT_EQ(exitCodes[0], 0);
    EXPECT_EQ(exitCodes[1], 0);

    test::RawDb raw(path);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM GenericLog"), std::to_string(rounds + 1));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM KeyValues WHERE setID NOT IN "
                         "(SELECT rowid FROM GenericLog)"),
              "0");
    // Keys of one log, read through its rowid.
    auto keysOf = [&](std::string const& guid) {
        std::set<std::string> keys;
        for (auto const& row : raw.query("SELECT key FROM KeyValues WHERE setID = (SELECT rowid "
                                         "FROM GenericLog WHERE guid = '" +
                                         guid + "')")) {
            EXPECT_TRUE(keys.insert(row[0]).second) << "duplicate key " << row[0];
        }
        return keys;
    };
    std::set<std::string> expected = {"last"};
    for (int i = 0; i < rounds; ++i) {
        expected.insert("p" + std::to_string(i));
        expected.insert("q" + std::to_string(i));
    }
    EXPECT_EQ(keysOf("G"), expected);
    for (int r = 0; r < rounds; ++r) {
        EXPECT_EQ(keysOf("R" + std::to_string(r)), (std::set<std::string>{"px", "qx", "shared"}))
            << "round " << r;
    }
    GeneralDataStore store{String(path)};
    GenericLogList const logs = store.getLogs(GenericLogFilter("T", "G"));
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs.get(0).keyValues().size(), expected.size());
}

}  // namespace
}  // namespace zrn
