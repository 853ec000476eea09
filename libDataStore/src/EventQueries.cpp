// EventDataStore's queries: the application-run questions and the result-log readers.

#include <libDataStore/EventDataStore.h>

#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/SprintfFormat.h>
#include <libDataStore/SQLiteDataStore.h>

#include "EventStoreText.h"
#include "ModuleState.h"
#include "ReaderLock.h"
#include "SqlText.h"
#include "StoreSupport.h"

namespace zrn {

using LoggerPriority::ERROR;
using LoggerPriority::NOTICE;
using LoggerPriority::TRACE;

namespace {

using sql::identifierList;

String id(char const* column) { return sql::identifier(column); }

// The columns of a test-run record, in its constructor's order.
std::string const& testRunColumns() {
    static std::string const columns =
        identifierList({"testId", "testName", "deviceName", "testGuid", "deviceGuid", "deviceType",
                        "errorCode", "result", "startTime", "pass"});
    return columns;
}

std::string const& tipColumns() {
    static std::string const columns =
        identifierList({"key", "type", "title", "text", "extended_text", "dateTime"});
    return columns;
}

std::string const& eventColumns() {
    static std::string const columns =
        identifierList({"message", "type", "eventCode", "customerEventCode", "dateTime"});
    return columns;
}

// The joins from a test run's events or tips to its script run, as other tools write them.
std::string joinToScriptRuns(char const* table) {
    return std::string(table) + "  INNER JOIN" + "   TestRuns ON " + table +
           ".testId = TestRuns.testId" + "  INNER JOIN" +
           "   ScriptRuns ON TestRuns.scriptId = ScriptRuns.scriptId";
}

String orderDescending(char const* column) { return " ORDER BY " + id(column) + " DESC"; }

// A reader of the rows of one owner (a script run, test run or alert), newest first:
// "SELECT <columns> FROM <source> WHERE <owner> = <ownerId>", the bounds on `timeColumn`,
// " ORDER BY `<timeColumn>` DESC" and the limit.
String ownedRows(std::string const& columns, String const& source, String const& owner,
                 long long ownerId, char const* timeColumn, EventTimePoint from, EventTimePoint to,
                 int limit) {
    sql::Where where;
    where.add(owner, " = ", sql::number(ownerId));
    where.addBounds(id(timeColumn), from, to);
    return "SELECT " + columns + " FROM " + source + where.text() + orderDescending(timeColumn) +
           sql::limit(limit);
}

// " (" the failure results ("FAIL" when none are given) " OR " the pass results ("PASS" when
// none are given) ")", each as `result` = value: the runs that decide a test's state.
std::string outcomeCondition(String const& result, std::vector<String> const* failureResults,
                             std::vector<String> const* passResults) {
    std::string outcome = " (";
    if (!failureResults || failureResults->empty()) {
        outcome += (result + " = 'FAIL'").str();
    } else {
        sql::join(outcome, *failureResults, " OR ", [&](std::string& out, String const& failure) {
            out += (result + " = " + sql::value(failure)).str();
        });
    }
    if (!passResults || passResults->empty()) {
        outcome += (" OR " + result + " = 'PASS')").str();
    } else {
        for (String const& pass : *passResults) {
            outcome += (" OR " + result + " = " + sql::value(pass)).str();
        }
        outcome += ")";
    }
    return outcome;
}

// Every such reader's trace names the test-run reader; log readers match on it as it stands.
void traceReader(Logger* logger, char const* number, String const& statement) {
    logAt(logger, TRACE,
          [&] { return LoggerStream() + number + "testRunResultLogs SQL Command: " + statement; });
}

// The records as the readers make them from their rows, shared by the collecting and the
// streaming form of each reader.
TipResultLog tipOf(ResultSetRow const& row) {
    return TipResultLog(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                        row.columnValue(3), row.columnValue(4), sql::timePoint(row, 5));
}

TestRunEventResultLog eventOf(ResultSetRow const& row) {
    return TestRunEventResultLog(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                                 row.columnValue(3), sql::timePoint(row, 4));
}

AlertResultLog alertOf(ResultSetRow const& row) {
    return AlertResultLog(row.int64Value(0), row.columnValue(1), row.columnValue(2),
                          row.columnValue(3), row.columnValue(4), row.columnValue(5),
                          row.columnValue(6), sql::timePoint(row, 7));
}

ProfilerDiffLog diffOf(ResultSetRow const& row) {
    return ProfilerDiffLog(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                           row.columnValue(3));
}

ScriptletResultLog scriptletOf(ResultSetRow const& row) {
    return ScriptletResultLog(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                              row.columnValue(3), sql::timePoint(row, 4));
}

MeasurementLog measurementOf(ResultSetRow const& row) {
    return MeasurementLog(row.columnValue(0), sql::timePoint(row, 1), sql::timePoint(row, 2),
                          sql::timePoint(row, 3), row.realValue(4), row.realValue(5),
                          row.realValue(6), row.realValue(7), row.uintValue(8));
}

String alertsStatement(EventTimePoint from, EventTimePoint to, String const& type,
                       bool untrackedOnly, int limit) {
    sql::Where where;
    where.addBounds(id("dateTime"), from, to);
    if (!type.empty()) where.add(id("type"), " = ", sql::value(type));
    if (untrackedOnly) where.add(id("tracked"), " = ", "0");
    return "SELECT " +
           identifierList(
               {"rowid", "guid", "key", "type", "title", "message", "deviceName", "dateTime"}) +
           " FROM " + id("Alerts") + where.text() + " ORDER BY " + id("dateTime") + " DESC" +
           module::comma() + id("rowid") + " DESC" + sql::limit(limit);
}

String diffsStatement(EventTimePoint from, EventTimePoint to, String const& category, int limit) {
    sql::Where where;
    where.addBounds(id("dateTime"), from, to);
    if (!category.empty()) where.add(id("category"), " = ", sql::value(category));
    return "SELECT " +
           identifierList({"category", "dateTime", "numberOfChanges", "serializedDiff"}) +
           " FROM " + id("ProfilerDiffs") + where.text() + orderDescending("dateTime") +
           sql::limit(limit);
}

String scriptletsStatement(EventTimePoint from, EventTimePoint to, String const& userName,
                           String const& category, String const& status, int limit) {
    String const runs = id("ScriptletRuns");
    String const apps = id("ApplicationRuns");
    auto const column = [&](char const* name) { return runs + "." + id(name); };

    String statement = "SELECT " + column("scriptletKey") + module::comma() + column("category") +
                       module::comma() + column("status") + module::comma() + column("result") +
                       module::comma() + column("dateTime") + " FROM " + runs;
    bool const byUser = userName != String::EMPTY();
    if (byUser) {
        statement +=
            " INNER JOIN " + apps + " ON " + apps + "." + id("appId") + " = " + column("appId");
    }
    sql::Where where;
    if (byUser) where.add(apps + "." + id("userName"), " = ", sql::value(userName));
    where.addBounds(column("dateTime"), from, to);
    if (!category.empty()) where.add(column("category"), " = ", sql::value(category));
    if (!status.empty()) where.add(column("status"), " = ", sql::value(status));
    statement += where.text();
    statement += " ORDER BY " + column("dateTime") + " DESC" + module::comma() +
                 id("scriptletKey") + " DESC" + sql::limit(limit);
    return statement;
}

String measurementsStatement(EventTimePoint from, EventTimePoint to, String const& type,
                             int limit) {
    sql::Where where;
    // The range applies to the middle of the span only.
    where.addBounds(id("spanMiddleTime"), from, to);
    if (!type.empty()) where.add(id("type"), " = ", sql::value(type));
    // Oldest first, unlike every other reader: callers plot these as a series.
    return "SELECT " +
           identifierList({"type", "spanStartTime", "spanMiddleTime", "spanEndTime", "maximum",
                           "minimum", "average", "median", "numberOfSamples"}) +
           " FROM " + id("Measurements") + where.text() + " ORDER BY " + id("spanMiddleTime") +
           " ASC" + sql::limit(limit);
}

}  // namespace

// ---- Shared machinery --------------------------------------------------------------------

void EventDataStore::query(String const& statement, ResultSet& result) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    m_appDataStore->database()->execute(statement, &result);
}

