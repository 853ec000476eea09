#pragma once

// The event store's own statements shared by its sources (EventDataStore, its queries and the
// read-only view). Internal: never installed. The general pieces are in SqlText.h.

#include <libCommon/String.h>

namespace zrn {

class SQLite3Database;

namespace eventsql {

// Whether an alert must have at least one AlertKeyValues row to be found.
enum class KeyValues { Any, Required };
// Whether an alert must be tracked to be found.
enum class Tracking { Any, TrackedOnly };

// The row id of the alert with `guid`, or -1 when there is none.
// REQUIRES: caller holds the "event_store" mutex.
long long findAlert(SQLite3Database& database, String const& guid, KeyValues keyValues,
                    Tracking tracking);

}  // namespace eventsql
}  // namespace zrn
