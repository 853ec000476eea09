// EventDataStore's queries: the application-run questions and the result-log readers.

#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/SprintfFormat.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/SQLiteDataStore.h>

#include "StoreSupport.h"
#include "EventStoreText.h"
#include "ModuleState.h"
#include "ReaderLock.h"
#include "SqlText.h"

namespace zrn {

using LoggerPriority::ERROR;
using LoggerPriority::NOTICE;
using LoggerPriority::TRACE;

namespace eventsql {

void Conditions::add(String const& column, char const* comparison, String const& value) {
    m_text += m_text.empty() ? " WHERE" : " AND";
    m_text += ' ';
    m_text += column.str();
    m_text += comparison;
    m_text += value.str();
}

void Conditions::addBounds(String const& column, EventTimePoint from, EventTimePoint to) {
    if (!isZero(from)) add(column, " >= ", seconds(from));
    if (!isZero(to)) add(column, " <= ", seconds(to));
}

std::string limitClause(int limit) {
    return limit > 0 ? " LIMIT " + std::to_string(limit) : std::string();
}

}  // namespace eventsql

namespace {

using eventsql::Conditions;

// Backquoted columns joined by ",".
std::string columnList(std::initializer_list<char const*> columns) {
    std::string list;
    for (char const* column : columns) {
        if (!list.empty()) list += module::comma().str();
        sql::appendIdentifier(list, column);
    }
    return list;
}

String id(char const* column) { return sql::identifier(column); }

// The columns of a test-run record, in its constructor's order.
std::string const& testRunColumns() {
    static std::string const columns =
        columnList({"testId", "testName", "deviceName", "testGuid", "deviceGuid", "deviceType",
                    "errorCode", "result", "startTime", "pass"});
    return columns;
}

std::string const& tipColumns() {
    static std::string const columns =
        columnList({"key", "type", "title", "text", "extended_text", "dateTime"});
    return columns;
}

std::string const& eventColumns() {
    static std::string const columns =
        columnList({"message", "type", "eventCode", "customerEventCode", "dateTime"});
    return columns;
}

// The joins from a test run's events or tips to its script run, as other tools write them.
std::string joinToScriptRuns(char const* table) {
    return std::string(table) + "  INNER JOIN" + "   TestRuns ON " + table +
           ".testId = TestRuns.testId" + "  INNER JOIN" +
           "   ScriptRuns ON TestRuns.scriptId = ScriptRuns.scriptId";
}

String orderDescending(char const* column) { return " ORDER BY " + id(column) + " DESC"; }

}  // namespace

// ---- Shared machinery --------------------------------------------------------------------

void EventDataStore::query(String const& statement, ResultSet& result) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    m_appDataStore->database()->execute(statement, &result);
}

long long EventDataStore::aggregate(String const& statement) const {
    ResultSet result;
    query(statement, result);
    if (result.rowCount() == 0 || result.row(0).columnCount() == 0) return 0;
    String const& cell = result.row(0).columnValue(0);
    return cell.empty() ? 0 : String::strToInt64(cell, 10);
}

bool EventDataStore::appCell(long long appId, char const* column, String& value) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    String const idText = sql::number(appId);
    if (!m_appDataStore->contains("appId", idText)) return false;
    return m_appDataStore->cellData(column, value, "appId", idText);
}

std::vector<TestRunResultLog> EventDataStore::testRuns(String const& statement) const {
    ResultSet result;
    query(statement, result);
    SQLite3Database& database = *m_testRunDataStore->database();
    std::vector<TestRunResultLog> runs;
    runs.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        runs.push_back(TestRunResultLog(String::strToInt64(row.columnValue(0), 10),
                                        row.columnValue(1), row.columnValue(2), row.columnValue(3),
                                        row.columnValue(4), row.columnValue(5), row.columnValue(6),
                                        row.columnValue(7), eventsql::timePoint(row.columnValue(8)),
                                        String::strToUInt(row.columnValue(9), 10), database));
    }
    return runs;
}

std::vector<TipResultLog> EventDataStore::tips(String const& statement) const {
    ResultSet result;
    query(statement, result);
    std::vector<TipResultLog> tips;
    tips.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        tips.emplace_back(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                          row.columnValue(3), row.columnValue(4),
                          eventsql::timePoint(row.columnValue(5)));
    }
    return tips;
}

