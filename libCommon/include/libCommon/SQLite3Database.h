#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

#include <functional>
#include <memory>
#include <shared_mutex>

struct sqlite3;

namespace zrn {

class ResultSet;
class ResultSetRow;

// One connection to one SQLite database file (or an in-memory database).
//
// The connection is opened in SQLite's serialized threading mode, so one object may be used
// from several threads. A busy timeout makes a statement wait for another connection's lock
// instead of failing with "database is locked". Every failure throws DatabaseError, whose
// message names the file and carries SQLite's own text.
class ZRN_COMMON_API SQLite3Database {
public:
    // PRAGMA synchronous levels of the same names.
    enum SYNC_MODE { OFF = 0, NORMAL = 1, FULL = 2 };
    // Text encoding of a database created by this connection.
    enum CHARACTER_ENCODING { ENCODING_UTF8 = 1, ENCODING_UTF16 = 2 };
    // OPEN_OR_CREATE creates a missing file; OPEN_EXISTING never does.
    enum CREATE_MODE { OPEN_OR_CREATE = 0, OPEN_EXISTING = 1 };
    enum ACCESS_MODE { READ_ONLY = 0, READ_WRITE = 1 };

    // How long a statement waits for another connection's lock before failing.
    static constexpr int BUSY_TIMEOUT_MS = 30000;

    // How a reader opens a file it must never change (see the reader constructor).
    struct ReaderOptions {
        // How long a statement waits for a writer that holds the file before it fails with
        // DatabaseError saying the database is locked by another program.
        int busyTimeoutMs = 5000;
        // Opens the file as immutable: SQLite takes no lock and reads no journal, which is
        // right only for media that nobody writes (evidence copies, read-only mounts).
        bool immutable = false;
    };

    // Opens the database at `path` for reading and writing, creating it when missing.
    SQLite3Database(String const& path, SYNC_MODE syncMode);
    // The full form. READ_ONLY opens an existing file for reading only and never creates one,
    // whatever the create mode.
    SQLite3Database(String const& path, SYNC_MODE syncMode, CHARACTER_ENCODING encoding,
                    CREATE_MODE createMode, ACCESS_MODE accessMode);
    // A reader of an existing file: opened read-only, never created, runs no PRAGMA that
    // writes and creates no file of its own (a rollback-journal file needs none; a WAL file
    // needs its -shm). Lock and hot-journal failures get messages that say so.
    SQLite3Database(String const& path, ReaderOptions const& options);
    SQLite3Database(SQLite3Database const&) = delete;
    SQLite3Database& operator=(SQLite3Database const&) = delete;
    ~SQLite3Database();

    // Runs exactly one SQL statement. Text after the first complete statement, other than
    // blanks and semicolons, is refused with DatabaseError before anything runs, so a value
    // that smuggles a second statement into the text can never execute it. With a result set,
    // the returned rows replace its content, every cell as text (NULL as the empty text);
    // with null the rows are discarded. Throws DatabaseError on any failure, also when the
    // connection is closed.
    void execute(String const& sql, ResultSet* result = nullptr);
    // Runs exactly one statement as execute() does (same checks, same failures) and hands each
    // returned row to `onRow` as SQLite steps to it, so a long result is never held whole in
    // memory. The row object is reused for every row: it is valid only during the call, and
    // its cells read as with execute(). An exception from `onRow` ends the statement and
    // propagates. `onRow` may run other statements on this connection (SQLite keeps this one
    // waiting on its row meanwhile) but must not close it.
    void forEachRow(String const& sql, std::function<void(ResultSetRow const&)> const& onRow);

    // The rowid of the last row inserted through this connection.
    long long lastInsertId() const;

    // Closes the connection; closing a closed connection does nothing.
    void close();
    bool isClosed() const;
    bool isInMemoryDB() const;
    // Whether the connection may be used from several threads at once.
    bool isThreadSafe() const;
    // The path exactly as given to the constructor.
    String const& dbFilePath() const { return m_path; }
    bool isReadOnly() const { return m_readOnly; }

private:
    struct Closer {
        void operator()(sqlite3* db) const;
    };

    void open(SYNC_MODE syncMode, CHARACTER_ENCODING encoding, CREATE_MODE createMode,
              ACCESS_MODE accessMode);
    [[noreturn]] void fail(char const* what, int code) const;
    // The one statement loop behind execute() and forEachRow(): rows go to `result` when it is
    // given, else to `onRow` when that is given, else nowhere.
    void run(String const& sql, ResultSet* result,
             std::function<void(ResultSetRow const&)> const* onRow);

    String m_path;
    // Statements hold it shared for as long as they use the handle, close() exclusively: a
    // close on one thread waits for a statement running on another instead of freeing the
    // handle under it. (SQLite's own connection mutex goes with the handle, so it cannot.)
    mutable std::shared_mutex m_handleMutex;
    std::unique_ptr<sqlite3, Closer> m_db;
    bool m_inMemory = false;
    bool m_readOnly = false;
    bool m_reader = false;
};

}  // namespace zrn
