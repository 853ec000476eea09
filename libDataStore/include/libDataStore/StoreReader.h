#pragma once

// Reading any store file as tables, for tools that inspect, export, follow or copy stores
// rather than record into them. Nothing here writes a store: a file is opened read-only,
// never created, and no named mutex is taken.
//
//     zrn::StoreReader reader(path, zrn::ReadOnly{});
//     zrn::StoreReader::Snapshot const snapshot(reader);   // every table from one moment
//     for (auto const& table : reader.tables())
//         reader.forEachRow(table.name, [](zrn::StoreRow const& row) { ... });

#include <libCommon/Exception.h>
#include <libDataStore/Export.h>
#include <libDataStore/ReadOnly.h>

#include <boost/optional.hpp>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace zrn {

// The four stores of the family.
enum class StoreKind { AppState, General, Event, SoftwareDiag };

// What the library knows of one store: its names, the tables it creates and the schema
// version it writes.
struct ZRN_DATASTORE_API StoreFacts {
    StoreKind kind;
    char const* name;          // "event": the file name without ".db"
    char const* fileName;      // "event.db"
    char const* description;   // "an event store"
    char const* markerTable;   // the table every file of the store has
    char const* versionTable;  // nullptr: the store keeps no version
    int schemaVersion;         // -1: the store keeps no version
    std::vector<char const*> tables;
};

// The four stores, in the order appstate, genstore, event, softwarediagevent.
ZRN_DATASTORE_API std::vector<StoreFacts> const& storeFamily();
ZRN_DATASTORE_API StoreFacts const& factsOf(StoreKind kind);

// Thrown by StoreReader; the message names the file.
class ZRN_DATASTORE_API StoreReadError : public DatabaseError {
public:
    enum class Cause { Locked, Damaged, Other };
    StoreReadError(String const& message, Cause cause);
    StoreReadError(StoreReadError const&) = default;
    StoreReadError& operator=(StoreReadError const&) = default;
    ~StoreReadError() override;
    Cause cause() const { return m_cause; }

private:
    Cause m_cause;
};

// One cell as SQLite stored it.
struct ZRN_DATASTORE_API StoreCell {
    enum class Type { Null, Integer, Real, Text, Blob };
    Type type = Type::Null;
    long long integer = 0;
    double real = 0;
    std::string text;  // the text, or the blob's bytes

    static StoreCell of(long long value);
    static StoreCell of(std::string value);
    bool isNull() const { return type == Type::Null; }
    // The integer; a real truncated; a text read as a decimal number (0 when it is none).
    long long asInteger() const;
    // The text or bytes; a number as SQLite would write it; "" for NULL.
    std::string asText() const;
    bool operator==(StoreCell const& other) const;
};

struct ZRN_DATASTORE_API StoreColumn {
    std::string name;
    std::string type;     // as declared, "" when none
    int keyPosition = 0;  // 1.. within the primary key, 0 when not part of it
    bool notNull = false;
};

struct ZRN_DATASTORE_API StoreTable {
    std::string name;
    std::vector<StoreColumn> columns;
    // What identifies a row: the INTEGER PRIMARY KEY column, or "rowid" when the table has
    // none (its rowid is then the identity other rows refer to, as for the alerts).
    std::string rowKey;
    long long rows = 0;
    // The columns forEachRow() hands out: the row key first when it is "rowid".
    std::vector<std::string> readColumns() const;
};

// One row handed out by forEachRow(); valid only during the call.
struct ZRN_DATASTORE_API StoreRow {
    std::vector<std::string> const& columns;
    std::vector<StoreCell> const& cells;
    long long key;  // the row key's value
    // The cell of `column`; a null cell when the table has no such column.
    StoreCell const& operator[](std::string const& column) const;
};

// Which rows forEachRow() reads, in the order of their key unless `orderBy` names a column.
struct ZRN_DATASTORE_API StoreRowQuery {
    boost::optional<long long> afterKey;                   // only rows whose key is above it
    std::vector<std::pair<std::string, StoreCell>> equal;  // only rows with these cells
    long long limit = 0;                                   // 0: no limit
    // Rows in the order of this column's values, rows of equal value by key, for readers that
    // merge tables by time; "": by key alone. The bounds are on this column, both inclusive;
    // SQLite compares as the column's declared type does (a TEXT column of times compares
    // them as text). A NULL value is outside any bound.
    std::string orderBy;
    boost::optional<StoreCell> atLeast;
    boost::optional<StoreCell> atMost;
    bool descending = false;  // the reverse order, keys included
};

// What a file is, as far as the family goes.
struct ZRN_DATASTORE_API StoreIdentity {
    boost::optional<StoreKind> kind;  // none: no store's marker table is there
    int version = -1;                 // the version its version table holds; -1 when none
    std::vector<std::string> missingTables;
};

