#include <libDataStore/SQLiteDataStore.h>

#include <libCommon/Assert.h>
#include <libCommon/Exception.h>
#include <libCommon/FileSystem.h>
#include <libCommon/Logger.h>
#include <libCommon/Resource.h>
#include <libCommon/ResultSet.h>
#include <libDataStore/DataStoreExceptions.h>

#include <string>

#include "ModuleState.h"
#include "RowWriter.h"
#include "SqlText.h"
#include "StoreSupport.h"

namespace zrn {

using LoggerPriority::ERROR;
using LoggerPriority::TRACE;
using LoggerPriority::WARNING;

namespace {

String zeroColumnsMessage(String const& path, String const& tableName) {
    return "Database: " + path + " table: " + tableName + " cannot have zero columns";
}

std::string decimal(std::size_t n) { return std::to_string(n); }

}  // namespace

Logger* SQLiteDataStore::logger() {
    static Logger* const instance = createLogger("libDataStore.SQLiteDataStore");
    return instance;
}

// ---- Construction ------------------------------------------------------------------------

SQLiteDataStore::SQLiteDataStore(String const& dbFilePath, String const& tableName,
                                 SQLiteDataStoreColumnSpec const* columns)
    : m_tableName(tableName), m_database(openDatabase(dbFilePath)) {
    buildColumns(columns, dbFilePath);
    init();
}

SQLiteDataStore::SQLiteDataStore(Database const& database, String const& tableName,
                                 SQLiteDataStoreColumnSpec const* columns)
    : m_tableName(tableName) {
    // Checked before the handle is adopted: a null column list must not touch the connection.
    if (!columns) {
        throw ZeroTableColumnsException(
            zeroColumnsMessage(database ? database->dbFilePath() : String(), tableName));
    }
    if (!database) {
        throw DatabaseError("SQLiteDataStore: table " + tableName + " was given no connection");
    }
    m_database = database;
    buildColumns(columns, connection().dbFilePath());
    init();
}

SQLiteDataStore::SQLiteDataStore(String const& dbFilePath, String const& tableName,
                                 OrderedHashTable<String, String> const& columns)
    : m_tableName(tableName), m_columns(columns), m_database(openDatabase(dbFilePath)) {
    init();
}

SQLiteDataStore::~SQLiteDataStore() = default;

void SQLiteDataStore::buildColumns(SQLiteDataStoreColumnSpec const* columns, String const& path) {
    if (!columns) throw ZeroTableColumnsException(zeroColumnsMessage(path, m_tableName));
    // An entry with a null type ends the walk early, without error. A repeated name keeps its
    // first declaration.
    for (SQLiteDataStoreColumnSpec const* c = columns; c->name && c->type; ++c) {
        if (!m_columns.contains(c->name)) m_columns.insert(c->name, c->type);
    }
}

SQLite3Database::SYNC_MODE SQLiteDataStore::dbSyncMode() {
    String value;
    if (!Resource::getSetting("libDataStore", "SQLiteDataStore.SyncMode", value,
                              ZRNLocale::getGlobalLocale())) {
        return SQLite3Database::FULL;
    }
    if (value.equalNoCase("FULL")) return SQLite3Database::FULL;
    if (value.equalNoCase("NORMAL")) return SQLite3Database::NORMAL;
    if (value.equalNoCase("OFF")) return SQLite3Database::OFF;
    return SQLite3Database::FULL;
}

SQLiteDataStore::JOURNAL_MODE SQLiteDataStore::dbJournalMode() {
    String value;
    if (!Resource::getSetting("libDataStore", "SQLiteDataStore.JournalMode", value,
                              ZRNLocale::getGlobalLocale())) {
        return DELETE;
    }
    if (value.equalNoCase("DELETE")) return DELETE;
    if (value.equalNoCase("TRUNCATE")) return TRUNCATE;
    if (value.equalNoCase("PERSIST")) return PERSIST;
    if (value.equalNoCase("WAL")) return WAL;
    // The message number is ours: the table layer had no warning for its settings before.
    logAt(logger(), WARNING, [&] {
        return LoggerStream() + "112 " + "Unknown SQLiteDataStore.JournalMode '" + value +
               "': using DELETE";
    });
    return DELETE;
}

SQLiteDataStore::Database SQLiteDataStore::openDatabase(String const& dbFilePath) {
    Database database(new SQLite3Database(dbFilePath, dbSyncMode()));
    JOURNAL_MODE const mode = dbJournalMode();
    // DELETE is what SQLite does anyway: asking for it would be one more statement on every
    // opening, and would also turn a WAL file back, which only an explicit act should do.
    if (mode == DELETE) return database;
    // An in-memory or temporary database (an empty path, as an event-store copy uses) keeps
    // its journal in memory: there is no file whose mode could be chosen.
    if (database->isInMemoryDB()) return database;
    static char const* const names[] = {"DELETE", "TRUNCATE", "PERSIST", "WAL"};
    String const text = String("PRAGMA journal_mode=") + names[mode];
    logAt(logger(), TRACE, [&] { return LoggerStream() + "113 " + "Journal mode: " + text; });
    ResultSet result;
    database->execute(text, &result);
    // SQLite answers with the mode in force; an in-memory database, for one, keeps "memory".
    String const granted = result.rowCount() > 0 ? result.row(0).columnValue(0) : String();
    if (!granted.equalNoCase(names[mode])) {
        logAt(logger(), WARNING, [&] {
            return LoggerStream() + "114 " + "Journal mode " + names[mode] + " not taken by " +
                   dbFilePath + ": it stays " + granted;
        });
    }
    return database;
}

void SQLiteDataStore::checkReadable(bool exists) const {
    String const prefix = "SQLite database '" + dbFilePath() + "': ";
    if (!exists) {
        throw DatabaseError(prefix + "not a store of this kind: table " +
                            sql::identifier(m_tableName) + " is missing");
    }
    ResultSet info;
    m_database->execute("PRAGMA table_info (" + sql::identifier(m_tableName) + ")", &info);
    Array<String> present;
    for (unsigned i = 0; i < info.rowCount(); ++i) {
        present.append(info.row(static_cast<int>(i)).columnValue(String("name")));
    }
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        if (present.contains(m_columns.keyAt(i))) continue;
        throw DatabaseError(prefix + "not a store of this kind: table " +
                            sql::identifier(m_tableName) + " lacks the column " +
                            sql::identifier(m_columns.keyAt(i)));
    }
}