std::vector<TestRunEventResultLog> EventDataStore::events(String const& statement) const {
    ResultSet result;
    query(statement, result);
    std::vector<TestRunEventResultLog> events;
    events.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        events.emplace_back(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                            row.columnValue(3), eventsql::timePoint(row.columnValue(4)));
    }
    return events;
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
    if (result.rowCount() < 2 || result.row(1).columnCount() == 0) return 0;
    String const& cell = result.row(1).columnValue(0);
    return cell.empty() ? 0 : String::strToInt64(cell, 10);
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
    return appCell(appId, "startTime", value) ? eventsql::timePoint(value) : EventTimePoint();
}

EventTimePoint EventDataStore::getAppEndTime(long long appId) const {
    String value;
    return appCell(appId, "endTime", value) ? eventsql::timePoint(value) : EventTimePoint();
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

std::vector<TestRunEventResultLog> EventDataStore::scriptRunEventResultLogs(long long scriptId,
                                                                            EventTimePoint from,
                                                                            EventTimePoint to,
                                                                            int limit) const {
    Conditions where;
    where.add("ScriptRuns." + id("scriptId"), " = ", sql::number(scriptId));
    where.addBounds(id("dateTime"), from, to);
    String const statement = "SELECT " + eventColumns() + " FROM " +
                             joinToScriptRuns("TestRunEvents") + where.text() +
                             orderDescending("dateTime") + eventsql::limitClause(limit);
    // The label names another reader; log readers match on it as it stands.
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "1580 " + "testRunResultLogs SQL Command: " + statement; });
    return events(statement);
}

std::vector<ScriptResultLog> EventDataStore::scriptResultLogs(boost::optional<EventTimePoint> from,
                                                              boost::optional<EventTimePoint> to,
                                                              boost::optional<String> typeOfRun,
                                                              boost::optional<String> name,
                                                              boost::optional<String> scriptGuid,
                                                              int limit) const {
    // Each selected item starts with a blank, hence the two blanks after SELECT.
    std::string statement = "SELECT ";
    bool first = true;
    for (auto const& item :
         {std::make_pair(" s.", "scriptId"), std::make_pair(" s.", "name"),
          std::make_pair(" s.", "result"), std::make_pair(" s.", "startTime"),
          std::make_pair(" s.", "endTime"), std::make_pair(" s.", "totalPasses"),
          std::make_pair(" ss.", "scriptXml"), std::make_pair(" s.", "scriptGuid")}) {
        if (!first) statement += module::comma().str();
        first = false;
        statement += item.first;
        sql::appendIdentifier(statement, item.second);
    }
    statement += " FROM " + id("ScriptRuns").str() + " s, " + id("ApplicationRuns").str() + " a" +
                 " LEFT JOIN " + id("ScriptSpecs").str() + " ss" + " ON ss." + id("specId").str() +
                 " = s." + id("specId").str();

    Conditions where;
    where.add("a." + id("appId"), " = ", "s." + id("appId"));
    // An optional that holds a value adds its condition, even an empty text.
    // As everywhere, a zero time point is no bound; only an empty optional text differs from
    // an optional holding an empty text.
    if (from && !eventsql::isZero(*from))
        where.add("s." + id("startTime"), " >= ", eventsql::seconds(*from));
    if (to && !eventsql::isZero(*to))
        where.add("s." + id("startTime"), " <= ", eventsql::seconds(*to));
    if (typeOfRun) where.add("a." + id("typeOfRun"), " = ", sql::value(*typeOfRun));
    if (name) where.add("s." + id("name"), " = ", sql::value(*name));
    if (scriptGuid) where.add("s." + id("scriptGuid"), " = ", sql::value(*scriptGuid));
    statement += where.text();
    statement += " ORDER BY s." + id("startTime").str() + " DESC";
    statement += eventsql::limitClause(limit);

    ResultSet result;
    query(String(std::move(statement)), result);
    std::vector<ScriptResultLog> scripts;
    scripts.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        scripts.emplace_back(
            String::strToInt64(row.columnValue(0), 10), row.columnValue(1), row.columnValue(2),
            eventsql::timePoint(row.columnValue(3)), eventsql::timePoint(row.columnValue(4)),
            String::strToUInt(row.columnValue(5), 10), row.columnValue(6), row.columnValue(7));
    }
    return scripts;
}

std::vector<TestRunResultLog> EventDataStore::testRunResultLogs(long long scriptId,
                                                                EventTimePoint from,
                                                                EventTimePoint to,
                                                                int limit) const {
    Conditions where;
    where.add(id("scriptId"), " = ", sql::number(scriptId));
    where.addBounds(id("startTime"), from, to);
    String const statement = "SELECT " + testRunColumns() + " FROM " + id("TestRuns") +
                             where.text() + orderDescending("startTime") +
                             eventsql::limitClause(limit);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "1813 " + "testRunResultLogs SQL Command: " + statement; });
    return testRuns(statement);
}

