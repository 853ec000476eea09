#include "SqlText.h"

#include <libCommon/Assert.h>
#include <libCommon/SprintfFormat.h>
#include <libCommon/ZRNValue.h>
#include <libDataStore/TimeStamp.h>

#include <charconv>
#include <cstring>

#include "ModuleState.h"

namespace zrn {
namespace sql {

// ---- Quoting -----------------------------------------------------------------------------

void appendIdentifier(std::string& out, String const& name) {
    out += module::backquote().str();
    out += name.str();
    out += module::backquote().str();
}

void appendValue(std::string& out, String const& text) {
    char const quote = module::quote().str()[0];
    std::string const& in = text.str();
    std::size_t quotes = 0;
    for (char const* at = in.data();
         (at = static_cast<char const*>(std::memchr(at, quote, in.data() + in.size() - at))) !=
         nullptr;
         ++at) {
        ++quotes;
    }
    // One growth to the final size, then one pass: a plain copy when there is nothing to double.
    std::size_t const start = out.size();
    out.resize(start + in.size() + quotes + 2);
    char* to = &out[start];
    *to++ = quote;
    if (quotes == 0) {
        std::memcpy(to, in.data(), in.size());
        to += in.size();
    } else {
        for (char c : in) {
            *to++ = c;
            if (c == quote) *to++ = quote;
        }
    }
    *to = quote;
}

String identifier(String const& name) {
    std::string out;
    appendIdentifier(out, name);
    return String(std::move(out));
}

String value(String const& text) {
    std::string out;
    appendValue(out, text);
    return String(std::move(out));
}

// ---- Lists -------------------------------------------------------------------------------

String joined(std::initializer_list<String> items, char const* separator) {
    std::string out;
    join(out, items, separator, [](std::string& o, String const& item) { o += item.str(); });
    return String(std::move(out));
}

std::string identifierList(std::initializer_list<char const*> columns) {
    std::string out;
    join(out, columns, module::comma().str().c_str(), appendIdentifier);
    return out;
}

void columnAndValueLists(HashTable<String, String> const& row, std::string& names,
                         std::string& values) {
    for (auto const& entry : row) {
        if (!names.empty()) {
            names += module::comma().str();
            values += module::comma().str();
        }
        appendIdentifier(names, entry.first);
        appendValue(values, entry.second);
    }
}

ColumnOrder::ColumnOrder(std::initializer_list<char const*> columns) {
    HashTable<String, String> row;
    std::size_t index = 0;
    for (char const* column : columns) row.insert(column, String(std::to_string(index++)));
    for (auto const& entry : row) {
        m_order.push_back(static_cast<std::size_t>(std::stoul(entry.second.str())));
        if (!m_names.empty()) m_names += module::comma().str();
        appendIdentifier(m_names, entry.first);
    }
}

void ColumnOrder::appendValues(std::string& out, std::initializer_list<String> values) const {
    ZRN_ASSERT(values.size() == m_order.size(), "sql::ColumnOrder");
    String const* const first = values.begin();
    for (std::size_t i = 0; i < m_order.size(); ++i) {
        if (i) out += module::comma().str();
        appendValue(out, first[m_order[i]]);
    }
}

// ---- Statements and clauses --------------------------------------------------------------

String insert(String const& table, String const& columns, String const& values) {
    std::string out;
    out.reserve(24 + table.byteSize() + columns.byteSize() + values.byteSize());
    out.append("INSERT INTO ").append(table.str()).append(" (").append(columns.str());
    out.append(") VALUES(").append(values.str()).append(");");
    return String(std::move(out));
}

String insert(char const* table, char const* columns, std::initializer_list<String> values) {
    std::size_t const tableBytes = std::strlen(table);
    std::size_t const columnBytes = std::strlen(columns);
    std::size_t bytes = 24 + tableBytes + columnBytes;
    for (String const& value : values) bytes += value.byteSize() + 1;
    std::string out;
    out.reserve(bytes);
    out.append("INSERT INTO ").append(table, tableBytes).append(" (").append(columns, columnBytes);
    out.append(") VALUES(");
    join(out, values, ",", [](std::string& o, String const& value) { o += value.str(); });
    out.append(");");
    return String(std::move(out));
}

String index(char const* table, char const* column, char const* direction) {
    return SprintfFormat("CREATE %s INDEX IF NOT EXISTS '%s%s %s' ON `%s` (`%s` %s)", "", table,
                         column, direction, table, column, direction);
}

String uniqueIndex(char const* table, char const* column1, char const* column2) {
    return SprintfFormat("CREATE UNIQUE INDEX IF NOT EXISTS '%s-%s' ON `%s` (`%s`, `%s`)", column1,
                         column2, table, column1, column2);
}

void Where::add(String const& condition) {
    m_text += m_text.empty() ? " WHERE " : m_joiner;
    m_text += condition.str();
}

void Where::add(String const& column, char const* comparison, String const& value) {
    add(column + comparison + value);
}

void Where::addBounds(String const& column, EventTimePoint from, EventTimePoint to) {
    if (!isZero(from)) add(column, " >= ", seconds(from));
    if (!isZero(to)) add(column, " <= ", seconds(to));
}

void Where::addBounds(String const& column, boost::optional<EventTimePoint> const& from,
                      boost::optional<EventTimePoint> const& to) {
    addBounds(column, from.value_or(EventTimePoint()), to.value_or(EventTimePoint()));
}

void Where::addBounds(String const& column, TimeStamp const& from, TimeStamp const& to) {
    if (from.isInitialized()) add(column, " >= ", number(from.getUnixTimeStamp()));
    if (to.isInitialized()) add(column, " <= ", number(to.getUnixTimeStamp()));
}

void Where::addEquals(String const& column, boost::optional<String> const& text) {
    if (text) add(column, " = ", value(*text));
}

std::string limit(long long limit) {
    return limit > 0 ? " LIMIT " + std::to_string(limit) : std::string();
}

// ---- Numbers and times -------------------------------------------------------------------

String number(long long n) {
    char text[24];
    auto const written = std::to_chars(text, text + sizeof text, n);
    return String(text, static_cast<std::size_t>(written.ptr - text));
}

String real(double n) { return ZRNValue(n).toString(ZRNValue::nilValue()); }

String seconds(EventTimePoint time) { return number(time.time_since_epoch().count()); }

EventTimePoint timePoint(String const& cell) {
    return EventTimePoint(EventTimePoint::duration(String::strToInt64(cell, 10)));
}

// ---- Reading results ---------------------------------------------------------------------

long long firstNumber(ResultSet const& result, long long fallback, unsigned row) {
    if (result.rowCount() <= row) return fallback;
    ResultSetRow const& cells = result.row(static_cast<int>(row));
    if (cells.columnCount() == 0) return fallback;
    String const& cell = cells.columnValue(0);
    return cell.empty() ? fallback : String::strToInt64(cell, 10);
}

}  // namespace sql
}  // namespace zrn
