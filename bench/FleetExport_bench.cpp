// The fleet pipeline's rates: the built tool exporting a 30-day store (whole, incremental with
// nothing new, incremental after one more day), and 1,020 machine-days (that store exported as
// 34 machines) exported and loaded into a clickhouse-server started as a child for the run.
// Reports records per second and the mark's size next to the stores'.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ClickHouseServer.h"

namespace {

namespace fs = std::filesystem;
using zrn::test::shellWord;

char const* const kStores[] = {"appstate", "genstore", "event", "softwarediagevent"};
constexpr int kDays = 30;
constexpr int kMachines = 34;

// Runs the tool with `args`, its output to `out`.
void tool(std::string const& args, std::string const& out = "/dev/null") {
    std::string const command =
        shellWord(DATASTORE_TOOL) + " " + args + " >" + shellWord(out) + " 2>&1";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

long long lineCount(fs::path const& folder) {
    long long lines = 0;
    for (auto const& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.path().extension() != ".ndjson") continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) ++lines;
    }
    return lines;
}

// A folder of the run with the 30-day store in "stores", made once.
struct Work {
    fs::path root;
    fs::path stores;
    Work() {
        std::string pattern = (fs::temp_directory_path() / "fleet-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp");
        root = pattern;
        stores = root / "stores";
        for (int day = 0; day < kDays; ++day) tool("--dir " + shellWord(stores) + " demo");
    }
    ~Work() { fs::remove_all(root); }
    std::uintmax_t storeBytes() const {
        std::uintmax_t bytes = 0;
        for (char const* store : kStores)
            bytes += fs::file_size(stores / (std::string(store) + ".db"));
        return bytes;
    }
};

Work& work() {
    static Work w;
    return w;
}

std::string exportArgs(fs::path const& stores, fs::path const& out, std::string const& machine) {
    return "export --dir " + shellWord(stores) + " --out " + shellWord(out) +
           " -o ndjson --machine " + machine;
}

void BM_WholeExport30Days(benchmark::State& state) {
    fs::path const out = work().root / "whole";
    long long records = 0;
    for (auto _ : state) {
        tool(exportArgs(work().stores, out, "m0"));
        records += lineCount(out);
    }
    state.counters["records/s"] = benchmark::Counter(double(records), benchmark::Counter::kIsRate);
}

void BM_IncrementalNothingNew30Days(benchmark::State& state) {
    fs::path const out = work().root / "incremental", mark = work().root / "nothing.mark";
    tool(exportArgs(work().stores, out, "m0") + " --mark " + shellWord(mark));
    long long records = 0;
    for (auto _ : state) {
        tool(exportArgs(work().stores, out, "m0") + " --mark " + shellWord(mark));
        records += lineCount(out);
    }
    state.counters["records"] = double(records) / double(state.iterations());
    state.counters["mark/stores %"] =
        100.0 * double(fs::file_size(mark)) / double(work().storeBytes());
}

// After one more day on a copy of the store: what an hourly or daily export sends.
void BM_IncrementalOneMoreDay(benchmark::State& state) {
    fs::path const copy = work().root / "plus-one", out = work().root / "plus-one-out";
    fs::path const mark = work().root / "plus-one.mark";
    long long sent = 0, whole = 0;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove_all(copy);
        fs::copy(work().stores, copy);
        tool(exportArgs(copy, out, "m0") + " --mark " + shellWord(mark));
        tool("--dir " + shellWord(copy) + " demo");
        state.ResumeTiming();
        tool(exportArgs(copy, out, "m0") + " --mark " + shellWord(mark));
        state.PauseTiming();
        sent += lineCount(out);
        tool(exportArgs(copy, out, "m0"));
        whole += lineCount(out);
        state.ResumeTiming();
    }
    state.counters["records sent"] = double(sent) / double(state.iterations());
    state.counters["whole export"] = double(whole) / double(state.iterations());
}

void BM_FleetExportAndLoad(benchmark::State& state) {
    std::string const server = zrn::test::clickHouseServerPath();
    std::string const client = zrn::test::clickHouseClientPath();
    if (server.empty() || client.empty()) {
        state.SkipWithError("clickhouse-server or clickhouse-client is not installed");
        return;
    }
    fs::create_directories(work().root / "server");
    zrn::test::ClickHouseServer clickhouse(server, client, (work().root / "server").string());
    if (!clickhouse.waitReady(60)) {
        state.SkipWithError("clickhouse-server did not start");
        return;
    }
    fs::path const schema = work().root / "schema.sql", fleet = work().root / "fleet";
    tool("export --schema clickhouse", schema.string());
    auto const created = clickhouse.query("", schema.string(), "--multiquery");
    if (created.code != 0) {
        state.SkipWithError(created.err.c_str());
        return;
    }
    double exportSeconds = 0, loadSeconds = 0;
    long long records = 0;
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        for (int m = 0; m < kMachines; ++m)
            tool(exportArgs(work().stores, fleet / std::to_string(m), "m" + std::to_string(m)));
        auto const exported = std::chrono::steady_clock::now();
        for (char const* store : kStores)
            for (auto const& file : fs::directory_iterator(fleet / "0" / store)) {
                std::string const table = file.path().stem().string();
                fs::path const all = work().root / "load.ndjson";
                std::string const command = "cat " + shellWord(fleet.string()) + "/*/" + store +
                                            "/" + shellWord(table + ".ndjson") + " >" +
                                            shellWord(all.string());
                if (std::system(command.c_str()) != 0 || fs::file_size(all) == 0) continue;
                auto const loaded = clickhouse.query("INSERT INTO datastore." + std::string(store) +
                                                         "_" + table + " FORMAT JSONEachRow",
                                                     all.string());
                if (loaded.code != 0) state.SkipWithError(loaded.err.c_str());
            }
        auto const end = std::chrono::steady_clock::now();
        exportSeconds += std::chrono::duration<double>(exported - start).count();
        loadSeconds += std::chrono::duration<double>(end - exported).count();
        records += lineCount(fleet);
    }
    state.counters["machine-days"] = kDays * kMachines;
    state.counters["records"] = double(records) / double(state.iterations());
    state.counters["export records/s"] = double(records) / exportSeconds;
    state.counters["load records/s"] = double(records) / loadSeconds;
}

// The work is in child processes: wall-clock time is what counts.
BENCHMARK(BM_WholeExport30Days)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_IncrementalNothingNew30Days)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_IncrementalOneMoreDay)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_FleetExportAndLoad)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
