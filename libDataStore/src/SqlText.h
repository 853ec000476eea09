#pragma once

// Building SQL text: every statement of the library is text, with no bound parameters. The
// pieces every store assembles its statements from live here, each written once.

#include <libCommon/HashTable.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libCommon/String.h>
#include <libDataStore/EventRecords.h>

#include <boost/optional.hpp>
#include <initializer_list>
#include <string>
#include <vector>

namespace zrn {

class TimeStamp;

namespace sql {

// ---- Quoting -----------------------------------------------------------------------------

// `name`: an identifier between backquotes. The name is not escaped: a backquote inside it
// makes invalid SQL, which SQLite refuses.
String identifier(String const& name);
// 'value': a value between single quotes, every single quote inside doubled.
String value(String const& text);
// Appends identifier(name) / value(text) to `out` without temporaries.
void appendIdentifier(std::string& out, String const& name);
void appendValue(std::string& out, String const& text);

// ---- Lists -------------------------------------------------------------------------------

// Appends each item through `append(out, item)`, `separator` between two: the one joining loop.
template <class Items, class Append>
void join(std::string& out, Items const& items, char const* separator, Append append) {
    bool first = true;
    for (auto const& item : items) {
        if (!first) out += separator;
        first = false;
        append(out, item);
    }
}

// The items as they are, joined by `separator` ("," unless told): "a,b".
String joined(std::initializer_list<String> items, char const* separator = ",");
// The columns quoted, joined by ",": "`a`,`b`".
std::string identifierList(std::initializer_list<char const*> columns);

// The column list and the value list of an INSERT for `row`, each item quoted, joined by ","
// in the row's own iteration order: "`a`,`b`" and "'x','y'".
void columnAndValueLists(HashTable<String, String> const& row, std::string& names,
                         std::string& values);

// One value of a row handed to ColumnOrder: the String itself, not a copy (a list of Strings
// would copy each text, allocating for every one longer than a few bytes).
struct Cell {
    Cell(String const& value) : text(&value) {}  // NOLINT: implicit by design
    String const* text;
};

// The columns of a fixed row in the order a statement lists them. A row built as a
// HashTable<String, String> (32 buckets) lists its columns in the table's iteration order, which
// depends only on the keys and the order they went in; this computes that order once, by
// building such a table, so that rows of these columns need no table of their own and come out
// in the same statement byte for byte. Keep one per column set (a function-local static).
class ColumnOrder {
public:
    // The columns of `table` in the order the row's entries would be inserted.
    ColumnOrder(char const* table, std::initializer_list<char const*> columns);

    std::size_t size() const { return m_order.size(); }
    std::string const& table() const { return m_table; }
    // "INSERT OR REPLACE INTO `<table>` (`a`,`b`) VALUES('x','y')": `values` (given in the
    // insertion order of the columns) quoted, in statement order, in one buffer sized from them.
    // There must be one value per column.
    std::string insertOrReplace(std::initializer_list<Cell> values) const;

private:
    std::string m_table;
    // For each position in the statement, the index of its column in the insertion order.
    std::vector<std::size_t> m_order;
    // The statement up to its values, the same for every row.
    std::string m_head;
};

// ---- Statements and clauses --------------------------------------------------------------

// "INSERT INTO <table> (<columns>) VALUES(<values>);" with nothing added: the table, the
// columns and the values are SQL text as they are to appear.
String insert(String const& table, String const& columns, String const& values);
// The same with the values joined by ",".
String insert(char const* table, char const* columns, std::initializer_list<String> values);

// An ordinary index from the format "CREATE %s INDEX IF NOT EXISTS '%s%s %s' ON `%s` (`%s` %s)"
// with (empty, table, column, direction, table, column, direction): two blanks after CREATE,
// and with an empty direction a name ending in a blank. Files in the field carry these names,
// and "IF NOT EXISTS" only recognises them spelled identically.
String index(char const* table, char const* column, char const* direction);
// "CREATE UNIQUE INDEX IF NOT EXISTS '<c1>-<c2>' ON `<table>` (`<c1>`, `<c2>`)".
String uniqueIndex(char const* table, char const* column1, char const* column2);

// The conditions of a statement: " WHERE " and then each condition, joined by " AND " (or
// the joiner given). Empty until the first condition is added, so a statement without
// conditions gets no WHERE at all.
class Where {
public:
    explicit Where(char const* joiner = " AND ") : m_joiner(joiner) {}

    // `condition` as it is to appear.
    void add(String const& condition);
    // column + comparison + value, each SQL text as it is to appear (quoted by the caller):
    // add(id, " = ", "3") gives "`id` = 3" for an id of "`id`".
    void add(String const& column, char const* comparison, String const& value);
    // " >= from" and " <= to" on `column` in seconds, each only when the bound is not the zero
    // point (or is held at all, for the optional form).
    void addBounds(String const& column, EventTimePoint from, EventTimePoint to);
    void addBounds(String const& column, boost::optional<EventTimePoint> const& from,
                   boost::optional<EventTimePoint> const& to);
    // The same for Unix seconds of time stamps, each only when initialised.
    void addBounds(String const& column, TimeStamp const& from, TimeStamp const& to);
    // `column` = value(text), only when the optional holds a text (an empty one included).
    void addEquals(String const& column, boost::optional<String> const& text);

    bool empty() const { return m_text.empty(); }
    std::string const& text() const { return m_text; }

private:
    char const* m_joiner;
    std::string m_text;
};

// " LIMIT n" when `limit` is positive, else nothing.
std::string limit(long long limit);

// ---- Numbers and times -------------------------------------------------------------------

// Decimal text of an integer, as every number is written into SQL.
String number(long long n);
// A real number as the runtime writes one (ZRNValue's text), as measurements are stored.
String real(double n);
// The decimal text of a time point's seconds count, as every event time is written.
String seconds(EventTimePoint time);
// A cell holding decimal seconds back as a time point; an empty cell gives the zero point.
EventTimePoint timePoint(String const& cell);
// The same for cell `index` of `row`, read as a number where the row can.
inline EventTimePoint timePoint(ResultSetRow const& row, int index) {
    return EventTimePoint(EventTimePoint::duration(row.int64Value(index)));
}
inline bool isZero(EventTimePoint time) { return time.time_since_epoch().count() == 0; }

// ---- Reading results ---------------------------------------------------------------------

// The first cell of row `row` as a decimal 64-bit number; `fallback` when there is no such
// row, the row has no cell or the cell is empty.
long long firstNumber(ResultSet const& result, long long fallback, unsigned row = 0);

// One record per row of `statement` on `database`, in row order, each made by `make(row)` as
// SQLite steps to the row: the one reader loop. No copy of the whole result is held, so a long
// list costs its records and nothing more. The caller holds the store's lock.
template <class Record, class Make>
std::vector<Record> records(SQLite3Database& database, String const& statement, Make make) {
    std::vector<Record> out;
    database.forEachRow(statement, [&](ResultSetRow const& row) { out.push_back(make(row)); });
    return out;
}

}  // namespace sql
}  // namespace zrn
