#include <libCommon/DateTime.h>
#include <libCommon/Exception.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/HashTable.h>
#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SprintfFormat.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/SQLiteDataStore.h>

#include <string>

#include "ModuleState.h"
#include "ReaderLock.h"
#include "SqlText.h"
#include "Transaction.h"

namespace zrn {

using LoggerPriority::ERROR;

namespace {

char const kTableName[] = "AppState";

SQLiteDataStoreColumnSpec const kColumns[] = {
    {"key", "TEXT"},      {"data", "TEXT"},   {"filterGroup", "TEXT"},
    {"dateTime", "TEXT"}, {nullptr, nullptr},
};

// The index name is single-quoted and holds a dash: `AppState-key`.
String indexStatement() {
    return SprintfFormat("CREATE UNIQUE INDEX IF NOT EXISTS '%s-%s' ON `%s` (`%s`)", kTableName,
                         "key", kTableName, "key");
}

// "INSERT INTO `t` (`a`,`b`) VALUES('x','y');" over the row in its own order.
String plainInsert(String const& table, HashTable<String, String> const& row) {
    std::string names;
    std::string values;
    sql::columnAndValueLists(row, names, values);
    return "INSERT INTO " + sql::identifier(table) + " (" + names + ") VALUES(" + values + ");";
}

// REQUIRES: caller holds the "appstate_store" mutex, and `table` has a row with the row's key.
// The table layer's append is INSERT OR REPLACE and would silently overwrite the stored item,
// while callers rely on a duplicate being refused with SQLite's own constraint message. A plain
// INSERT of the same row gives exactly that refusal. The index is re-made first (a no-op when
// it exists) so that an index dropped behind the store's back cannot let the row in. The INSERT
// runs inside a savepoint that is always rolled back: an index of that name that another program
// made without UNIQUE would let it through, and a refused insert must leave the file as it was.
// That case is refused with this store's own text, as SQLite gives none.
[[noreturn]] void refuseDuplicate(SQLiteDataStore& table, HashTable<String, String> const& row) {
    SQLite3Database& db = *table.database();
    db.execute(indexStatement());
    Transaction attempt(db, Savepoint{"refused_insert"});
    // A refusal passes on and the guard rolls back quietly: the statement's own failure is the
    // one to report, and a connection that cannot roll back drops the savepoint when it closes.
    db.execute(plainInsert(table.tableName(), row));
    attempt.rollback();
    throw DatabaseError("AppStateDataStore: the unique index on `key` accepted a duplicate key");
}

}  // namespace

Logger* AppStateDataStore::logger() {
    static Logger* const instance = [] {
        Logger* created = nullptr;
        LogFactory::createLogger("libDataStore.AppStateDataStore", created);
        return created;
    }();
    return instance;
}

// ---- Lifecycle ---------------------------------------------------------------------------

AppStateDataStore::AppStateDataStore()
    : AppStateDataStore(module::settingsCopy(&DataStoreSettings::appStateDataStoreFilePath)) {}

AppStateDataStore::AppStateDataStore(String const& path) {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        // The table and its index are made in one transaction, so a failure between the two
        // never leaves a table without the index that guards its keys.
        SQLiteDataStore::Database database = SQLiteDataStore::openDatabase(path);
        Transaction opening(*database, TransactionText::Begin);
        Table table(new SQLiteDataStore(database, kTableName, kColumns));
        database->execute(indexStatement());
        opening.commit();
        m_table = table;
    } catch (Exception const& e) {
        // Without its index the table would not guard its keys: keep no half-opened table.
        m_table.reset();
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "122 " + "Failure creating AppStateDataStore at path: '" +
                   path + "': " + e.getMessage();
        });
    } catch (...) {
        m_table.reset();
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "124 " +
                   "General failure creating AppStateDataStore at path: '" + path + "'";
        });
    }
}

AppStateDataStore::AppStateDataStore(String const& path, ReadOnly const& options) {
    try {
        ReaderLock::Database database = readonly::open(path, options);
        m_reader = std::make_shared<ReaderLock>(database);
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        m_table = Table(readonly::table(database, kTableName, kColumns).release());
    } catch (Exception const& e) {
        m_table.reset();
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "122 " + "Failure creating AppStateDataStore at path: '" +
                   path + "': " + e.getMessage();
        });
    } catch (...) {
        m_table.reset();
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "124 " +
                   "General failure creating AppStateDataStore at path: '" + path + "'";
        });
    }
}

AppStateDataStore::AppStateDataStore(AppStateDataStore const& other) = default;

AppStateDataStore& AppStateDataStore::operator=(AppStateDataStore const& other) = default;

AppStateDataStore::~AppStateDataStore() = default;

std::shared_ptr<AppStateDataStore> AppStateDataStore::create(String const& path) noexcept {
    try {
        return std::make_shared<AppStateDataStore>(path);
    } catch (...) {
        return nullptr;
    }
}

