#include <gtest/gtest.h>
#include <libDataStore/AppStateDataStore.h>

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

    // 2020-05-06 10:00:00 local (Central European Summer Time) is 08:00:00 UTC.
    ASSERT_TRUE(store.insert("fixed", "v", ""));
    test::RawDb raw(path);
    raw.exec("UPDATE AppState SET dateTime='2020-05-06 10:00:00' WHERE key='fixed'");
    EXPECT_EQ(store.entryTime("fixed")->time_since_epoch().count(), 1588752000LL * 1000000000LL);

    // A time that nanoseconds cannot count is the failure it is, not a wrapped value.
    test::LogCapture log(4);
    raw.exec("UPDATE AppState SET dateTime='1055-02-11 10:00:00' WHERE key='fixed'");
    EXPECT_FALSE(store.entryTime("fixed"));
    std::vector<test::LogCapture::Entry> const entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].priority, 4);
    EXPECT_EQ(entries[0].message, "238 General failure attempting to get entryTime for key: fixed");
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
