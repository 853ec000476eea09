// The table layer against raw sqlite3_exec of the identical statement text, on the same kind of
// file in the same synchronous mode, both timed in every iteration; and the cost of an
// uncontended AutoGlobalMutex. The table at the end gives the median of 5 repetitions.

#include <libCommon/GlobalMutex.h>
#include <libDataStore/SQLiteDataStore.h>

#include <mutex>
#include <string>

#include "BenchSupport.h"

namespace zrn {
namespace {

SQLiteDataStoreColumnSpec const kColumns[] = {
    {"setID", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}, {nullptr, nullptr}};

HashTable<String, String> rowFor(long i) {
    HashTable<String, String> row;
    row.insert("setID", String(std::to_string(i)));
    row.insert("key", String("key-" + std::to_string(i)));
    row.insert("value",
               String("a value of moderate length, as the stores write them " + std::to_string(i)));
    return row;
}

// The statement append() builds for the same row, column order included.
std::string appendStatement(HashTable<String, String> const& row) {
    std::string names, values;
    for (auto const& cell : row) {
        names += (names.empty() ? "`" : ",`") + cell.first.str() + "`";
        values += (values.empty() ? "'" : ",'") + cell.second.str() + "'";
    }
    return "INSERT OR REPLACE INTO `t` (" + names + ") VALUES(" + values + ")";
}

void fill(SQLiteDataStore& store, long rows) {
    store.database()->execute("BEGIN");
    for (long i = 0; i < rows; ++i) store.append(rowFor(i));
    store.database()->execute("COMMIT");
}

void append(benchmark::State& state, int mode) {
    bench::useSyncMode(mode);
    SQLiteDataStore store(
        String(bench::freshPath(std::string("append-ours-") + bench::syncModeName(mode))), "t",
        kColumns);
    bench::RawConnection raw(
        bench::freshPath(std::string("append-raw-") + bench::syncModeName(mode)), mode);
    raw.exec("CREATE TABLE `t` (`setID` INTEGER,`key` TEXT,`value` TEXT)");
    bench::paired(
        state, [&](long long i) { store.append(rowFor(i)); },
        [&](long long i) { raw.exec(appendStatement(rowFor(i))); });
}

// A file of 1,000 rows read by both sides, made at OFF.
std::string offPath(char const* name) {
    bench::useSyncMode(0);
    return bench::freshPath(name);
}

struct ReadFile {
    explicit ReadFile(char const* name) : path(offPath(name)), store(String(path), "t", kColumns) {
        fill(store, 1000);
    }
    std::string path;
    SQLiteDataStore store;
};

void cellData(benchmark::State& state) {
    ReadFile file("cell");
    bench::RawConnection raw(file.path, 0);
    String out;
    bench::paired(
        state,
        [&](long long) {
            benchmark::DoNotOptimize(file.store.cellData("value", out, "key", "key-500"));
        },
        [&](long long) { raw.exec("SELECT `value` FROM `t` WHERE `key`='key-500'"); });
}

void count(benchmark::State& state) {
    ReadFile file("count");
    bench::RawConnection raw(file.path, 0);
    bench::paired(
        state, [&](long long) { benchmark::DoNotOptimize(file.store.count("key", "key-500")); },
        [&](long long) { raw.exec("SELECT count(`key`) FROM `t` WHERE `key`='key-500'"); });
}

// The named mutex against a process-local lock alone, for scale.
void globalMutex(benchmark::State& state) {
    GlobalMutex mutex("bench_uncontended");
    std::recursive_mutex local;
    bench::paired(
        state, [&](long long) { AutoGlobalMutex lock(mutex); },
        [&](long long) { std::lock_guard<std::recursive_mutex> lock(local); });
}

void registerCases() {
    for (int mode : {0, 2}) {
        benchmark::RegisterBenchmark((std::string("append@") + bench::syncModeName(mode)).c_str(),
                                     append, mode);
    }
    benchmark::RegisterBenchmark("cellData@OFF", cellData);
    benchmark::RegisterBenchmark("count@OFF", count);
    benchmark::RegisterBenchmark("AutoGlobalMutex vs recursive_mutex", globalMutex);
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    zrn::registerCases();
    return zrn::bench::runPaired(argc, argv);
}
