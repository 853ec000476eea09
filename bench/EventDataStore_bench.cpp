// EventDataStore against raw sqlite3 running the same statements on a file of the same schema.
//
// Each case times both sides in the same loop: every iteration runs the store's operation and
// the raw statements once each, alternating which goes first, so drift in the machine's load
// hits both alike. The counters store_us and raw_us are the mean times per operation and
// ratio = store/raw; the table printed at the end gives the median ratio over the repetitions.
//
//   EventDataStore_bench [--benchmark_filter=...] [--benchmark_repetitions=N]

#include <libDataStore/EventDataStore.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace zrn {
namespace {

using Clock = std::chrono::steady_clock;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

char const* modeName(int mode) { return mode == 0 ? "OFF" : mode == 1 ? "NORMAL" : "FULL"; }

// Points the library's settings at a file naming the synchronous mode, so the store opens its
// connection as the raw one is opened.
void useSyncMode(int mode) {
    static std::string const path = "/tmp/zrn-bench-" + std::to_string(::getpid()) + ".ini";
    std::ofstream(path, std::ios::trunc)
        << "[libDataStore]\nSQLiteDataStore.SyncMode=" << modeName(mode) << "\n";
    ::setenv("ZRN_SETTINGS_FILE", path.c_str(), 1);
}

// Every file a case made, removed when the run ends.
std::vector<std::string>& madeFiles() {
    static std::vector<std::string> files;
    return files;
}

std::string freshFile(std::string const& name) {
    std::string const path = bench::freshPath(name);
    madeFiles().push_back(path);
    return path;
}

std::string quoted(std::string const& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') out += '\'';
        out += c;
    }
    return out + "'";
}

// Two files of the store's schema: one used through the store, one through raw sqlite3.
struct Files {
    Files(std::string const& name, int mode) {
        useSyncMode(mode);
        std::string const rawPath = freshFile(name + "-raw");
        { EventDataStore schema{String(rawPath)}; }
        store.reset(new EventDataStore(String(freshFile(name + "-store"))));
        raw.reset(new bench::RawConnection(rawPath, mode));
    }
    std::unique_ptr<EventDataStore> store;
    std::unique_ptr<bench::RawConnection> raw;
};

// Runs `storeOp(i)` and `rawOp(i)` once per iteration and reports both means and the ratio.
template <class StoreOp, class RawOp>
void paired(benchmark::State& state, StoreOp storeOp, RawOp rawOp) {
    Clock::duration storeTime{};
    Clock::duration rawTime{};
    long long i = 0;
    for (auto _ : state) {
        if (i % 2 == 0) {
            auto const t0 = Clock::now();
            storeOp(i);
            auto const t1 = Clock::now();
            rawOp(i);
            rawTime += Clock::now() - t1;
            storeTime += t1 - t0;
        } else {
            auto const t0 = Clock::now();
            rawOp(i);
            auto const t1 = Clock::now();
            storeOp(i);
            storeTime += Clock::now() - t1;
            rawTime += t1 - t0;
        }
        ++i;
    }
    double const s = std::chrono::duration<double, std::micro>(storeTime).count();
    double const r = std::chrono::duration<double, std::micro>(rawTime).count();
    state.counters["store_us"] = s / static_cast<double>(i);
    state.counters["raw_us"] = r / static_cast<double>(i);
    state.counters["ratio"] = s / r;
}

// ---- Run logging -------------------------------------------------------------------------

void logTestStart(benchmark::State& state, int mode) {
    Files files("start", mode);
    paired(
        state,
        [&](long long i) {
            benchmark::DoNotOptimize(files.store->logTestStart(
                7, "Disk surface", "Disk 0", "tg-" + std::to_string(i % 1000), "dg-1", "HDD",
                "RUNNING", at(1700000000 + i), 1));
        },
        [&](long long i) {
            files.raw->exec(
                "INSERT INTO TestRuns (scriptId,testName,deviceName,testGuid,deviceGuid,"
                "deviceType,result,startTime,pass) VALUES(7,'Disk surface','Disk 0','tg-" +
                std::to_string(i % 1000) + "','dg-1','HDD','RUNNING'," +
                std::to_string(1700000000 + i) + ",1);");
            benchmark::DoNotOptimize(sqlite3_last_insert_rowid(files.raw->handle()));
        });
}

