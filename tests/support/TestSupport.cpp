#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace zrn {
namespace test {

// ---- LogCapture --------------------------------------------------------------------------

LogCapture::LogCapture(int minimumPriority)
    : m_previousSink(LogFactory::setSink(this)), m_previousPriority(LogFactory::getPriority()) {
    LogFactory::setPriority(minimumPriority);
}

LogCapture::~LogCapture() {
    LogFactory::setPriority(m_previousPriority);
    LogFactory::setSink(m_previousSink);
}

void LogCapture::write(String const& loggerName, LoggerPriority::LOGGER_PRIORITY priority,
                       String const& message) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_entries.push_back(Entry{loggerName.str(), static_cast<int>(priority), message.str()});
}

std::vector<LogCapture::Entry> LogCapture::entries() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_entries;
}

std::vector<std::string> LogCapture::messages(std::string const& loggerName) const {
    std::vector<std::string> result;
    for (auto const& e : entries()) {
        if (e.logger == loggerName) result.push_back(e.message);
    }
    return result;
}

std::vector<std::string> LogCapture::messagesStartingWith(std::string const& loggerName,
                                                          std::string const& prefix) const {
    std::vector<std::string> result;
    for (auto const& m : messages(loggerName)) {
        if (m.compare(0, prefix.size(), prefix) == 0) result.push_back(m);
    }
    return result;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_entries.clear();
}

// ---- TempDir -----------------------------------------------------------------------------

TempDir::TempDir() {
    auto const* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "test";
    for (char& c : name) {
        if (c == '/') c = '_';
    }
    m_path = ::testing::TempDir() + "zrn-" + name + "-" + std::to_string(::getpid());
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
}

TempDir::~TempDir() {
    std::error_code ignored;
    // A test may have made parts read-only; give them back before removing.
    for (auto const& entry : std::filesystem::recursive_directory_iterator(m_path, ignored)) {
        std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
    }
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::file(std::string const& name) const { return m_path + "/" + name; }

// ---- RawDb -------------------------------------------------------------------------------

RawDb::RawDb(std::string const& path, bool readOnly) {
    int const flags =
        readOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "raw open of " << path << ": " << sqlite3_errmsg(m_db);
    }
    sqlite3_busy_timeout(m_db, 30000);
}

RawDb::~RawDb() { sqlite3_close_v2(m_db); }

bool RawDb::exec(std::string const& sql) {
    char* error = nullptr;
    if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        ADD_FAILURE() << "raw exec of " << sql << ": " << (error ? error : "?");
        sqlite3_free(error);
        return false;
    }
    return true;
}

RawDb::Rows RawDb::query(std::string const& sql) {
    Rows rows;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "raw prepare of " << sql << ": " << sqlite3_errmsg(m_db);
        return rows;
    }
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            auto const* text = reinterpret_cast<char const*>(sqlite3_column_text(statement, i));
            row.emplace_back(text ? std::string(text, static_cast<std::size_t>(
                                                          sqlite3_column_bytes(statement, i)))
                                  : std::string("<NULL>"));
        }
        rows.push_back(std::move(row));
    }
    if (rc != SQLITE_DONE) ADD_FAILURE() << "raw step of " << sql << ": " << sqlite3_errmsg(m_db);
    sqlite3_finalize(statement);
    return rows;
}

std::string RawDb::scalar(std::string const& sql) {
    Rows const rows = query(sql);
    if (rows.empty() || rows[0].empty()) return "<none>";
    return rows[0][0];
}

// ---- Files and processes -----------------------------------------------------------------

MutexHolder::MutexHolder(std::string const& child, std::string const& mutex,
                         std::string const& ready)
    : m_pid(spawnProcess({child, "hold", mutex, ready})) {
    for (int i = 0; i < 1000 && !std::filesystem::exists(ready); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(std::filesystem::exists(ready)) << "the holder of " << mutex << " never said so";
}

int MutexHolder::release() {
    if (m_pid < 0) return -1;
    ::kill(m_pid, SIGKILL);
    int const status = waitProcess(m_pid, 10);
    m_pid = -1;
    return status;
}

std::map<std::string, std::pair<std::string, long long>> snapshot(std::string const& folder) {
    std::map<std::string, std::pair<std::string, long long>> files;
    for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        struct stat info {};
        ::stat(entry.path().c_str(), &info);
        long long const mtime = info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec;
        files[entry.path().filename().string()] = {readFile(entry.path().string()), mtime};
    }
    return files;
}

void writeFile(std::string const& path, std::string const& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::vector<std::string> split(std::string const& list, char separator) {
    std::vector<std::string> fields;
    std::istringstream in(list);
    for (std::string field; std::getline(in, field, separator);) fields.push_back(field);
    return fields;
}

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

namespace {
int decodeStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}
}  // namespace

int spawnProcess(std::vector<std::string> const& argv) {
    std::vector<char*> args;
    for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

int waitProcess(int pid, double seconds) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        int status = 0;
        pid_t const done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) return decodeStatus(status);
        if (done < 0) return -1;
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

int runProcess(std::vector<std::string> const& argv) {
    int status = 0;
    ::waitpid(spawnProcess(argv), &status, 0);
    return decodeStatus(status);
}

// ---- ScopedEnv ---------------------------------------------------------------------------

ScopedEnv::ScopedEnv(char const* name, char const* value) : m_name(name) {
    char const* old = std::getenv(name);
    m_hadValue = old != nullptr;
    if (old) m_oldValue = old;
    if (value) {
        ::setenv(name, value, 1);
    } else {
        ::unsetenv(name);
    }
}

ScopedEnv::~ScopedEnv() {
    if (m_hadValue) {
        ::setenv(m_name.c_str(), m_oldValue.c_str(), 1);
    } else {
        ::unsetenv(m_name.c_str());
    }
}

}  // namespace test
}  // namespace zrn
