// The DDL of the fleet database. One table per store table, named <store>_<Table> in the
// database "datastore", holding every machine's rows: the export's own fields (machine, host,
// store, table, _version, _deleted) and then the table's columns.
//
// ReplacingMergeTree(_version) keeps, per ORDER BY key, the row of the highest _version when
// parts merge, and FINAL applies that at query time; the key is the machine and the row's key,
// so a later export of a row replaces the earlier one and a tombstone (_deleted = 1) replaces
// the row it deletes. Only syntax that both old (18.x) and current servers accept: ORDER BY
// in the engine clause, Nullable() for columns SQLite may leave NULL, backquoted names.

#include "ClickHouseSchema.h"

#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "Context.h"

namespace datastore {

namespace {

std::string quotedName(std::string const& name) {
    std::string result = "`";
    for (char c : name) {
        if (c == '`' || c == '\\') result += '\\';
        result += c;
    }
    return result + "`";
}

// A table name as it is when it needs no quotes ("event_TestRuns"), else backquoted.
std::string tableName(std::string const& name) {
    bool plain = !name.empty() && !std::isdigit(static_cast<unsigned char>(name[0]));
    for (char c : name) plain = plain && (std::isalnum(static_cast<unsigned char>(c)) || c == '_');
    return plain ? name : quotedName(name);
}

bool contains(std::string const& text, char const* part) {
    return text.find(part) != std::string::npos;
}

// A folder of its own under the temporary folder, removed with its content when done.
class ScratchFolder {
public:
    ScratchFolder() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "datastore-schema-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw ToolError(STORE, pattern + ": cannot create a temporary folder");
        m_path = pattern;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchFolder(ScratchFolder const&) = delete;
    ScratchFolder& operator=(ScratchFolder const&) = delete;
    std::string file(std::string const& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

template <typename Store>
std::vector<zrn::StoreTable> tablesOf(std::string const& path) {
    { Store const created{zrn::String(path)}; }
    zrn::StoreReader reader(path);
    std::vector<zrn::StoreTable> tables = reader.tables();
    std::sort(tables.begin(), tables.end(),
              [](zrn::StoreTable const& a, zrn::StoreTable const& b) { return a.name < b.name; });
    return tables;
}

void writeTable(std::ostream& out, std::string const& store, zrn::StoreTable const& table) {
    out << "CREATE TABLE IF NOT EXISTS datastore." << tableName(store + "_" + table.name)
        << "\n(\n    machine String,\n    host String,\n    store String,\n    `table` String,"
           "\n    _version UInt64,\n    _deleted UInt8";
    if (table.rowKey == "rowid") out << ",\n    rowid Int64";
    for (zrn::StoreColumn const& column : table.columns)
        out << ",\n    " << quotedName(column.name) << " "
            << clickHouseType(column, column.name == table.rowKey);
    out << "\n)\nENGINE = ReplacingMergeTree(_version)\nORDER BY (machine, "
        << quotedName(table.rowKey) << ");\n";
}

}  // namespace

StoreTables libraryTables() {
    // The tables as the library makes them in new files, not as some file on this machine
    // has them: the fleet database is made before any machine's files are seen.
    ScratchFolder const folder;
    return {
        {"appstate", tablesOf<zrn::AppStateDataStore>(folder.file("appstate.db"))},
        {"genstore", tablesOf<zrn::GeneralDataStore>(folder.file("genstore.db"))},
        {"event", tablesOf<zrn::EventDataStore>(folder.file("event.db"))},
        {"softwarediagevent",
         tablesOf<zrn::SoftwareDiagEventDataStore>(folder.file("softwarediagevent.db"))},
    };
}

std::string clickHouseType(zrn::StoreColumn const& column, bool isKey) {
    std::string declared = column.type;
    for (char& c : declared) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string type = "Float64";  // NUMERIC affinity
    if (contains(declared, "INT"))
        type = "Int64";
    else if (contains(declared, "CHAR") || contains(declared, "CLOB") ||
             contains(declared, "TEXT") || contains(declared, "BLOB") || declared.empty())
        type = "String";  // a blob is exported as hex text
    if (isKey || column.notNull) return type;
    return "Nullable(" + type + ")";
}

std::string clickHouseSchema(StoreTables const& stores) {
    std::ostringstream out;
    out << "CREATE DATABASE IF NOT EXISTS datastore;\n";
    for (auto const& store : stores)
        for (zrn::StoreTable const& table : store.second) {
            out << "\n";
            writeTable(out, store.first, table);
        }
    return out.str();
}

}  // namespace datastore
