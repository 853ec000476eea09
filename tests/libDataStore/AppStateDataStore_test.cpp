#include <gtest/gtest.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/DataStoreSettings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "SqlTrace.h"
#include "TestSupport.h"

namespace zrn {
namespace {

char const kLogger[] = "libDataStore.AppStateDataStore";

TEST(AppStateDataStoreTest, CreatesTableAndUniqueIndexAndKeepsValuesIntact) {
    test::TempDir dir;
    std::string const path = dir.file("appstate.db");
    std::string const big(1024 * 1024, 'x');
    std::string const nonAscii = "Grüße, 日本語 — ✓";
    {
        AppStateDataStore store{String(path)};
        EXPECT_TRUE(store.insert("O'Brien", "it's \"quoted\" ''", "g'1"));
        EXPECT_TRUE(store.insert(nonAscii, nonAscii, nonAscii));
        EXPECT_TRUE(store.insert("empty", "", ""));
        EXPECT_TRUE(store.insert("big", big, "g"));

        EXPECT_EQ(store.data("O'Brien").str(), "it's \"quoted\" ''");
        EXPECT_EQ(store.group("O'Brien").str(), "g'1");
        EXPECT_EQ(store.data(nonAscii).str(), nonAscii);
        EXPECT_EQ(store.group(nonAscii).str(), nonAscii);
        EXPECT_TRUE(store.contains("empty"));
        EXPECT_EQ(store.data("empty").str(), "");
        EXPECT_EQ(store.data("big").str(), big);
    }

    test::RawDb raw(path);
    EXPECT_EQ(
        raw.scalar("SELECT sql FROM sqlite_master WHERE name='AppState'"),
        "CREATE TABLE `AppState` (`key` TEXT,`data` TEXT,`filterGroup` TEXT,`dateTime` TEXT)");
    EXPECT_EQ(raw.scalar("SELECT sql FROM sqlite_master WHERE type='index'"),
              "CREATE UNIQUE INDEX 'AppState-key' ON `AppState` (`key`)");
    EXPECT_EQ(raw.scalar("SELECT name FROM sqlite_master WHERE type='index'"), "AppState-key");
    EXPECT_EQ(raw.scalar("SELECT data FROM AppState WHERE key='O''Brien'"), "it's \"quoted\" ''");
    EXPECT_EQ(raw.scalar("SELECT length(data) FROM AppState WHERE key='big'"), "1048576");
    EXPECT_EQ(raw.scalar("SELECT data FROM AppState WHERE key='" + nonAscii + "'"), nonAscii);
}

TEST(AppStateDataStoreTest, DuplicateKeyIsRefusedWithTheConstraintMessageAndKeepsTheFirstValue) {
    test::TempDir dir;
    std::string const path = dir.file("appstate.db");
    AppStateDataStore store{String(path)};
    ASSERT_TRUE(store.insert("k", "first", "g1"));

    test::LogCapture log;
    EXPECT_FALSE(store.insert("k", "second", "g2"));
    EXPECT_EQ(store.data("k").str(), "first");
    EXPECT_EQ(store.group("k").str(), "g1");
    auto const refused = log.messagesStartingWith(kLogger, "158 Failure attempting to insert: ");
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_NE(refused[0].find("UNIQUE constraint failed: AppState.key"), std::string::npos)
        << refused[0];
    EXPECT_EQ(log.messages(kLogger).size(), 1u);

    // An index dropped behind the store's back still does not let a duplicate in.
    test::RawDb raw(path);
    raw.exec("DROP INDEX 'AppState-key'");
    EXPECT_FALSE(store.insert("k", "third", "g3"));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM AppState WHERE key='k'"), "1");
    EXPECT_EQ(raw.scalar("SELECT data FROM AppState WHERE key='k'"), "first");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM sqlite_master WHERE name='AppState-key'"), "1");

    // An index of that name made by another program without UNIQUE: still nothing is written.
    raw.exec("DROP INDEX 'AppState-key'; CREATE INDEX 'AppState-key' ON AppState (key)");
    log.clear();
    EXPECT_FALSE(store.insert("k", "fifth", "g5"));
    EXPECT_EQ(raw.scalar("SELECT group_concat(data) FROM AppState WHERE key='k'"), "first");
    EXPECT_EQ(log.messagesStartingWith(kLogger, "158 Failure attempting to insert: ").size(), 1u);
    raw.exec("DROP INDEX 'AppState-key'");
    EXPECT_FALSE(store.insert("k", "sixth", "g6"));  // and the unique one is made again

    // After a removal the key can be used again.
    EXPECT_TRUE(store.remove("k"));
    EXPECT_TRUE(store.insert("k", "fourth", "g4"));
    EXPECT_EQ(store.data("k").str(), "fourth");
}

TEST(AppStateDataStoreTest, AFailedOpeningLeavesNoTableWithoutItsIndex) {
    test::TempDir dir;
    std::string const path = dir.file("appstate.db");
    {
        test::RawDb raw(path);  // a table holding the index's name makes the index fail
        raw.exec("CREATE TABLE `AppState-key` (x)");
    }
    test::LogCapture log;
    AppStateDataStore store{String(path)};
    EXPECT_EQ(log.messagesStartingWith(kLogger, "122 ").size(), 1u);
    test::RawDb raw(path, true);
    EXPECT_EQ(raw.query("SELECT name FROM sqlite_master"), (test::RawDb::Rows{{"AppState-key"}}));
}

TEST(AppStateDataStoreTest, MissingKeysGiveEmptyAnswersWithoutLogging) {
    test::TempDir dir;
    AppStateDataStore store{String(dir.file("appstate.db"))};
    test::LogCapture log;
    EXPECT_EQ(store.data("nope").str(), "");
    EXPECT_EQ(store.group("nope").str(), "");
    EXPECT_FALSE(store.entryTime("nope"));
    EXPECT_FALSE(store.contains("nope"));
    EXPECT_TRUE(store.remove("nope"));
    EXPECT_TRUE(log.messages(kLogger).empty());
}

TEST(AppStateDataStoreTest, CountsAndListsItemsByExactGroup) {
    test::TempDir dir;
    test::SqlTrace trace;  // before the connection opens
    AppStateDataStore store{String(dir.file("appstate.db"))};
    store.insert("a", "1", "g");
    store.insert("b", "2", "g");
    store.insert("c", "3", "it's");
    store.insert("d", "4", "");
    store.insert("e", "5", "G");

    EXPECT_EQ(store.count(""), 5);
    EXPECT_EQ(store.count("g"), 2);
    EXPECT_EQ(store.count("it's"), 1);
    EXPECT_EQ(store.count("none"), 0);

    std::map<String, String> const quoted = store.getItems("it's");
    EXPECT_TRUE(
        trace.contains("SELECT `key`,`data` FROM `AppState` WHERE `filterGroup` = 'it''s'"));
    EXPECT_EQ(quoted, (std::map<String, String>{{"c", "3"}}));
    EXPECT_EQ(store.getItems("g"), (std::map<String, String>{{"a", "1"}, {"b", "2"}}));
    std::map<String, String> const all = store.getItems("");
    EXPECT_TRUE(trace.contains("SELECT `key`,`data` FROM `AppState`"));
    EXPECT_EQ(all.size(), 5u);
    EXPECT_EQ(all.at("d"), "4");
}

TEST(AppStateDataStoreTest, EntryTimeIsUnixSecondsOfTheStoredLocalTimeInNanoseconds) {
    test::ScopedEnv tz("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    test::TempDir dir;
    std::string const path = dir.file("appstate.db");
    AppStateDataStore store{String(path)};

    long long const before = std::time(nullptr);
    ASSERT_TRUE(store.insert("now", "v", ""));
    long long const after = std::time(nullptr);
    auto const now = store.entryTime("now");
    ASSERT_TRUE(now);
    long long const ns = now->time_since_epoch().count();
    EXPECT_EQ(ns % 1000000000LL, 0);
    EXPECT_GE(ns / 1000000000LL, before);
    EXPECT_LE(ns / 1000000000LL, after);

    // 2020-05-06 10:00:00 in Central European Summer Time is 08:00:00 UTC.
    ASSERT_TRUE(store.insert("fixed", "v", ""));
    test::RawDb raw(path);
    raw.exec("UPDATE AppState SET dateTime='2020-05-06T10:00:00+02:00' WHERE key='fixed'");
    EXPECT_EQ(store.entryTime("fixed")->time_since_epoch().count(), 1588752000LL * 1000000000LL);
    raw.exec("UPDATE AppState SET dateTime='2020-05-06 10:00:00' WHERE key='fixed'");
    EXPECT_EQ(store.entryTime("fixed")->time_since_epoch().count(), 1588752000LL * 1000000000LL);
}

TEST(AppStateDataStoreTest, AfterCloseEveryOperationReturnsItsFailureValueAndLogs) {
    test::TempDir dir;
    AppStateDataStore store{String(dir.file("appstate.db"))};
    ASSERT_TRUE(store.insert("k", "v", "g"));
    AppStateDataStore copy(store);
    ASSERT_TRUE(store.close());
    EXPECT_TRUE(copy.isClosed());

    test::LogCapture log;
    String error;
    EXPECT_FALSE(copy.insert("k2", "v", "g"));
    EXPECT_EQ(copy.data("k").str(), "");
    EXPECT_FALSE(copy.contains("k"));
    EXPECT_FALSE(copy.remove("k"));
    EXPECT_FALSE(copy.entryTime("k"));
    EXPECT_EQ(copy.group("k").str(), "");
    EXPECT_EQ(copy.count("g"), 0);
    EXPECT_TRUE(copy.getItems("g").empty());
    EXPECT_FALSE(copy.checkValidity(error));
    EXPECT_EQ(error.str(), "Database is not open");
    EXPECT_TRUE(copy.close());  // closing again is harmless

    std::vector<std::string> const expected = {
        "158 Failure attempting to insert: ",
        "176 General failure looking up data for key: k",
        "186 General failure looking up key: k",
        "198 General failure attempting to remove key: k",
        "238 General failure attempting to get entryTime for key: k",
        "252 General failure attempting to get group for key: k",
        "267 General failure attempting to get count for group: g",
        "300 General failure attempting to get items for group: g",
    };
    auto const messages = log.messages(kLogger);
    ASSERT_EQ(messages.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(messages[i].compare(0, expected[i].size(), expected[i]), 0) << messages[i];
    }
    EXPECT_NE(messages[0].find("closed"), std::string::npos) << messages[0];
    for (auto const& e : log.entries()) {
        if (e.logger == kLogger) {
            EXPECT_EQ(e.priority, 4) << e.message;
        }
    }
}

// A store that could not be opened holds no table: nothing crashes, everything fails softly.
void expectUnopened(AppStateDataStore& store, test::LogCapture& log) {
    String error;
    EXPECT_FALSE(store.insert("k", "v", "g"));
    EXPECT_EQ(store.data("k").str(), "");
    EXPECT_FALSE(store.contains("k"));
    EXPECT_FALSE(store.remove("k"));
    EXPECT_FALSE(store.entryTime("k"));
    EXPECT_EQ(store.count(""), 0);
    EXPECT_TRUE(store.getItems("").empty());
    EXPECT_FALSE(store.isClosed());
    EXPECT_FALSE(store.checkValidity(error));
    EXPECT_FALSE(store.close());
    EXPECT_EQ(
        log.messagesStartingWith(kLogger, "220 General failure attempting check isClosed").size(),
        1u);
    EXPECT_EQ(log.messagesStartingWith(kLogger, "310 General failure attempting to check validity")
                  .size(),
              1u);
    EXPECT_EQ(log.messagesStartingWith(kLogger, "210 General failure attempting to close").size(),
              1u);
}

TEST(AppStateDataStoreTest, UnopenableFilesLeaveAStoreThatFailsSoftly) {
    test::TempDir dir;
    std::string const garbage = dir.file("appstate.db");
    test::writeFile(garbage, std::string(4096, 'G'));
    std::vector<std::string> paths = {garbage, dir.file("missing/folder/appstate.db")};
    if (::geteuid() != 0) {  // permissions do not stop root
        ::mkdir(dir.file("ro").c_str(), 0555);
        paths.push_back(dir.file("ro/appstate.db"));
    }
    for (auto const& path : paths) {
        SCOPED_TRACE(path);
        test::LogCapture log;
        std::shared_ptr<AppStateDataStore> store = AppStateDataStore::create(String(path));
        ASSERT_TRUE(store);
        std::string const head = "122 Failure creating AppStateDataStore at path: '" + path + "': ";
        auto const opened = log.messagesStartingWith(kLogger, head);
        ASSERT_EQ(opened.size(), 1u);
        EXPECT_GT(opened[0].size(), head.size());
        expectUnopened(*store, log);
    }
    EXPECT_EQ(test::readFile(garbage), std::string(4096, 'G'));
}

TEST(AppStateDataStoreTest, DefaultLocationComesFromTheSettings) {
    test::TempDir dir;
    DataStoreSettings::setAppStateDataStorePath(String(dir.path()));
    std::shared_ptr<AppStateDataStore> store = AppStateDataStore::create();
    ASSERT_TRUE(store);
    ASSERT_TRUE(store->insert("k", "v", ""));
    AppStateDataStore second;
    EXPECT_EQ(second.data("k").str(), "v");
    test::RawDb raw(dir.file("appstate.db"));
    EXPECT_EQ(raw.scalar("SELECT data FROM AppState"), "v");
}

TEST(AppStateDataStoreTest, ConcurrentInsertsOfOneKeyLetExactlyOneThrough) {
    test::TempDir dir;
    std::string const path = dir.file("appstate.db");
    AppStateDataStore store{String(path)};
    AppStateDataStore other{String(path)};  // a second connection to the same file
    test::LogCapture log(4);
    int const threads = 4;
    int const rounds = 25;
    std::vector<int> wins(threads, 0);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            AppStateDataStore mine = (t % 2) ? AppStateDataStore(store) : other;
            for (int r = 0; r < rounds; ++r) {
                String const key = "shared" + std::to_string(r);
                if (mine.insert(key, "from" + std::to_string(t), "")) ++wins[t];
                mine.insert("own" + std::to_string(t) + "-" + std::to_string(r), "v", "own");
            }
        });
    }
    for (auto& w : workers) w.join();
    int total = 0;
    for (int w : wins) total += w;
    EXPECT_EQ(total, rounds);
    EXPECT_EQ(store.count("own"), threads * rounds);
    test::RawDb raw(path);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM AppState"),
              std::to_string(rounds + threads * rounds));
    EXPECT_EQ(log.messagesStartingWith(kLogger, "158 ").size(),
              static_cast<std::size_t>((threads - 1) * rounds));
}

}  // namespace
}  // namespace zrn