template <class Record, class Make>
std::vector<Record> EventDataStore::records(String const& statement, Make make) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return sql::records<Record>(*m_appDataStore->database(), statement, make);
}

template <class Record, class Make>
void EventDataStore::eachRecord(String const& statement, Make make,
                                Each<Record> const& each) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    m_appDataStore->database()->forEachRow(statement,
                                           [&](ResultSetRow const& row) { each(make(row)); });
}

long long EventDataStore::aggregate(String const& statement) const {
    ResultSet result;
    query(statement, result);
    return sql::firstNumber(result, 0);
}

bool EventDataStore::appCell(long long appId, char const* column, String& value) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    String const idText = sql::number(appId);
    if (!m_appDataStore->contains("appId", idText)) return false;
    return m_appDataStore->cellData(column, value, "appId", idText);
}

TestRunResultLog EventDataStore::testRunOf(ResultSetRow const& row) const {
    return TestRunResultLog(row.int64Value(0), row.columnValue(1), row.columnValue(2),
                            row.columnValue(3), row.columnValue(4), row.columnValue(5),
                            row.columnValue(6), row.columnValue(7), sql::timePoint(row, 8),
                            row.uintValue(9), *m_testRunDataStore->database());
}

std::vector<TestRunResultLog> EventDataStore::testRuns(String const& statement) const {
    return records<TestRunResultLog>(statement,
                                     [this](ResultSetRow const& row) { return testRunOf(row); });
}

