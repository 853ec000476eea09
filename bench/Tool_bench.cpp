// The datastore tool as people run it: `datastore measurements -o csv` over a store of N
// measurements against the sqlite3 shell's `-csv` listing of the same table, both as child
// processes writing to /dev/null, interleaved in every iteration. Reports the median wall time
// of each and the peak resident memory of each child (getrusage); at 20,000 and 200,000 rows,
// so that a tool whose memory grows with the rows shows it. The tool is the one built next to
// this program unless DATASTORE_BENCH_TOOL names another (an older build, for before/after).

#include <fcntl.h>
#include <libDataStore/EventDataStore.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace zrn {
namespace bench {
namespace {

// A folder holding event.db with `rows` measurements, one a minute, of four types.
std::string storeOf(long long rows) {
    std::string const folder = scratch().folder("tool-" + std::to_string(rows));
    std::string const path = folder + "/event.db";
    if (std::filesystem::exists(path)) return folder;
    { EventDataStore created{String(path)}; }
    RawConnection raw(path, 0);
    raw.exec(
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < " +
        std::to_string(rows) +
        ") INSERT INTO Measurements (type, spanStartTime, spanEndTime, spanMiddleTime, maximum, "
        "minimum, average, median, numberOfSamples) SELECT CASE i % 4 WHEN 0 THEN 'CPU "
        "temperature' WHEN 1 THEN 'CPU load' WHEN 2 THEN 'Fan speed' ELSE 'Disk temperature' "
        "END, 1763800000 + i * 60, 1763800000 + i * 60 + 60, 1763800000 + i * 60 + 30, "
        "40 + i % 50 + 0.25, 30 + i % 20 + 0.5, 35 + i % 30 + 0.125, 36 + i % 40, 60 + i % 7 "
        "FROM n");
    return folder;
}

struct ChildRun {
    double ms = 0;
    double kib = 0;
};

// Runs `argv` with standard output on /dev/null; its wall time and peak memory.
ChildRun run(std::vector<std::string> const& argv) {
    auto const start = std::chrono::steady_clock::now();
    pid_t const pid = ::fork();
    if (pid == 0) {
        int const null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        std::vector<char*> args;
        for (auto const& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    if (pid < 0 || ::wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        throw std::runtime_error("failed: " + argv[0] + " " + argv[1]);
    }
    std::chrono::duration<double, std::milli> const spent =
        std::chrono::steady_clock::now() - start;
    return {spent.count(), static_cast<double>(usage.ru_maxrss)};
}

std::string toolPath() {
    char const* chosen = std::getenv("DATASTORE_BENCH_TOOL");
    return chosen && *chosen ? chosen : DATASTORE_TOOL;
}

void BM_MeasurementsCsv(benchmark::State& state) {
    std::string const folder = storeOf(state.range(0));
    std::vector<std::string> const tool = {toolPath(), "measurements", "-o",
                                           "csv",      "--dir",        folder};
    // The same columns in the same order, with a header, as the shell lists them.
    std::vector<std::string> const shell = {
        SQLITE3_SHELL, "-csv", "-header", folder + "/event.db",
        "SELECT type, spanStartTime, spanMiddleTime, spanEndTime, minimum, maximum, average, "
        "median, numberOfSamples FROM Measurements ORDER BY spanMiddleTime ASC"};
    std::vector<double> toolMs, shellMs, toolKib, shellKib;
    for (auto _ : state) {
        ChildRun const t = run(tool);
        ChildRun const s = run(shell);
        toolMs.push_back(t.ms);
        shellMs.push_back(s.ms);
        toolKib.push_back(t.kib);
        shellKib.push_back(s.kib);
    }
    state.counters["tool_ms"] = median(toolMs);
    state.counters["sqlite3_ms"] = median(shellMs);
    state.counters["ratio"] = median(toolMs) / median(shellMs);
    state.counters["tool_kib"] = median(toolKib);
    state.counters["sqlite3_kib"] = median(shellKib);
}
BENCHMARK(BM_MeasurementsCsv)
    ->Arg(20000)
    ->Arg(200000)
    ->Iterations(11)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace bench
}  // namespace zrn

int main(int argc, char** argv) {
    zrn::bench::scratch();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
