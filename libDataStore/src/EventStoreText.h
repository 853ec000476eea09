#pragma once

// SQL text pieces shared by the event store's sources (EventDataStore, its queries and the
// read-only view). Internal: never installed.

#include <libCommon/String.h>
#include <libDataStore/EventRecords.h>

#include <initializer_list>
#include <string>

namespace zrn {

class SQLite3Database;

namespace eventsql {

// The decimal text of a time point's seconds count, as every time is written.
inline String seconds(EventTimePoint time) {
    return String(std::to_string(time.time_since_epoch().count()));
}

// A cell holding decimal seconds back as a time point; an empty cell gives the zero point.
inline EventTimePoint timePoint(String const& cell) {
    return EventTimePoint(EventTimePoint::duration(String::strToInt64(cell, 10)));
}

inline bool isZero(EventTimePoint time) { return time.time_since_epoch().count() == 0; }

// "INSERT INTO <table> (<columns>) VALUES(<values>);": the table and column names bare, the
// values already rendered (literals quoted, numbers bare), each list joined by ",".
String insertStatement(char const* table, char const* columns,
                       std::initializer_list<String> values);

// The row id of the alert with `guid`, or -1 when there is none. `withKeyValues` requires at
// least one AlertKeyValues row for it, `trackedOnly` requires it to be tracked.
// REQUIRES: caller holds the "event_store" mutex.
long long findAlert(SQLite3Database& database, String const& guid, bool withKeyValues,
                    bool trackedOnly);

// The conditions of a reader: " WHERE" and then each condition as " " + column + comparison
// + value, joined by " AND". Empty until the first condition is added, so a reader without
// conditions gets no WHERE at all.
class Conditions {
public:
    // `column` and `value` are SQL text as they are to appear (quoted by the caller).
    void add(String const& column, char const* comparison, String const& value);
    // " >= from" and " <= to" on `column`, each only when the bound is not the zero point.
    void addBounds(String const& column, EventTimePoint from, EventTimePoint to);
    std::string const& text() const { return m_text; }

private:
    std::string m_text;
};

// " LIMIT n" when `limit` is positive, else nothing.
std::string limitClause(int limit);

}  // namespace eventsql
}  // namespace zrn
