#pragma once

// SQL text pieces shared by the event store's sources (EventDataStore, its queries and the
// read-only view). Internal: never installed.

#include <libDataStore/EventRecords.h>

#include <libCommon/String.h>

#include <initializer_list>
#include <string>

namespace zrn {

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

}  // namespace eventsql
}  // namespace zrn
