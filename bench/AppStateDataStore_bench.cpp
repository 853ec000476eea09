// AppStateDataStore::insert and ::data against raw sqlite3 running the same statements on a
// connection opened the same way, both timed in every iteration. insert runs under each synchronous
// mode: with FULL the fsync of every commit dominates both sides.

#include <libDataStore/AppStateDataStore.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>

#include "BenchSupport.h"

namespace {

using zrn::AppStateDataStore;
using zrn::String;
using zrn::bench::freshPath;
using zrn::bench::RawConnection;
namespace bench = zrn::bench;

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

// Both sides refuse a duplicate key with the same existence test, then insert.
void insert(benchmark::State& state, int mode) {
    bench::useSyncMode(mode);
    AppStateDataStore store{
        String(freshPath(std::string("insert-ours-") + bench::syncModeName(mode)))};
    RawConnection raw(freshPath(std::string("insert-raw-") + bench::syncModeName(mode)), mode);
    createRawTable(raw);
    bench::paired(
        state,
        [&](long long i) {
            if (!store.insert(String("key" + std::to_string(i)), "value of the item", "group"))
                state.SkipWithError("insert failed");
        },
        [&](long long i) {
            std::string const key = "key" + std::to_string(i);
            raw.exec("SELECT `key` FROM `AppState` WHERE `key`='" + key + "'");
            raw.exec(rawInsert(key));
        });
}

int const kItems = 1000;

void data(benchmark::State& state) {
    bench::useSyncMode(0);
    AppStateDataStore store{String(freshPath("data-ours"))};
    for (int i = 0; i < kItems; ++i)
        store.insert(String("key" + std::to_string(i)), "value of the item", "group");
    RawConnection raw(freshPath("data-raw"), 0);
    createRawTable(raw);
    for (int i = 0; i < kItems; ++i) raw.exec(rawInsert("key" + std::to_string(i)));
    auto key = [](long long i) { return std::to_string((i * 7919) % kItems); };
    bench::paired(
        state, [&](long long i) { benchmark::DoNotOptimize(store.data(String("key" + key(i)))); },
        [&](long long i) {
            raw.exec("SELECT `data` FROM `AppState` WHERE `key`='key" + key(i) + "'");
        });
}

}  // namespace

int main(int argc, char** argv) {
    for (int mode : {0, 2}) {
        benchmark::RegisterBenchmark(
            (std::string("AppState.insert@") + zrn::bench::syncModeName(mode)).c_str(), insert,
            mode);
    }
    benchmark::RegisterBenchmark("AppState.data", data);
    return zrn::bench::runPaired(argc, argv);
}
