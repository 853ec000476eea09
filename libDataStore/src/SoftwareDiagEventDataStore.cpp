#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <libCommon/Array.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/SprintfFormat.h>
#include <libDataStore/DataStoreSettings.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>

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

// ---- Schema -------------------------------------------------------------------------------

char const kIdType[] = "INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL";

char const kVersioning[] = "Versioning";
char const kSessions[] = "Sessions";
char const kRunTransactions[] = "RunTransactions";
char const kFixTransactions[] = "FixTransactions";
char const kSoftwareDiagnostics[] = "SoftwareDiagnostics";
char const kIssues[] = "Issues";
char const kFixActions[] = "FixActions";
char const kIssuesFixActions[] = "Issues_FixActions";

SQLiteDataStoreColumnSpec const kVersioningColumns[] = {{"version", kIdType}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kSessionColumns[] = {{"sessionId", kIdType},
                                                     {"startTimeStamp", "INTEGER"},
                                                     {"endTimeStamp", "INTEGER"},
                                                     {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kRunTransactionColumns[] = {{"runTransactionId", kIdType},
                                                            {"sessionId", "INTEGER"},
                                                            {"startTimeStamp", "INTEGER"},
                                                            {"endTimeStamp", "INTEGER"},
                                                            {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kFixTransactionColumns[] = {
    {"fixTransactionId", kIdType}, {"sessionId", "INTEGER"},    {"restorePointUuid", "TEXT"},
    {"startTimeStamp", "INTEGER"}, {"endTimeStamp", "INTEGER"}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kSoftwareDiagnosticColumns[] = {
    {"softwareDiagnosticId", kIdType}, {"sessionId", "INTEGER"},    {"runTransactionId", "INTEGER"},
    {"diagnosticUuid", "TEXT"},        {"diagnosticName", "TEXT"},  {"diagnosticResult", "TEXT"},
    {"startTimeStamp", "INTEGER"},     {"endTimeStamp", "INTEGER"}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kIssueColumns[] = {
    {"issueId", kIdType},  {"sessionId", "INTEGER"},     {"softwareDiagnosticId", "INTEGER"},
    {"issueName", "TEXT"}, {"issueDescription", "TEXT"}, {"timeStamp", "INTEGER"},
    {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kFixActionColumns[] = {
    {"fixActionId", kIdType},      {"sessionId", "INTEGER"},    {"fixState", "INTEGER"},
    {"fixTypeUuid", "TEXT"},       {"fixSummary", "TEXT"},      {"fixResult", "TEXT"},
    {"startTimeStamp", "INTEGER"}, {"endTimeStamp", "INTEGER"}, {nullptr, nullptr}};

SQLiteDataStoreColumnSpec const kIssueFixActionColumns[] = {{"issueFixActionId", kIdType},
                                                            {"issueId", "INTEGER"},
                                                            {"fixActionId", "INTEGER"},
                                                            {nullptr, nullptr}};

int const kSchemaVersion = schema::kSoftwareDiagVersion;

struct IndexDefinition {
    char const* table;
    char const* column;
    char const* order;  // "" for the identifier indexes
};

// Existing files carry these names, the trailing blank of the direction-less ones included;
// the set is kept as it is (no index on the parent ids of run and fix transactions, on the
// restore point, on a diagnostic's run transaction or on an issue's session).
IndexDefinition const kIndexes[] = {
    {kSessions, "sessionId", ""},
    {kSessions, "startTimeStamp", "ASC"},
    {kSessions, "startTimeStamp", "DESC"},
    {kSessions, "endTimeStamp", "ASC"},
    {kSessions, "endTimeStamp", "DESC"},
    {kRunTransactions, "runTransactionId", ""},
    {kRunTransactions, "startTimeStamp", "ASC"},
    {kRunTransactions, "startTimeStamp", "DESC"},
    {kRunTransactions, "endTimeStamp", "ASC"},
    {kRunTransactions, "endTimeStamp", "DESC"},
    {kFixTransactions, "fixTransactionId", ""},
    {kFixTransactions, "startTimeStamp", "ASC"},
    {kFixTransactions, "startTimeStamp", "DESC"},
    {kFixTransactions, "endTimeStamp", "ASC"},
    {kFixTransactions, "endTimeStamp", "DESC"},
    {kSoftwareDiagnostics, "softwareDiagnosticId", ""},
    {kSoftwareDiagnostics, "startTimeStamp", "ASC"},
    {kSoftwareDiagnostics, "startTimeStamp", "DESC"},
    {kSoftwareDiagnostics, "endTimeStamp", "ASC"},
    {kSoftwareDiagnostics, "endTimeStamp", "DESC"},
    {kIssues, "issueId", ""},
    {kIssues, "softwareDiagnosticId", ""},
    {kIssues, "timeStamp", "ASC"},
    {kIssues, "timeStamp", "DESC"},
    {kFixActions, "fixActionId", ""},
    {kFixActions, "sessionId", ""},
    {kFixActions, "startTimeStamp", "ASC"},
    {kFixActions, "startTimeStamp", "DESC"},
    {kFixActions, "endTimeStamp", "ASC"},
    {kFixActions, "endTimeStamp", "DESC"},
    {kIssuesFixActions, "issueId", ""},
    {kIssuesFixActions, "fixActionId", ""},
};

// ---- Helpers ------------------------------------------------------------------------------

unsigned long long addressOf(void const* object) {
    return static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(object));
}

long long now() { return TimeStamp::getCurrentTimeStamp().getUnixTimeStamp(); }

// A single-table SELECT: "SELECT " columns " FROM " table [" WHERE " conditions joined by
// " AND "] [" ORDER BY " terms joined by ", "] [" LIMIT " n].
class Select {
public:
    enum class Columns { Bare, Quoted };

    // The table's full column list in table order, which is what the records' fromDbRow
    // expects.
    Select(char const* table, SQLiteDataStoreColumnSpec const* columns,
           Columns quoting = Columns::Bare)
        : m_table(table) {
        for (SQLiteDataStoreColumnSpec const* c = columns; c->name; ++c) {
            m_columns.push_back(quoting == Columns::Quoted ? sql::identifier(c->name)
                                                           : String(c->name));
        }
    }

    // `column` = value, the value a decimal number...
    Select& whereEquals(char const* column, long long value) {
        m_where.add(sql::identifier(column), " = ", sql::number(value));
        return *this;
    }
    // ... or a text literal.
    Select& whereEquals(char const* column, String const& text) {
        m_where.add(sql::identifier(column), " = ", sql::value(text));
        return *this;
    }
    // Both bounds inclusive; an uninitialised bound is left out, so two select everything.
    Select& whereStartedBetween(TimeStamp const& from, TimeStamp const& to) {
        m_where.addBounds(sql::identifier("startTimeStamp"), from, to);
        return *this;
    }
    Select& orderByRowid(bool descending) {
        m_ordering.push_back(String("`rowid`") + direction(descending));
        return *this;
    }
    // The id column is the row id, so the second term never changes the order; the statement
    // keeps it so that its text stays what it has always been.
    Select& orderById(char const* idColumn, bool descending) {
        orderByRowid(descending);
        m_ordering.push_back(sql::identifier(idColumn) + direction(descending));
        return *this;
    }
    Select& limit(int limit) {
        m_limit = limit;
        return *this;
    }

    String text() const {
        auto const append = [](std::string& out, String const& item) { out += item.str(); };
        std::string out = "SELECT ";
        if (m_columns.empty()) out += "*";
        sql::join(out, m_columns, ", ", append);
        out += " FROM ";
        out += m_table;
        out += m_where.text();
        if (!m_ordering.empty()) out += " ORDER BY ";
        sql::join(out, m_ordering, ", ", append);
        out += sql::limit(m_limit);
        return String(std::move(out));
    }

private:
    static char const* direction(bool descending) { return descending ? " DESC" : " ASC"; }

    char const* m_table;
    std::vector<String> m_columns;
    sql::Where m_where;
    std::vector<String> m_ordering;
    int m_limit = 0;
};

// The first run transaction of `session`, and the first fix transaction whose `column` holds
// `value`: the look-ups whose record or mere existence several operations ask for.
String firstRunTransaction(SessionLog const& session) {
    return Select(kRunTransactions, kRunTransactionColumns)
        .whereEquals("sessionId", session.sessionId())
        .limit(1)
        .text();
}

template <class Value>
String firstFixTransaction(char const* column, Value const& value) {
    return Select(kFixTransactions, kFixTransactionColumns)
        .whereEquals(column, value)
        .limit(1)
        .text();
}

}  // namespace

Logger* SoftwareDiagEventDataStore::logger() {
    static Logger* const instance = createLogger("libDataStore.SoftwareDiagEventDataStore");
    return instance;
}

// ---- Lifecycle ----------------------------------------------------------------------------

SoftwareDiagEventDataStore::SoftwareDiagEventDataStore()
    : SoftwareDiagEventDataStore(
          module::settingsCopy(&DataStoreSettings::softwareDiagEventDataStoreFilePath)) {}

SoftwareDiagEventDataStore::SoftwareDiagEventDataStore(String const& filePath) {
    unsigned long long const self = addressOf(this);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "355 " + "SoftwareDiagEventDataStore() this: " + self; });

    // Held for the whole opening sequence, so another process never sees a half-made schema.
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    logAt(logger(), TRACE, [&] { return LoggerStream() + "358 " + self + " using " + filePath; });

    m_database = SQLiteDataStore::openDatabase(filePath);
    // The whole opening is one transaction: a new file costs one sync instead of one per
    // statement, and a failure part-way leaves no half-made schema behind.
    Transaction opening(*m_database, TransactionText::BeginTransaction);
    m_versionDataStore =
        std::make_unique<SQLiteDataStore>(m_database, kVersioning, kVersioningColumns);
    m_sessionDataStore = std::make_unique<SQLiteDataStore>(m_database, kSessions, kSessionColumns);
    m_runTransactionDataStore =
        std::make_unique<SQLiteDataStore>(m_database, kRunTransactions, kRunTransactionColumns);
    m_fixTransactionDataStore =
        std::make_unique<SQLiteDataStore>(m_database, kFixTransactions, kFixTransactionColumns);
    m_softwareDiagnosticDataStore = std::make_unique<SQLiteDataStore>(
        m_database, kSoftwareDiagnostics, kSoftwareDiagnosticColumns);
    m_issueDataStore = std::make_unique<SQLiteDataStore>(m_database, kIssues, kIssueColumns);
    m_fixActionDataStore =
        std::make_unique<SQLiteDataStore>(m_database, kFixActions, kFixActionColumns);
    m_issueFixActionDataStore =
        std::make_unique<SQLiteDataStore>(m_database, kIssuesFixActions, kIssueFixActionColumns);

    // There is no older schema to migrate from: whatever version a file holds becomes 1.
    if (readVersionUnlocked() == -1) {
        m_database->execute(SprintfFormat("INSERT OR IGNORE INTO %s (%s) values (%i)", kVersioning,
                                          "version", kSchemaVersion));
    } else {
        m_database->execute(
            SprintfFormat("UPDATE %s SET %s = %i", kVersioning, "version", kSchemaVersion));
    }
    createIndexesUnlocked();
    opening.commit();
}

SoftwareDiagEventDataStore::SoftwareDiagEventDataStore(String const& filePath,
                                                       ReadOnly const& options) {
    unsigned long long const self = addressOf(this);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "355 " + "SoftwareDiagEventDataStore() this: " + self; });
    logAt(logger(), TRACE, [&] { return LoggerStream() + "358 " + self + " using " + filePath; });
    m_database = readonly::open(filePath, options);
    m_reader = std::make_shared<ReaderLock>(m_database);
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    m_versionDataStore = readonly::table(m_database, kVersioning, kVersioningColumns);
    m_sessionDataStore = readonly::table(m_database, kSessions, kSessionColumns);
    m_runTransactionDataStore =
        readonly::table(m_database, kRunTransactions, kRunTransactionColumns);
    m_fixTransactionDataStore =
        readonly::table(m_database, kFixTransactions, kFixTransactionColumns);
    m_softwareDiagnosticDataStore =
        readonly::table(m_database, kSoftwareDiagnostics, kSoftwareDiagnosticColumns);
    m_issueDataStore = readonly::table(m_database, kIssues, kIssueColumns);
    m_fixActionDataStore = readonly::table(m_database, kFixActions, kFixActionColumns);
    m_issueFixActionDataStore =
        readonly::table(m_database, kIssuesFixActions, kIssueFixActionColumns);
}

SoftwareDiagEventDataStore::~SoftwareDiagEventDataStore() {
    try {
        logAt(logger(), TRACE, [&] {
            return LoggerStream() + "432 " +
                   "~SoftwareDiagEventDataStore() this: " + addressOf(this);
        });
        close();
    } catch (...) {
        // A destructor must not throw; the connection is released below either way.
    }
    m_versionDataStore.reset();
    m_sessionDataStore.reset();
    m_runTransactionDataStore.reset();
    m_fixTransactionDataStore.reset();
    m_softwareDiagnosticDataStore.reset();
    m_issueDataStore.reset();
    m_fixActionDataStore.reset();
    m_issueFixActionDataStore.reset();
}

void SoftwareDiagEventDataStore::createIndexesUnlocked() {
    // Each statement runs alone.
    for (IndexDefinition const& index : kIndexes) {
        m_database->execute(sql::index(index.table, index.column, index.order));
    }
}

int SoftwareDiagEventDataStore::readVersionUnlocked() const {
    String const version = versionText(*m_versionDataStore);
    return version.empty() ? -1 : static_cast<int>(String::strToUInt(version, 10));
}

int SoftwareDiagEventDataStore::getVersion() const {
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    return readVersionUnlocked();
}

bool SoftwareDiagEventDataStore::checkValidity(String& errorMessage) const {
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    return checkTables({{"m_versionDataStore: ", m_versionDataStore.get()},
                        {"m_sessionDataStore: ", m_sessionDataStore.get()},
                        {"m_runTransactionDataStore: ", m_runTransactionDataStore.get()},
                        {"m_fixTransactionDataStore: ", m_fixTransactionDataStore.get()},
                        {"m_softwareDiagnosticDataStore: ", m_softwareDiagnosticDataStore.get()},
                        {"m_issueDataStore: ", m_issueDataStore.get()},
                        {"m_fixActionDataStore: ", m_fixActionDataStore.get()},
                        {"m_issueFixActionDataStore: ", m_issueFixActionDataStore.get()}},
                       errorMessage);
}

void SoftwareDiagEventDataStore::close() {
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    // All eight share one connection: the first call closes it, the others find it closed.
    m_versionDataStore->close();
    m_sessionDataStore->close();
    m_runTransactionDataStore->close();
    m_fixTransactionDataStore->close();
    m_softwareDiagnosticDataStore->close();
    m_issueDataStore->close();
    m_fixActionDataStore->close();
    m_issueFixActionDataStore->close();
}

// ---- Logging ------------------------------------------------------------------------------

bool SoftwareDiagEventDataStore::insert(char const* table, String const& columns,
                                        String const& values) {
    String const statement = sql::insert(table, columns, values);
    // The id read must be the one of this insert: hold the lock across both.
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    m_database->execute(statement);
    return m_database->lastInsertId() > 0;
}

void SoftwareDiagEventDataStore::finish(SQLiteDataStore& table, char const* keyColumn, long long id,
                                        HashTable<String, String> row,
                                        char const* missingIdMessage) {
    row.insert(keyColumn, sql::number(id));
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    updateIfExists(table, keyColumn, id, row, missingIdMessage);
}

bool SoftwareDiagEventDataStore::logSessionStarted() {
    return insert(kSessions, "startTimeStamp", sql::number(now()));
}

void SoftwareDiagEventDataStore::logSessionFinished(SessionLog const& session) {
    HashTable<String, String> row;
    row.insert("endTimeStamp", sql::number(now()));
    finish(*m_sessionDataStore, "sessionId", session.sessionId(), std::move(row),
           "logSessionFinished() id does not exist: ");
}

bool SoftwareDiagEventDataStore::logRunTransactionStarted(SessionLog const& session) {
    return insert(kRunTransactions, "sessionId,startTimeStamp",
                  sql::joined({sql::number(session.sessionId()), sql::number(now())}));
}

void SoftwareDiagEventDataStore::logRunTransactionFinished(
    RunTransactionLog const& runTransaction) {
    HashTable<String, String> row;
    row.insert("endTimeStamp", sql::number(now()));
    finish(*m_runTransactionDataStore, "runTransactionId", runTransaction.runTransactionId(),
           std::move(row), "logRunTransactionFinished() id does not exist: ");
}

bool SoftwareDiagEventDataStore::logFixTransactionStarted(SessionLog const& session,
                                                          String const& restorePointUuid) {
    return insert(kFixTransactions, "sessionId,restorePointUuid,startTimeStamp",
                  sql::joined({sql::number(session.sessionId()), sql::value(restorePointUuid),
                               sql::number(now())}));
}

void SoftwareDiagEventDataStore::logFixTransactionFinished(
    FixTransactionLog const& fixTransaction) {
    HashTable<String, String> row;
    row.insert("endTimeStamp", sql::number(now()));
    finish(*m_fixTransactionDataStore, "fixTransactionId", fixTransaction.fixTransactionId(),
           std::move(row), "logFixTransactionFinished() id does not exist: ");
}

bool SoftwareDiagEventDataStore::logSoftwareDiagnosticStarted(
    SessionLog const& session, RunTransactionLog const& runTransaction,
    String const& diagnosticUuid, String const& diagnosticName) {
    return insert(
        kSoftwareDiagnostics,
        "sessionId,runTransactionId,diagnosticUuid,diagnosticName,startTimeStamp",
        sql::joined({sql::number(session.sessionId()),
                     sql::number(runTransaction.runTransactionId()), sql::value(diagnosticUuid),
                     sql::value(diagnosticName), sql::number(now())}));
}

void SoftwareDiagEventDataStore::logSoftwareDiagnosticFinished(
    SoftwareDiagnosticLog const& diagnostic, String const& diagnosticResult) {
    HashTable<String, String> row;
    row.insert("diagnosticResult", diagnosticResult);
    row.insert("endTimeStamp", sql::number(now()));
    finish(*m_softwareDiagnosticDataStore, "softwareDiagnosticId",
           diagnostic.softwareDiagnosticId(), std::move(row),
           "logSoftwareDiagnosticFinished() id does not exist: ");
}

bool SoftwareDiagEventDataStore::logIssue(SessionLog const& session,
                                          SoftwareDiagnosticLog const& diagnostic,
                                          String const& issueName, String const& issueDescription) {
    return insert(
        kIssues, "sessionId,softwareDiagnosticId,issueName,issueDescription,timeStamp",
        sql::joined({sql::number(session.sessionId()),
                     sql::number(diagnostic.softwareDiagnosticId()), sql::value(issueName),
                     sql::value(issueDescription), sql::number(now())}));
}

bool SoftwareDiagEventDataStore::logFixAction(SessionLog const& session, String const& fixTypeUuid,
                                              String const& fixSummary) {
    // No time here: a fix action gets its start time from logFixActionStarted.
    return insert(kFixActions, "sessionId,fixState,fixTypeUuid,fixSummary",
                  sql::joined({sql::number(session.sessionId()), sql::number(FIX_ACTION_STATE_NONE),
                               sql::value(fixTypeUuid), sql::value(fixSummary)}));
}

void SoftwareDiagEventDataStore::logFixActionStarted(FixActionLog const& fixAction) {
    HashTable<String, String> row;
    row.insert("startTimeStamp", sql::number(now()));
    finish(*m_fixActionDataStore, "fixActionId", fixAction.fixActionId(), std::move(row),
           "logFixActionStarted() id does not exist: ");
}

void SoftwareDiagEventDataStore::logFixActionFinished(FixActionLog const& fixAction,
                                                      FixActionState fixState,
                                                      String const& fixResult) {
    HashTable<String, String> row;
    // Written as the unsigned value it is read back with.
    row.insert("fixState", sql::number(static_cast<unsigned int>(fixState)));
    row.insert("fixResult", fixResult);
    row.insert("endTimeStamp", sql::number(now()));
    finish(*m_fixActionDataStore, "fixActionId", fixAction.fixActionId(), std::move(row),
           "logFixActionFinished() id does not exist: ");
}

// ---- Queries ------------------------------------------------------------------------------

void SoftwareDiagEventDataStore::query(String const& statement, ResultSet& result) const {
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    m_database->execute(statement, &result);
}

template <class Record>
LogList<Record> SoftwareDiagEventDataStore::records(String const& statement, int limit) const {
    // Each record is made as SQLite steps to its row, under the mutex: no copy of the whole
    // result is held next to the list.
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    LogList<Record> logs;
    // A limited list gets room for its limit from the start rather than growing by doubling,
    // each step moving every record made so far; a large limit is usually far above what the
    // table holds, so room for at most 1,024 records is set aside.
    if (limit > 0) logs.reserve(static_cast<unsigned int>(std::min(limit, 1024)));
    m_database->forEachRow(statement,
                           [&](ResultSetRow const& row) { logs.append(Record::fromDbRow(row)); });
    return logs;
}

SessionList SoftwareDiagEventDataStore::getSessions(TimeStamp const& from, TimeStamp const& to,
                                                    bool descending, int limit) const {
    return SessionList(records<SessionLog>(Select(kSessions, kSessionColumns)
                                               .whereStartedBetween(from, to)
                                               .orderById("sessionId", descending)
                                               .limit(limit)
                                               .text(),
                                           limit));
}

SessionList SoftwareDiagEventDataStore::getSession(long long sessionId) {
    // The only query whose select list is quoted.
    return SessionList(
        records<SessionLog>(Select(kSessions, kSessionColumns, Select::Columns::Quoted)
                                .whereEquals("sessionId", sessionId)
                                .limit(1)
                                .text()));
}

SessionLog SoftwareDiagEventDataStore::getLastSessionLog() const {
    // SQLite takes the other two columns from the row that holds the maximum. An aggregate
    // always returns one row: on an empty table a row of NULLs, which reads as session 0.
    ResultSet result;
    query("SELECT max(`sessionId`), `startTimeStamp`, `endTimeStamp` FROM `Sessions`", result);
    return SessionLog::fromDbRow(result.row(0));
}

RunTransactionList SoftwareDiagEventDataStore::getRunTransactionsByDate(TimeStamp const& from,
                                                                        TimeStamp const& to,
                                                                        bool descending,
                                                                        int limit) const {
    return RunTransactionList(
        records<RunTransactionLog>(Select(kRunTransactions, kRunTransactionColumns)
                                       .whereStartedBetween(from, to)
                                       .orderById("runTransactionId", descending)
                                       .limit(limit)
                                       .text(),
                                   limit));
}

FixTransactionList SoftwareDiagEventDataStore::getFixTransactionsByDate(TimeStamp const& from,
                                                                        TimeStamp const& to,
                                                                        bool descending,
                                                                        int limit) const {
    return FixTransactionList(
        records<FixTransactionLog>(Select(kFixTransactions, kFixTransactionColumns)
                                       .whereStartedBetween(from, to)
                                       .orderById("fixTransactionId", descending)
                                       .limit(limit)
                                       .text(),
                                   limit));
}

SoftwareDiagnosticList SoftwareDiagEventDataStore::getSoftwareDiagnosticsByDate(
    TimeStamp const& from, TimeStamp const& to, bool descending, int limit) const {
    return SoftwareDiagnosticList(
        records<SoftwareDiagnosticLog>(Select(kSoftwareDiagnostics, kSoftwareDiagnosticColumns)
                                           .whereStartedBetween(from, to)
                                           .orderById("softwareDiagnosticId", descending)
                                           .limit(limit)
                                           .text(),
                                       limit));
}

SoftwareDiagnosticList SoftwareDiagEventDataStore::getSoftwareDiagnosticsByRunTransaction(
    RunTransactionLog const& runTransaction, bool descending, int limit) const {
    return SoftwareDiagnosticList(records<SoftwareDiagnosticLog>(
        Select(kSoftwareDiagnostics, kSoftwareDiagnosticColumns)
            .whereEquals("runTransactionId", runTransaction.runTransactionId())
            .orderById("softwareDiagnosticId", descending)
            .limit(limit)
            .text(),
        limit));
}

IssueList SoftwareDiagEventDataStore::getIssuesBySession(SessionLog const& session, bool descending,
                                                         int limit) const {
    return IssueList(records<IssueLog>(Select(kIssues, kIssueColumns)
                                           .whereEquals("sessionId", session.sessionId())
                                           .orderByRowid(descending)
                                           .limit(limit)
                                           .text(),
                                       limit));
}

IssueList SoftwareDiagEventDataStore::getIssuesBySoftwareDiagnostic(
    SoftwareDiagnosticLog const& diagnostic, bool descending, int limit) const {
    return IssueList(records<IssueLog>(
        Select(kIssues, kIssueColumns)
            .whereEquals("softwareDiagnosticId", diagnostic.softwareDiagnosticId())
            .orderByRowid(descending)
            .limit(limit)
            .text(),
        limit));
}

FixActionList SoftwareDiagEventDataStore::getFixActionsBySession(SessionLog const& session,
                                                                 bool descending, int limit) const {
    return FixActionList(records<FixActionLog>(Select(kFixActions, kFixActionColumns)
                                                   .whereEquals("sessionId", session.sessionId())
                                                   .orderById("fixActionId", descending)
                                                   .limit(limit)
                                                   .text(),
                                               limit));
}

FixActionList SoftwareDiagEventDataStore::getFixActionsByIssue(IssueLog const& issue,
                                                               bool descending, int limit) const {
    // Unlike the other lists this one is ordered by start time. NULL start times (fix actions
    // never started) sort as SQLite sorts NULLs: first ascending, last descending.
    std::string statement =
        "SELECT  fa.`fixActionId`, fa.`sessionId`, fa.`fixState`, fa.`fixTypeUuid`, "
        "fa.`fixSummary`, fa.`fixResult`, fa.`startTimeStamp`, fa.`endTimeStamp` "
        "FROM `Issues_FixActions` ifa INNER JOIN `FixActions` fa "
        "ON ifa.`fixActionId` = fa.`fixActionId` WHERE ifa.`issueId` = ";
    statement += std::to_string(issue.issueId());
    statement += descending ? " ORDER BY fa.`startTimeStamp` DESC, fa.`fixActionId` DESC"
                            : " ORDER BY fa.`startTimeStamp` ASC, fa.`fixActionId` ASC";
    statement += sql::limit(limit);

    return FixActionList(records<FixActionLog>(String(std::move(statement)), limit));
}

RunTransactionLog SoftwareDiagEventDataStore::getRunTransactionBySession(
    SessionLog const& session) const {
    return RunTransactionList(records<RunTransactionLog>(firstRunTransaction(session))).get(0);
}

FixTransactionLog SoftwareDiagEventDataStore::getFixTransactionBySession(
    SessionLog const& session) const {
    return FixTransactionList(
               records<FixTransactionLog>(firstFixTransaction("sessionId", session.sessionId())))
        .get(0);
}

FixTransactionLog SoftwareDiagEventDataStore::getFixTransactionByRestorePointUuid(
    String const& restorePointUuid) const {
    return FixTransactionList(records<FixTransactionLog>(
                                  firstFixTransaction("restorePointUuid", restorePointUuid)))
        .get(0);
}

bool SoftwareDiagEventDataStore::sessionHasRunTransaction(SessionLog const& session) const {
    return records<RunTransactionLog>(firstRunTransaction(session)).size() > 0;
}

bool SoftwareDiagEventDataStore::sessionHasFixTransaction(SessionLog const& session) const {
    return records<FixTransactionLog>(firstFixTransaction("sessionId", session.sessionId()))
               .size() > 0;
}

bool SoftwareDiagEventDataStore::restorePointHasFixTransaction(
    String const& restorePointUuid) const {
    return records<FixTransactionLog>(firstFixTransaction("restorePointUuid", restorePointUuid))
               .size() > 0;
}

// ---- Associations -------------------------------------------------------------------------

bool SoftwareDiagEventDataStore::associateIssueToFixAction(IssueLog const& issue,
                                                           FixActionLog const& fixAction) {
    String const issueId = sql::number(issue.issueId());
    String const fixActionId = sql::number(fixAction.fixActionId());
    // The duplicate check and the insert run under one hold of the mutex, so two processes
    // linking the same pair at once cannot both pass the check.
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    ResultSet existing;
    m_database->execute(
        "SELECT  ifa.`issueId`, ifa.`fixActionId` FROM `Issues_FixActions` ifa "
        "WHERE ifa.`issueId` = " +
            issueId + " AND ifa.`fixActionId` = " + fixActionId,
        &existing);
    if (existing.rowCount() > 0) {
        logAt(defectLogger(), ERROR, [&] {
            return LoggerStream() +
                   "associateIssueToFixAction() id pair already exists - issueId:" + issueId +
                   ", fixActionId:" + fixActionId;
        });
        return false;
    }
    return insert(kIssuesFixActions, "issueId,fixActionId", sql::joined({issueId, fixActionId}));
}

bool SoftwareDiagEventDataStore::associateRestorePointToFixTransaction(
    FixTransactionLog const& fixTransaction, String const& restorePointUuid) {
    String const id = sql::number(fixTransaction.fixTransactionId());
    // Read and update under one hold of the mutex: a restore point is attached at most once,
    // also when two processes try at the same time.
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    ResultSet existing;
    m_database->execute(
        "SELECT  ft.`fixTransactionId`, ft.`restorePointUuid` FROM "
        "`FixTransactions` ft WHERE ft.`fixTransactionId` = " +
            id + " LIMIT 1",
        &existing);
    if (existing.rowCount() == 0) {
        logAt(defectLogger(), ERROR, [&] {
            return LoggerStream() +
                   "associateRestorePointToFixTransaction() id does not exist: " + id;
        });
        return false;
    }
    ResultSetRow const& row = existing.row(0);
    if (row.columnCount() < 2) {
        logAt(defectLogger(), ERROR, [&] {
            return LoggerStream() +
                   "associateRestorePointToFixTransaction() row doesn't have at least two "
                   "columns: " +
                   row.columnCount();
        });
        return false;
    }
    if (!row.columnValue(1).empty()) {
        logAt(logger(), ERROR, [&] {
            return LoggerStream() + "849 " + "Fix transaction " + id +
                   " already has an associated restore point";
        });
        return false;
    }
    HashTable<String, String> update;
    update.insert("restorePointUuid", restorePointUuid);
    m_fixTransactionDataStore->update(update, "fixTransactionId", id);
    return true;
}

}  // namespace zrn