// Only an Exception is logged; anything else (exhausted memory) gives an empty pointer without
// a message, as a create function never throws.
std::shared_ptr<AppStateDataStore> AppStateDataStore::create() noexcept {
    try {
        return create(module::settingsCopy(&DataStoreSettings::appStateDataStoreFilePath));
    } catch (Exception const& e) {
        try {
            logAt(logger(), ERROR, [&] {
                return LoggerStream() + "134 " +
                       "Failure attempting to retrieve the appstate datastore path: " +
                       e.getMessage();
            });
        } catch (...) {
        }
        return nullptr;
    } catch (...) {
        return nullptr;
    }
}

SQLiteDataStore& AppStateDataStore::table() const {
    if (!m_table) throw Exception("AppStateDataStore: the store was not opened");
    return *m_table;
}

// ---- Items -------------------------------------------------------------------------------

bool AppStateDataStore::insert(String const& key, String const& data, String const& group) {
    try {
        HashTable<String, String> row(32);
        row.insert("key", key);
        row.insert("data", data);
        row.insert("filterGroup", group);
        row.insert("dateTime", DateTime::getCurrentDateTime().toString());

        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        SQLiteDataStore& store = table();
        if (store.contains("key", key)) refuseDuplicate(store, row);
        store.append(row);
        return true;
    } catch (Exception const& e) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "158 " + "Failure attempting to insert: " + e.getMessage();
        });
    } catch (...) {
        logAt(logger(), ERROR,
              [] { return LoggerStream() + "161 " + "General failure attempting to insert"; });
    }
    return false;
}

String AppStateDataStore::data(String const& key) const {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        String out;
        if (table().cellData("data", out, "key", key)) return out;
    } catch (...) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "176 " + "General failure looking up data for key: " + key;
        });
    }
    return String();
}

bool AppStateDataStore::contains(String const& key) const {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        return table().contains("key", key);
    } catch (...) {
        logAt(logger(), ERROR,
              [&] { return LoggerStream() + "186 " + "General failure looking up key: " + key; });
    }
    return false;
}

bool AppStateDataStore::remove(String const& key) {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        table().remove("key", key);
        return true;
    } catch (...) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "198 " + "General failure attempting to remove key: " + key;
        });
    }
    return false;
}

boost::optional<AppStateDataStore::EntryTime> AppStateDataStore::entryTime(
    String const& key) const {
    try {
        String text;
        {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            if (!table().cellData("dateTime", text, "key", key)) return boost::none;
        }
        // Counted from the Unix epoch, not from the steady clock's own: callers compare these
        // values with each other only. Sub-second parts were never stored.
        long long const seconds = DateTime(text).unixTimeStamp();
        return EntryTime(std::chrono::nanoseconds(seconds * 1000000000LL));
    } catch (...) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "238 " +
                   "General failure attempting to get entryTime for key: " + key;
        });
    }
    return boost::none;
}

String AppStateDataStore::group(String const& key) const {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        String out;
        if (table().cellData("filterGroup", out, "key", key)) return out;
    } catch (...) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "252 " +
                   "General failure attempting to get group for key: " + key;
        });
    }
    return String();
}

int AppStateDataStore::count(String const& group) const {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        // An empty column makes the table layer count every row.
        unsigned int const n =
            group.empty() ? table().count(String(), String()) : table().count("filterGroup", group);
        return static_cast<int>(n);
    } catch (...) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "267 " +
                   "General failure attempting to get count for group: " + group;
        });
    }
    return 0;
}

std::map<String, String> AppStateDataStore::getItems(String const& group) const {
    std::map<String, String> items;
    try {
        String statement = "SELECT " + sql::identifier("key") + module::comma() +
                           sql::identifier("data") + " FROM " + sql::identifier(kTableName);
        if (!group.empty()) {
            statement += " WHERE " + sql::identifier("filterGroup") + " = " + sql::value(group);
        }
        ResultSet result;
        {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            table().database()->execute(statement, &result);
        }
        for (unsigned int i = 0; i < result.rowCount(); ++i) {
            ResultSetRow const& row = result.row(static_cast<int>(i));
            items[row.columnValue(0)] = row.columnValue(1);
        }
    } catch (...) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "300 " +
                   "General failure attempting to get items for group: " + group;
        });
        items.clear();
    }
    return items;
}

// ---- Connection --------------------------------------------------------------------------

bool AppStateDataStore::close() {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        table().close();
        return true;
    } catch (...) {
        logAt(logger(), ERROR,
              [] { return LoggerStream() + "210 " + "General failure attempting to close"; });
    }
    return false;
}

bool AppStateDataStore::isClosed() const {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        return table().isClosed();
    } catch (...) {
        logAt(logger(), ERROR,
              [] { return LoggerStream() + "220 " + "General failure attempting check isClosed"; });
    }
    return false;
}

bool AppStateDataStore::checkValidity(String& error) const {
    try {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        return table().checkValidity(error);
    } catch (...) {
        logAt(logger(), ERROR, [] {
            return LoggerStream() + "310 " + "General failure attempting to check validity";
        });
    }
    return false;
}

}  // namespace zrn
