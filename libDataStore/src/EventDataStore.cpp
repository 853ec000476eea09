#include <libDataStore/EventDataStore.h>

#include <libCommon/Exception.h>
#include <libCommon/HashTable.h>
#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/SprintfFormat.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/SQLiteDataStore.h>

#include "EventStoreText.h"
#include "ModuleState.h"
#include "ReaderLock.h"
#include "RowWriter.h"
#include "SqlText.h"
#include "StoreSupport.h"
#include "StoreVersions.h"
#include "Transaction.h"

namespace zrn {

using LoggerPriority::ERROR;
using LoggerPriority::NOTICE;
using LoggerPriority::TRACE;

namespace {

// ---- Schema ------------------------------------------------------------------------------

int const kCurrentVersion = schema::kEventVersion;

SQLiteDataStoreColumnSpec const kVersioning[] = {{"version", "INTEGER PRIMARY KEY"},
                                                 {nullptr, nullptr}};

// The two time columns are TEXT here and INTEGER everywhere else; files in the field have it
// so, and other programs read them.
SQLiteDataStoreColumnSpec const kApplicationRuns[] = {{"appId", "INTEGER PRIMARY KEY"},
                                                      {"name", "TEXT"},
                                                      {"typeOfRun", "TEXT"},
                                                      {"userName", "TEXT"},
                                                      {"startTime", "TEXT"},
                                                      {"endTime", "TEXT"},
                                                      {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kScriptRuns[] = {{"scriptId", "INTEGER PRIMARY KEY"},
                                                 {"appId", "INTEGER"},
                                                 {"name", "TEXT"},
                                                 {"result", "TEXT"},
                                                 {"startTime", "INTEGER"},
                                                 {"endTime", "INTEGER"},
                                                 {"totalPasses", "INTEGER"},
                                                 {"specId", "INTEGER"},
                                                 {"scriptGuid", "TEXT"},
                                                 {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kScriptSpecs[] = {
    {"specId", "INTEGER PRIMARY KEY"}, {"scriptXml", "TEXT"}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kTestRuns[] = {{"testId", "INTEGER PRIMARY KEY"},
                                               {"scriptId", "INTEGER"},
                                               {"testName", "TEXT"},
                                               {"deviceName", "TEXT"},
                                               {"result", "TEXT"},
                                               {"startTime", "INTEGER"},
                                               {"endTime", "INTEGER"},
                                               {"testGuid", "TEXT"},
                                               {"deviceGuid", "TEXT"},
                                               {"deviceType", "TEXT"},
                                               {"pass", "INTEGER"},
                                               {"errorCode", "TEXT"},
                                               {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kTestRunEvents[] = {
    {"testId", "INTEGER"}, {"message", "TEXT"},           {"type", "TEXT"},
    {"eventCode", "TEXT"}, {"customerEventCode", "TEXT"}, {"dateTime", "INTEGER"},
    {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kTestRunTips[] = {
    {"testId", "INTEGER"}, {"key", "TEXT"},           {"type", "TEXT"},        {"title", "TEXT"},
    {"text", "TEXT"},      {"extended_text", "TEXT"}, {"dateTime", "INTEGER"}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kAlertTips[] = {
    {"alertId", "INTEGER"}, {"key", "TEXT"},           {"type", "TEXT"},        {"title", "TEXT"},
    {"text", "TEXT"},       {"extended_text", "TEXT"}, {"dateTime", "INTEGER"}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kAlertKeyValues[] = {
    {"alertId", "INTEGER"}, {"key", "TEXT"}, {"value", "TEXT"}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kScriptletRuns[] = {
    {"appId", "INTEGER"}, {"scriptletKey", "TEXT"}, {"category", "TEXT"}, {"result", "TEXT"},
    {"status", "TEXT"},   {"dateTime", "INTEGER"},  {nullptr, nullptr}};

// `tracked` defaults to 1, yet new alerts are always written with 0 (untracked).
SQLiteDataStoreColumnSpec const kAlerts[] = {
    {"appId", "INTEGER"},   {"guid", "TEXT"},        {"key", "TEXT"},
    {"type", "TEXT"},       {"title", "TEXT"},       {"message", "TEXT"},
    {"deviceName", "TEXT"}, {"dateTime", "INTEGER"}, {"tracked", "INTEGER DEFAULT 1"},
    {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kProfilerDiffs[] = {{"diffId", "INTEGER PRIMARY KEY"},
                                                    {"appId", "INTEGER"},
                                                    {"category", "TEXT"},
                                                    {"dateTime", "INTEGER"},
                                                    {"numberOfChanges", "TEXT"},
                                                    {"serializedDiff", "TEXT"},
                                                    {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kMeasurements[] = {{"type", "TEXT"},
                                                   {"spanStartTime", "INTEGER"},
                                                   {"spanEndTime", "INTEGER"},
                                                   {"spanMiddleTime", "INTEGER"},
                                                   {"maximum", "REAL"},
                                                   {"minimum", "REAL"},
                                                   {"average", "REAL"},
                                                   {"median", "REAL"},
                                                   {"numberOfSamples", "INTEGER"},
                                                   {nullptr, nullptr}};

// One index of the store. A unique index spans `column` and `column2`; an ordinary one has
// `direction` ("ASC", "DESC" or "", the last giving a name that ends in a blank).
struct IndexSpec {
    char const* table;
    char const* column;
    char const* direction;
    char const* column2;  // non-null for a unique index
};

IndexSpec const kIndexes[] = {
    {"ApplicationRuns", "startTime", "ASC", nullptr},
    {"ApplicationRuns", "startTime", "DESC", nullptr},
    {"ApplicationRuns", "endTime", "ASC", nullptr},
    {"ApplicationRuns", "endTime", "DESC", nullptr},
    {"ScriptRuns", "appId", nullptr, "scriptId"},
    {"ScriptRuns", "startTime", "ASC", nullptr},
    {"ScriptRuns", "startTime", "DESC", nullptr},
    {"ScriptRuns", "endTime", "ASC", nullptr},
    {"ScriptRuns", "endTime", "DESC", nullptr},
    {"TestRuns", "scriptId", nullptr, "testId"},
    {"TestRuns", "startTime", "ASC", nullptr},
    {"TestRuns", "startTime", "DESC", nullptr},
    {"TestRuns", "endTime", "ASC", nullptr},
    {"TestRuns", "endTime", "DESC", nullptr},
    {"TestRuns", "testGuid", "", nullptr},
    {"TestRuns", "deviceGuid", "", nullptr},
    {"TestRunEvents", "testId", "", nullptr},
    {"TestRunEvents", "dateTime", "ASC", nullptr},
    {"TestRunEvents", "dateTime", "DESC", nullptr},
    {"TestRunTips", "testId", "", nullptr},
    {"TestRunTips", "dateTime", "ASC", nullptr},
    {"TestRunTips", "dateTime", "DESC", nullptr},
    {"AlertTips", "alertId", "", nullptr},
    {"AlertTips", "dateTime", "ASC", nullptr},
    {"AlertTips", "dateTime", "DESC", nullptr},
    {"AlertKeyValues", "alertId", "", nullptr},
    {"ScriptletRuns", "appId", "", nullptr},
    {"ScriptletRuns", "dateTime", "ASC", nullptr},
    {"ScriptletRuns", "dateTime", "DESC", nullptr},
    {"Alerts", "appId", "", nullptr},
    {"Alerts", "guid", "", nullptr},
    {"Alerts", "dateTime", "ASC", nullptr},
    {"Alerts", "dateTime", "DESC", nullptr},
    {"Measurements", "spanMiddleTime", "ASC", nullptr},
};

String indexStatement(IndexSpec const& index) {
    return index.column2 ? sql::uniqueIndex(index.table, index.column, index.column2)
                         : sql::index(index.table, index.column, index.direction);
}

boost::optional<long long> positiveId(long long id) {
    if (id >= 1) return id;
    return boost::none;
}

// Whether ScriptRuns exists without its scriptGuid column: the one case the version-3 upgrade
// has to alter. The version row alone cannot tell, as the file may be shared with another store.
bool scriptRunsLacksScriptGuid(SQLite3Database& database) {
    ResultSet columns;
    database.execute("SELECT name FROM pragma_table_info('ScriptRuns')", &columns);
    if (columns.rowCount() == 0) return false;
    for (unsigned i = 0; i < columns.rowCount(); ++i) {
        if (columns.row(static_cast<int>(i))
                .columnValue(String("name"))
                .equalNoCase("scriptGuid")) {
            return false;
        }
    }
    return true;
}

}  // namespace

Logger* EventDataStore::logger() {
    static Logger* const instance = createLogger("libDataStore.EventDataStore");
    return instance;
}

// ---- Lifecycle ---------------------------------------------------------------------------

EventDataStore::EventDataStore()
    : EventDataStore(module::settingsCopy(&DataStoreSettings::eventDataStoreFilePath)) {}

EventDataStore::EventDataStore(String const& path) : m_dataStorePath(path) {
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "480 " + "EventDataStore(" + path +
               ") this: " + static_cast<void const*>(this);
    });
    createDataStores();
}

EventDataStore::EventDataStore(String const& path, ReadOnly const& options)
    : m_dataStorePath(path) {
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "480 " + "EventDataStore(" + path +
               ") this: " + static_cast<void const*>(this);
    });
    Database database = readonly::open(path, options);
    m_reader = std::make_shared<ReaderLock>(database);
    // The checks of all tables read one state of the file.
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    m_versionDataStore = readonly::table(database, "Versioning", kVersioning);
    m_appDataStore = readonly::table(database, "ApplicationRuns", kApplicationRuns);
    m_scriptDataStore = readonly::table(database, "ScriptRuns", kScriptRuns);
    m_scriptSpecDataStore = readonly::table(database, "ScriptSpecs", kScriptSpecs);
    m_testRunDataStore = readonly::table(database, "TestRuns", kTestRuns);
    m_eventDataStore = readonly::table(database, "TestRunEvents", kTestRunEvents);
    m_testRunTipsDataStore = readonly::table(database, "TestRunTips", kTestRunTips);
    m_scriptletDataStore = readonly::table(database, "ScriptletRuns", kScriptletRuns);
    m_alertDataStore = readonly::table(database, "Alerts", kAlerts);
    m_alertKeyValueDataStore = readonly::table(database, "AlertKeyValues", kAlertKeyValues);
    m_alertTipsDataStore = readonly::table(database, "AlertTips", kAlertTips);
    m_profilerDiffDataStore = readonly::table(database, "ProfilerDiffs", kProfilerDiffs);
    m_measurementDataStore = readonly::table(database, "Measurements", kMeasurements);
}

// The source's path is deliberately not copied: the copy opens the runtime's private
// temporary database instead of a second connection to the source's file.
EventDataStore::EventDataStore(EventDataStore const& /*other*/) { createDataStores(); }

EventDataStore::~EventDataStore() {
    try {
        logAt(logger(), TRACE, [&] {
            return LoggerStream() + "620 " +
                   "~EventDataStore() this: " + static_cast<void const*>(this);
        });
        close();
    } catch (...) {
        // A destructor must not throw; the connection is released with the tables anyway.
    }
    // The members then go in reverse declaration order: the path, then Measurements first
    // and Versioning last.
}

std::shared_ptr<EventDataStore> EventDataStore::create(String const& path) noexcept {
    try {
        return std::make_shared<EventDataStore>(path);
    } catch (Exception const& e) {
        try {
            logAt(logger(), ERROR, [&] {
                return LoggerStream() + "488 " +
                       "Error occurred attempting to create EventDataStore from file path: '" +
                       path + "': " + e.getMessage();
            });
        } catch (...) {
        }
    } catch (...) {
        try {
            logAt(logger(), ERROR, [&] {
                return LoggerStream() + "490 " +
                       "General failure attempting to create EventDataStore from file path: '" +
                       path + "'";
            });
        } catch (...) {
        }
    }
    return nullptr;
}

std::shared_ptr<EventDataStore> EventDataStore::create() noexcept {
    String path;
    if (!defaultPath(&DataStoreSettings::eventDataStoreFilePath, logger(), "500 ", path)) {
        return nullptr;
    }
    return create(path);
}

void EventDataStore::createDataStores() {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());

    Database database = SQLiteDataStore::openDatabase(m_dataStorePath);
    Transaction opening(*database, TransactionText::BeginTransaction);
    try {
        createTablesUnlocked(database);
        opening.commit();
    } catch (...) {
        // Deliberately not rolled back here: the transaction is left open and the connection
        // is closed as the partly built store unwinds, which rolls the whole of it back.
        opening.leaveOpen();
        throw;
    }
}

void EventDataStore::createTablesUnlocked(Database const& database) {
    // REQUIRES: caller holds the "event_store" mutex, inside the opening transaction.
    m_versionDataStore = std::make_unique<SQLiteDataStore>(database, "Versioning", kVersioning);
    int const version = getVersionUnlocked();
    if (version == -1) {
        database->execute(SprintfFormat("INSERT OR IGNORE INTO %s (%s) values (%i)", "Versioning",
                                        "version", kCurrentVersion));
    } else {
        if (version < kCurrentVersion) {
            logAt(logger(), NOTICE, [] {
                return LoggerStream() + "546 " + "Updating ScriptRuns table to version 3";
            });
            // Only a table that lacks the column is altered: another store that shares the
            // file and its Versioning table may have written its own, lower version over ours,
            // and a missing ScriptRuns table is created below with the column already in it.
            if (scriptRunsLacksScriptGuid(*database)) {
                // "STRING", not "TEXT": the type files upgraded in the field carry.
                database->execute(SprintfFormat("ALTER TABLE %s ADD COLUMN %s STRING;",
                                                "ScriptRuns", "scriptGuid"));
            }
        }
        // A file of a later version is written back to 3 as well.
        database->execute(
            SprintfFormat("UPDATE %s SET %s = %i", "Versioning", "version", kCurrentVersion));
    }

    m_appDataStore =
        std::make_unique<SQLiteDataStore>(database, "ApplicationRuns", kApplicationRuns);
    m_scriptDataStore = std::make_unique<SQLiteDataStore>(database, "ScriptRuns", kScriptRuns);
    m_scriptSpecDataStore =
        std::make_unique<SQLiteDataStore>(database, "ScriptSpecs", kScriptSpecs);
    m_testRunDataStore = std::make_unique<SQLiteDataStore>(database, "TestRuns", kTestRuns);
    m_eventDataStore = std::make_unique<SQLiteDataStore>(database, "TestRunEvents", kTestRunEvents);
    m_testRunTipsDataStore =
        std::make_unique<SQLiteDataStore>(database, "TestRunTips", kTestRunTips);
    m_scriptletDataStore =
        std::make_unique<SQLiteDataStore>(database, "ScriptletRuns", kScriptletRuns);
    m_alertDataStore = std::make_unique<SQLiteDataStore>(database, "Alerts", kAlerts);
    m_alertKeyValueDataStore =
        std::make_unique<SQLiteDataStore>(database, "AlertKeyValues", kAlertKeyValues);
    m_alertTipsDataStore = std::make_unique<SQLiteDataStore>(database, "AlertTips", kAlertTips);
    m_profilerDiffDataStore =
        std::make_unique<SQLiteDataStore>(database, "ProfilerDiffs", kProfilerDiffs);
    m_measurementDataStore =
        std::make_unique<SQLiteDataStore>(database, "Measurements", kMeasurements);

    for (IndexSpec const& index : kIndexes) database->execute(indexStatement(index));
}

int EventDataStore::getVersionUnlocked() const {
    // REQUIRES: caller holds the "event_store" mutex.
    String const value = versionText(*m_versionDataStore);
    return value.empty() ? -1 : String::strToInt(value, 10);
}

int EventDataStore::getVersion() const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return getVersionUnlocked();
}

bool EventDataStore::checkValidity(String& error) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    // Versioning, ScriptSpecs, AlertKeyValues, ScriptletRuns and Measurements are not asked:
    // they share the one connection with the tables that are.
    return checkTables({{"m_appDataStore: ", m_appDataStore.get()},
                        {"m_testRunDataStore: ", m_testRunDataStore.get()},
                        {"m_eventDataStore: ", m_eventDataStore.get()},
                        {"m_testRunTipsDataStore: ", m_testRunTipsDataStore.get()},
                        {"m_alertTipsDataStore: ", m_alertTipsDataStore.get()},
                        {"m_scriptDataStore: ", m_scriptDataStore.get()},
                        {"m_alertDataStore: ", m_alertDataStore.get()},
                        {"m_profilerDiffDataStore: ", m_profilerDiffDataStore.get()}},
                       error);
}

void EventDataStore::close() {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    // Versioning and AlertKeyValues are skipped; they share the connection closed here.
    SQLiteDataStore* const tables[] = {
        m_appDataStore.get(),          m_scriptDataStore.get(),      m_scriptSpecDataStore.get(),
        m_testRunDataStore.get(),      m_eventDataStore.get(),       m_testRunTipsDataStore.get(),
        m_alertTipsDataStore.get(),    m_scriptletDataStore.get(),   m_alertDataStore.get(),
        m_profilerDiffDataStore.get(), m_measurementDataStore.get(),
    };
    for (SQLiteDataStore* table : tables) {
        if (table) table->close();
    }
}

// ---- Run logging -------------------------------------------------------------------------

bool EventDataStore::updateExisting(SQLiteDataStore& table, char const* idColumn, long long id,
                                    std::vector<std::pair<char const*, String>> const& columns,
                                    char const* missingMessage) {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    HashTable<String, String> row;
    row.insert(idColumn, sql::number(id));
    for (auto const& column : columns) row.insert(column.first, column.second);
    return updateIfExists(table, idColumn, id, row, missingMessage);
}

boost::optional<long long> EventDataStore::insertReturningId(SQLiteDataStore& table,
                                                             String const& statement) {
    // The id read must be the one of this insert: the lock is held across both.
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    SQLite3Database& database = *table.database();
    database.execute(statement);
    return positiveId(database.lastInsertId());
}

boost::optional<long long> EventDataStore::logAppStart(String const& name, String const& userName,
                                                       String const& typeOfRun,
                                                       EventTimePoint start) {
    String const statement = sql::insert(
        "ApplicationRuns", "name,userName,typeOfRun,startTime",
        {sql::value(name), sql::value(userName), sql::value(typeOfRun), sql::seconds(start)});
    return insertReturningId(*m_appDataStore, statement);
}

void EventDataStore::logAppStop(long long appId, EventTimePoint end) {
    updateExisting(*m_appDataStore, "appId", appId, {{"endTime", sql::seconds(end)}},
                   "logAppStop() id does not exist: ");
}

void EventDataStore::setAppName(long long appId, String const& name) {
    updateExisting(*m_appDataStore, "appId", appId, {{"name", name}},
                   "setAppName() id does not exist: ");
}

void EventDataStore::setAppUser(long long appId, String const& userName) {
    updateExisting(*m_appDataStore, "appId", appId, {{"userName", userName}},
                   "setAppUser() id does not exist: ");
}

void EventDataStore::setTypeOfAppRun(long long appId, String const& typeOfRun) {
    updateExisting(*m_appDataStore, "appId", appId, {{"typeOfRun", typeOfRun}},
                   "setTypeOfAppRun() id does not exist: ");
}

boost::optional<long long> EventDataStore::logScriptStart(long long appId, String const& result,
                                                          String const& scriptGuid,
                                                          String const& name, EventTimePoint start,
                                                          unsigned int totalPasses,
                                                          String const& scriptXml) {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());

    // Script texts are stored once and shared by every run of byte-identical XML.
    String specIdText;
    if (!m_scriptSpecDataStore->cellData("specId", specIdText, "scriptXml", scriptXml)) {
        SQLite3Database& specs = *m_scriptSpecDataStore->database();
        specs.execute(sql::insert("ScriptSpecs", "scriptXml", {sql::value(scriptXml)}));
        long long const specId = specs.lastInsertId();
        // An engaged 0, not an empty optional: callers tell "no spec" from "no run" this way.
        if (specId < 1) return 0LL;
        specIdText = sql::number(specId);
    }

    // The first text goes to `result`, the second to `scriptGuid`, the third to `name`.
    String const statement =
        sql::insert("ScriptRuns", "appId,result,name,startTime,totalPasses,specId,scriptGuid",
                    {sql::number(appId), sql::value(result), sql::value(name), sql::seconds(start),
                     sql::number(totalPasses), specIdText, sql::value(scriptGuid)});
    return insertReturningId(*m_scriptDataStore, statement);
}

void EventDataStore::logScriptFinished(long long scriptId, String const& result,
                                       EventTimePoint end) {
    updateExisting(*m_scriptDataStore, "scriptId", scriptId,
                   {{"result", result}, {"endTime", sql::seconds(end)}},
                   "logScriptFinished() id does not exist: ");
}

void EventDataStore::setScriptName(long long scriptId, String const& name) {
    updateExisting(*m_scriptDataStore, "scriptId", scriptId, {{"name", name}},
                   "setScriptName() id does not exist: ");
}

void EventDataStore::setScriptResult(long long scriptId, String const& result) {
    updateExisting(*m_scriptDataStore, "scriptId", scriptId, {{"result", result}},
                   "setScriptResult() id does not exist: ");
}

boost::optional<long long> EventDataStore::logTestStart(
    long long scriptId, String const& testName, String const& deviceName, String const& testGuid,
    String const& deviceGuid, String const& deviceType, String const& result, EventTimePoint start,
    unsigned int pass) {
    String const statement = sql::insert(
        "TestRuns",
        "scriptId,testName,deviceName,testGuid,deviceGuid,deviceType,result,startTime,pass",
        {sql::number(scriptId), sql::value(testName), sql::value(deviceName), sql::value(testGuid),
         sql::value(deviceGuid), sql::value(deviceType), sql::value(result), sql::seconds(start),
         sql::number(pass)});
    return insertReturningId(*m_testRunDataStore, statement);
}

boost::optional<long long> EventDataStore::logTestInitializing(
    long long scriptId, String const& testName, String const& deviceName, String const& testGuid,
    String const& deviceGuid, String const& deviceType, String const& result, EventTimePoint start,
    unsigned int pass) {
    return logTestStart(scriptId, testName, deviceName, testGuid, deviceGuid, deviceType, result,
                        start, pass);
}

bool EventDataStore::logTestInitialized(long long testId, String const& result,
                                        EventTimePoint start) {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    if (updateExisting(*m_testRunDataStore, "testId", testId,
                       {{"result", result}, {"startTime", sql::seconds(start)}}, nullptr)) {
        return true;
    }
    // Unlike the other updates, reported on the store's own logger and to the caller.
    logAt(logger(), ERROR, [&] {
        return LoggerStream() + "932 " + "logTestInitialized() test id: " + testId +
               " does not exist";
    });
    return false;
}

void EventDataStore::logTestFinished(long long testId, String const& result,
                                     String const& errorCode, EventTimePoint end) {
    updateExisting(*m_testRunDataStore, "testId", testId,
                   {{"result", result}, {"errorCode", errorCode}, {"endTime", sql::seconds(end)}},
                   "logTestFinished() id does not exist: ");
}

void EventDataStore::logTestRunEvent(long long testId, String const& message, String const& type,
                                     String const& eventCode, String const& customerEventCode,
                                     EventTimePoint time) {
    static sql::ColumnOrder const columns{
        "TestRunEvents",
        {"testId", "message", "type", "eventCode", "customerEventCode", "dateTime"}};
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    RowWriter::append(
        *m_eventDataStore, columns,
        {sql::number(testId), message, type, eventCode, customerEventCode, sql::seconds(time)});
}

void EventDataStore::logTestRunTip(long long testId, String const& key, String const& type,
                                   String const& title, String const& text,
                                   String const& extendedText, EventTimePoint time) {
    static sql::ColumnOrder const columns{
        "TestRunTips", {"testId", "key", "type", "title", "text", "extended_text", "dateTime"}};
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    RowWriter::append(
        *m_testRunTipsDataStore, columns,
        {sql::number(testId), key, type, title, text, extendedText, sql::seconds(time)});
}

// ---- Alerts ------------------------------------------------------------------------------

void EventDataStore::storeAlertKeyValues(long long alertId,
                                         std::vector<std::pair<String, String>> const& keyValues) {
    // REQUIRES: caller holds the "event_store" mutex.
    SQLite3Database& database = *m_alertKeyValueDataStore->database();
    String const id = sql::number(alertId);
    for (auto const& kv : keyValues) {
        database.execute(sql::insert("AlertKeyValues", "alertId,key,value",
                                     {id, sql::value(kv.first), sql::value(kv.second)}));
    }
}

void EventDataStore::logAlertUnlocked(AlertData const& alert) {
    // REQUIRES: caller holds the "event_store" mutex.
    SQLite3Database& database = *m_alertDataStore->database();
    if (!alert.guid.empty()) {
        long long const existing = eventsql::findAlert(
            database, alert.guid, eventsql::KeyValues::Any, eventsql::Tracking::Any);
        if (existing != -1) {
            // A stored alert is never stored again; it only gains key/values it lacks.
            if (alert.keyValues.empty()) return;
            if (eventsql::findAlert(database, alert.guid, eventsql::KeyValues::Required,
                                    eventsql::Tracking::Any) != -1)
                return;
            storeAlertKeyValues(existing, alert.keyValues);
            return;
        }
    }

    // Written although the column defaults to 1: a new alert is not tracked yet.
    static sql::ColumnOrder const columns{
        "Alerts",
        {"appId", "guid", "key", "type", "title", "message", "deviceName", "dateTime", "tracked"}};
    RowWriter::append(*m_alertDataStore, columns,
                      {sql::number(alert.appId), alert.guid, alert.key, alert.type, alert.title,
                       alert.message, alert.deviceName, sql::seconds(alert.time), String("0")});
    long long const alertId = database.lastInsertId();
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "1224 " + "logAlerts() guid: " + alert.guid +
               " addedid: " + alertId;
    });

    storeAlertKeyValues(alertId, alert.keyValues);
    String const id = sql::number(alertId);
    for (TipResultLog const& tip : alert.tips) {
        static sql::ColumnOrder const columns{
            "AlertTips", {"alertId", "key", "type", "title", "text", "extended_text", "dateTime"}};
        RowWriter::append(*m_alertTipsDataStore, columns,
                          {id, tip.key(), tip.type(), tip.title(), tip.text(), tip.extendedText(),
                           sql::seconds(tip.timeStamp())});
    }
}

bool EventDataStore::logAlertsInTransaction(AlertData const* alerts, std::size_t count,
                                            char const* failure) {
    // Taken outside the try: the rollback must still run under the mutex. The guard is armed
    // outside it too, so that its ROLLBACK follows the failure message, and follows a refused
    // BEGIN as well.
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    Transaction transaction(*m_alertDataStore->database());
    try {
        transaction.begin(TransactionText::Begin);
        for (std::size_t i = 0; i < count; ++i) logAlertUnlocked(alerts[i]);
        transaction.commit();
        return true;
    } catch (Exception const& e) {
        try {
            logAt(logger(), ERROR, [&] {
                return LoggerStream() + failure + e.toString() + " rolling back transaction.";
            });
        } catch (...) {
        }
        return false;
    }
    // Anything else passes on, rolled back too: never leave the connection inside an open
    // transaction that every later statement would join.
}

bool EventDataStore::logAlert(AlertData const& alert) {
    return logAlertsInTransaction(&alert, 1, "1279 logAlert() failed on: ");
}

bool EventDataStore::logAlerts(std::vector<AlertData> const& alerts) {
    return logAlertsInTransaction(alerts.data(), alerts.size(), "1262 logAlerts() failed on: ");
}

bool EventDataStore::alertExists(String const& guid) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return eventsql::findAlert(*m_alertDataStore->database(), guid, eventsql::KeyValues::Any,
                               eventsql::Tracking::Any) != -1;
}

bool EventDataStore::alertExistsWithKeyVals(String const& guid) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return eventsql::findAlert(*m_alertDataStore->database(), guid, eventsql::KeyValues::Required,
                               eventsql::Tracking::Any) != -1;
}

bool EventDataStore::alertTracked(String const& guid) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return eventsql::findAlert(*m_alertDataStore->database(), guid, eventsql::KeyValues::Any,
                               eventsql::Tracking::TrackedOnly) != -1;
}

void EventDataStore::markAlertAsTracked(String const& guid) {
    String const statement = "UPDATE " + sql::identifier("Alerts") + " SET " +
                             sql::identifier("tracked") + " = 1" + " WHERE " +
                             sql::identifier("guid") + " = " + sql::value(guid);
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    m_alertDataStore->database()->execute(statement);
}

EventTimePoint EventDataStore::firstAlert() const {
    ResultSet result;
    query(SprintfFormat("SELECT min(%s) FROM %s WHERE %s > 0", "dateTime", "Alerts", "dateTime"),
          result);
    // An empty table gives an empty cell, read as the zero point.
    if (result.rowCount() == 0 || result.row(0).columnCount() == 0) return EventTimePoint();
    return sql::timePoint(result.row(0).columnValue(0));
}

// ---- Scriptlet results, profiler diffs, measurements -------------------------------------

void EventDataStore::logScriptletResult(long long appId, String const& key, String const& category,
                                        String const& result, String const& status,
                                        EventTimePoint time) {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    // The key goes into this look-up as it is, quotes not doubled, as other programs reading
    // the same file do it; a key with a quote fails here rather than being matched loosely.
    String const latest = SprintfFormat(
        "SELECT max(`%s`), `%s` FROM `%s` WHERE `%s`= '%s' AND `%s`= %lli", "dateTime", "result",
        "ScriptletRuns", "scriptletKey", key.c_str(), "appId", appId);
    ResultSet found;
    m_scriptletDataStore->database()->execute(latest, &found);
    // Without an earlier result the cell is empty, so an empty result is not recorded either.
    String previous;
    if (found.rowCount() > 0 && found.row(0).columnCount() > 0) {
        previous = found.row(0).columnValue(1);
    }
    if (previous == result) return;

    static sql::ColumnOrder const columns{
        "ScriptletRuns", {"appId", "scriptletKey", "category", "result", "status", "dateTime"}};
    RowWriter::append(*m_scriptletDataStore, columns,
                      {sql::number(appId), key, category, result, status, sql::seconds(time)});
}

void EventDataStore::logProfilerDiff(long long appId, String const& category, long long time,
                                     unsigned int numberOfChanges, String const& serializedDiff) {
    String const statement =
        sql::insert("ProfilerDiffs", "appId,category,dateTime,numberOfChanges,serializedDiff",
                    {sql::number(appId), sql::value(category), sql::number(time),
                     sql::number(numberOfChanges), sql::value(serializedDiff)});
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    m_profilerDiffDataStore->database()->execute(statement);
}

void EventDataStore::logMeasurement(String const& type, unsigned int spanStartTime,
                                    unsigned int spanMiddleTime, unsigned int spanEndTime,
                                    double maximum, double minimum, double average, double median,
                                    unsigned int numberOfSamples) {
    using sql::number;
    using sql::real;
    String const statement = sql::insert(
        "Measurements",
        "type,spanStartTime,spanMiddleTime,spanEndTime,maximum,minimum,average,median,"
        "numberOfSamples",
        {sql::value(type), number(spanStartTime), number(spanMiddleTime), number(spanEndTime),
         real(maximum), real(minimum), real(average), real(median), number(numberOfSamples)});
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    m_measurementDataStore->database()->execute(statement);
}

}  // namespace zrn
