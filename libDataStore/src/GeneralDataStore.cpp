#include <libDataStore/GeneralDataStore.h>

#include <libCommon/DateTime.h>
#include <libCommon/Exception.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/HashTable.h>
#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SprintfFormat.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/SQLiteDataStore.h>

#include <optional>

#include "ModuleState.h"
#include "ReaderLock.h"
#include "SqlText.h"
#include "StoreSupport.h"
#include "StoreVersions.h"
#include "Transaction.h"

namespace zrn {

using LoggerPriority::ERROR;
using LoggerPriority::TRACE;

namespace {

char const kVersionTable[] = "Version";
char const kLogTable[] = "GenericLog";
char const kKeyValueTable[] = "KeyValues";

SQLiteDataStoreColumnSpec const kVersionColumns[] = {
    {"version", "INTEGER PRIMARY KEY"},
    {nullptr, nullptr},
};

SQLiteDataStoreColumnSpec const kLogColumns[] = {
    {"typeUUID", "TEXT"},
    {"guid", "TEXT"},
    {"category", "TEXT"},
    {"subCategory", "TEXT"},
    {"creationTimeStamp", "INTEGER"},
    {"updateTimeStamp", "INTEGER"},
    {"tracked", "INTEGER"},
    {"flags", "INTEGER"},
    {nullptr, nullptr},
};

SQLiteDataStoreColumnSpec const kKeyValueColumns[] = {
    {"setID", "INTEGER"},           {"key", "TEXT"},    {"value", "TEXT"}, {"tracked", "INTEGER"},
    {"updateTimeStamp", "INTEGER"}, {nullptr, nullptr},
};

int const kSchemaVersion = schema::kGeneralVersion;

// The version row, the two unique indexes and the view of a new file, in that order.
void createSchema(SQLite3Database& db) {
    db.execute(SprintfFormat("INSERT OR IGNORE INTO `%s` (`%s`) values ('%i')", kVersionTable,
                             "version", kSchemaVersion));
    db.execute(SprintfFormat("CREATE UNIQUE INDEX keyValueSet_uniqueIDs on `%s` (`%s`, `%s`)",
                             kLogTable, "typeUUID", "guid"));
    db.execute(SprintfFormat("CREATE UNIQUE INDEX keyValues_uniqueIDs on `%s` (`%s`, `%s`)",
                             kKeyValueTable, "setID", "key"));
    db.execute(SprintfFormat(
        "CREATE VIEW kv_by_unique_id AS SELECT kv_set.`%s`, kv_set.`%s`, kv.`%s`, kv.`%s` "
        "from `%s` kv_set JOIN `%s` kv ON kv_set.rowId = kv.`%s`",
        "typeUUID", "guid", "key", "value", kLogTable, kKeyValueTable, "setID"));
}

}  // namespace

Logger* GeneralDataStore::logger() {
    static Logger* const instance = createLogger("libDataStore.GeneralDataStore");
    return instance;
}

// ---- Schema and lifecycle ----------------------------------------------------------------

GeneralDataStore::GeneralDataStore()
    : GeneralDataStore(module::settingsCopy(&DataStoreSettings::generalDataStoreFilePath)) {}

GeneralDataStore::GeneralDataStore(String const& path) : m_filePath(path) {
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "532 " + "GeneralDataStore(" + path +
               ") this: " + static_cast<void const*>(this);
    });
    createDataStores();
}

GeneralDataStore::GeneralDataStore(String const& path, ReadOnly const& options) : m_filePath(path) {
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "532 " + "GeneralDataStore(" + path +
               ") this: " + static_cast<void const*>(this);
    });
    m_database = readonly::open(path, options);
    m_reader = std::make_shared<ReaderLock>(m_database);
    StoreLock lock(module::generalStoreMutex(), m_reader.get());
    m_versionDataStore = readonly::table(m_database, kVersionTable, kVersionColumns);
    m_eventDataStore = readonly::table(m_database, kLogTable, kLogColumns);
    m_eventKeyValueDataStore = readonly::table(m_database, kKeyValueTable, kKeyValueColumns);
    m_initialized = true;
}

GeneralDataStore::~GeneralDataStore() {
    try {
        logAt(logger(), TRACE, [&] {
            return LoggerStream() + "541 " +
                   "~GeneralDataStore() this: " + static_cast<void const*>(this);
        });
        StoreLock lock(module::generalStoreMutex(), m_reader.get());
        closeUnlocked();
    } catch (...) {
    }
    // The members then go in reverse order: KeyValues, GenericLog, Version, the connection.
}

