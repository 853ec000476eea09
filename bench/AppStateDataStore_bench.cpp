// AppStateDataStore::insert and ::data against raw sqlite3 running the same statements on a
// connection opened the same way. insert runs under each synchronous mode: with FULL the
// fsync of every commit dominates both sides.

#include <libDataStore/AppStateDataStore.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>

#include "BenchSupport.h"
#include "RatioReport.h"

namespace {

using zrn::AppStateDataStore;
using zrn::String;
using zrn::bench::freshPath;
using zrn::bench::RawConnection;

char const* const kModeNames[] = {"OFF", "NORMAL", "FULL"};

// Points the library's setting "SQLiteDataStore.SyncMode" at `mode` for connections opened
// from now on.
void useSyncMode(int mode) {
    static std::string const path = freshPath("settings") + ".ini";
    std::ofstream(path, std::ios::trunc)
        << "[libDataStore]\nSQLiteDataStore.SyncMode=" << kModeNames[mode] << "\n";
    ::setenv("ZRN_SETTINGS_FILE", path.c_str(), 1);
}

// What the store writes into `dateTime`: local time with its offset.
std::string localTimeText() {
    std::time_t const now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &tm);
    return text;
}

void createRawTable(RawConnection& raw) {
    raw.exec("CREATE TABLE `AppState` (`key` TEXT,`data` TEXT,`filterGroup` TEXT,`dateTime` TEXT)");
    raw.exec("CREATE UNIQUE INDEX IF NOT EXISTS 'AppState-key' ON `AppState` (`key`)");
}

std::string rawInsert(std::string const& key) {
    return "INSERT OR REPLACE INTO `AppState` (`key`,`data`,`filterGroup`,`dateTime`) VALUES('" +
           key + "','value of the item','group','" + localTimeText() + "')";
}

void insertOurs(benchmark::State& state) {
    int const mode = static_cast<int>(state.range(0));
    useSyncMode(mode);
    std::string const path = freshPath("appstate-insert-ours");
    {
        AppStateDataStore store{String(path)};
        long long i = 0;
        for (auto _ : state) {
            bool const ok =
                store.insert(String("key" + std::to_string(i++)), "value of the item", "group");
            if (!ok) state.SkipWithError("insert failed");
        }
    }
    std::remove(path.c_str());
}

void insertRaw(benchmark::State& state) {
    int const mode = static_cast<int>(state.range(0));
    std::string const path = freshPath("appstate-insert-raw");
    {
        RawConnection raw(path, mode);
        createRawTable(raw);
        long long i = 0;
        for (auto _ : state) {
            std::string const key = "key" + std::to_string(i++);
            // The existence test that refuses duplicates, then the table layer's insert.
            raw.exec("SELECT `key` FROM `AppState` WHERE `key`='" + key + "'");
            raw.exec(rawInsert(key));
        }
    }
    std::remove(path.c_str());
}

int const kItems = 1000;

void dataOurs(benchmark::State& state) {
    useSyncMode(0);
    std::string const path = freshPath("appstate-data-ours");
    {
        AppStateDataStore store{String(path)};
        for (int i = 0; i < kItems; ++i)
            store.insert(String("key" + std::to_string(i)), "value of the item", "group");
        unsigned int i = 0;
        for (auto _ : state) {
            String const value = store.data(String("key" + std::to_string((i++ * 7919u) % kItems)));
            benchmark::DoNotOptimize(value);
        }
    }
    std::remove(path.c_str());
}

void dataRaw(benchmark::State& state) {
    std::string const path = freshPath("appstate-data-raw");
    {
        RawConnection raw(path, 0);
        createRawTable(raw);
        for (int i = 0; i < kItems; ++i) raw.exec(rawInsert("key" + std::to_string(i)));
        unsigned int i = 0;
        for (auto _ : state) {
            raw.exec("SELECT `data` FROM `AppState` WHERE `key`='key" +
                     std::to_string((i++ * 7919u) % kItems) + "'");
        }
    }
    std::remove(path.c_str());
}

}  // namespace

BENCHMARK(insertOurs)->Name("AppState.insert/ours")->Arg(0)->Arg(2);
BENCHMARK(insertRaw)->Name("AppState.insert/raw")->Arg(0)->Arg(2);
BENCHMARK(dataOurs)->Name("AppState.data/ours");
BENCHMARK(dataRaw)->Name("AppState.data/raw");

BENCH_MAIN_WITH_RATIOS();
