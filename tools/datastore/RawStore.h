#pragma once

// The SQLite C API on a store file, for what goes beyond the stores' operations: a typed
// dump of every table (export), data_version polling (follow) and the online backup API
// (collect). Opens read-only unless told otherwise; never creates a file.

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace datastore {

class RawStore {
public:
    // Opens the existing file at `path` read-only, waiting up to `waitMs` for a writer's
    // lock. Failure: ToolError(STORE) naming the file.
    RawStore(std::string const& path, int waitMs);
    ~RawStore();
    RawStore(RawStore const&) = delete;
    RawStore& operator=(RawStore const&) = delete;

    sqlite3* handle() const { return m_db; }
    std::string const& path() const { return m_path; }

    // Runs `sql` (one statement); `row` gets the column names and each row's cells as JSON
    // values of their stored type: integers and reals as numbers, text as strings, NULL as
    // null, blobs as hexadecimal text. Failure: ToolError(STORE).
    using RowFunction = std::function<void(std::vector<std::string> const& columns,
                                           std::vector<nlohmann::ordered_json>& cells)>;
    void query(std::string const& sql, RowFunction const& row);
    // The first cell of the first row as an integer; 0 when there is none.
    long long number(std::string const& sql);

    // The tables of the file (not SQLite's own), by name.
    std::vector<std::string> tables();
    // What `SELECT` lists for `table`: its columns, led by "rowid" when the table has no
    // INTEGER PRIMARY KEY naming it (the rowid is then an identity other rows refer to, as
    // the alerts' and the general logs').
    std::string selectList(std::string const& table);

private:
    [[noreturn]] void fail(std::string const& what) const;

    std::string m_path;
    sqlite3* m_db = nullptr;
};

// The machine's host name, for records that leave it.
std::string hostName();

}  // namespace datastore