void EventDataStore::testRuns(String const& statement, Each<TestRunResultLog> const& each) const {
    eachRecord<TestRunResultLog>(
        statement, [this](ResultSetRow const& row) { return testRunOf(row); }, each);
}

std::vector<TipResultLog> EventDataStore::tips(String const& statement) const {
    return records<TipResultLog>(statement, tipOf);
}

std::vector<TestRunEventResultLog> EventDataStore::events(String const& statement) const {
    return records<TestRunEventResultLog>(statement, eventOf);
}

// ---- Application runs --------------------------------------------------------------------

long long EventDataStore::firstApplicationRunId(String const& /*typeOfAppRun*/) const {
    // The type is deliberately not used: callers rely on the first run of all.
    return aggregate(SprintfFormat("SELECT min(%s) FROM %s", "appId", "ApplicationRuns"));
}

long long EventDataStore::lastApplicationRunId(String const& typeOfAppRun) const {
    logAt(logger(), NOTICE, [&] {
        return LoggerStream() + "1378 " +
               "EventDataStore::lastApplicationRunId() typeOfAppRun: " + typeOfAppRun;
    });
    String statement = "SELECT " + id("appId") + " FROM " + id("ApplicationRuns");
    if (!typeOfAppRun.empty())
        statement += " WHERE " + id("typeOfRun") + " = " + sql::value(typeOfAppRun);
    statement += " ORDER BY " + id("appId") + " DESC";

    ResultSet result;
    query(statement, result);
    // The second row: the newest run is normally the one asking, and is passed over.
    return sql::firstNumber(result, 0, 1);
}

EventTimePoint EventDataStore::firstApplicationRun() const {
    return EventTimePoint(EventTimePoint::duration(
        aggregate(SprintfFormat("SELECT min(%s) FROM %s", "startTime", "ApplicationRuns"))));
}

