// The datastore tool as people run it: `datastore measurements -o csv` over a store of N
// measurements against the sqlite3 shell's `-csv` listing of the same table, both as child
// processes writing to /dev/null, interleaved in every iteration. Reports the median wall time
// of each and the peak resident memory of each child (getrusage); at 20,000 and 200,000 rows,
// so that a tool whose memory grows with the rows shows it. The tool is the one built next to
// this program unless DATASTORE_BENCH_TOOL names another (an older build, for before/after).
// BM_TimeText times the tool's time texts against the C library's way of making each.

#include <fcntl.h>
#include <libCommon/DateTime.h>
#include <libDataStore/EventDataStore.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "Output.h"

namespace zrn {
namespace bench {
namespace {

using datastore::Json;

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
    double cpuMs = 0;  // user and system time
    double kib = 0;
};

double msOf(timeval const& time) { return time.tv_sec * 1e3 + time.tv_usec / 1e3; }

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
    return {spent.count(), msOf(usage.ru_utime) + msOf(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss)};
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
    std::vector<double> toolMs, shellMs, toolCpu, shellCpu, toolKib, shellKib;
    for (auto _ : state) {
        ChildRun const t = run(tool);
        ChildRun const s = run(shell);
        toolMs.push_back(t.ms);
        shellMs.push_back(s.ms);
        toolCpu.push_back(t.cpuMs);
        shellCpu.push_back(s.cpuMs);
        toolKib.push_back(t.kib);
        shellKib.push_back(s.kib);
    }
    state.counters["tool_ms"] = median(toolMs);
    state.counters["sqlite3_ms"] = median(shellMs);
    state.counters["ratio"] = median(toolMs) / median(shellMs);
    state.counters["tool_cpu_ms"] = median(toolCpu);
    state.counters["sqlite3_cpu_ms"] = median(shellCpu);
    state.counters["cpu_ratio"] = median(toolCpu) / median(shellCpu);
    state.counters["tool_kib"] = median(toolKib);
    state.counters["sqlite3_kib"] = median(shellKib);
}
BENCHMARK(BM_MeasurementsCsv)
    ->Arg(20000)
    ->Arg(200000)
    ->Iterations(11)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The tool's time texts (an offset cached per hour, then arithmetic) against the way they
// were made before: the C library's conversion and strftime for each value, DateTime's text
// for ISO times. A minute apart, as measurements are; ns per text.
std::string libraryLocalTime(long long seconds) {
    std::time_t const t = static_cast<std::time_t>(seconds);
    std::tm parts{};
    localtime_r(&t, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

void BM_TimeText(benchmark::State& state) {
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    int const count = 20000;
    auto timed = [&](auto make) {
        auto const start = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i) benchmark::DoNotOptimize(make(1763800000LL + i * 60LL));
        std::chrono::duration<double, std::nano> const spent =
            std::chrono::steady_clock::now() - start;
        return spent.count() / count;
    };
    std::vector<double> local, localBefore, iso, isoBefore;
    for (auto _ : state) {
        local.push_back(timed([](long long s) { return datastore::localTime(s); }));
        localBefore.push_back(timed(libraryLocalTime));
        iso.push_back(timed([](long long s) { return datastore::isoTime(s); }));
        isoBefore.push_back(timed([](long long s) {
            return Json(DateTime::fromUnixTimeStamp(s).toLocalTime().toString().str());
        }));
    }
    state.counters["local_ns"] = median(local);
    state.counters["local_before_ns"] = median(localBefore);
    state.counters["iso_ns"] = median(iso);
    state.counters["iso_before_ns"] = median(isoBefore);
}
BENCHMARK(BM_TimeText)->Iterations(11)->Unit(benchmark::kMillisecond);

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
