#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/GeneralDataStore.h>

#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "SqlTrace.h"
#include "TestSupport.h"

namespace zrn {
namespace {

char const kLogger[] = "libDataStore.GeneralDataStore";
char const kTableLogger[] = "libDataStore.SQLiteDataStore";

LogKeyValueSet keyValues(std::vector<std::pair<std::string, std::string>> const& pairs) {
    LogKeyValueSet set;
    for (auto const& p : pairs) set.append(LogKeyValue(p.first, p.second));
    return set;
}

long long now() { return static_cast<long long>(std::time(nullptr)); }

class GeneralDataStoreTest : public ::testing::Test {
protected:
    test::TempDir dir;
    std::string path = dir.file("genstore.db");
};

TEST_F(GeneralDataStoreTest, NewFileGetsItsSchemaOnceAndAnExistingOneOnlyItsVersion) {
    {
        test::SqlTrace trace;
        GeneralDataStore store{String(path)};
        ASSERT_TRUE(store.isInitialized());
        EXPECT_EQ(store.getVersion(), 1);
        EXPECT_EQ(store.getDBFilePath().str(), path);
        String error;
        EXPECT_TRUE(store.checkValidity(error));
        EXPECT_TRUE(trace.contains("INSERT OR IGNORE INTO `Version` (`version`) values ('1')"));
    }
    test::RawDb raw(path);
    auto const schema = raw.query("SELECT type, name, sql FROM sqlite_master ORDER BY rowid");
    std::vector<std::vector<std::string>> const expected = {
        {"table", "Version", "CREATE TABLE `Version` (`version` INTEGER PRIMARY KEY)"},
        {"table", "GenericLog",
         "CREATE TABLE `GenericLog` (`typeUUID` TEXT,`guid` TEXT,`category` TEXT,`subCategory` "
         "TEXT,`creationTimeStamp` INTEGER,`updateTimeStamp` INTEGER,`tracked` INTEGER,`flags` "
         "INTEGER)"},
        {"table", "KeyValues",
         "CREATE TABLE `KeyValues` (`setID` INTEGER,`key` TEXT,`value` TEXT,`tracked` "
         "INTEGER,`updateTimeStamp` INTEGER)"},
        {"index", "keyValueSet_uniqueIDs",
         "CREATE UNIQUE INDEX keyValueSet_uniqueIDs on `GenericLog` (`typeUUID`, `guid`)"},
        {"index", "keyValues_uniqueIDs",
         "CREATE UNIQUE INDEX keyValues_uniqueIDs on `KeyValues` (`setID`, `key`)"},
        {"view", "kv_by_unique_id",
         "CREATE VIEW kv_by_unique_id AS SELECT kv_set.`typeUUID`, kv_set.`guid`, kv.`key`, "
         "kv.`value` from `GenericLog` kv_set JOIN `KeyValues` kv ON kv_set.rowId = kv.`setID`"},
    };
    EXPECT_EQ(schema, expected);
    EXPECT_EQ(raw.query("SELECT version FROM Version"), test::RawDb::Rows{{"1"}});

    // An existing file: the version is set to 1 again, nothing is created.
    raw.exec("UPDATE Version SET version=7; DROP INDEX keyValues_uniqueIDs;");
    {
        test::SqlTrace trace;
        GeneralDataStore store{String(path)};
        EXPECT_TRUE(store.isInitialized());
        EXPECT_TRUE(trace.contains("UPDATE `Version` SET `version` = '1'"));
        EXPECT_TRUE(trace.startingWith("CREATE").empty());
        EXPECT_EQ(store.getVersion(), 1);
        raw.exec("DELETE FROM Version");
        EXPECT_EQ(store.getVersion(), -1);
    }
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM sqlite_master WHERE name='keyValues_uniqueIDs'"),
              "0");

