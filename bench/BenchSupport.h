#pragma once

// Helpers for benchmarks that compare the library with raw sqlite3 on the same statements.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace zrn {
namespace bench {

// A raw connection opened as the library opens its own: serialized mode, busy timeout, the
// given PRAGMA synchronous level.
class RawConnection {
public:
    RawConnection(std::string const& path, int syncMode) {
        if (sqlite3_open_v2(path.c_str(), &m_db,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                            nullptr) != SQLITE_OK) {
            throw std::runtime_error("cannot open " + path);
        }
        sqlite3_busy_timeout(m_db, 30000);
        exec("PRAGMA synchronous = " + std::to_string(syncMode));
    }
    ~RawConnection() { sqlite3_close_v2(m_db); }
    RawConnection(RawConnection const&) = delete;
    RawConnection& operator=(RawConnection const&) = delete;

    // sqlite3_exec with a callback that reads every cell as text, as the library does.
    void exec(std::string const& sql) {
        char* error = nullptr;
        int const rc = sqlite3_exec(
            m_db, sql.c_str(),
            [](void*, int columns, char** cells, char**) {
                for (int i = 0; i < columns; ++i) benchmark::DoNotOptimize(cells[i]);
                return 0;
            },
            nullptr, &error);
        if (rc != SQLITE_OK) {
            std::string const message = error ? error : "?";
            sqlite3_free(error);
            throw std::runtime_error(message + " in: " + sql);
        }
    }
    sqlite3* handle() const { return m_db; }

private:
    sqlite3* m_db = nullptr;
};

// A private folder for one benchmark run, removed with everything in it at the end. The named
// mutexes' lock files and the settings file live in it too, so a run neither waits on another
// program's locks nor reads the machine's settings.
class Scratch {
public:
    explicit Scratch(std::string const& name) {
        char const* base = std::getenv("ZRN_BENCH_DIR");
        if (!base || !*base) base = std::getenv("TMPDIR");
        if (!base || !*base) base = "/tmp";
        std::string pattern = std::string(base) + "/zrn-bench-" + name + "-XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot make " + pattern);
        m_path = pattern;
        std::filesystem::create_directories(m_path + "/locks");
        ::setenv("ZRN_LOCK_DIR", (m_path + "/locks").c_str(), 1);
        ::setenv("ZRN_SETTINGS_FILE", (m_path + "/settings.ini").c_str(), 1);
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    Scratch(Scratch const&) = delete;
    Scratch& operator=(Scratch const&) = delete;

