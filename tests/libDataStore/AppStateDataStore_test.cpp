#include <gtest/gtest.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/DataStoreSettings.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

// The statements, messages and schemas of the store are pinned by its catalogue
// (AppStateCatalogue_test.cpp); these are the values, files and concurrency it does not show.

namespace zrn {
namespace {

char const kLogger[] = "libDataStore.AppStateDataStore";

TEST(AppStateDataStoreTest, KeepsValuesIntact) {
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
    EXPECT_EQ(raw.scalar("SELECT data FROM AppState WHERE key='O''Brien'"), "it's \"quoted\" ''");
    EXPECT_EQ(raw.scalar("SELECT length(data) FROM AppState WHERE key='big'"), "1048576");
    EXPECT_EQ(raw.scalar("SELECT data FROM AppState WHERE key='" + nonAscii + "'"), nonAscii);
}

TEST(AppStateDataStoreTest, DuplicateKeyIsRefusedAndKeepsTheFirstValue) {
    test::TempDir dir;
    std::string const path = dir.file("appstate.db");
    AppStateDataStore store{String(path)};
    ASSERT_TRUE(store.insert("k", "first", "g1"));

    EXPECT_FALSE(store.insert("k", "second", "g2"));
    EXPECT_EQ(store.data("k").str(), "first");
    EXPECT_EQ(store.group("k").str(), "g1");

    // An index dropped behind the store's back still does not let a duplicate in.
    test::RawDb raw(path);
    raw.exec("DROP INDEX 'AppState-key'");
    EXPECT_FALSE(store.insert("k", "third", "g3"));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM AppState WHERE key='k'"), "1");
    EXPECT_EQ(raw.scalar("SELECT data FROM AppState WHERE key='k'"), "first");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM sqlite_master WHERE name='AppState-key'"), "1");

    // An index of that name made by another program without UNIQUE: still nothing is written.
    raw.exec("DROP INDEX 'AppState-key'; CREATE INDEX 'AppState-key' ON AppState (key)");
    test::LogCapture log;
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

    // A file that is not a database is left as it was.
    std::string const garbage = dir.file("garbage.db");
    test::writeFile(garbage, std::string(4096, 'G'));
    AppStateDataStore refused{String(garbage)};
    EXPECT_FALSE(refused.contains("k"));
    EXPECT_EQ(test::readFile(garbage), std::string(4096, 'G'));
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
