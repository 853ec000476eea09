#include <libCommon/SQLite3Database.h>

#include <libCommon/Exception.h>
#include <libCommon/ResultSet.h>
#include <sqlite3.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace zrn {

namespace {

bool onlyBlanksAndSemicolons(char const* text) {
    for (; *text; ++text) {
        char const c = *text;
        if (c != ';' && c != ' ' && c != '\t' && c != '\n' && c != '\r' && c != '\f' && c != '\v') {
            return false;
        }
    }
    return true;
}

// Holds the connection's own mutex for a whole statement, so the error text read after a
// failure is the one of this statement even when other threads use the connection.
class ConnectionLock {
public:
    explicit ConnectionLock(sqlite3* db) : m_mutex(sqlite3_db_mutex(db)) {
        sqlite3_mutex_enter(m_mutex);
    }
    ConnectionLock(ConnectionLock const&) = delete;
    ConnectionLock& operator=(ConnectionLock const&) = delete;
    ~ConnectionLock() { sqlite3_mutex_leave(m_mutex); }

private:
    sqlite3_mutex* m_mutex;
};

struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// A BEGIN while a transaction is open: on a reader, only a writing operation does that.
bool nestedBegin(sqlite3* db, sqlite3_stmt* statement) {
    if (sqlite3_get_autocommit(db)) return false;
    char const* text = sqlite3_sql(statement);
    while (*text == ' ' || *text == '\n' || *text == '\t' || *text == '\r') ++text;
    return sqlite3_strnicmp(text, "BEGIN", 5) == 0;
}

}  // namespace

void SQLite3Database::Closer::operator()(sqlite3* db) const {
    // close_v2 defers the close until pending statements are finalized; ours never outlive
    // execute(), so the handle is gone when this returns.
    sqlite3_close_v2(db);
}

SQLite3Database::SQLite3Database(String const& path, SYNC_MODE syncMode)
    : SQLite3Database(path, syncMode, ENCODING_UTF8, OPEN_OR_CREATE, READ_WRITE) {}

SQLite3Database::SQLite3Database(String const& path, SYNC_MODE syncMode,
                                 CHARACTER_ENCODING encoding, CREATE_MODE createMode,
                                 ACCESS_MODE accessMode)
    : m_path(path) {
    open(syncMode, encoding, createMode, accessMode);
}

SQLite3Database::SQLite3Database(String const& path, ReaderOptions const& options)
    : m_path(path), m_readOnly(true), m_reader(true) {
    int flags = SQLITE_OPEN_FULLMUTEX | SQLITE_OPEN_READONLY;
    std::string name = path.str();
    if (options.immutable) {
        // Only a URI can carry immutable=1; the path is escaped so that '?', '#' and '%'
        // in a folder name stay part of the name.
        std::string uri = "file:";
        for (unsigned char c : name) {
            if (c == '%' || c == '?' || c == '#') {
                static char const hex[] = "0123456789ABCDEF";
                uri += '%';
                uri += hex[c >> 4];
                uri += hex[c & 15];
            } else {
                uri += static_cast<char>(c);
            }
        }
        name = uri + "?immutable=1";
        flags |= SQLITE_OPEN_URI;
    }
    sqlite3* handle = nullptr;
    int const rc = sqlite3_open_v2(name.c_str(), &handle, flags, nullptr);
    m_db.reset(handle);
    if (rc != SQLITE_OK) fail("cannot open the database", rc);
    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_timeout(handle, options.busyTimeoutMs);
    // Reads the header (and takes the shared lock once): a file that is not a database, is
    // held by a writer past the wait, or carries a hot journal fails here.
    ResultSet header;
    execute("PRAGMA schema_version", &header);
}

SQLite3Database::~SQLite3Database() = default;

void SQLite3Database::open(SYNC_MODE syncMode, CHARACTER_ENCODING encoding, CREATE_MODE createMode,
                           ACCESS_MODE accessMode) {
    m_readOnly = accessMode == READ_ONLY;
    int flags = SQLITE_OPEN_FULLMUTEX;  // serialized: one connection, several threads
    if (m_readOnly) {
        flags |= SQLITE_OPEN_READONLY;
    } else {
        flags |= SQLITE_OPEN_READWRITE;
        if (createMode == OPEN_OR_CREATE) flags |= SQLITE_OPEN_CREATE;
    }

    sqlite3* handle = nullptr;
    int const rc = sqlite3_open_v2(m_path.c_str(), &handle, flags, nullptr);
    m_db.reset(handle);  // sqlite3 hands out a handle even on failure; it must be closed
    if (rc != SQLITE_OK) fail("cannot open the database", rc);

    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_timeout(handle, BUSY_TIMEOUT_MS);
    char const* name = sqlite3_db_filename(handle, "main");
    m_inMemory = name == nullptr || *name == '\0';

    // These statements also read the file header, so a file that is not a database fails
    // here, in the constructor, rather than at the first use.
    execute(std::string("PRAGMA synchronous = ") + std::to_string(static_cast<int>(syncMode)));
    if (!m_readOnly && encoding == ENCODING_UTF16) {
        // Takes effect only for a database that has no content yet.
        execute("PRAGMA encoding = \"UTF-16\"");
    }
    ResultSet header;
    execute("PRAGMA schema_version", &header);
}