EventTimePoint EventDataStore::lastApplicationRun() const {
    return EventTimePoint(EventTimePoint::duration(
        aggregate(SprintfFormat("SELECT max(%s) FROM %s", "startTime", "ApplicationRuns"))));
}

EventTimePoint EventDataStore::getAppStartTime(long long appId) const {
    String value;
    return appCell(appId, "startTime", value) ? sql::timePoint(value) : EventTimePoint();
}

EventTimePoint EventDataStore::getAppEndTime(long long appId) const {
    String value;
    return appCell(appId, "endTime", value) ? sql::timePoint(value) : EventTimePoint();
}

long long EventDataStore::appRunTime(long long appId) const {
    // Both look-ups take the mutex again; it is re-entrant for this thread, and holding it
    // across them keeps the two cells from one state of the row.
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return (getAppEndTime(appId) - getAppStartTime(appId)).count();
}

String EventDataStore::getAppTypeOfRun(long long appId) const {
    String value;
    return appCell(appId, "typeOfRun", value) ? value : String();
}

// ---- Result-log readers ------------------------------------------------------------------

namespace {

// The rows of one owner, newest first, by the time column of the reader's table, with the
// trace every such reader writes.
struct OwnedReader {
    std::string const& (*columns)();
    char const* source;
    bool viaScriptRuns;  // the table joined to ScriptRuns, owned by a script run
    char const* owner;
    char const* timeColumn;
    char const* traceNumber;
};

String ownedStatement(Logger* logger, OwnedReader const& reader, long long ownerId,
                      EventTimePoint from, EventTimePoint to, int limit) {
    String const source =
        reader.viaScriptRuns ? String(joinToScriptRuns(reader.source)) : id(reader.source);
    String const owner = reader.viaScriptRuns ? "ScriptRuns." + id(reader.owner) : id(reader.owner);
    String statement =
        ownedRows(reader.columns(), source, owner, ownerId, reader.timeColumn, from, to, limit);
    traceReader(logger, reader.traceNumber, statement);
    return statement;
}

OwnedReader const kScriptRunEventResultLogs = {eventColumns, "TestRunEvents", true,
                                               "scriptId",   "dateTime",      "1580 "};
OwnedReader const kTestRunResultLogs = {testRunColumns, "TestRuns",  false,
                                        "scriptId",     "startTime", "1813 "};
OwnedReader const kTestRunEventResultLogs = {eventColumns, "TestRunEvents", false,
                                             "testId",     "dateTime",      "1868 "};
OwnedReader const kScriptRunTipResultLogs = {tipColumns, "TestRunTips", true,
                                             "scriptId", "dateTime",    "1640 "};
OwnedReader const kTestRunTipResultLogs = {tipColumns, "TestRunTips", false,
                                           "testId",   "dateTime",    "1919 "};
OwnedReader const kAlertTipResultLogs = {tipColumns, "AlertTips", false,
                                         "alertId",  "dateTime",  "2145 "};

}  // namespace

std::vector<TestRunEventResultLog> EventDataStore::scriptRunEventResultLogs(long long scriptId,
                                                                            EventTimePoint from,
                                                                            EventTimePoint to,
                                                                            int limit) const {
    return events(ownedStatement(logger(), kScriptRunEventResultLogs, scriptId, from, to, limit));
}

void EventDataStore::scriptRunEventResultLogs(long long scriptId, EventTimePoint from,
                                              EventTimePoint to, int limit,
                                              Each<TestRunEventResultLog> const& each) const {
    String const statement =
        ownedStatement(logger(), kScriptRunEventResultLogs, scriptId, from, to, limit);
    eachRecord<TestRunEventResultLog>(statement, eventOf, each);
}

