#include <gtest/gtest.h>
#include <libDataStore/GeneralDataStore.h>

#include <set>
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

// Four logs with known creation times (seconds 1000, 2000, 3000, 4000).
class GetLogsTest : public GeneralDataStoreTest {
protected:
    GetLogsTest() {
        store.logOrUpdate(
            GenericLog("T1", "g1", "it's", "s", 0u, keyValues({{"k", "v"}, {"x", "1"}})));
        store.logOrUpdate(
            GenericLog("T1", "g2", "c", "s", 0u, keyValues({{"k", "v"}, {"x", "2"}})));
        store.logOrUpdate(GenericLog("T1", "g3", "c", "t", 0u, keyValues({{"k", "v%"}})));
        store.logOrUpdate(GenericLog("T2", "g1", "c", "s", 0u, LogKeyValueSet()));
        raw.exec("UPDATE GenericLog SET creationTimeStamp = rowid * 1000");
    }

    std::set<std::string> select(GenericLogFilter const& filter) {
        std::set<std::string> found;
        GenericLogList const logs = store.getLogs(filter);
        for (unsigned int i = 0; i < logs.size(); ++i) {
            found.insert(logs.get(i).typeUUID().str() + "/" + logs.get(i).guid().str());
        }
        return found;
    }

    GeneralDataStore store{String(path)};
    test::RawDb raw{path};
};

TEST_F(GetLogsTest, SelectsExactlyTheMatchingLogsWithAllTheirKeyValues) {
    EXPECT_EQ(select(GenericLogFilter()),
              (std::set<std::string>{"T1/g1", "T1/g2", "T1/g3", "T2/g1"}));
    GenericLogList const all = store.getLogs(GenericLogFilter());
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all.get(0).keyValues().size(), 2u);
    EXPECT_EQ(all.get(3).keyValues().size(), 0u);

    GenericLogFilter quoted;
    quoted.setCategoryFilter("it's", "");
    EXPECT_EQ(select(quoted), (std::set<std::string>{"T1/g1"}));

    GenericLogFilter both;
    both.addKeyValueRequirement("k", "v");
    both.addKeyValueRequirement("x", "2");
    EXPECT_EQ(select(both), (std::set<std::string>{"T1/g2"}));
    GenericLogFilter exact;
    exact.addKeyValueRequirement("k", "v%");  // no pattern matching either way
    EXPECT_EQ(select(exact), (std::set<std::string>{"T1/g3"}));

    GenericLogFilter range;
    range.setDateFilter(TimeStamp::fromUnixTimeStamp(2000), TimeStamp::fromUnixTimeStamp(3000));
    EXPECT_EQ(select(range), (std::set<std::string>{"T1/g2", "T1/g3"}));

    GenericLogFilter guid("", "g1");
    EXPECT_EQ(select(guid), (std::set<std::string>{"T1/g1", "T2/g1"}));

    GenericLogFilter limited("T1", "");
    limited.setResultLimit(1);
    EXPECT_EQ(store.getLogs(limited).size(), 1u);
    limited.setResultLimit(0);
    EXPECT_EQ(store.getLogs(limited).size(), 3u);
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
