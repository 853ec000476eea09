#include "RawStore.h"

#include <sqlite3.h>
#include <unistd.h>

#include <climits>
#include <memory>

#include "Context.h"

namespace datastore {

RawStore::RawStore(std::string const& path, int waitMs) : m_path(path) {
    int const rc = sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READONLY, nullptr);
    if (rc != SQLITE_OK) fail("cannot open: ");
    sqlite3_busy_timeout(m_db, waitMs);
}

RawStore::~RawStore() { sqlite3_close_v2(m_db); }

void RawStore::fail(std::string const& what) const {
    std::string const why = m_db ? sqlite3_errmsg(m_db) : "out of memory";
    if (m_db && sqlite3_errcode(m_db) == SQLITE_BUSY)
        throw ToolError(STORE, m_path + ": locked by another program (see --wait)");
    throw ToolError(STORE, m_path + ": " + what + why);
}

void RawStore::query(std::string const& sql, RowFunction const& row) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
        fail("cannot read: ");
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> const guard(statement, sqlite3_finalize);
    int const count = sqlite3_column_count(statement);
    std::vector<std::string> columns;
    for (int i = 0; i < count; ++i) columns.emplace_back(sqlite3_column_name(statement, i));
    std::vector<nlohmann::ordered_json> cells(static_cast<std::size_t>(count));
    for (;;) {
        int const rc = sqlite3_step(statement);
        if (rc == SQLITE_DONE) return;
        if (rc != SQLITE_ROW) fail("cannot read: ");
        for (int i = 0; i < count; ++i) {
            auto& cell = cells[static_cast<std::size_t>(i)];
            switch (sqlite3_column_type(statement, i)) {
                case SQLITE_INTEGER:
                    cell = static_cast<long long>(sqlite3_column_int64(statement, i));
                    break;
                case SQLITE_FLOAT:
                    cell = sqlite3_column_double(statement, i);
                    break;
                case SQLITE_NULL:
                    cell = nullptr;
                    break;
                case SQLITE_BLOB: {
                    auto const* bytes =
                        static_cast<unsigned char const*>(sqlite3_column_blob(statement, i));
                    int const size = sqlite3_column_bytes(statement, i);
                    static char const digits[] = "0123456789abcdef";
                    std::string hex;
                    for (int b = 0; b < size; ++b) {
                        hex += digits[bytes[b] >> 4];
                        hex += digits[bytes[b] & 15];
                    }
                    cell = hex;
                    break;
                }
                default: {
                    auto const* text =
                        reinterpret_cast<char const*>(sqlite3_column_text(statement, i));
                    cell = std::string(
                        text, static_cast<std::size_t>(sqlite3_column_bytes(statement, i)));
                }
            }
        }
        row(columns, cells);
    }
}

long long RawStore::number(std::string const& sql) {
    long long result = 0;
    query(sql, [&](auto const&, auto& cells) {
        if (!cells.empty() && cells[0].is_number()) result = cells[0].template get<long long>();
    });
    return result;
}

std::vector<std::string> RawStore::tables() {
    std::vector<std::string> names;
    query(
        "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' "
        "ESCAPE '\\' ORDER BY name",
        [&](auto const&, auto& cells) { names.push_back(cells[0].template get<std::string>()); });
    return names;
}

std::string RawStore::selectList(std::string const& table) {
    std::string list;
    int keys = 0;
    bool integerKey = false;
    query("PRAGMA table_info(`" + table + "`)", [&](auto const&, auto& cells) {
        std::string const name = cells[1].template get<std::string>();
        std::string type = cells[2].is_string() ? cells[2].template get<std::string>() : "";
        for (char& c : type) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        if (cells[5].template get<long long>() > 0) {
            ++keys;
            integerKey = type.rfind("INTEGER", 0) == 0;
        }
        list += (list.empty() ? "`" : ",`") + name + "`";
    });
    if (keys == 1 && integerKey) return list;
    return "rowid," + list;
}

std::string hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0) return "";
    return name;
}

}  // namespace datastore