    std::string const& path() const { return m_path; }
    std::string file(std::string const& name) const { return m_path + "/" + name; }
    // A new sub-folder, for a store family's files.
    std::string folder(std::string const& name) const {
        std::string const made = file(name);
        std::filesystem::create_directories(made);
        return made;
    }
    // The settings every connection opened from now on reads.
    void useSettings(char const* syncMode, char const* journalMode = "DELETE") const {
        std::ofstream(file("settings.ini"), std::ios::trunc)
            << "[libDataStore]\nSQLiteDataStore.SyncMode=" << syncMode
            << "\nSQLiteDataStore.JournalMode=" << journalMode << "\n";
    }

private:
    std::string m_path;
};

// The scratch folder of this run: made on first use, which every main() does before the first
// store is opened so that the named mutexes' lock files land in it too.
inline Scratch& scratch() {
    static Scratch instance("run");
    return instance;
}

// A fresh file path in the run's scratch folder: a case runs several times (to find its
// iteration count, and once per repetition), each time on a new file.
inline std::string freshPath(std::string const& name) {
    static int made = 0;
    return scratch().file(name + "-" + std::to_string(++made) + ".db");
}

// The synchronous mode (0 OFF, 1 NORMAL, 2 FULL) for the connections the library opens from now.
inline char const* syncModeName(int mode) {
    return mode == 0 ? "OFF" : mode == 1 ? "NORMAL" : "FULL";
}
inline void useSyncMode(int mode) { scratch().useSettings(syncModeName(mode)); }

inline double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    std::size_t const mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// How much memory `work` needs at its peak, in KiB: run in a child process whose peak resident
// size is reset first, so neither this process's earlier allocations nor memory freed earlier
// and kept by the allocator count. -1 when it could not be measured.
//
// The child runs `work` once before measuring: a forked child does not inherit the page table
// entries of the program's mapped code, so its first call faults in, as resident file pages,
// every page of code and constants it runs through. Those pages are shared with every other
// process and were resident in the parent already; counted, they made a side that runs through
// more code (the library's, on top of SQLite's) look like it needed up to 0.5 MiB more for a
// call that allocates the same few KiB.
inline long peakMemoryKiB(std::function<void()> const& work) {
    int fds[2];
    if (::pipe(fds) != 0) return -1;
    pid_t const child = ::fork();
    if (child == 0) {
        ::close(fds[0]);
        auto status = [](char const* field) {
            std::ifstream in("/proc/self/status");
            std::string line;
            while (std::getline(in, line)) {
                if (line.compare(0, std::char_traits<char>::length(field), field) == 0)
                    return std::atol(line.c_str() + std::char_traits<char>::length(field));
            }
            return -1L;
        };
        work();
        // Memory this process freed earlier but kept would be reused without showing: give it
        // back first, then reset VmHWM to the current size.
        ::malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << "5";
        long const before = status("VmRSS:");
        work();
        long const peak = status("VmHWM:") - before;
        ssize_t const written = ::write(fds[1], &peak, sizeof peak);
        ::_exit(written == sizeof peak ? 0 : 1);
    }
    ::close(fds[1]);
    long peak = -1;
    if (child < 0 || ::read(fds[0], &peak, sizeof peak) != sizeof peak) peak = -1;
    ::close(fds[0]);
    if (child > 0) ::waitpid(child, nullptr, 0);
    return peak;
}

// CPU time of the calling thread, in microseconds: unlike the wall clock, neither the other
// programs sharing the machine nor waits for the disk count.
inline double threadCpuMicros() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// Wall and thread CPU time of one call, added to the running totals.
struct Spent {
    double wall = 0;
    double cpu = 0;
    template <class Op>
    void run(Op& op, long long i) {
        using Clock = std::chrono::steady_clock;
        double const cpu0 = threadCpuMicros();
        auto const t0 = Clock::now();
        op(i);
        auto const t1 = Clock::now();
        cpu += threadCpuMicros() - cpu0;
        wall += std::chrono::duration<double, std::micro>(t1 - t0).count();
    }
};

// The bytes of the C++ heap in use and their peak, counted by the replacement operator new and
// delete that a program gets by defining ZRN_BENCH_COUNT_HEAP before including this header (in
// its one source file). SQLite's own allocations (malloc) are not counted: both sides of a case
// make them alike, and what a reader adds on top is its C++ objects.
struct HeapCount {
    static inline std::atomic<long long> inUse{0};
    static inline std::atomic<long long> peak{0};
    static inline bool counting = false;