std::vector<TestRunEventResultLog> EventDataStore::testRunEventResultLogs(long long testId,
                                                                          EventTimePoint from,
                                                                          EventTimePoint to,
                                                                          int limit) const {
    Conditions where;
    where.add(id("testId"), " = ", sql::number(testId));
    where.addBounds(id("dateTime"), from, to);
    String const statement = "SELECT " + eventColumns() + " FROM " + id("TestRunEvents") +
                             where.text() + orderDescending("dateTime") +
                             eventsql::limitClause(limit);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "1868 " + "testRunResultLogs SQL Command: " + statement; });
    return events(statement);
}

std::vector<TipResultLog> EventDataStore::scriptRunTipResultLogs(long long scriptId,
                                                                 EventTimePoint from,
                                                                 EventTimePoint to,
                                                                 int limit) const {
    Conditions where;
    where.add("ScriptRuns." + id("scriptId"), " = ", sql::number(scriptId));
    where.addBounds(id("dateTime"), from, to);
    String const statement = "SELECT " + tipColumns() + " FROM " + joinToScriptRuns("TestRunTips") +
                             where.text() + orderDescending("dateTime") +
                             eventsql::limitClause(limit);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "1640 " + "testRunResultLogs SQL Command: " + statement; });
    return tips(statement);
}

std::vector<TipResultLog> EventDataStore::testRunTipResultLogs(long long testId,
                                                               EventTimePoint from,
                                                               EventTimePoint to, int limit) const {
    Conditions where;
    where.add(id("testId"), " = ", sql::number(testId));
    where.addBounds(id("dateTime"), from, to);
    String const statement = "SELECT " + tipColumns() + " FROM " + id("TestRunTips") +
                             where.text() + orderDescending("dateTime") +
                             eventsql::limitClause(limit);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "1919 " + "testRunResultLogs SQL Command: " + statement; });
    return tips(statement);
}

std::vector<TipResultLog> EventDataStore::alertTipResultLogs(long long alertId, EventTimePoint from,
                                                             EventTimePoint to, int limit) const {
    Conditions where;
    where.add(id("alertId"), " = ", sql::number(alertId));
    where.addBounds(id("dateTime"), from, to);
    String const statement = "SELECT " + tipColumns() + " FROM " + id("AlertTips") + where.text() +
                             orderDescending("dateTime") + eventsql::limitClause(limit);
    logAt(logger(), TRACE,
          [&] { return LoggerStream() + "2145 " + "testRunResultLogs SQL Command: " + statement; });
    return tips(statement);
}

std::vector<AlertKeyValueResultLog> EventDataStore::alertKeyValueResultLogs(
    long long alertId) const {
    String const statement = "SELECT " + columnList({"key", "value"}) + " FROM " +
                             id("AlertKeyValues") + " WHERE " + id("alertId") + " = " +
                             sql::number(alertId);
    logAt(logger(), TRACE, [&] {
        return LoggerStream() + "2095 " + "alertKeyValueResultLogs SQL Command: " + statement;
    });
    ResultSet result;
    query(statement, result);
    std::vector<AlertKeyValueResultLog> keyValues;
    keyValues.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        keyValues.emplace_back(row.columnValue(0), row.columnValue(1));
    }
    return keyValues;
}

std::vector<AlertResultLog> EventDataStore::alertResultLogs(EventTimePoint from, EventTimePoint to,
                                                            String const& type, bool untrackedOnly,
                                                            int limit) const {
    Conditions where;
    where.addBounds(id("dateTime"), from, to);
    if (!type.empty()) where.add(id("type"), " = ", sql::value(type));
    if (untrackedOnly) where.add(id("tracked"), " = ", "0");
    String const statement =
        "SELECT " +
        columnList({"rowid", "guid", "key", "type", "title", "message", "deviceName", "dateTime"}) +
        " FROM " + id("Alerts") + where.text() + " ORDER BY " + id("dateTime") + " DESC" +
        module::comma() + id("rowid") + " DESC" + eventsql::limitClause(limit);

    ResultSet result;
    query(statement, result);
    std::vector<AlertResultLog> alerts;
    alerts.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        alerts.emplace_back(String::strToInt64(row.columnValue(0), 10), row.columnValue(1),
                            row.columnValue(2), row.columnValue(3), row.columnValue(4),
                            row.columnValue(5), row.columnValue(6),
                            eventsql::timePoint(row.columnValue(7)));
    }
    return alerts;
}