void logTestRunEvent(benchmark::State& state, int mode) {
    Files files("event", mode);
    paired(
        state,
        [&](long long i) {
            files.store->logTestRunEvent(i % 1000, "Sector 'reallocated'", "warning", "E17",
                                         "C17", at(1700000000 + i));
        },
        [&](long long i) {
            // The table layer's append: every value quoted, also the numbers.
            files.raw->exec("INSERT OR REPLACE INTO `TestRunEvents` (`testId`,`message`,`type`,"
                            "`eventCode`,`customerEventCode`,`dateTime`) VALUES('" +
                            std::to_string(i % 1000) + "'," + quoted("Sector 'reallocated'") +
                            ",'warning','E17','C17','" + std::to_string(1700000000 + i) + "')");
        });
}

void logTestFinished(benchmark::State& state, int mode) {
    int const runs = 1000;
    Files files("finish", mode);
    files.raw.reset();
    {
        // The same test runs in both files, with the same ids.
        std::string const rawPath = bench::freshPath("finish-raw");
        EventDataStore filler{String(rawPath)};
        for (int n = 0; n < runs; ++n) {
            files.store->logTestStart(7, "t", "d", "tg", "dg", "HDD", "RUNNING", at(1), 1);
            filler.logTestStart(7, "t", "d", "tg", "dg", "HDD", "RUNNING", at(1), 1);
        }
        files.raw.reset(new bench::RawConnection(rawPath, mode));
    }
    paired(
        state,
        [&](long long i) {
            files.store->logTestFinished(1 + i % runs, "PASS", "0", at(1700000000 + i));
        },
        [&](long long i) {
            // The existence test, then the table layer's update.
            std::string const id = "'" + std::to_string(1 + i % runs) + "'";
            files.raw->exec("SELECT `testId` FROM `TestRuns` WHERE `testId`=" + id);
            files.raw->exec("UPDATE `TestRuns` SET `testId` = " + id +
                            ",`result` = 'PASS',`errorCode` = '0',`endTime` = '" +
                            std::to_string(1700000000 + i) + "' WHERE `testId`=" + id);
        });
}

// ---- Reporting ---------------------------------------------------------------------------

// Prints, after the usual output, the median of each case's counters over its repetitions.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs) {
            // Single runs, or the median aggregates when only aggregates are reported.
            bool const single = run.run_type == Run::RT_Iteration && run.iterations != 0;
            bool const median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!single && !median) continue;
            auto const ratio = run.counters.find("ratio");
            if (ratio == run.counters.end()) continue;
            Sample& s = m_samples[run.run_name.function_name];
            s.ratio.push_back(ratio->second.value);
            s.store.push_back(run.counters.at("store_us").value);
            s.raw.push_back(run.counters.at("raw_us").value);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-40s %12s %12s %8s\n", "case (median over repetitions)", "store us",
                    "raw us", "ratio");
        for (auto const& entry : m_samples) {
            std::printf("%-40s %12.2f %12.2f %8.3f\n", entry.first.c_str(),
                        median(entry.second.store), median(entry.second.raw),
                        median(entry.second.ratio));
        }
    }

private:
    struct Sample {
        std::vector<double> ratio, store, raw;
    };

    static double median(std::vector<double> values) {
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }

    std::map<std::string, Sample> m_samples;
};

void registerCase(std::string const& name, void (*body)(benchmark::State&, int), int mode) {
    benchmark::RegisterBenchmark((name + "/" + modeName(mode)).c_str(), body, mode)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    using namespace zrn;
    for (int mode : {0, 2}) {
        registerCase("logTestStart", logTestStart, mode);
        registerCase("logTestRunEvent", logTestRunEvent, mode);
        registerCase("logTestFinished", logTestFinished, mode);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    for (std::string const& path : madeFiles()) {
        ::unlink(path.c_str());
        ::unlink((path + "-journal").c_str());
    }
    return 0;
}
