#pragma once

// Plumbing every store shares: its named loggers, the defect report of an update whose row is
// missing, the schema version read and the checkValidity label loop.

#include <libCommon/HashTable.h>
#include <libCommon/String.h>

#include <initializer_list>
#include <utility>

namespace zrn {

class Logger;
class SQLiteDataStore;

// The logger `name` from the runtime's log factory. Each store keeps the result in a
// function-local static, so it is made once, on first use, thread-safely.
Logger* createLogger(char const* name);

// The default file path of a store's create(): what `getter` returns, copied under the settings
// lock, into `path`. Should that fail with an Exception, logs `number` followed by "Failure
// attempting to retrieve the appstate datastore path: " and its message (every store's text
// names the appstate store; other tools match on it as it stands) on `logger` and returns
// false; anything else returns false without a message. Never throws.
bool defaultPath(String const& (*getter)(), Logger* logger, char const* number,
                 String& path) noexcept;

// The logger "DEFECT.GENERIC", on which every store reports data defects at priority 4: rows
// too short for their record, ids that do not exist in a finish or set operation, duplicate
// links. Such defects are logged, never thrown.
Logger* defectLogger();

// Writes `row` over the row of `table` whose `idColumn` is `id` when there is one and returns
// true. Otherwise logs `missingMessage` followed by the id on "DEFECT.GENERIC" (nothing when
// it is null) and returns false. The row's entries are written in its own order.
// REQUIRES: caller holds the store's mutex.
bool updateIfExists(SQLiteDataStore& table, char const* idColumn, long long id,
                    HashTable<String, String> const& row, char const* missingMessage);

// The `version` cell of the first row of a store's version table; empty when the table has
// no row or the cell is empty. Each store parses it as it always has.
// REQUIRES: caller holds the store's mutex.
String versionText(SQLiteDataStore const& versionTable);

// A store's checkValidity: asks each table in order, and at the first that fails puts its
// label before the table's message in `error` and returns false. A table never made (a failed
// opening) reads as closed: "Database is not open".
bool checkTables(std::initializer_list<std::pair<char const*, SQLiteDataStore const*>> tables,
                 String& error);

}  // namespace zrn
