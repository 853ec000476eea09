#pragma once

// Helpers for benchmarks that compare the library with raw sqlite3 on the same statements.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

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

}  // namespace bench
}  // namespace zrn