namespace {

// The statement of the script-run readers (their text is matched by other tools).
String scriptRunsStatement(boost::optional<EventTimePoint> const& from,
                           boost::optional<EventTimePoint> const& to,
                           boost::optional<String> const& typeOfRun,
                           boost::optional<String> const& name,
                           boost::optional<String> const& scriptGuid, int limit) {
    // Each selected item starts with a blank, hence the two blanks after SELECT.
    std::pair<char const*, char const*> const selected[] = {
        {" s.", "scriptId"}, {" s.", "name"},        {" s.", "result"},     {" s.", "startTime"},
        {" s.", "endTime"},  {" s.", "totalPasses"}, {" ss.", "scriptXml"}, {" s.", "scriptGuid"}};
    std::string statement = "SELECT ";
    sql::join(statement, selected, module::comma().str().c_str(),
              [](std::string& out, auto const& item) {
                  out += item.first;
                  sql::appendIdentifier(out, item.second);
              });
    statement += " FROM " + id("ScriptRuns").str() + " s, " + id("ApplicationRuns").str() + " a" +
                 " LEFT JOIN " + id("ScriptSpecs").str() + " ss" + " ON ss." + id("specId").str() +
                 " = s." + id("specId").str();

    sql::Where where;
    where.add("a." + id("appId"), " = ", "s." + id("appId"));
    // An optional that holds a value adds its condition, even an empty text.
    // As everywhere, a zero time point is no bound; only an empty optional text differs from
    // an optional holding an empty text.
    where.addBounds("s." + id("startTime"), from, to);
    where.addEquals("a." + id("typeOfRun"), typeOfRun);
    where.addEquals("s." + id("name"), name);
    where.addEquals("s." + id("scriptGuid"), scriptGuid);
    statement += where.text();
    statement += " ORDER BY s." + id("startTime").str() + " DESC";
    statement += sql::limit(limit);

    return String(std::move(statement));
}

ScriptResultLog scriptRunOf(ResultSetRow const& row) {
    return ScriptResultLog(row.int64Value(0), row.columnValue(1), row.columnValue(2),
                           sql::timePoint(row, 3), sql::timePoint(row, 4), row.uintValue(5),
                           row.columnValue(6), row.columnValue(7));
}

}  // namespace

std::vector<ScriptResultLog> EventDataStore::scriptResultLogs(boost::optional<EventTimePoint> from,
                                                              boost::optional<EventTimePoint> to,
                                                              boost::optional<String> typeOfRun,
                                                              boost::optional<String> name,
                                                              boost::optional<String> scriptGuid,
                                                              int limit) const {
    return records<ScriptResultLog>(
        scriptRunsStatement(from, to, typeOfRun, name, scriptGuid, limit), scriptRunOf);
}

void EventDataStore::scriptResultLogs(boost::optional<EventTimePoint> from,
                                      boost::optional<EventTimePoint> to,
                                      boost::optional<String> typeOfRun,
                                      boost::optional<String> name,
                                      boost::optional<String> scriptGuid, int limit,
                                      Each<ScriptResultLog> const& each) const {
    eachRecord<ScriptResultLog>(scriptRunsStatement(from, to, typeOfRun, name, scriptGuid, limit),
                                scriptRunOf, each);
}

std::vector<TestRunResultLog> EventDataStore::testRunResultLogs(long long scriptId,
                                                                EventTimePoint from,
                                                                EventTimePoint to,
                                                                int limit) const {
    return testRuns(ownedStatement(logger(), kTestRunResultLogs, scriptId, from, to, limit));
}

void EventDataStore::testRunResultLogs(long long scriptId, EventTimePoint from, EventTimePoint to,
                                       int limit, Each<TestRunResultLog> const& each) const {
    String const statement =
        ownedStatement(logger(), kTestRunResultLogs, scriptId, from, to, limit);
    testRuns(statement, each);
}

std::vector<TestRunEventResultLog> EventDataStore::testRunEventResultLogs(long long testId,
                                                                          EventTimePoint from,
                                                                          EventTimePoint to,
                                                                          int limit) const {
    return events(ownedStatement(logger(), kTestRunEventResultLogs, testId, from, to, limit));
}