    // An emptied Version table makes the file look new, and the indexes that exist refuse to
    // be made again: the opening fails and says why.
    test::LogCapture log(4);
    GeneralDataStore again{String(path)};
    EXPECT_FALSE(again.isInitialized());
    auto const failed = log.messagesStartingWith(kLogger, "536 createDataStores(): ");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_NE(failed[0].find("already exists"), std::string::npos) << failed[0];
}

TEST_F(GeneralDataStoreTest, LogOrUpdateMergesKeyValuesRewritingOnlyWhatChanged) {
    GeneralDataStore store{String(path)};
    test::RawDb raw(path);

    long long const t0 = now();
    GenericLog first("T", "G", "cat", "sub", 1u, keyValues({{"a", "1"}, {"b", "2"}}));
    ASSERT_TRUE(store.logOrUpdate(first));
    long long const t1 = now();
    auto const logRow = raw.query(
        "SELECT rowid,typeUUID,guid,category,subCategory,creationTimeStamp,tracked,flags,"
        "updateTimeStamp FROM GenericLog");
    ASSERT_EQ(logRow.size(), 1u);
    EXPECT_EQ(std::vector<std::string>(logRow[0].begin(), logRow[0].end() - 1),
              (std::vector<std::string>{
                  "1", "T", "G", "cat", "sub",
                  std::to_string(first.creationUTCTimeStamp().getUnixTimeStamp()), "0", "1"}));
    std::string const written = logRow[0].back();
    EXPECT_GE(std::stoll(written), t0);
    EXPECT_LE(std::stoll(written), t1);
    EXPECT_EQ(
        raw.query("SELECT setID,key,value,tracked,updateTimeStamp FROM KeyValues ORDER BY key"),
        (test::RawDb::Rows{{"1", "a", "1", "0", written}, {"1", "b", "2", "0", written}}));

    // Old times make every rewrite visible.
    raw.exec(
        "UPDATE GenericLog SET creationTimeStamp=500, updateTimeStamp=600;"
        "UPDATE KeyValues SET updateTimeStamp=1000;");
    GenericLog second("T", "G", "cat2", "sub2", 2u,
                      keyValues({{"a", "1"}, {"b", "3"}, {"c", "4"}}));
    second.setTracked(false);
    long long const t2 = now();
    ASSERT_TRUE(store.logOrUpdate(second));
    EXPECT_EQ(raw.query("SELECT rowid,typeUUID,guid,category,subCategory,creationTimeStamp,tracked,"
                        "flags FROM GenericLog"),
              (test::RawDb::Rows{{"1", "T", "G", "cat2", "sub2", "500", "1", "2"}}));
    EXPECT_GE(std::stoll(raw.scalar("SELECT updateTimeStamp FROM GenericLog")), t2);
    auto kv = raw.query("SELECT key,value,tracked,updateTimeStamp FROM KeyValues ORDER BY key");
    ASSERT_EQ(kv.size(), 3u);
    EXPECT_EQ(kv[0], (std::vector<std::string>{"a", "1", "0", "1000"}));
    EXPECT_EQ(std::vector<std::string>(kv[1].begin(), kv[1].end() - 1),
              (std::vector<std::string>{"b", "3", "0"}));
    EXPECT_EQ(std::vector<std::string>(kv[2].begin(), kv[2].end() - 1),
              (std::vector<std::string>{"c", "4", "0"}));
    EXPECT_GE(std::stoll(kv[1][3]), t2);
    EXPECT_EQ(kv[1][3], kv[2][3]);

    // Fewer key/values: nothing is deleted and nothing about the key/values is written.
    test::LogCapture log;
    ASSERT_TRUE(store.logOrUpdate(GenericLog("T", "G", "cat3", "", 3u, keyValues({{"a", "1"}}))));
    EXPECT_EQ(
        log.messagesStartingWith(kTableLogger, "250 Update SQL Command: UPDATE `KeyValues`").size(),
        0u);
    EXPECT_EQ(log.messagesStartingWith(kTableLogger,
                                       "227 Append SQL Command: INSERT OR REPLACE INTO `KeyValues`")
                  .size(),
              0u);
    EXPECT_EQ(
        log.messagesStartingWith(kTableLogger, "250 Update SQL Command: UPDATE `GenericLog` SET ")
            .size(),
        1u);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM KeyValues"), "3");
    EXPECT_EQ(raw.scalar("SELECT updateTimeStamp FROM KeyValues WHERE key='a'"), "1000");

    // A changed tracked mark alone rewrites the key/value.
    LogKeyValueSet tracked = keyValues({{"a", "1"}});
    tracked.get(0).setTracked();
    ASSERT_TRUE(store.logOrUpdate(GenericLog("T", "G", "cat3", "", 3u, tracked)));
    EXPECT_EQ(raw.scalar("SELECT tracked FROM KeyValues WHERE key='a'"), "1");
    EXPECT_NE(raw.scalar("SELECT updateTimeStamp FROM KeyValues WHERE key='a'"), "1000");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM GenericLog"), "1");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM KeyValues"), "3");
}

