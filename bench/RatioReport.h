#pragma once

// A console reporter that also prints, at the end of the run, the ratio of each ".../ours"
// benchmark to its ".../raw" twin measured in the same run (ours divided by raw: 1.00 means
// no overhead), using the mean when the run has repetitions. Use BENCH_MAIN_WITH_RATIOS()
// instead of BENCHMARK_MAIN().

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace zrn {
namespace bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs) {
            if (run.error_occurred) continue;
            // With --benchmark_repetitions the mean of the repetitions stands for the benchmark.
            bool const mean = run.run_type == Run::RT_Aggregate && run.aggregate_name == "mean";
            if (run.run_type != Run::RT_Iteration && !mean) continue;
            std::string const name = run.run_name.str();
            if (m_times.find(name) == m_times.end()) m_order.push_back(name);
            if (mean || m_means.count(name) == 0) m_times[name] = run.GetAdjustedRealTime();
            if (mean) m_means[name] = true;
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\nRatios (ours / raw sqlite3, same statements, same run):\n");
        for (std::string const& name : m_order) {
            std::size_t const at = name.find("/ours");
            if (at == std::string::npos) continue;
            std::string twin = name;
            twin.replace(at, 5, "/raw");
            auto const raw = m_times.find(twin);
            if (raw == m_times.end() || raw->second <= 0) continue;
            std::printf("  %-55s %6.2f\n", name.c_str(), m_times[name] / raw->second);
        }
        std::fflush(stdout);
    }

private:
    std::map<std::string, double> m_times;
    std::map<std::string, bool> m_means;
    std::vector<std::string> m_order;
};

// main() for a program that registers its cases in code rather than with BENCHMARK().
inline int runWithRatios(int argc, char** argv, void (*registerCases)()) {
    registerCases();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    zrn::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
}  // namespace zrn

#define BENCH_MAIN_WITH_RATIOS()                                          \
    int main(int argc, char** argv) {                                     \
        benchmark::Initialize(&argc, argv);                               \
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
        zrn::bench::RatioReporter reporter;                               \
        benchmark::RunSpecifiedBenchmarks(&reporter);                     \
        benchmark::Shutdown();                                            \
        return 0;                                                         \
    }