void SQLiteDataStore::init() {
    // Deliberately by name alone: an index or view of that name counts as the table existing.
    ResultSet existing;
    connection().execute("SELECT name FROM sqlite_master WHERE name=" + sql::value(m_tableName),
                         &existing);

    if (m_database->isReadOnly()) {
        // A read-only connection can neither create nor extend: the file must already have
        // the table with every declared column, or the store refuses it.
        checkReadable(existing.rowCount() > 0);
        return;
    }

    if (existing.rowCount() > 0) {
        // An existing table is only ever extended: no zero-column or reserved-name check here,
        // and columns the file has beyond the declaration, or of another type, stay as they are.
        addMissingColumns();
        return;
    }
    createTable();
}

void SQLiteDataStore::addMissingColumns() {
    String const table = sql::identifier(m_tableName);
    ResultSet info;
    connection().execute("PRAGMA table_info (" + table + ")", &info);
    Array<String> present;
    for (unsigned i = 0; i < info.rowCount(); ++i) {
        present.append(info.row(static_cast<int>(i)).columnValue(String("name")));
    }
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        String const& name = m_columns.keyAt(i);
        if (present.contains(name)) continue;
        logAt(logger(), TRACE, [&] {
            return LoggerStream() + "159 " + "Adding new column " + sql::identifier(name) +
                   " to table " + table;
        });
        connection().execute("ALTER TABLE " + table + " ADD COLUMN " + sql::identifier(name) + " " +
                             m_columns.valueAt(i));
    }
}

void SQLiteDataStore::createTable() {
    if (m_columns.empty()) {
        logAt(logger(), ERROR, [] {
            return LoggerStream() + "137 " +
                   "SQLiteDataStore: Cannot create a table with zero columns";
        });
        throw ZeroTableColumnsException(zeroColumnsMessage(dbFilePath(), m_tableName));
    }

    std::string statement = "CREATE TABLE " + sql::identifier(m_tableName).str() + " (";
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        String const& name = m_columns.keyAt(i);
        if (name == "group") {
            throw InvalidColumnNameException(
                "The name \"group\" is reserved and is not allowed as a column name");
        }
        sql::appendIdentifier(statement, name);
        statement += ' ';
        statement += m_columns.valueAt(i).str();
        if (i + 1 < m_columns.size()) statement += module::comma().str();
    }
    statement += ")";
    connection().execute(String(std::move(statement)));
}

// ---- Connection --------------------------------------------------------------------------

SQLite3Database& SQLiteDataStore::connection() const {
    if (!m_database) {
        throw CannotAccessClosedDatabaseException("SQLiteDataStore: table '" + m_tableName +
                                                  "' has no connection: it was moved from");
    }
    return *m_database;
}

String const& SQLiteDataStore::dbFilePath() const { return connection().dbFilePath(); }

void SQLiteDataStore::close() { connection().close(); }

bool SQLiteDataStore::isClosed() const { return connection().isClosed(); }