void GeneralDataStore::createDataStores() {
    try {
        StoreLock lock(module::generalStoreMutex(), m_reader.get());
        m_database = SQLiteDataStore::openDatabase(m_filePath);
        m_versionDataStore.reset();
        m_versionDataStore =
            std::make_unique<SQLiteDataStore>(m_database, kVersionTable, kVersionColumns);
        m_eventDataStore.reset();
        m_eventDataStore = std::make_unique<SQLiteDataStore>(m_database, kLogTable, kLogColumns);
        m_eventKeyValueDataStore.reset();
        m_eventKeyValueDataStore =
            std::make_unique<SQLiteDataStore>(m_database, kKeyValueTable, kKeyValueColumns);

        SQLite3Database& db = *m_database;
        if (getVersionUnlocked() == -1) {
            // A new file: the indexes and the view are made once, here, and never again.
            Transaction creation(db, TransactionText::Begin);
            try {
                createSchema(db);
                creation.commit();
            } catch (...) {
                // Deliberately no ROLLBACK, a failed COMMIT included: see the catch below.
                creation.leaveOpen();
                throw;
            }
        } else {
            db.execute(SprintfFormat("UPDATE `%s` SET `%s` = '%i'", kVersionTable, "version",
                                     kSchemaVersion));
        }
        m_initialized = true;
    } catch (Exception const& e) {
        // Deliberately no ROLLBACK: a transaction begun above stays open on the connection.
        // The store stays uninitialized, so none of its operations writes again; SQLite drops
        // the transaction when close() or the destructor closes the connection.
        logAt(logger(), ERROR,
              [&] { return LoggerStream() + "536 " + "createDataStores(): " + e.getMessage(); });
    }
}

int GeneralDataStore::getVersionUnlocked() const {
    // REQUIRES: caller holds the "general_store" mutex.
    if (!m_versionDataStore) return -1;
    String const text = versionText(*m_versionDataStore);
    return text.empty() ? -1 : String::strToInt(text, 10);
}

int GeneralDataStore::getVersion() const {
    StoreLock lock(module::generalStoreMutex(), m_reader.get());
    return getVersionUnlocked();
}

void GeneralDataStore::closeUnlocked() {
    // REQUIRES: caller holds the "general_store" mutex.
    // The three tables share one connection: the second and third close find it closed.
    for (auto const* table : {&m_versionDataStore, &m_eventDataStore, &m_eventKeyValueDataStore}) {
        if (*table) (*table)->close();
    }
}

void GeneralDataStore::close() {
    StoreLock lock(module::generalStoreMutex(), m_reader.get());
    closeUnlocked();
}

bool GeneralDataStore::checkValidity(String& error) const {
    StoreLock lock(module::generalStoreMutex(), m_reader.get());
    return checkTables({{"m_versionDataStore: ", m_versionDataStore.get()},
                        {"m_eventDataStore: ", m_eventDataStore.get()},
                        {"m_eventKeyValueDataStore: ", m_eventKeyValueDataStore.get()}},
                       error);
}

long long GeneralDataStore::getSetIDUnlocked(String const& typeUUID, String const& guid) const {
    // REQUIRES: caller holds the "general_store" mutex.
    String const statement = "SELECT rowid from " + sql::identifier(kLogTable) + " WHERE " +
                             sql::identifier("typeUUID") + " = " + sql::value(typeUUID) + " AND " +
                             sql::identifier("guid") + " = " + sql::value(guid);
    ResultSet result;
    m_database->execute(statement, &result);
    return sql::firstNumber(result, -1);
}

long long GeneralDataStore::getSetIDUnlocked(GenericLog const& log) const {
    // REQUIRES: caller holds the "general_store" mutex.
    return getSetIDUnlocked(log.typeUUID(), log.guid());
}

// ---- Logging -----------------------------------------------------------------------------

bool GeneralDataStore::logOrUpdate(GenericLog const& log) {
    if (!m_initialized) return false;
    // Both outside the try block, the lock first: the failure path below logs, and the guard's
    // ROLLBACK then runs as the function returns, still under the lock.
    std::optional<StoreLock> lock;
    std::optional<Transaction> transaction;
    try {
        lock.emplace(module::generalStoreMutex(), m_reader.get());
        // Armed before anything runs: a failure at any point, the BEGIN included, ends in
        // ROLLBACK. That also ends a transaction an earlier call left open (below).
        transaction.emplace(*m_database);

        long long setId = getSetIDUnlocked(log);
        bool const exists = setId != -1;
        // One time for every row this call writes.
        String const nowText =
            sql::number(TimeStamp(DateTime::getCurrentUTCDateTime()).getUnixTimeStamp());

        HashTable<String, String> row(32);
        log.toRowData(row, exists, nowText);
        transaction->begin(TransactionText::Begin);
        if (exists) {
            m_eventDataStore->update(row, "rowid", sql::number(setId));
        } else {
            m_eventDataStore->append(row);
        }

        setId = getSetIDUnlocked(log);
        if (setId == -1) {
            // Deliberately neither COMMIT nor ROLLBACK: the transaction stays open. It cannot
            // stay so for long: the next call's BEGIN fails, is logged (651) and its ROLLBACK
            // ends the transaction, so the store recovers after that one failed call. Under
            // the store mutex this path is not expected to be reached at all.
            transaction->leaveOpen();
            return false;
        }
        writeKeyValuesUnlocked(log, setId, nowText);
        transaction->commit();
        return true;
    } catch (Exception const& e) {
        logAt(logger(), ERROR, [&] { return LoggerStream() + "651 " + e.getMessage(); });
        return false;
    } catch (...) {
        // Not a failure this operation reports, and it rolls nothing back: passed on as it is.
        if (transaction) transaction->leaveOpen();
        throw;
    }
}

