#include "EventStoreText.h"

#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>

#include "SqlText.h"

namespace zrn {
namespace eventsql {

long long findAlert(SQLite3Database& database, String const& guid, KeyValues keyValues,
                    Tracking tracking) {
    // REQUIRES: caller holds the "event_store" mutex.
    // The doubled blanks after the aliases come from the pieces the statement is made of.
    std::string statement = "SELECT a.rowid FROM ";
    sql::appendIdentifier(statement, "Alerts");
    statement += " a  WHERE a.";
    sql::appendIdentifier(statement, "guid");
    statement += " = ";
    sql::appendValue(statement, guid);
    if (tracking == Tracking::TrackedOnly) {
        statement += " AND a.";
        sql::appendIdentifier(statement, "tracked");
        statement += " = 1";
    }
    if (keyValues == KeyValues::Required) {
        statement += " AND EXISTS (SELECT 1 FROM ";
        sql::appendIdentifier(statement, "AlertKeyValues");
        statement += " kv  WHERE kv.";
        sql::appendIdentifier(statement, "alertId");
        statement += " = a.rowid)";
    }
    ResultSet result;
    database.execute(String(std::move(statement)), &result);
    return sql::firstNumber(result, -1);
}

}  // namespace eventsql
}  // namespace zrn
