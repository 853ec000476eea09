// Retention: the pruneBefore / prunableBefore operations of the three stores that keep history.
//
// Each store describes its prune as a list of steps, one per table, children before their
// parents. A step's condition decides from the rows as they are before anything is removed,
// and every row it looks at through an owner still exists when the step runs (owners go in
// later steps), so counting the steps (the dry run) gives exactly what removing them removes.

#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/PruneResult.h>
#include <libDataStore/SQLiteDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <string>
#include <vector>

#include "ModuleState.h"
#include "ReaderLock.h"
#include "SqlText.h"
#include "Transaction.h"

namespace zrn {

long long PruneResult::total() const {
    long long sum = 0;
    for (Table const& table : tables) sum += table.rows;
    return sum;
}

long long PruneResult::rows(String const& name) const {
    for (Table const& table : tables) {
        if (table.name == name) return table.rows;
    }
    return 0;
}

namespace {

struct Step {
    char const* table;
    // A condition on the table's row, which it names by the table's own name.
    std::string condition;
};

std::string id(char const* name) { return sql::identifier(name).str(); }

// `owner.column`, the way conditions name columns.
std::string col(std::string const& owner, char const* column) { return owner + "." + id(column); }

// The row's own time is before the cutoff; a missing time counts as old. Only asked of rows
// whose owner is gone, which nothing will ever show again.
std::string oldTime(std::string const& row, char const* column, std::string const& cutoff) {
    if (!column) return "1";
    return "COALESCE(" + col(row, column) + ",0) < " + cutoff;
}

// The row `row` belongs to a row of `owner` (alias `alias`, matched by ownerKey = rowKey)
// that `ownerPruned` removes; or its owner is missing and its own time is old.
std::string ownedBy(char const* owner, char const* alias, char const* ownerKey,
                    std::string const& row, char const* rowKey, std::string const& ownerPruned,
                    char const* rowTime, std::string const& cutoff) {
    std::string const match = "SELECT 1 FROM " + id(owner) + " " + alias + " WHERE " +
                              col(alias, ownerKey) + " = " + col(row, rowKey);
    return "(EXISTS (" + match + " AND (" + ownerPruned + ")) OR (NOT EXISTS (" + match + ") AND " +
           oldTime(row, rowTime, cutoff) + "))";
}

// Counts (dry run) or removes (in one transaction) the rows of every step.
// REQUIRES: caller holds the store's lock.
PruneResult run(SQLite3Database& database, std::vector<Step> const& steps, bool remove,
                bool vacuum) {
    PruneResult result;
    auto number = [&](String const& statement) {
        ResultSet rows;
        database.execute(statement, &rows);
        String const cell = rows.rowCount() > 0 && rows.row(0).columnCount() > 0
                                ? rows.row(0).columnValue(0)
                                : String();
        return cell.empty() ? 0LL : String::strToInt64(cell, 10);
    };
    if (!remove) {
        for (Step const& step : steps) {
            result.tables.push_back({step.table, number("SELECT COUNT(*) FROM " + id(step.table) +
                                                        " WHERE " + step.condition)});
        }
        return result;
    }
    {
        // Every writer of the store holds its named mutex, as this does, so nothing can slip a
        // row in between what a condition sees and what is removed. Inside a caller's
        // StoreBatch this nests as a savepoint and the batch decides what reaches the file.
        Transaction transaction(database, TransactionText::Begin);
        for (Step const& step : steps) {
            database.execute("DELETE FROM " + id(step.table) + " WHERE " + step.condition);
            result.tables.push_back({step.table, number("SELECT changes()")});
        }
        transaction.commit();
    }
    if (vacuum) database.execute("VACUUM");
    return result;
}

// ---- Event store

std::vector<Step> eventSteps(long long cutoffSeconds) {
    std::string const c = sql::number(cutoffSeconds).str();
    // The application runs' times are declared TEXT, so they compare as numbers only cast.
    auto appPruned = [&](std::string const& app) {
        return "CAST(" + col(app, "startTime") + " AS INTEGER) < " + c;
    };
    auto scriptPruned = [&](std::string const& script) {
        return ownedBy("ApplicationRuns", "a1", "appId", script, "appId", appPruned("a1"),
                       "startTime", c);
    };
    auto testPruned = [&](std::string const& test) {
        return ownedBy("ScriptRuns", "s1", "scriptId", test, "scriptId", scriptPruned("s1"),
                       "startTime", c);
    };
    auto alertPruned = [&](std::string const& alert) {
        return ownedBy("ApplicationRuns", "a2", "appId", alert, "appId", appPruned("a2"),
                       "dateTime", c);
    };
    auto underTest = [&](char const* table, char const* time) {
        return Step{table, ownedBy("TestRuns", "t1", "testId", id(table), "testId",
                                   testPruned("t1"), time, c)};
    };
    // An alert is the rowid of its Alerts row.
    auto underAlert = [&](char const* table, char const* time) {
        return Step{table, ownedBy("Alerts", "al", "rowid", id(table), "alertId", alertPruned("al"),
                                   time, c)};
    };
    auto underApp = [&](char const* table, char const* time) {
        return Step{table, ownedBy("ApplicationRuns", "a3", "appId", id(table), "appId",
                                   appPruned("a3"), time, c)};
    };
    std::string const scripts = id("ScriptRuns");
    return {
        underTest("TestRunEvents", "dateTime"),
        underTest("TestRunTips", "dateTime"),
        {"TestRuns", testPruned(id("TestRuns"))},
        {"ScriptRuns", scriptPruned(scripts)},
        // A script text (ScriptSpecs) is shared by the runs of that script; it goes when no
        // kept run uses it.
        {"ScriptSpecs", "NOT EXISTS (SELECT 1 FROM " + scripts + " s2 WHERE " +
                            col("s2", "specId") + " = " + col(id("ScriptSpecs"), "specId") +
                            " AND NOT (" + scriptPruned("s2") + "))"},
        underAlert("AlertKeyValues", nullptr),
        underAlert("AlertTips", "dateTime"),
        {"Alerts", alertPruned(id("Alerts"))},
        underApp("ScriptletRuns", "dateTime"),
        underApp("ProfilerDiffs", "dateTime"),
        {"ApplicationRuns", appPruned(id("ApplicationRuns"))},
        // Measurements belong to no run: their span's end dates them.
        {"Measurements", col(id("Measurements"), "spanEndTime") + " < " + c},
    };
}

// ---- General store

std::vector<Step> generalSteps(long long cutoffSeconds) {
    std::string const c = sql::number(cutoffSeconds).str();
    auto logPruned = [&](std::string const& log) {
        return col(log, "updateTimeStamp") + " < " + c;
    };
    // A log's rowid is the set id of its key/values.
    return {
        {"KeyValues", ownedBy("GenericLog", "g", "rowid", id("KeyValues"), "setID", logPruned("g"),
                              "updateTimeStamp", c)},
        {"GenericLog", logPruned(id("GenericLog"))},
    };
}

// ---- Software-diagnostics store

std::vector<Step> softwareDiagSteps(long long cutoffSeconds) {
    std::string const c = sql::number(cutoffSeconds).str();
    auto sessionPruned = [&](std::string const& session) {
        return col(session, "startTimeStamp") + " < " + c;
    };
    // Every row of the store names its session.
    auto inSession = [&](std::string const& row, char const* time) {
        return ownedBy("Sessions", "se", "sessionId", row, "sessionId", sessionPruned("se"), time,
                       c);
    };
    auto step = [&](char const* table, char const* time) {
        return Step{table, inSession(id(table), time)};
    };
    std::string const link = id("Issues_FixActions");
    // A link goes with either of its ends (or when an end is missing).
    std::string const linkCondition =
        "NOT EXISTS (SELECT 1 FROM " + id("Issues") + " i WHERE " + col("i", "issueId") + " = " +
        col(link, "issueId") + " AND NOT " + inSession("i", "timeStamp") +
        ") OR NOT EXISTS (SELECT 1 FROM " + id("FixActions") + " f WHERE " +
        col("f", "fixActionId") + " = " + col(link, "fixActionId") + " AND NOT " +
        inSession("f", "startTimeStamp") + ")";
    return {
        {"Issues_FixActions", linkCondition},          step("Issues", "timeStamp"),
        step("SoftwareDiagnostics", "startTimeStamp"), step("RunTransactions", "startTimeStamp"),
        step("FixActions", "startTimeStamp"),          step("FixTransactions", "startTimeStamp"),
        {"Sessions", sessionPruned(id("Sessions"))},
    };
}

}  // namespace

// ---- The stores' operations

PruneResult EventDataStore::pruneBefore(EventTimePoint cutoff, PruneOptions const& options) {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return run(*m_appDataStore->database(), eventSteps(cutoff.time_since_epoch().count()), true,
               options.vacuum);
}

PruneResult EventDataStore::prunableBefore(EventTimePoint cutoff) const {
    StoreLock lock(module::eventStoreMutex(), m_reader.get());
    return run(*m_appDataStore->database(), eventSteps(cutoff.time_since_epoch().count()), false,
               false);
}

PruneResult GeneralDataStore::pruneBefore(TimeStamp const& cutoff, PruneOptions const& options) {
    if (!m_initialized) return PruneResult();
    StoreLock lock(module::generalStoreMutex(), m_reader.get());
    return run(*m_database, generalSteps(cutoff.getUnixTimeStamp()), true, options.vacuum);
}

PruneResult GeneralDataStore::prunableBefore(TimeStamp const& cutoff) const {
    if (!m_initialized) return PruneResult();
    StoreLock lock(module::generalStoreMutex(), m_reader.get());
    return run(*m_database, generalSteps(cutoff.getUnixTimeStamp()), false, false);
}

PruneResult SoftwareDiagEventDataStore::pruneBefore(TimeStamp const& cutoff,
                                                    PruneOptions const& options) {
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    return run(*m_database, softwareDiagSteps(cutoff.getUnixTimeStamp()), true, options.vacuum);
}

PruneResult SoftwareDiagEventDataStore::prunableBefore(TimeStamp const& cutoff) const {
    StoreLock lock(module::softwareDiagStoreMutex(), m_reader.get());
    return run(*m_database, softwareDiagSteps(cutoff.getUnixTimeStamp()), false, false);
}

}  // namespace zrn
