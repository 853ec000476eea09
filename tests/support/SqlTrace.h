#pragma once

// Records the text of every statement SQLite runs on the connections opened while a SqlTrace
// lives, exactly as SQLite received it. Stores that run hand-built statements without logging
// them are checked through this. Uses SQLite's auto-extension hook, so the connections the
// library opens inside libCommon are traced without any change to the library.

#include <sqlite3.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace zrn {
namespace test {

class SqlTrace {
public:
    SqlTrace() {
        std::lock_guard<std::mutex> guard(lock());
        current() = this;
        // void(*)(void) is SQLite's generic entry-point type; the real signature is attach's.
        sqlite3_auto_extension(reinterpret_cast<void (*)(void)>(&attach));
    }
    ~SqlTrace() {
        sqlite3_cancel_auto_extension(reinterpret_cast<void (*)(void)>(&attach));
        std::lock_guard<std::mutex> guard(lock());
        current() = nullptr;
    }
    SqlTrace(SqlTrace const&) = delete;
    SqlTrace& operator=(SqlTrace const&) = delete;

    std::vector<std::string> statements() const {
        std::lock_guard<std::mutex> guard(lock());
        return m_statements;
    }
    // The statements that start with `prefix`, in order.
    std::vector<std::string> startingWith(std::string const& prefix) const {
        std::vector<std::string> found;
        for (auto const& s : statements()) {
            if (s.compare(0, prefix.size(), prefix) == 0) found.push_back(s);
        }
        return found;
    }
    bool contains(std::string const& statement) const {
        auto const all = statements();
        return std::find(all.begin(), all.end(), statement) != all.end();
    }
    void clear() {
        std::lock_guard<std::mutex> guard(lock());
        m_statements.clear();
    }

private:
    static std::mutex& lock() {
        static std::mutex instance;
        return instance;
    }
    static SqlTrace*& current() {
        static SqlTrace* instance = nullptr;
        return instance;
    }
    static int attach(sqlite3* db, char**, sqlite3_api_routines const*) {
        sqlite3_trace_v2(db, SQLITE_TRACE_STMT, &onStatement, nullptr);
        return SQLITE_OK;
    }
    static int onStatement(unsigned, void*, void*, void* text) {
        std::lock_guard<std::mutex> guard(lock());
        // Statements run by triggers arrive as "-- ..." comments; only top-level ones count.
        char const* sql = static_cast<char const*>(text);
        if (current() && sql && !(sql[0] == '-' && sql[1] == '-')) {
            current()->m_statements.emplace_back(sql);
        }
        return 0;
    }

    std::vector<std::string> m_statements;
};

}  // namespace test
}  // namespace zrn