bool SQLiteDataStore::checkValidity(String& error) const {
    if (!connection().isInMemoryDB() && !FileSystem::exists(dbFilePath())) {
        error = "Database file does not exist";
        return false;
    }
    if (connection().isClosed()) {
        error = "Database is not open";
        return false;
    }
    if (connection().isThreadSafe()) return true;
    error = "Database is not thread safe";
    return false;
}

// ---- Row operations ----------------------------------------------------------------------

void SQLiteDataStore::append(HashTable<String, String> const& row) {
    std::string names;
    std::string values;
    sql::columnAndValueLists(row, names, values);
    appendLists(row.size(), names, values);
}

void RowWriter::append(SQLiteDataStore& table, sql::ColumnOrder const& order,
                       std::initializer_list<sql::Cell> values) {
    ZRN_ASSERT(order.table() == table.m_tableName.str(), "RowWriter::append: another table");
    table.checkAppendCount(order.size());
    table.runAppend(order.insertOrReplace(values));
}

void SQLiteDataStore::appendLists(std::size_t n, std::string const& names,
                                  std::string const& values) {
    checkAppendCount(n);
    std::string statement = "INSERT OR REPLACE INTO ";
    statement.reserve(statement.size() + m_tableName.byteSize() + names.size() + values.size() +
                      16);
    sql::appendIdentifier(statement, m_tableName);
    statement += " (";
    statement += names;
    statement += ") VALUES(";
    statement += values;
    statement += ")";
    runAppend(std::move(statement));
}

void SQLiteDataStore::checkAppendCount(std::size_t n) const {
    std::size_t const c = m_columns.size();
    if (n > c) {
        String const message = "Cannot append data to " + dbFilePath() + " table: " + m_tableName +
                               ". Column count mismatch: " + decimal(n) + " != " + decimal(c);
        logAt(logger(), ERROR, [&] { return LoggerStream() + "208 " + message; });
        throw RowDataMismatchException(message);
    }
    if (n < c) {
        // The blank before ")" belongs to the message other tools match on.
        logAt(logger(), WARNING, [&] {
            return LoggerStream() + "204 " + "Appending data with less columns (" + decimal(n) +
                   " ) to " + dbFilePath() + " table: " + m_tableName +
                   "; column count = " + decimal(c);
        });
    }
}

void SQLiteDataStore::runAppend(std::string statement) {
    String const text(std::move(statement));
    logAt(logger(), TRACE, [&] { return LoggerStream() + "227 " + "Append SQL Command: " + text; });
    connection().execute(text);
}

void SQLiteDataStore::update(HashTable<String, String> const& row, String const& keyColumn,
                             String const& keyValue) {
    std::size_t const n = row.size();
    std::size_t const c = m_columns.size();
    if (n > c) {
        String const message = "Cannot update data to " + dbFilePath() + " table: " + m_tableName +
                               ". Column count mismatch: " + decimal(n) + " != " + decimal(c);
        logAt(logger(), ERROR, [&] { return LoggerStream() + "234 " + message; });
        throw RowDataMismatchException(message);
    }

    std::string statement = "UPDATE ";
    sql::appendIdentifier(statement, m_tableName);
    statement += " SET ";
    bool first = true;
    for (auto const& entry : row) {
        if (!first) statement += module::comma().str();
        first = false;
        // Blanks around "=" here, none in the WHERE condition: both as other tools expect.
        sql::appendIdentifier(statement, entry.first);
        statement += " = ";
        sql::appendValue(statement, entry.second);
    }
    statement += " WHERE ";
    sql::appendIdentifier(statement, keyColumn);
    statement += "=";
    sql::appendValue(statement, keyValue);
    String const text(std::move(statement));
    logAt(logger(), TRACE, [&] { return LoggerStream() + "250 " + "Update SQL Command: " + text; });
    connection().execute(text);
}

void SQLiteDataStore::remove(String const& keyColumn, String const& keyValue) {
    String const text = "DELETE FROM " + sql::identifier(m_tableName) + " WHERE " +
                        sql::identifier(keyColumn) + "=" + sql::value(keyValue);
    logAt(logger(), TRACE, [&] { return LoggerStream() + "256 " + "Remove SQL Command: " + text; });
    connection().execute(text);
}

bool SQLiteDataStore::contains(String const& column, String const& value) const {
    String const text = "SELECT " + sql::identifier(column) + " FROM " +
                        sql::identifier(m_tableName) + " WHERE " + sql::identifier(column) + "=" +
                        sql::value(value);
    ResultSet result;
    connection().execute(text, &result);
    return result.rowCount() > 0;
}