class ZRN_DATASTORE_API StoreReader {
public:
    // Opens the existing file at `path` read-only; statements wait up to `options.wait` for
    // a writer. Throws StoreReadError when the file cannot be opened.
    explicit StoreReader(std::string const& path, ReadOnly const& options = ReadOnly{});
    ~StoreReader();
    StoreReader(StoreReader const&) = delete;
    StoreReader& operator=(StoreReader const&) = delete;

    std::string const& path() const { return m_path; }

    // Which store the file is (by the marker tables) and the version it keeps.
    StoreIdentity identify();
    // Whether the file has a table of that name.
    bool hasTable(std::string const& name);
    // The tables of the file, SQLite's own left out, in the order they were created.
    std::vector<std::string> tableNames();
    StoreTable table(std::string const& name);
    std::vector<StoreTable> tables();

    // SQLite's integrity check: nothing when the file is whole, else its findings (at most
    // `maxFindings`). A file too damaged to be checked gives the reason as its one finding.
    std::vector<std::string> integrityCheck(int maxFindings = 100);

    // Hands each row of `table` that `query` selects to `onRow`, in key order; returns how
    // many. Any table name works: identifiers are quoted here.
    using RowFunction = std::function<void(StoreRow const&)>;
    long long forEachRow(std::string const& table, RowFunction const& onRow,
                         StoreRowQuery const& query = StoreRowQuery{});
    // The highest row key of `table`; 0 when it is empty.
    long long lastKey(std::string const& table);
    // A number that changes whenever another connection commits to the file.
    long long changeCounter();

    // Copies the file into `target` (created or replaced) with SQLite's online backup: one
    // committed state, even while a writer works; waits for its lock as statements do.
    void backupTo(std::string const& target);

    // Rows handed out one at a time, for callers that read several tables side by side (a
    // merge by time). The statement stays open while the cursor lives, and with it the state
    // of the file it started reading; cursors of one reader may be open together.
    class ZRN_DATASTORE_API Cursor {
    public:
        // @throw StoreReadError when the table cannot be read.
        Cursor(StoreReader& reader, std::string const& table,
               StoreRowQuery const& query = StoreRowQuery{});
        ~Cursor();
        Cursor(Cursor const&) = delete;
        Cursor& operator=(Cursor const&) = delete;
        // Steps to the next row; false after the last. @throw StoreReadError.
        bool next();
        // The row next() stepped to, valid until the next step.
        StoreRow row() const { return StoreRow{m_columns, m_cells, m_key}; }

    private:
        StoreReader& m_reader;
        std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> m_statement;
        std::vector<std::string> m_columns;
        std::vector<StoreCell> m_cells;
        long long m_key = 0;
    };

    // Holds one read transaction for its lifetime: every read in it sees the same state.
    class ZRN_DATASTORE_API Snapshot {
    public:
        explicit Snapshot(StoreReader& reader);
        ~Snapshot();
        Snapshot(Snapshot const&) = delete;
        Snapshot& operator=(Snapshot const&) = delete;

    private:
        StoreReader& m_reader;
    };

private:
    struct Closer {
        void operator()(sqlite3* db) const;
    };
    void run(std::string const& sql, std::function<void(StoreRow const&)> const& onRow);
    sqlite3_stmt* prepare(std::string const& sql);
    StoreTable shape(std::string const& table);  // table() without the row count
    std::string selectText(std::string const& table, StoreRowQuery const& query);
    [[noreturn]] void fail(std::string const& what, int code) const;

    std::string m_path;
    ReadOnly m_options;
    std::unique_ptr<sqlite3, Closer> m_db;
};

// ---- Typed readers for what the stores' own operations do not list ----------------------

// One row of the application runs, times in seconds since the epoch (0 when not set).
struct ZRN_DATASTORE_API ApplicationRunRow {
    long long appId = 0;
    std::string name;
    std::string userName;
    std::string typeOfRun;
    long long startTime = 0;
    long long endTime = 0;
};

// The application runs of an event store with an id above `afterId`, by id.
ZRN_DATASTORE_API std::vector<ApplicationRunRow> applicationRuns(StoreReader& reader,
                                                                 long long afterId = 0);
// Whether the event store has the script run `scriptId`.
ZRN_DATASTORE_API bool scriptRunExists(StoreReader& reader, long long scriptId);
// Whether the event store has the test run `testId`.
ZRN_DATASTORE_API bool testRunExists(StoreReader& reader, long long testId);
// Whether the event store has the alert `alertId` (an alert's id is its rowid).
ZRN_DATASTORE_API bool alertExists(StoreReader& reader, long long alertId);

}  // namespace zrn
