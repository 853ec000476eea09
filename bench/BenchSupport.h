#pragma once

// Helpers for benchmarks that compare the library with raw sqlite3 on the same statements.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zrn {
namespace bench {

// A fresh file path under /tmp, removed (with its journal) before use.
inline std::string freshPath(std::string const& name) {
    std::string const path = "/tmp/zrn-bench-" + std::to_string(::getpid()) + "-" + name + ".db";
    ::unlink(path.c_str());
    ::unlink((path + "-journal").c_str());
    return path;
}

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

inline double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    std::size_t const mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// How much memory `work` needs at its peak, in KiB: run in a child process whose peak resident
// size is reset first, so neither this process's earlier allocations nor memory freed earlier
// and kept by the allocator count. -1 when it could not be measured.
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
        std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM to the current size
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

}  // namespace bench
}  // namespace zrn