bool SQLiteDataStore::cellData(String const& column, String& out, String const& keyColumn,
                               String const& keyValue) const {
    String const text = "SELECT " + sql::identifier(column) + " FROM " +
                        sql::identifier(m_tableName) + " WHERE " + sql::identifier(keyColumn) +
                        "=" + sql::value(keyValue);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "263 " + "CellData SQL Command: " + text; });
    ResultSet result;
    connection().execute(text, &result);
    if (result.rowCount() == 0 || result.row(0).columnCount() == 0) return false;
    out = result.row(0).columnValue(0);
    return true;
}

bool SQLiteDataStore::rowData(Array<String>& out, String const& keyColumn,
                              String const& keyValue) const {
    String const text = "SELECT * FROM " + sql::identifier(m_tableName) + " WHERE " +
                        sql::identifier(keyColumn) + "=" + sql::value(keyValue);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "279 " + "RowData SQL Command: " + text; });
    ResultSet result;
    connection().execute(text, &result);
    if (result.rowCount() == 0) return false;
    ResultSetRow const& row = result.row(0);
    if (row.columnCount() != m_columns.size()) {
        String const message =
            "Cannot get row data from " + dbFilePath() + " table: " + m_tableName;
        logAt(logger(), ERROR, [&] { return LoggerStream() + "285 " + message; });
        throw RowDataMismatchException(message);
    }
    for (unsigned i = 0; i < row.columnCount(); ++i)
        out.append(row.columnValue(static_cast<int>(i)));
    return true;
}

unsigned int SQLiteDataStore::count(String const& column, String const& value) const {
    // count(column, "") counts the non-null cells of the column over the whole table.
    String const target = column.empty() ? String("*") : sql::identifier(column);
    String text = "SELECT count(" + target + ") FROM " + sql::identifier(m_tableName);
    if (!column.empty() && !value.empty()) {
        text += " WHERE " + sql::identifier(column) + "=" + sql::value(value);
    }
    logAt(logger(), TRACE, [&] { return LoggerStream() + "309 " + "Count SQL Command: " + text; });
    ResultSet result;
    connection().execute(text, &result);
    return String::strToUInt(result.row(0).columnValue(0), 10);
}

void SQLiteDataStore::cellDataAtIndex(int index, String& out, String const& column,
                                      String keyColumn, String keyValue) const {
    // No ORDER BY, deliberately: the index is a position in SQLite's own order of the rows.
    String text = "SELECT " + sql::identifier(column) + " FROM " + sql::identifier(m_tableName);
    if (!keyColumn.empty() && !keyValue.empty()) {
        text += " WHERE " + sql::identifier(keyColumn) + "=" + sql::value(keyValue);
    }
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "320 " + "CellDataAtIndex SQL Command: " + text; });
    ResultSet result;
    connection().execute(text, &result);
    out = result.row(index).columnValue(0);
}

void SQLiteDataStore::rowDataAtIndex(int index, Array<String>& out, String keyColumn,
                                     String keyValue) const {
    // No ORDER BY, deliberately: the index is a position in SQLite's own order of the rows.
    String text = "SELECT * FROM " + sql::identifier(m_tableName);
    if (!keyColumn.empty() && !keyValue.empty()) {
        text += " WHERE " + sql::identifier(keyColumn) + "=" + sql::value(keyValue);
    }
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "331 " + "RowDataAtIndex SQL Command: " + text; });
    ResultSet result;
    connection().execute(text, &result);
    ResultSetRow const& row = result.row(index);
    if (row.columnCount() != m_columns.size()) {
        String const message =
            "Cannot get row data from " + dbFilePath() + " table: " + m_tableName;
        logAt(logger(), ERROR, [&] { return LoggerStream() + "336 " + message; });
        throw RowDataMismatchException(message);
    }
    for (unsigned i = 0; i < row.columnCount(); ++i)
        out.append(row.columnValue(static_cast<int>(i)));
}

unsigned int SQLiteDataStore::getUniqueIdForColumn(String const& column) const {
    String const text = "SELECT " + sql::identifier(column) + " FROM " +
                        sql::identifier(m_tableName) + " ORDER BY " + sql::identifier(column) +
                        " DESC LIMIT 1";
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "346 " + "getUniqueIdForColumn SQL Command: " + text; });
    ResultSet result;
    connection().execute(text, &result);
    if (result.rowCount() == 0) {
        // An empty table hands out 0 first and 1 next: intended, callers rely on it.
        logAt(logger(), TRACE, [&] {
            return LoggerStream() + "351 " + "getUniqueIdForColumn(" + column +
                   ") returning default: 0";
        });
        return 0;
    }
    unsigned int const id = String::strToUInt(result.row(0).columnValue(0), 10) + 1u;
    if (id > 0xFFFFFFu) throw OutOfUniqueIdsException("No more unique identifiers are available");
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "362 " + "getUniqueIdForColumn(" + column + ") returning: " + id;
    });
    return id;
}

}  // namespace zrn