void EventDataStore::testRunEventResultLogs(long long testId, EventTimePoint from,
                                            EventTimePoint to, int limit,
                                            Each<TestRunEventResultLog> const& each) const {
    String const statement =
        ownedStatement(logger(), kTestRunEventResultLogs, testId, from, to, limit);
    eachRecord<TestRunEventResultLog>(statement, eventOf, each);
}

std::vector<TipResultLog> EventDataStore::scriptRunTipResultLogs(long long scriptId,
                                                                 EventTimePoint from,
                                                                 EventTimePoint to,
                                                                 int limit) const {
    return tips(ownedStatement(logger(), kScriptRunTipResultLogs, scriptId, from, to, limit));
}

void EventDataStore::scriptRunTipResultLogs(long long scriptId, EventTimePoint from,
                                            EventTimePoint to, int limit,
                                            Each<TipResultLog> const& each) const {
    String const statement =
        ownedStatement(logger(), kScriptRunTipResultLogs, scriptId, from, to, limit);
    eachRecord<TipResultLog>(statement, tipOf, each);
}

std::vector<TipResultLog> EventDataStore::testRunTipResultLogs(long long testId,
                                                               EventTimePoint from,
                                                               EventTimePoint to, int limit) const {
    return tips(ownedStatement(logger(), kTestRunTipResultLogs, testId, from, to, limit));
}

void EventDataStore::testRunTipResultLogs(long long testId, EventTimePoint from, EventTimePoint to,
                                          int limit, Each<TipResultLog> const& each) const {
    String const statement =
        ownedStatement(logger(), kTestRunTipResultLogs, testId, from, to, limit);
    eachRecord<TipResultLog>(statement, tipOf, each);
}

std::vector<TipResultLog> EventDataStore::alertTipResultLogs(long long alertId, EventTimePoint from,
                                                             EventTimePoint to, int limit) const {
    return tips(ownedStatement(logger(), kAlertTipResultLogs, alertId, from, to, limit));
}

void EventDataStore::alertTipResultLogs(long long alertId, EventTimePoint from, EventTimePoint to,
                                        int limit, Each<TipResultLog> const& each) const {
    String const statement =
        ownedStatement(logger(), kAlertTipResultLogs, alertId, from, to, limit);
    eachRecord<TipResultLog>(statement, tipOf, each);
}

std::vector<AlertKeyValueResultLog> EventDataStore::alertKeyValueResultLogs(
    long long alertId) const {
    String const statement = "SELECT " + identifierList({"key", "value"}) + " FROM " +
                             id("AlertKeyValues") + " WHERE " + id("alertId") + " = " +
                             sql::number(alertId);
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "2095 " + "alertKeyValueResultLogs SQL Command: " + statement;
    });
    return records<AlertKeyValueResultLog>(statement, [&](ResultSetRow const& row) {
        return AlertKeyValueResultLog(row.columnValue(0), row.columnValue(1));
    });
}

std::vector<AlertResultLog> EventDataStore::alertResultLogs(EventTimePoint from, EventTimePoint to,
                                                            String const& type, bool untrackedOnly,
                                                            int limit) const {
    return records<AlertResultLog>(alertsStatement(from, to, type, untrackedOnly, limit), alertOf);
}

void EventDataStore::alertResultLogs(EventTimePoint from, EventTimePoint to, String const& type,
                                     bool untrackedOnly, int limit,
                                     Each<AlertResultLog> const& each) const {
    eachRecord<AlertResultLog>(alertsStatement(from, to, type, untrackedOnly, limit), alertOf,
                               each);
}

std::vector<ProfilerDiffLog> EventDataStore::profilerDiffLogs(EventTimePoint from,
                                                              EventTimePoint to,
                                                              String const& category,
                                                              int limit) const {
    return records<ProfilerDiffLog>(diffsStatement(from, to, category, limit), diffOf);
}