TEST_F(GeneralDataStoreTest, LogOrUpdateRunsInOneTransactionAndRollsBackAFailure) {
    test::SqlTrace trace;
    GeneralDataStore store{String(path)};
    test::RawDb raw(path);
    trace.clear();
    ASSERT_TRUE(store.logOrUpdate(GenericLog("T", "G", "", "", 0u, keyValues({{"k", "v"}}))));
    std::vector<std::string> const statements = trace.statements();
    ASSERT_EQ(statements.size(), 7u);
    EXPECT_EQ(statements[0],
              "SELECT rowid from `GenericLog` WHERE `typeUUID` = 'T' AND `guid` = 'G'");
    EXPECT_EQ(statements[1], "BEGIN");
    EXPECT_EQ(statements[2].rfind("INSERT OR REPLACE INTO `GenericLog` (", 0), 0u);
    EXPECT_EQ(statements[3], statements[0]);
    EXPECT_EQ(statements[4], "SELECT rowid, * FROM `KeyValues` WHERE `setID`='1'");
    EXPECT_EQ(statements[5].rfind("INSERT OR REPLACE INTO `KeyValues` (", 0), 0u);
    EXPECT_EQ(statements[6], "COMMIT");

    // A key/value that SQLite refuses in the middle of the transaction: all of it is undone.
    raw.exec(
        "CREATE TRIGGER refuse BEFORE INSERT ON KeyValues WHEN NEW.value = 'boom' "
        "BEGIN SELECT RAISE(ABORT, 'boom refused'); END;");
    test::LogCapture log;
    trace.clear();
    EXPECT_FALSE(store.logOrUpdate(
        GenericLog("T", "new", "", "", 0u, keyValues({{"a", "1"}, {"b", "boom"}}))));
    auto const failed = log.messagesStartingWith(kLogger, "651 ");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_NE(failed[0].find("boom refused"), std::string::npos) << failed[0];
    EXPECT_EQ(trace.statements().back(), "ROLLBACK");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM GenericLog WHERE guid='new'"), "0");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM KeyValues"), "1");

    // The store is not left inside a transaction: the next call goes through.
    EXPECT_TRUE(store.logOrUpdate(GenericLog("T", "new", "", "", 0u, keyValues({{"a", "1"}}))));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM KeyValues"), "2");
}

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

    test::SqlTrace trace;  // made before the store, so that its connection is traced
    GeneralDataStore store{String(path)};
    test::RawDb raw{path};
};

TEST_F(GetLogsTest, ComposesTheStatementFromEveryFilterField) {
    GenericLogFilter example("T", "");
    example.setDateFilter(TimeStamp::fromUnixTimeStamp(1588000000), TimeStamp());
    example.addKeyValueRequirement("k", "v");
    example.setResultLimit(10);
    GenericLogFilter everything("T1", "g'1");
    everything.setCategoryFilter("it's", "s");
    everything.setDateFilter(TimeStamp::fromUnixTimeStamp(0), TimeStamp::fromUnixTimeStamp(5000));
    everything.addKeyValueRequirement("", "ignored");
    everything.addKeyValueRequirement("k", "v");
    everything.addKeyValueRequirement("k", "second on the same key: ignored");
    everything.addKeyValueRequirement("x", "1");
    GenericLogFilter upperOnly;
    upperOnly.setDateFilter(TimeStamp(), TimeStamp::fromUnixTimeStamp(2500));

    struct Case {
        GenericLogFilter filter;
        std::string statement;
    };
    std::string const head = "SELECT kv_set.rowid, * FROM `GenericLog` kv_set\n";
    std::vector<Case> const cases = {
        {GenericLogFilter(), head},
        {example,
         head + " WHERE `typeUUID` = 'T'\n AND `creationTimeStamp` >= 1588000000\n AND "
                "kv_set.rowID IN (SELECT kv.`setID` FROM `KeyValues` kv WHERE kv.`key` = 'k' AND "
                "kv.`value` = 'v') LIMIT 10"},
        {everything,
         head +
             " WHERE `typeUUID` = 'T1'\n AND `guid` = 'g''1'\n AND `category` = 'it''s'\n AND "
             "`subCategory` = 's'\n AND `creationTimeStamp` >= 0\n AND `creationTimeStamp` <= "
             "5000\n AND kv_set.rowID IN (SELECT kv.`setID` FROM `KeyValues` kv WHERE kv.`key` = "
             "'k' AND kv.`value` = 'v')\n AND kv_set.rowID IN (SELECT kv.`setID` FROM "
             "`KeyValues` kv WHERE kv.`key` = 'x' AND kv.`value` = '1')"},
        {upperOnly, head + " WHERE `creationTimeStamp` <= 2500"},
    };
    for (Case const& c : cases) {
        trace.clear();
        store.getLogs(c.filter);
        auto const run = trace.startingWith("SELECT kv_set.rowid");
        ASSERT_EQ(run.size(), 1u) << c.statement;
        EXPECT_EQ(run[0], c.statement);
    }

    // One key/value query per returned log, by its rowid as a quoted value.
    trace.clear();
    GenericLogList const one = store.getLogs(GenericLogFilter("T1", "g2"));
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(trace.startingWith("SELECT * from"),
              std::vector<std::string>{"SELECT * from `KeyValues` WHERE `setID` = '2'"});
}

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