std::vector<ProfilerDiffLog> EventDataStore::profilerDiffLogs(EventTimePoint from,
                                                              EventTimePoint to,
                                                              String const& category,
                                                              int limit) const {
    Conditions where;
    where.addBounds(id("dateTime"), from, to);
    if (!category.empty()) where.add(id("category"), " = ", sql::value(category));
    String const statement =
        "SELECT " + columnList({"category", "dateTime", "numberOfChanges", "serializedDiff"}) +
        " FROM " + id("ProfilerDiffs") + where.text() + orderDescending("dateTime") +
        eventsql::limitClause(limit);

    ResultSet result;
    query(statement, result);
    std::vector<ProfilerDiffLog> diffs;
    diffs.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        diffs.emplace_back(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                           row.columnValue(3));
    }
    return diffs;
}

std::vector<ScriptletResultLog> EventDataStore::scriptletResultLogs(
    EventTimePoint from, EventTimePoint to, String const& userName, String const& category,
    String const& status, int limit) const {
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
    Conditions where;
    if (byUser) where.add(apps + "." + id("userName"), " = ", sql::value(userName));
    where.addBounds(column("dateTime"), from, to);
    if (!category.empty()) where.add(column("category"), " = ", sql::value(category));
    if (!status.empty()) where.add(column("status"), " = ", sql::value(status));
    statement += where.text();
    statement += " ORDER BY " + column("dateTime") + " DESC" + module::comma() +
                 id("scriptletKey") + " DESC" + eventsql::limitClause(limit);

    ResultSet result;
    query(statement, result);
    std::vector<ScriptletResultLog> scriptlets;
    scriptlets.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        scriptlets.emplace_back(row.columnValue(0), row.columnValue(1), row.columnValue(2),
                                row.columnValue(3), eventsql::timePoint(row.columnValue(4)));
    }
    return scriptlets;
}

std::vector<MeasurementLog> EventDataStore::measurementLogs(EventTimePoint from, EventTimePoint to,
                                                            String const& type, int limit) const {
    Conditions where;
    // The range applies to the middle of the span only.
    where.addBounds(id("spanMiddleTime"), from, to);
    if (!type.empty()) where.add(id("type"), " = ", sql::value(type));
    // Oldest first, unlike every other reader: callers plot these as a series.
    String const statement =
        "SELECT " +
        columnList({"type", "spanStartTime", "spanMiddleTime", "spanEndTime", "maximum", "minimum",
                    "average", "median", "numberOfSamples"}) +
        " FROM " + id("Measurements") + where.text() + " ORDER BY " + id("spanMiddleTime") +
        " ASC" + eventsql::limitClause(limit);

    ResultSet result;
    query(statement, result);
    std::vector<MeasurementLog> measurements;
    measurements.reserve(result.rowCount());
    for (unsigned i = 0; i < result.rowCount(); ++i) {
        ResultSetRow const& row = result.row(static_cast<int>(i));
        measurements.emplace_back(
            row.columnValue(0), eventsql::timePoint(row.columnValue(1)),
            eventsql::timePoint(row.columnValue(2)), eventsql::timePoint(row.columnValue(3)),
            String::strToReal64(row.columnValue(4)), String::strToReal64(row.columnValue(5)),
            String::strToReal64(row.columnValue(6)), String::strToReal64(row.columnValue(7)),
            String::strToUInt(row.columnValue(8), 10));
    }
    return measurements;
}

std::vector<TestRunResultLog> EventDataStore::getAllFails(EventTimePoint from,
                                                          EventTimePoint to) const {
    Conditions where;
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
                          id("endTime") + " <= " + eventsql::seconds(until) + ")";

    std::string outcome = " (";
    if (!failureResults || failureResults->empty()) {
        outcome += (result + " = 'FAIL'").str();
    } else {
        for (std::size_t i = 0; i < failureResults->size(); ++i) {
            if (i > 0) outcome += " OR ";
            outcome += (result + " = " + sql::value((*failureResults)[i])).str();
        }
    }
    if (!passResults || passResults->empty()) {
        outcome += (" OR " + result + " = 'PASS')").str();
    } else {
        for (String const& pass : *passResults) {
            outcome += (" OR " + result + " = " + sql::value(pass)).str();
        }
        outcome += ")";
    }

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