void SQLite3Database::fail(char const* what, int code) const {
    if (m_reader && (code & 0xff) == SQLITE_BUSY) {
        throw DatabaseError("SQLite database '" + m_path +
                            "': locked by another program (gave up waiting)");
    }
    if (m_reader && code == SQLITE_READONLY_ROLLBACK) {
        throw DatabaseError("SQLite database '" + m_path +
                            "': has a hot journal left by a writer that stopped mid-write; "
                            "it cannot be read until a program with write access rolls it back");
    }
    std::string message = "SQLite database '" + m_path.str() + "': " + what + ": ";
    if (m_db) {
        message += sqlite3_errmsg(m_db.get());
    } else {
        message += sqlite3_errstr(code);
    }
    message += " (code " + std::to_string(code) + ")";
    throw DatabaseError(String(std::move(message)));
}

void SQLite3Database::execute(String const& sql, ResultSet* result) { run(sql, result, nullptr); }

void SQLite3Database::forEachRow(String const& sql,
                                 std::function<void(ResultSetRow const&)> const& onRow) {
    run(sql, nullptr, &onRow);
}

namespace {

std::vector<String> columnNames(sqlite3_stmt* statement, int columns) {
    std::vector<String> names;
    names.reserve(static_cast<std::size_t>(columns));
    for (int i = 0; i < columns; ++i) {
        char const* name = sqlite3_column_name(statement, i);
        names.emplace_back(name ? name : "");
    }
    return names;
}

// The current row's cells as text (NULL as an empty text), bytes as stored.
std::vector<String> rowCells(sqlite3_stmt* statement, int columns) {
    std::vector<String> cells;
    cells.reserve(static_cast<std::size_t>(columns));
    for (int i = 0; i < columns; ++i) {
        auto const* text = reinterpret_cast<char const*>(sqlite3_column_text(statement, i));
        if (text) {
            cells.emplace_back(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, i)));
        } else {
            cells.emplace_back();
        }
    }
    return cells;
}

}  // namespace

void SQLite3Database::run(String const& sql, ResultSet* result,
                          std::function<void(ResultSetRow const&)> const* onRow) {
    std::shared_lock<std::shared_mutex> handle(m_handleMutex);
    if (!m_db) {
        throw DatabaseError("SQLite database '" + m_path + "': the connection is closed");
    }
    if (result) result->reset({});  // a failed statement leaves no rows of an earlier one
    sqlite3* const db = m_db.get();
    ConnectionLock lock(db);

    sqlite3_stmt* raw = nullptr;
    char const* tail = nullptr;
    int rc = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.byteSize()) + 1, &raw, &tail);
    Statement statement(raw);
    if (rc != SQLITE_OK) fail("cannot prepare the statement", rc);
    if (tail && !onlyBlanksAndSemicolons(tail)) {
        throw DatabaseError("SQLite database '" + m_path +
                            "': refused to run more than one statement in one call");
    }
    if (!statement) return;  // blanks or a comment only: nothing to run
    if (m_reader && (!sqlite3_stmt_readonly(raw) || nestedBegin(db, raw))) {
        // Said plainly, rather than as SQLite's "readonly database" or, for a writer's own
        // BEGIN inside the reader's transaction, "transaction within a transaction".
        throw DatabaseError("SQLite database '" + m_path + "': opened read-only: refused to write");
    }

    // Column names are read after the first step: a schema change by another connection makes
    // SQLite prepare the statement again inside step, and "SELECT *" may then have more columns.
    bool described = false;
    int columns = 0;
    ResultSetRow streamed(nullptr, {});
    auto describe = [&] {
        described = true;
        columns = sqlite3_column_count(raw);
        if (!result && !onRow) return;
        std::vector<String> names = columnNames(raw, columns);
        if (result) {
            result->reset(std::move(names));
        } else {
            streamed.m_columnNames = std::make_shared<std::vector<String> const>(std::move(names));
            streamed.m_cells.resize(static_cast<std::size_t>(columns));
        }
    };

    while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
        if (!described) describe();
        if (result) {
            result->addRow(rowCells(raw, columns));
        } else if (onRow) {
            // The row reads its cells from the statement as they are asked for.
            streamed.streamFrom(raw);
            (*onRow)(streamed);
        }
    }
    if (rc != SQLITE_DONE) fail("statement failed", rc);
    if (!described) describe();
}

long long SQLite3Database::lastInsertId() const {
    std::shared_lock<std::shared_mutex> handle(m_handleMutex);
    return m_db ? sqlite3_last_insert_rowid(m_db.get()) : 0;
}

void SQLite3Database::close() {
    std::unique_lock<std::shared_mutex> handle(m_handleMutex);
    m_db.reset();
}

bool SQLite3Database::isClosed() const {
    std::shared_lock<std::shared_mutex> handle(m_handleMutex);
    return !m_db;
}

bool SQLite3Database::isInMemoryDB() const { return m_inMemory; }

bool SQLite3Database::isThreadSafe() const {
    // Opened with SQLITE_OPEN_FULLMUTEX; that holds only when the library was built with
    // threading support at all.
    return sqlite3_threadsafe() != 0;
}

}  // namespace zrn