// Every operation of a store that could not be opened fails softly.
void expectUninitialized(GeneralDataStore& store, test::LogCapture& log) {
    EXPECT_FALSE(store.isInitialized());
    log.clear();
    EXPECT_FALSE(store.logOrUpdate(GenericLog("T", "G", "", "", 0u, LogKeyValueSet())));
    EXPECT_EQ(store.getLogs(GenericLogFilter()).size(), 0u);
    EXPECT_TRUE(log.messages(kLogger).empty());
    EXPECT_EQ(store.getVersion(), -1);
    String error;
    EXPECT_FALSE(store.checkValidity(error));
    EXPECT_EQ(error.str().rfind("m_versionDataStore: ", 0), 0u) << error;
    store.close();
}

TEST_F(GeneralDataStoreTest, UnopenableFilesLeaveAnUninitializedStore) {
    test::writeFile(path, std::string(4096, 'G'));
    std::vector<std::string> const paths = {path, dir.file("missing/folder/genstore.db")};
    for (auto const& p : paths) {
        SCOPED_TRACE(p);
        test::LogCapture log;
        GeneralDataStore store{String(p)};
        auto const failed = log.messagesStartingWith(kLogger, "536 createDataStores(): ");
        ASSERT_EQ(failed.size(), 1u);
        EXPECT_NE(failed[0].find(p), std::string::npos) << failed[0];
        expectUninitialized(store, log);
    }
    EXPECT_EQ(test::readFile(path), std::string(4096, 'G'));
}

TEST_F(GeneralDataStoreTest, ClosedStoreFailsSoftlyAndTracesItsLifetime) {
    test::LogCapture log;
    std::string address;
    {
        GeneralDataStore store{String(path)};
        auto const made =
            log.messagesStartingWith(kLogger, "532 GeneralDataStore(" + path + ") this: 0x");
        ASSERT_EQ(made.size(), 1u);
        address = made[0].substr(made[0].find("this: ") + 6);
        ASSERT_TRUE(store.logOrUpdate(GenericLog("T", "G", "", "", 0u, LogKeyValueSet())));
        store.close();
        store.close();
        EXPECT_TRUE(store.isInitialized());
        log.clear();
        EXPECT_FALSE(store.logOrUpdate(GenericLog("T", "G", "", "", 0u, LogKeyValueSet())));
        EXPECT_EQ(store.getLogs(GenericLogFilter()).size(), 0u);
        auto const messages = log.messages(kLogger);
        ASSERT_EQ(messages.size(), 2u);
        EXPECT_EQ(messages[0].rfind("651 ", 0), 0u) << messages[0];
        EXPECT_EQ(messages[1].rfind("717 getLogs(): ", 0), 0u) << messages[1];
        String error;
        EXPECT_FALSE(store.checkValidity(error));
        EXPECT_EQ(error.str(), "m_versionDataStore: Database is not open");
        EXPECT_THROW(store.getVersion(), DatabaseError);
    }
    EXPECT_EQ(log.messages(kLogger).back(), "541 ~GeneralDataStore() this: " + address);
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