    static void add(void* block) {
        if (!block) return;
        long long const now = inUse += static_cast<long long>(::malloc_usable_size(block));
        long long seen = peak.load(std::memory_order_relaxed);
        while (now > seen && !peak.compare_exchange_weak(seen, now)) {
        }
    }
    static void remove(void* block) {
        if (block) inUse -= static_cast<long long>(::malloc_usable_size(block));
    }
    // The peak bytes `work` held on top of what was in use when it started, in KiB.
    template <class Work>
    static double peakKiB(Work&& work) {
        long long const base = inUse.load();
        peak = base;
        work();
        return static_cast<double>(peak.load() - base) / 1024.0;
    }
};

// Times `storeOp(i)` and `rawOp(i)` in the same loop: every iteration runs each once, alternating
// which goes first, so drift in the machine's load hits both alike. Reports the mean wall times
// per operation (store_us, raw_us), ratio = store/raw, and the same for the thread's CPU time
// (store_cpu_us, raw_cpu_us, cpu_ratio). With `memory`, also runs each once more in a child
// process and reports its peak memory (store_kib, raw_kib, memory = store/raw).
template <class StoreOp, class RawOp>
void paired(benchmark::State& state, StoreOp storeOp, RawOp rawOp, bool memory = false) {
    Spent store;
    Spent raw;
    long long i = 0;
    for (auto _ : state) {
        if (i % 2 == 0) {
            store.run(storeOp, i);
            raw.run(rawOp, i);
        } else {
            raw.run(rawOp, i);
            store.run(storeOp, i);
        }
        ++i;
    }
    if (i == 0) return;
    double const n = static_cast<double>(i);
    state.counters["store_us"] = store.wall / n;
    state.counters["raw_us"] = raw.wall / n;
    state.counters["ratio"] = store.wall / raw.wall;
    state.counters["store_cpu_us"] = store.cpu / n;
    state.counters["raw_cpu_us"] = raw.cpu / n;
    state.counters["cpu_ratio"] = raw.cpu > 0 ? store.cpu / raw.cpu : 0;
    if (memory) {
        double const storeKiB = static_cast<double>(peakMemoryKiB([&] { storeOp(i); }));
        double const rawKiB = static_cast<double>(peakMemoryKiB([&] { rawOp(i); }));
        state.counters["store_kib"] = storeKiB;
        state.counters["raw_kib"] = rawKiB;
        state.counters["memory"] = rawKiB > 0 ? storeKiB / rawKiB : 0;
        if (HeapCount::counting) {
            double const storeHeap = HeapCount::peakKiB([&] { storeOp(i); });
            double const rawHeap = HeapCount::peakKiB([&] { rawOp(i); });
            state.counters["store_heap_kib"] = storeHeap;
            state.counters["raw_heap_kib"] = rawHeap;
            state.counters["heap"] = rawHeap > 0 ? storeHeap / rawHeap : 0;
        }
    }
}

// The console output, then for every paired case the median of its counters over the
// repetitions (one value per repetition; the mean of many would let one disturbed repetition
// move the figure).
class PairedReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            if (run.counters.find("ratio") == run.counters.end()) continue;
            std::string const name = run.run_name.function_name;
            if (m_samples.find(name) == m_samples.end()) m_order.push_back(name);
            auto& sample = m_samples[name];
            for (auto const& counter : run.counters)
                sample[counter.first].push_back(counter.second.value);
        }
    }

    // Wall time, thread CPU time and, where measured, the peak resident memory of a child
    // (KiB) and the peak heap bytes in use (heap KiB, counted by the program's allocator).
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-38s %10s %10s %6s %10s %10s %6s %9s %9s %6s %9s %9s %6s\n",
                    "case (median of repetitions)", "store us", "raw us", "ratio", "store cpu",
                    "raw cpu", "cpu", "store KiB", "raw KiB", "memory", "st heap", "raw heap",
                    "heap");
        for (std::string const& name : m_order) {
            auto& s = m_samples[name];
            std::printf("%-38s %10.1f %10.1f %6.3f %10.1f %10.1f %6.3f", name.c_str(),
                        median(s["store_us"]), median(s["raw_us"]), median(s["ratio"]),
                        median(s["store_cpu_us"]), median(s["raw_cpu_us"]), median(s["cpu_ratio"]));
            if (s.count("memory")) {
                std::printf(" %9.0f %9.0f %6.3f", median(s["store_kib"]), median(s["raw_kib"]),
                            median(s["memory"]));
            }
            if (s.count("heap")) {
                std::printf(" %9.0f %9.0f %6.3f", median(s["store_heap_kib"]),
                            median(s["raw_heap_kib"]), median(s["heap"]));
            }
            std::printf("\n");
        }
        std::fflush(stdout);
    }

private:
    std::map<std::string, std::map<std::string, std::vector<double>>> m_samples;
    std::vector<std::string> m_order;
};

// main() for the paired benchmarks: 5 repetitions unless the command line says otherwise, the
// median table at the end.
inline int runPaired(int argc, char** argv) {
    scratch();
    std::vector<char*> args(argv, argv + argc);
    bool repetitions = false;
    for (char* arg : args) repetitions |= std::string(arg).rfind("--benchmark_repetitions", 0) == 0;
    static char defaultRepetitions[] = "--benchmark_repetitions=5";
    if (!repetitions) args.push_back(defaultRepetitions);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    PairedReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
}  // namespace zrn

#ifdef ZRN_BENCH_COUNT_HEAP
// Every C++ allocation of the program passes here; sized and aligned forms forward to these.
void* operator new(std::size_t size) {
    void* block = std::malloc(size ? size : 1);
    if (!block) throw std::bad_alloc();
    zrn::bench::HeapCount::add(block);
    return block;
}
void operator delete(void* block) noexcept {
    zrn::bench::HeapCount::remove(block);
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
#endif
