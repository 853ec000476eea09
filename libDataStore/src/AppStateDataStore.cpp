#include <libDataStore/AppStateDataStore.h>

#include <libCommon/DateTime.h>
#include <libCommon/Exception.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/HashTable.h>
#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SprintfFormat.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/SQLiteDataStore.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "ModuleState.h"
#include "ReaderLock.h"
#include "SqlText.h"
#include "StoreSupport.h"
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
    return sql::insert(sql::identifier(table), String(std::move(names)), String(std::move(values)));
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

// Runs `work` and returns what it returns. Should anything escape it, logs `failure` at
// priority 4 and returns `fallback` instead: the store's operations never throw.
template <class Result, class Work, class Failure>
Result orLogged(Logger* logger, Result fallback, Work work, Failure failure) {
    try {
        return work();
    } catch (...) {
        logAt(logger, LoggerPriority::ERROR, failure);
    }
    return fallback;
}

// Runs `open`. Should it throw, keeps no table (without its index a table would not guard its
// keys, so a half-opened one is never kept) and logs 122 with an Exception's message, or 124.
template <class Table, class Open>
void openOrLog(Logger* logger, String const& path, Table& table, Open open) {
    try {
        open();
    } catch (Exception const& e) {
        table.reset();
        logAt(logger, LoggerPriority::ERROR, [&] {
            return LoggerStream() + "122 " + "Failure creating AppStateDataStore at path: '" +
                   path + "': " + e.getMessage();
        });
    } catch (...) {
        table.reset();
        logAt(logger, LoggerPriority::ERROR, [&] {
            return LoggerStream() + "124 " +
                   "General failure creating AppStateDataStore at path: '" + path + "'";
        });
    }
}

}  // namespace

Logger* AppStateDataStore::logger() {
    static Logger* const instance = createLogger("libDataStore.AppStateDataStore");
    return instance;
}

// ---- Lifecycle ---------------------------------------------------------------------------

AppStateDataStore::AppStateDataStore()
    : AppStateDataStore(module::settingsCopy(&DataStoreSettings::appStateDataStoreFilePath)) {}

AppStateDataStore::AppStateDataStore(String const& path) {
    openOrLog(logger(), path, m_table, [&] {
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        // The table and its index are made in one transaction, so a failure between the two
        // never leaves a table without the index that guards its keys.
        SQLiteDataStore::Database database = SQLiteDataStore::openDatabase(path);
        Transaction opening(*database, TransactionText::Begin);
        Table table(new SQLiteDataStore(database, kTableName, kColumns));
        database->execute(indexStatement());
        opening.commit();
        m_table = table;
    });
}

AppStateDataStore::AppStateDataStore(String const& path, ReadOnly const& options) {
    openOrLog(logger(), path, m_table, [&] {
        ReaderLock::Database database = readonly::open(path, options);
        m_reader = std::make_shared<ReaderLock>(database);
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        m_table = Table(readonly::table(database, kTableName, kColumns).release());
    });
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
    String path;
    if (!defaultPath(&DataStoreSettings::appStateDataStoreFilePath, logger(), "134 ", path)) {
        return nullptr;
    }
    return create(path);
}

String AppStateDataStore::cellOf(char const* column, String const& key) const {
    StoreLock lock(module::appStateStoreMutex(), m_reader.get());
    String out;
    return table().cellData(column, out, "key", key) ? out : String();
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
    return orLogged(
        logger(), String(), [&] { return cellOf("data", key); },
        [&] {
            return LoggerStream() + "176 " + "General failure looking up data for key: " + key;
        });
}

bool AppStateDataStore::contains(String const& key) const {
    return orLogged(
        logger(), false,
        [&] {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            return table().contains("key", key);
        },
        [&] { return LoggerStream() + "186 " + "General failure looking up key: " + key; });
}

bool AppStateDataStore::remove(String const& key) {
    return orLogged(
        logger(), false,
        [&] {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            table().remove("key", key);
            return true;
        },
        [&] {
            return LoggerStream() + "198 " + "General failure attempting to remove key: " + key;
        });
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
        // Nanoseconds reach about 292 years either side of 1970: a time outside that (a damaged
        // or foreign file) has no time point and reads as a failure, never as a wrapped value.
        long long const seconds = DateTime(text).unixTimeStamp();
        constexpr long long kNanoseconds = 1000000000LL;
        if (seconds > std::numeric_limits<long long>::max() / kNanoseconds ||
            seconds < std::numeric_limits<long long>::min() / kNanoseconds) {
            throw std::range_error("entry time out of range");
        }
        return EntryTime(std::chrono::nanoseconds(seconds * kNanoseconds));
    } catch (...) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "238 " +
                   "General failure attempting to get entryTime for key: " + key;
        });
    }
    return boost::none;
}

String AppStateDataStore::group(String const& key) const {
    return orLogged(
        logger(), String(), [&] { return cellOf("filterGroup", key); },
        [&] {
            return LoggerStream() + "252 " +
                   "General failure attempting to get group for key: " + key;
        });
}

int AppStateDataStore::count(String const& group) const {
    return orLogged(
        logger(), 0,
        [&] {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            // An empty column makes the table layer count every row.
            unsigned int const n = group.empty() ? table().count(String(), String())
                                                 : table().count("filterGroup", group);
            return static_cast<int>(n);
        },
        [&] {
            return LoggerStream() + "267 " +
                   "General failure attempting to get count for group: " + group;
        });
}

std::map<String, String> AppStateDataStore::getItems(String const& group) const {
    std::map<String, String> items;
    try {
        String statement = "SELECT " + sql::identifier("key") + module::comma() +
                           sql::identifier("data") + " FROM " + sql::identifier(kTableName);
        sql::Where where;
        if (!group.empty()) where.add(sql::identifier("filterGroup"), " = ", sql::value(group));
        statement += where.text();
        // Each item goes into the map as SQLite steps to its row: no copy of the whole result
        // is held next to the map.
        StoreLock lock(module::appStateStoreMutex(), m_reader.get());
        table().database()->forEachRow(statement, [&](ResultSetRow const& row) {
            items.insert_or_assign(row.columnValue(0), row.columnValue(1));
        });
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
    return orLogged(
        logger(), false,
        [&] {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            table().close();
            return true;
        },
        [] { return LoggerStream() + "210 " + "General failure attempting to close"; });
}

bool AppStateDataStore::isClosed() const {
    return orLogged(
        logger(), false,
        [&] {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            return table().isClosed();
        },
        [] { return LoggerStream() + "220 " + "General failure attempting check isClosed"; });
}

bool AppStateDataStore::checkValidity(String& error) const {
    return orLogged(
        logger(), false,
        [&] {
            StoreLock lock(module::appStateStoreMutex(), m_reader.get());
            return table().checkValidity(error);
        },
        [] { return LoggerStream() + "310 " + "General failure attempting to check validity"; });
}

}  // namespace zrn
