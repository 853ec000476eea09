#pragma once

// Shared test helpers: log capture, per-test temporary directories, raw sqlite3 access to
// read files back independently of the library, and child processes.

#include <libCommon/Exception.h>
#include <libCommon/Logger.h>
#include <libCommon/String.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;

namespace zrn {
namespace test {

// Captures every message written while it lives, with the process-wide minimum priority
// lowered to `minimumPriority` (1: everything). Restores the previous sink and priority.
class LogCapture : public LogSink {
public:
    struct Entry {
        std::string logger;
        int priority;
        std::string message;
    };

    explicit LogCapture(int minimumPriority = 1);
    ~LogCapture() override;
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    void write(String const& loggerName, LoggerPriority::LOGGER_PRIORITY priority,
               String const& message) override;

    std::vector<Entry> entries() const;
    // Messages of one logger, in order.
    std::vector<std::string> messages(std::string const& loggerName) const;
    // Messages of one logger that start with `prefix`.
    std::vector<std::string> messagesStartingWith(std::string const& loggerName,
                                                  std::string const& prefix) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
    LogSink* m_previousSink;
    int m_previousPriority;
};

// A fresh directory under the GoogleTest temp dir, named after the running test and removed
// (with its content) when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::string const& path() const { return m_path; }
    // path() + "/" + name
    std::string file(std::string const& name) const;

private:
    std::string m_path;
};

// The sqlite3 C API on a file, bypassing the library: what is really in the file.
class RawDb {
public:
    using Rows = std::vector<std::vector<std::string>>;

    // Opens read-write (creating the file) unless `readOnly`.
    explicit RawDb(std::string const& path, bool readOnly = false);
    ~RawDb();
    RawDb(RawDb const&) = delete;
    RawDb& operator=(RawDb const&) = delete;

    // Runs one or more statements; fails the current test (and returns false) on error.
    bool exec(std::string const& sql);
    // Rows of one query, every cell as text; NULL reads as "<NULL>".
    Rows query(std::string const& sql);
    // The first cell of the first row, or "<none>" when there is no row.
    std::string scalar(std::string const& sql);

    sqlite3* handle() const { return m_db; }

private:
    sqlite3* m_db = nullptr;
};

// The fields of `list` separated by `separator`, empty ones included: a long table of
// cases written as one text.
std::vector<std::string> split(std::string const& list, char separator = '|');

// The message of the `E` that `action` throws, or "<no exception>" when it throws none.
template <class E = Exception>
std::string messageOf(std::function<void()> const& action) {
    try {
        action();
    } catch (E const& e) {
        return e.getMessage().str();
    }
    return "<no exception>";
}

// Every file of `folder` by its name, with its bytes and modification time (nanoseconds).
std::map<std::string, std::pair<std::string, long long>> snapshot(std::string const& folder);

// Writes `content` to `path`, replacing the file.
void writeFile(std::string const& path, std::string const& content);
std::string readFile(std::string const& path);

// Runs `argv` as a child process and waits for it; returns its exit status, or 128 + signal.
int runProcess(std::vector<std::string> const& argv);
// Starts `argv` as a child process without waiting; returns its pid.
int spawnProcess(std::vector<std::string> const& argv);
// Waits up to `seconds` for the child; its exit status (or 128 + signal), or -1 when it is
// still running then (it is left running).
int waitProcess(int pid, double seconds);

// Another process (`child` hold, the test's zrn_child) holding the named mutex `mutex` from
// the object's making, which waits until it holds it, to release() or the object's end.
class MutexHolder {
public:
    MutexHolder(std::string const& child, std::string const& mutex, std::string const& ready);
    ~MutexHolder() { release(); }
    MutexHolder(MutexHolder const&) = delete;
    MutexHolder& operator=(MutexHolder const&) = delete;
    // Kills the holder; its exit status (128 + SIGKILL), or -1 when it was released before.
    int release();

private:
    int m_pid;
};

// Sets an environment variable for the life of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(char const* name, char const* value);
    ~ScopedEnv();
    ScopedEnv(ScopedEnv const&) = delete;
    ScopedEnv& operator=(ScopedEnv const&) = delete;

private:
    std::string m_name;
    bool m_hadValue;
    std::string m_oldValue;
};

}  // namespace test
}  // namespace zrn