void EventDataStore::profilerDiffLogs(EventTimePoint from, EventTimePoint to,
                                      String const& category, int limit,
                                      Each<ProfilerDiffLog> const& each) const {
    eachRecord<ProfilerDiffLog>(diffsStatement(from, to, category, limit), diffOf, each);
}

std::vector<ScriptletResultLog> EventDataStore::scriptletResultLogs(
    EventTimePoint from, EventTimePoint to, String const& userName, String const& category,
    String const& status, int limit) const {
    return records<ScriptletResultLog>(
        scriptletsStatement(from, to, userName, category, status, limit), scriptletOf);
}

void EventDataStore::scriptletResultLogs(EventTimePoint from, EventTimePoint to,
                                         String const& userName, String const& category,
                                         String const& status, int limit,
                                         Each<ScriptletResultLog> const& each) const {
    eachRecord<ScriptletResultLog>(scriptletsStatement(from, to, userName, category, status, limit),
                                   scriptletOf, each);
}

std::vector<MeasurementLog> EventDataStore::measurementLogs(EventTimePoint from, EventTimePoint to,
                                                            String const& type, int limit) const {
    return records<MeasurementLog>(measurementsStatement(from, to, type, limit), measurementOf);
}

void EventDataStore::measurementLogs(EventTimePoint from, EventTimePoint to, String const& type,
                                     int limit, Each<MeasurementLog> const& each) const {
    eachRecord<MeasurementLog>(measurementsStatement(from, to, type, limit), measurementOf, each);
}

std::vector<TestRunResultLog> EventDataStore::getAllFails(EventTimePoint from,
                                                          EventTimePoint to) const {
    sql::Where where;
    where.add(id("result"), " = ", "'FAIL'");
    where.addBounds(id("startTime"), from, to);
    return testRuns("SELECT " + testRunColumns() + " FROM " + id("TestRuns") + where.text() +
                    orderDescending("startTime"));
}

std::vector<TestRunResultLog> EventDataStore::getRecentFails(
    String const& deviceGuid, std::vector<String> const* failureResults,
    std::vector<String> const* passResults, EventTimePoint until) const {
    // Held across every query below (each takes it again): the runs read per test belong to
    // the same state of the file as the list of tests.
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    String const result = id("result");
    String const device = " (" + id("deviceGuid") + " = " + sql::value(deviceGuid) + " AND " +
                          id("endTime") + " <= " + sql::seconds(until) + ")";

    std::string const outcome = outcomeCondition(result, failureResults, passResults);

    ResultSet guids;
    query("SELECT DISTINCT " + id("testGuid") + " FROM " + id("TestRuns") + " WHERE " + device +
              " ORDER BY " + id("endTime") + " DESC",
          guids);

    std::vector<TestRunResultLog> fails;
    // The newest failing-or-passing run of each test decides: a test whose newest such run
    // passed is not reported.
    for (unsigned g = 0; g < guids.rowCount(); ++g) {
        String const testGuid = guids.row(static_cast<int>(g)).columnValue(0);
        std::vector<TestRunResultLog> newest =
            testRuns("SELECT " + testRunColumns() + " FROM " + id("TestRuns") + " WHERE " + device +
                     " AND " + outcome + " AND " + id("testGuid") + " = " + sql::value(testGuid) +
                     " ORDER BY " + id("endTime") + " DESC LIMIT 1");
        if (failureResults && failureResults->empty()) {
            logAt(defectLogger(), ERROR, [] {
                return LoggerStream() + "Failure result list should be non-zero in length";
            });
            continue;
        }
        if (newest.empty()) continue;
        String const& outcomeText = newest.front().result();
        bool failed = false;
        if (!failureResults) {
            failed = outcomeText == "FAIL";
        } else {
            for (String const& failure : *failureResults) failed = failed || outcomeText == failure;
        }
        if (failed) fails.push_back(std::move(newest.front()));
    }
    return fails;
}

}  // namespace zrn
