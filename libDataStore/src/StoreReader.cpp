// Reading a store file as tables: the one place that turns table names, columns and values
// into statement text for it.

#include <libDataStore/StoreReader.h>
#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <set>
#include <sstream>
#include <thread>

namespace zrn {

namespace {

// `name`: backquotes doubled inside, so any table or column name the file holds works.
std::string identifier(std::string const& name) {
    std::string quoted = "`";
    for (char c : name) quoted += c == '`' ? std::string("``") : std::string(1, c);
    return quoted + "`";
}

std::string literal(StoreCell const& cell) {
    switch (cell.type) {
        case StoreCell::Type::Null:
            return "NULL";
        case StoreCell::Type::Integer:
            return std::to_string(cell.integer);
        case StoreCell::Type::Real: {
            std::ostringstream text;
            text.precision(17);
            text << cell.real;
            return text.str();
        }
        default:
            break;
    }
    std::string quoted = "'";
    for (char c : cell.text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

StoreCell cellOf(sqlite3_stmt* statement, int i) {
    StoreCell cell;
    switch (sqlite3_column_type(statement, i)) {
        case SQLITE_INTEGER:
            cell.type = StoreCell::Type::Integer;
            cell.integer = sqlite3_column_int64(statement, i);
            return cell;
        case SQLITE_FLOAT:
            cell.type = StoreCell::Type::Real;
            cell.real = sqlite3_column_double(statement, i);
            return cell;
        case SQLITE_NULL:
            return cell;
        case SQLITE_BLOB:
            cell.type = StoreCell::Type::Blob;
            break;
        default:
            cell.type = StoreCell::Type::Text;
    }
    auto const* bytes = static_cast<char const*>(sqlite3_column_blob(statement, i));
    int const size = sqlite3_column_bytes(statement, i);
    if (bytes) cell.text.assign(bytes, static_cast<std::size_t>(size));
    return cell;
}

bool isDamage(int code) {
    int const primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

}  // namespace

// ---- Errors and cells ----------------------------------------------------------------------

StoreReadError::StoreReadError(String const& message, Cause cause)
    : DatabaseError(message), m_cause(cause) {}

StoreReadError::~StoreReadError() = default;

StoreCell StoreCell::of(long long value) {
    StoreCell cell;
    cell.type = Type::Integer;
    cell.integer = value;
    return cell;
}

StoreCell StoreCell::of(std::string value) {
    StoreCell cell;
    cell.type = Type::Text;
    cell.text = std::move(value);
    return cell;
}

long long StoreCell::asInteger() const {
    switch (type) {
        case Type::Integer:
            return integer;
        case Type::Real:
            return static_cast<long long>(real);
        case Type::Text:
            return std::strtoll(text.c_str(), nullptr, 10);
        default:
            return 0;
    }
}

std::string StoreCell::asText() const {
    if (type == Type::Integer) return std::to_string(integer);
    if (type == Type::Real) return literal(*this);
    return text;
}

bool StoreCell::operator==(StoreCell const& other) const {
    return type == other.type && integer == other.integer && real == other.real &&
           text == other.text;
}

std::vector<std::string> StoreTable::readColumns() const {
    std::vector<std::string> names;
    if (rowKey == "rowid") names.push_back(rowKey);
    for (StoreColumn const& column : columns) names.push_back(column.name);
    return names;
}

StoreCell const& StoreRow::operator[](std::string const& column) const {
    static StoreCell const none;
    auto const found = std::find(columns.begin(), columns.end(), column);
    if (found == columns.end()) return none;
    return cells[static_cast<std::size_t>(found - columns.begin())];
}

// ---- Opening and statements -----------------------------------------------------------------

void StoreReader::Closer::operator()(sqlite3* db) const { sqlite3_close_v2(db); }

StoreReader::StoreReader(std::string const& path, ReadOnly const& options)
    : m_path(path), m_options(options) {
    // A URI only for immutable media; a plain path is taken as it is otherwise.
    std::string name = path;
    int flags = SQLITE_OPEN_READONLY;
    if (options.immutable) {
        char* uri = sqlite3_mprintf("file:%q?immutable=1", path.c_str());
        name = uri ? uri : path;
        sqlite3_free(uri);
        flags |= SQLITE_OPEN_URI;
    }
    sqlite3* db = nullptr;
    int const rc = sqlite3_open_v2(name.c_str(), &db, flags, nullptr);
    m_db.reset(db);
    if (rc != SQLITE_OK) fail("cannot open", rc);
    auto const wait = std::min<long long>(options.wait.count(), INT_MAX);
    sqlite3_busy_timeout(db, static_cast<int>(wait));
}

StoreReader::~StoreReader() = default;

void StoreReader::fail(std::string const& what, int code) const {
    int const primary = code & 0xff;
    if (primary == SQLITE_BUSY || primary == SQLITE_LOCKED)
        throw StoreReadError(m_path + ": locked by another program", StoreReadError::Cause::Locked);
    std::string const why = m_db ? sqlite3_errmsg(m_db.get()) : sqlite3_errstr(code);
    throw StoreReadError(m_path + ": " + what + ": " + why, isDamage(code)
                                                                ? StoreReadError::Cause::Damaged
                                                                : StoreReadError::Cause::Other);
}

sqlite3_stmt* StoreReader::prepare(std::string const& sql) {
    sqlite3_stmt* statement = nullptr;
    int const rc = sqlite3_prepare_v2(m_db.get(), sql.c_str(), -1, &statement, nullptr);
    if (rc != SQLITE_OK) fail("cannot read", rc);
    return statement;
}

void StoreReader::run(std::string const& sql, std::function<void(StoreRow const&)> const& onRow) {
    sqlite3_stmt* const statement = prepare(sql);
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> const guard(statement, sqlite3_finalize);
    int rc = SQLITE_OK;
    int const count = sqlite3_column_count(statement);
    std::vector<std::string> columns;
    for (int i = 0; i < count; ++i) columns.emplace_back(sqlite3_column_name(statement, i));
    std::vector<StoreCell> cells(static_cast<std::size_t>(count));
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        for (int i = 0; i < count; ++i) cells[static_cast<std::size_t>(i)] = cellOf(statement, i);
        if (onRow) onRow(StoreRow{columns, cells, cells.empty() ? 0 : cells[0].asInteger()});
    }
    if (rc != SQLITE_DONE) fail("cannot read", rc);
}

// ---- Tables ---------------------------------------------------------------------------------

bool StoreReader::hasTable(std::string const& name) {
    bool found = false;
    run("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = " +
            literal(StoreCell::of(name)),
        [&](StoreRow const&) { found = true; });
    return found;
}

std::vector<std::string> StoreReader::tableNames() {
    std::vector<std::string> names;
    run("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' "
        "ESCAPE '\\' ORDER BY rowid",
        [&](StoreRow const& row) { names.push_back(row.cells[0].text); });
    return names;
}

StoreTable StoreReader::table(std::string const& name) {
    StoreTable table = shape(name);
    run("SELECT count(*) FROM " + identifier(name),
        [&](StoreRow const& row) { table.rows = row.cells[0].integer; });
    return table;
}

StoreTable StoreReader::shape(std::string const& name) {
    StoreTable table;
    table.name = name;
    int keys = 0;
    std::string keyColumn;
    run("PRAGMA table_info(" + identifier(name) + ")", [&](StoreRow const& row) {
        StoreColumn column{row["name"].text, row["type"].text,
                           static_cast<int>(row["pk"].asInteger()),
                           row["notnull"].asInteger() != 0};
        if (column.keyPosition > 0) ++keys, keyColumn = column.name;
        std::string type = column.type;
        for (char& c : type) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        if (column.keyPosition > 0 && type.rfind("INTEGER", 0) != 0) keyColumn.clear();
        table.columns.push_back(std::move(column));
    });
    if (table.columns.empty())
        throw StoreReadError(m_path + ": no table " + identifier(name),
                             StoreReadError::Cause::Other);
    table.rowKey = keys == 1 && !keyColumn.empty() ? keyColumn : "rowid";
    return table;
}

std::vector<StoreTable> StoreReader::tables() {
    std::vector<StoreTable> all;
    for (std::string const& name : tableNames()) all.push_back(table(name));
    return all;
}

StoreIdentity StoreReader::identify() {
    StoreIdentity identity;
    std::vector<std::string> const names = tableNames();
    std::set<std::string> const present(names.begin(), names.end());
    for (StoreFacts const& facts : storeFamily()) {
        if (!present.count(facts.markerTable)) continue;
        identity.kind = facts.kind;
        for (char const* table : facts.tables) {
            if (!present.count(table)) identity.missingTables.emplace_back(table);
        }
        if (facts.versionTable && present.count(facts.versionTable)) {
            run("SELECT version FROM " + identifier(facts.versionTable) + " LIMIT 1",
                [&](StoreRow const& row) { identity.version = static_cast<int>(row.key); });
        }
        break;
    }
    return identity;
}

std::vector<std::string> StoreReader::integrityCheck(int maxFindings) {
    std::vector<std::string> findings;
    try {
        run("PRAGMA integrity_check(" + std::to_string(std::max(1, maxFindings)) + ")",
            [&](StoreRow const& row) {
                // One row may hold several findings, one a line.
                std::istringstream lines(row.cells[0].asText());
                for (std::string line; std::getline(lines, line);) {
                    if (line != "ok" && line.rfind("*** in database", 0) != 0)
                        findings.push_back(line);
                }
            });
    } catch (StoreReadError const& e) {
        if (e.cause() != StoreReadError::Cause::Damaged) throw;
        findings.push_back(e.getMessage().str().substr(m_path.size() + 2));
    }
    return findings;
}

// ---- Rows -----------------------------------------------------------------------------------

std::string StoreReader::selectText(std::string const& name, StoreRowQuery const& query) {
    // Its columns and key only: counting the rows would read the whole table per statement.
    StoreTable const shape = this->shape(name);
    std::string sql = "SELECT ";
    std::vector<std::string> const columns = shape.readColumns();
    for (std::size_t i = 0; i < columns.size(); ++i)
        sql += (i ? "," : "") + (columns[i] == "rowid" ? columns[i] : identifier(columns[i]));
    std::string const key = shape.rowKey == "rowid" ? "rowid" : identifier(shape.rowKey);
    sql += " FROM " + identifier(name) + " WHERE 1";
    if (query.afterKey) sql += " AND " + key + " > " + std::to_string(*query.afterKey);
    for (auto const& [column, value] : query.equal)
        sql += " AND " + identifier(column) + (value.isNull() ? " IS " : " = ") + literal(value);
    std::string const ordered = query.orderBy.empty() ? "" : identifier(query.orderBy);
    if (!ordered.empty() && query.atLeast)
        sql += " AND " + ordered + " >= " + literal(*query.atLeast);
    if (!ordered.empty() && query.atMost)
        sql += " AND " + ordered + " <= " + literal(*query.atMost);
    std::string const direction = query.descending ? " DESC" : "";
    sql += " ORDER BY " + (ordered.empty() ? "" : ordered + direction + ",") + key + direction;
    if (query.limit > 0) sql += " LIMIT " + std::to_string(query.limit);
    return sql;
}

long long StoreReader::forEachRow(std::string const& name, RowFunction const& onRow,
                                  StoreRowQuery const& query) {
    std::string const sql = selectText(name, query);
    long long count = 0;
    run(sql, [&](StoreRow const& row) {
        ++count;
        onRow(row);
    });
    return count;
}

long long StoreReader::lastKey(std::string const& name) {
    std::string const key = shape(name).rowKey;
    long long last = 0;
    run("SELECT max(" + (key == "rowid" ? key : identifier(key)) + ") FROM " + identifier(name),
        [&](StoreRow const& row) { last = row.cells[0].asInteger(); });
    return last;
}

long long StoreReader::changeCounter() {
    long long counter = 0;
    run("PRAGMA data_version", [&](StoreRow const& row) { counter = row.key; });
    return counter;
}

StoreReader::Cursor::Cursor(StoreReader& reader, std::string const& table,
                            StoreRowQuery const& query)
    : m_reader(reader),
      m_statement(reader.prepare(reader.selectText(table, query)), sqlite3_finalize) {
    int const count = sqlite3_column_count(m_statement.get());
    for (int i = 0; i < count; ++i)
        m_columns.emplace_back(sqlite3_column_name(m_statement.get(), i));
    m_cells.resize(static_cast<std::size_t>(count));
}

StoreReader::Cursor::~Cursor() = default;

bool StoreReader::Cursor::next() {
    sqlite3_stmt* const statement = m_statement.get();
    int const rc = sqlite3_step(statement);
    if (rc == SQLITE_DONE) return false;
    if (rc != SQLITE_ROW) m_reader.fail("cannot read", rc);
    for (std::size_t i = 0; i < m_cells.size(); ++i)
        m_cells[i] = cellOf(statement, static_cast<int>(i));
    m_key = m_cells.empty() ? 0 : m_cells[0].asInteger();
    return true;
}

StoreReader::Snapshot::Snapshot(StoreReader& reader) : m_reader(reader) {
    m_reader.run("BEGIN", nullptr);
    // A deferred transaction reads its state at its first read: take it now.
    try {
        m_reader.run("SELECT count(*) FROM sqlite_master", nullptr);
    } catch (...) {
        sqlite3_exec(m_reader.m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

StoreReader::Snapshot::~Snapshot() {
    sqlite3_exec(m_reader.m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

// ---- Copies ---------------------------------------------------------------------------------

void StoreReader::backupTo(std::string const& target) {
    sqlite3* raw = nullptr;
    int rc =
        sqlite3_open_v2(target.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::unique_ptr<sqlite3, Closer> const copy(raw);
    if (rc != SQLITE_OK)
        throw StoreReadError(
            target + ": cannot create: " + (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)),
            StoreReadError::Cause::Other);
    sqlite3_backup* job = sqlite3_backup_init(raw, "main", m_db.get(), "main");
    if (!job) fail(std::string("cannot copy: ") + sqlite3_errmsg(raw), sqlite3_errcode(raw));
    // The whole file in one step, so the copy is one committed state; a writer's lock makes
    // the step busy, and it is tried again until the wait is over.
    auto const deadline = std::chrono::steady_clock::now() + m_options.wait;
    while ((rc = sqlite3_backup_step(job, -1)) == SQLITE_BUSY || rc == SQLITE_LOCKED) {
        if (std::chrono::steady_clock::now() > deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    sqlite3_backup_finish(job);
    if (rc != SQLITE_DONE) fail("cannot copy", rc);
}

// ---- Typed readers --------------------------------------------------------------------------

std::vector<ApplicationRunRow> applicationRuns(StoreReader& reader, long long afterId) {
    std::vector<ApplicationRunRow> runs;
    StoreRowQuery query;
    query.afterKey = afterId;
    reader.forEachRow(
        "ApplicationRuns",
        [&](StoreRow const& row) {
            runs.push_back({row.key, row["name"].asText(), row["userName"].asText(),
                            row["typeOfRun"].asText(), row["startTime"].asInteger(),
                            row["endTime"].asInteger()});
        },
        query);
    return runs;
}

namespace {

bool anyRow(StoreReader& reader, char const* table, char const* column, long long value) {
    StoreRowQuery query;
    query.equal.emplace_back(column, StoreCell::of(value));
    query.limit = 1;
    return reader.forEachRow(
               table, [](StoreRow const&) {}, query) > 0;
}

}  // namespace

bool scriptRunExists(StoreReader& reader, long long scriptId) {
    return anyRow(reader, "ScriptRuns", "scriptId", scriptId);
}

bool testRunExists(StoreReader& reader, long long testId) {
    return anyRow(reader, "TestRuns", "testId", testId);
}

bool alertExists(StoreReader& reader, long long alertId) {
    return anyRow(reader, "Alerts", "rowid", alertId);
}

}  // namespace zrn