void GeneralDataStore::writeKeyValuesUnlocked(GenericLog const& log, long long setId,
                                              String const& nowText) {
    // REQUIRES: caller holds the "general_store" mutex, inside the log's transaction.
    ResultSet stored;
    m_database->execute(SprintfFormat("SELECT rowid, * FROM `%s` WHERE `%s`='%I64i'",
                                      kKeyValueTable, "setID", setId),
                        &stored);
    HashTable<String, String> storedRowIds(32);
    HashTable<String, LogKeyValue> storedKeyValues(32);
    for (unsigned int i = 0; i < stored.rowCount(); ++i) {
        ResultSetRow const& kvRow = stored.row(static_cast<int>(i));
        String const& key = kvRow.columnValue(String("key"));
        storedRowIds.insert(key, kvRow.columnValue(0));
        storedKeyValues.insert(key, LogKeyValue::fromDbRow(kvRow));
    }

    LogKeyValueSet const& keyValues = log.keyValues();
    for (unsigned int i = 0; i < keyValues.size(); ++i) {
        LogKeyValue const& kv = keyValues.get(i);
        LogKeyValue const* old = storedKeyValues.lookup(kv.key());
        HashTable<String, String> kvRow(32);
        if (!old) {
            kv.toRowData(kvRow, setId, true, nowText);
            m_eventKeyValueDataStore->append(kvRow);
        } else if (!kv.areFieldValuesTheSame(*old)) {
            kv.toRowData(kvRow, setId, false, nowText);
            String const* rowId = storedRowIds.lookup(kv.key());
            if (!rowId) {
                throw DatabaseError(
                    "Unexpected condition - could not associate rowID with record.");
            }
            m_eventKeyValueDataStore->update(kvRow, "rowid", *rowId);
        }
        // Unchanged: nothing written, so its stored time stays that of its last change.
    }
}

// ---- Queries -----------------------------------------------------------------------------

String GeneralDataStore::logsStatement(GenericLogFilter const& filter) {
    // Each condition on a line of its own, as the statement has always been written.
    sql::Where where("\n AND ");
    auto const equals = [&](char const* column, String const& text) {
        if (!text.empty()) where.add(sql::identifier(column), " = ", sql::value(text));
    };
    equals("typeUUID", filter.m_typeUUID);
    equals("guid", filter.m_guid);
    equals("category", filter.m_category);
    equals("subCategory", filter.m_subCategory);
    if (filter.m_dateFrom != TimeStamp()) {
        where.add(sql::identifier("creationTimeStamp"),
                  " >= ", sql::number(filter.m_dateFrom.getUnixTimeStamp()));
    }
    if (filter.m_dateTo != TimeStamp()) {
        where.add(sql::identifier("creationTimeStamp"),
                  " <= ", sql::number(filter.m_dateTo.getUnixTimeStamp()));
    }
    for (unsigned int i = 0; i < filter.m_keyValues.size(); ++i) {
        LogKeyValue const& kv = filter.m_keyValues.get(i);
        where.add("kv_set.rowID IN (SELECT kv." + sql::identifier("setID") + " FROM " +
                  sql::identifier(kKeyValueTable) + " kv WHERE kv." + sql::identifier("key") +
                  " = " + sql::value(kv.key()) + " AND kv." + sql::identifier("value") + " = " +
                  sql::value(kv.value()) + ")");
    }
    return "SELECT kv_set.rowid, * FROM " + sql::identifier(kLogTable) + " kv_set\n" +
           where.text() + sql::limit(filter.m_resultLimit);
}

GenericLogList GeneralDataStore::getLogs(GenericLogFilter const& filter) const {
    GenericLogList logs;
    if (!m_initialized) return logs;
    try {
        String const statement = logsStatement(filter);
        // Held for the per-log queries too, so a concurrent logOrUpdate is never seen half done.
        StoreLock lock(module::generalStoreMutex(), m_reader.get());
        ResultSet result;
        m_database->execute(statement, &result);
        for (unsigned int i = 0; i < result.rowCount(); ++i) {
            ResultSetRow const& row = result.row(static_cast<int>(i));
            // The outer result stays held (these queries run on the same connection while it
            // is read); the key-values of each log are made as they are stepped to.
            LogKeyValueSet keyValues;
            m_database->forEachRow("SELECT * from " + sql::identifier(kKeyValueTable) + " WHERE " +
                                       sql::identifier("setID") + " = " +
                                       sql::value(row.columnValue(0)),
                                   [&](ResultSetRow const& stored) {
                                       keyValues.append(LogKeyValue::fromDbRow(stored));
                                   });
            logs.append(GenericLog::fromDbRow(row, keyValues));
        }
    } catch (Exception const& e) {
        // The logs read before the failure are kept: a partial list is the intended outcome.
        logAt(logger(), ERROR,
              [&] { return LoggerStream() + "717 " + "getLogs(): " + e.getMessage(); });
    }
    return logs;
}

}  // namespace zrn
