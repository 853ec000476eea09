#pragma once

#include <libCommon/Array.h>
#include <libCommon/HashTable.h>
#include <libCommon/OrderedHashTable.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/SharedResource.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>

namespace zrn {

class Logger;

// One column of a table: its name and the SQL type text exactly as it follows the name in
// CREATE TABLE and ALTER TABLE ... ADD COLUMN. A table's columns are a static array of these
// ended by an entry whose name is null.
struct ZRN_DATASTORE_API SQLiteDataStoreColumnSpec {
    char const* name;
    char const* type;
};

// One table of one SQLite database file, described by its declared columns.
//
// Construction creates the table when no schema object of that name exists, or adds the
// declared columns an older file lacks (one ALTER TABLE each, in declaration order); nothing
// else in an existing table is touched. Row operations build SQL text with backquoted
// identifiers and single-quoted values (inner quotes doubled), log it at priority 1 on
// "libDataStore.SQLiteDataStore" and run it.
//
// Several objects may share one connection; copies share it too, and close() closes it for
// all of them. No lock is taken here: the calling store holds its named mutex. SQL failures
// pass through as DatabaseError; misuse throws the store exceptions.
class ZRN_DATASTORE_API SQLiteDataStore {
public:
    using Database = SharedResource<PointerStorage<SQLite3Database>>;

    // Opens a new connection to `dbFilePath` in dbSyncMode(). @throw ZeroTableColumnsException
    // for a null `columns`; DatabaseError when the file cannot be opened or the table made.
    SQLiteDataStore(String const& dbFilePath, String const& tableName,
                    SQLiteDataStoreColumnSpec const* columns);
    // Shares `database` instead of opening a connection.
    SQLiteDataStore(Database const& database, String const& tableName,
                    SQLiteDataStoreColumnSpec const* columns);
    // Takes the column table as it is (order and types).
    SQLiteDataStore(String const& dbFilePath, String const& tableName,
                    OrderedHashTable<String, String> const& columns);
    SQLiteDataStore(SQLiteDataStore const&) = default;
    // A moved-from store has no connection: every call on it but assignment and destruction
    // throws CannotAccessClosedDatabaseException.
    SQLiteDataStore(SQLiteDataStore&&) noexcept = default;
    SQLiteDataStore& operator=(SQLiteDataStore const&) = default;
    SQLiteDataStore& operator=(SQLiteDataStore&&) noexcept = default;
    ~SQLiteDataStore();

    // The synchronous mode for every connection this class opens: setting
    // "SQLiteDataStore.SyncMode" of section "libDataStore", "FULL", "NORMAL" or "OFF" in any
    // case; FULL when missing or anything else. Read afresh on every call.
    static SQLite3Database::SYNC_MODE dbSyncMode();

    // SQLite's journal modes this layer can be asked for. DELETE is SQLite's own default.
    enum JOURNAL_MODE { DELETE, TRUNCATE, PERSIST, WAL };
    // The journal mode for every connection this layer opens for writing: setting
    // "SQLiteDataStore.JournalMode" of section "libDataStore", "DELETE", "TRUNCATE", "PERSIST"
    // or "WAL" in any case; DELETE when missing. Any other text logs a priority-3 warning and
    // gives DELETE. Read afresh on every call.
    static JOURNAL_MODE dbJournalMode();

    // Opens a connection for writing to `dbFilePath` (created when missing) as every store
    // does: in dbSyncMode(), then, unless dbJournalMode() is DELETE, with
    // "PRAGMA journal_mode=<mode>" (not for an in-memory or temporary database, which has no
    // file). With DELETE no statement beyond the connection's own is run, so a file is written
    // exactly as without the setting. A mode SQLite does not take is logged ("114 ", warning).
    // @throw DatabaseError when the file cannot be opened or the mode cannot be set.
    static Database openDatabase(String const& dbFilePath);

    String const& tableName() const { return m_tableName; }
    OrderedHashTable<String, String> const& columns() const { return m_columns; }
    String const& dbFilePath() const;
    // The shared connection, for statements the stores build themselves.
    Database const& database() const { return m_database; }

    // Closes the shared connection for every store that shares it; harmless when closed.
    void close();
    bool isClosed() const;

    // True when the store can be used; otherwise false with `error` set to
    // "Database file does not exist", "Database is not open" or "Database is not thread safe".
    bool checkValidity(String& error) const;

    // ---- Row operations. `row` maps column names to value texts; its iteration order sets
    // the column order of the statement.

    // INSERT OR REPLACE. More entries than declared columns: RowDataMismatchException before
    // any SQL runs; fewer: a priority-3 warning. Unknown columns fail in SQLite (DatabaseError).
    void append(HashTable<String, String> const& row);
    // UPDATE every row whose `keyColumn` equals `keyValue`; no match is not an error.
    // More entries than declared columns: RowDataMismatchException.
    void update(HashTable<String, String> const& row, String const& keyColumn,
                String const& keyValue);
    // DELETE every row whose `keyColumn` equals `keyValue`; no match is not an error.
    void remove(String const& keyColumn, String const& keyValue);
    // Whether a row has `value` in `column`. Not logged.
    bool contains(String const& column, String const& value) const;
    // First cell of `column` in the first row whose `keyColumn` equals `keyValue`.
    // No match: returns false and leaves `out` as it was.
    bool cellData(String const& column, String& out, String const& keyColumn,
                  String const& keyValue) const;
    // Appends (without clearing `out`) the cells of the first matching row in the file's
    // column order. No match: false. A row whose width differs from the declared column count:
    // RowDataMismatchException.
    bool rowData(Array<String>& out, String const& keyColumn, String const& keyValue) const;
    // count(*) over the table, or count(`column`) when a column is given; the condition
    // `column` = value is added only when both are non-empty.
    unsigned int count(String const& column, String const& value) const;
    // First cell of row `index` of the (unordered) result; the condition is added only when
    // both key texts are non-empty. An index outside the result throws Exception.
    void cellDataAtIndex(int index, String& out, String const& column, String keyColumn,
                         String keyValue) const;
    // As rowData, for row `index` of the (unordered) result; RowDataMismatchException for a
    // row of another width.
    void rowDataAtIndex(int index, Array<String>& out, String keyColumn, String keyValue) const;
    // The largest value of `column` plus one, 0 for an empty table.
    // @throw OutOfUniqueIdsException when that would exceed 16777215. Reserves nothing: the
    // caller inserts the row, under its mutex, before asking again.
    unsigned int getUniqueIdForColumn(String const& column) const;

private:
    // The library's own fixed-column rows come in through it with their lists made already.
    friend class RowWriter;

    // append() once the row's column and value lists are made: `columns` entries.
    void appendLists(std::size_t columns, std::string const& names, std::string const& values);
    // The halves of appendLists: the column-count checks (failure and warning), and the trace
    // and run of the finished statement.
    void checkAppendCount(std::size_t columns) const;
    void runAppend(std::string statement);
    void buildColumns(SQLiteDataStoreColumnSpec const* columns, String const& path);
    void init();
    // The two halves of init(): ALTER TABLE for each declared column the file's table lacks,
    // and CREATE TABLE for a table the file does not have.
    void addMissingColumns();
    void createTable();
    // On a read-only connection: DatabaseError unless the table `exists` with every column.
    void checkReadable(bool exists) const;
    static Logger* logger();
    // The connection; CannotAccessClosedDatabaseException when moved from.
    SQLite3Database& connection() const;

    String m_tableName;
    OrderedHashTable<String, String> m_columns;
    Database m_database;
};

}  // namespace zrn
