// The table layer against raw sqlite3_exec of the identical statement text, on the same kind of
// file in the same synchronous mode; and the cost of an uncontended AutoGlobalMutex.

#include <libCommon/GlobalMutex.h>
#include <libDataStore/SQLiteDataStore.h>

#include <mutex>
#include <string>

#include "BenchSupport.h"
#include "RatioReport.h"

namespace zrn {
namespace {

SQLiteDataStoreColumnSpec const kColumns[] = {
    {"setID", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}, {nullptr, nullptr}};

char const* modeName(int mode) { return mode == 0 ? "OFF" : mode == 1 ? "NORMAL" : "FULL"; }

void setSyncMode(int mode) {
    // The table layer reads its level from the settings file at each connection.
    std::string const file = bench::freshPath(std::string("settings-") + modeName(mode));
    FILE* out = std::fopen(file.c_str(), "w");
    std::fprintf(out, "[libDataStore]\nSQLiteDataStore.SyncMode=%s\n", modeName(mode));
    std::fclose(out);
    ::setenv("ZRN_SETTINGS_FILE", file.c_str(), 1);
}

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

void appendOurs(benchmark::State& state, int mode) {
    setSyncMode(mode);
    SQLiteDataStore store(String(bench::freshPath("append-ours")), "t", kColumns);
    long i = 0;
    for (auto _ : state) store.append(rowFor(i++));
}

void appendRaw(benchmark::State& state, int mode) {
    bench::RawConnection raw(bench::freshPath("append-raw"), mode);
    raw.exec("CREATE TABLE `t` (`setID` INTEGER,`key` TEXT,`value` TEXT)");
    long i = 0;
    for (auto _ : state) raw.exec(appendStatement(rowFor(i++)));
}

void cellDataOurs(benchmark::State& state) {
    setSyncMode(0);
    SQLiteDataStore store(String(bench::freshPath("cell-ours")), "t", kColumns);
    fill(store, 1000);
    String out;
    for (auto _ : state) benchmark::DoNotOptimize(store.cellData("value", out, "key", "key-500"));
}

void cellDataRaw(benchmark::State& state) {
    setSyncMode(0);
    std::string const path = bench::freshPath("cell-raw");
    SQLiteDataStore store(String(path), "t", kColumns);
    fill(store, 1000);
    bench::RawConnection raw(path, 0);
    for (auto _ : state) raw.exec("SELECT `value` FROM `t` WHERE `key`='key-500'");
}

void countOurs(benchmark::State& state) {
    setSyncMode(0);
    SQLiteDataStore store(String(bench::freshPath("count-ours")), "t", kColumns);
    fill(store, 1000);
    for (auto _ : state) benchmark::DoNotOptimize(store.count("key", "key-500"));
}

void countRaw(benchmark::State& state) {
    setSyncMode(0);
    std::string const path = bench::freshPath("count-raw");
    SQLiteDataStore store(String(path), "t", kColumns);
    fill(store, 1000);
    bench::RawConnection raw(path, 0);
    for (auto _ : state) raw.exec("SELECT count(`key`) FROM `t` WHERE `key`='key-500'");
}

void globalMutexOurs(benchmark::State& state) {
    GlobalMutex mutex("bench_uncontended");
    for (auto _ : state) AutoGlobalMutex lock(mutex);
}

// What a process-local lock alone costs, for scale.
void globalMutexRaw(benchmark::State& state) {
    std::recursive_mutex mutex;
    for (auto _ : state) std::lock_guard<std::recursive_mutex> lock(mutex);
}

void registerCases() {
    for (int mode : {0, 2}) {
        std::string const suffix = std::string("append@") + modeName(mode);
        benchmark::RegisterBenchmark((suffix + "/ours").c_str(), appendOurs, mode);
        benchmark::RegisterBenchmark((suffix + "/raw").c_str(), appendRaw, mode);
    }
    benchmark::RegisterBenchmark("cellData@OFF/ours", cellDataOurs);
    benchmark::RegisterBenchmark("cellData@OFF/raw", cellDataRaw);
    benchmark::RegisterBenchmark("count@OFF/ours", countOurs);
    benchmark::RegisterBenchmark("count@OFF/raw", countRaw);
    benchmark::RegisterBenchmark("AutoGlobalMutex vs recursive_mutex/ours", globalMutexOurs);
    benchmark::RegisterBenchmark("AutoGlobalMutex vs recursive_mutex/raw", globalMutexRaw);
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    return zrn::bench::runWithRatios(argc, argv, zrn::registerCases);
}
