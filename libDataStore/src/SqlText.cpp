#include "SqlText.h"

#include <libCommon/Assert.h>
#include <libCommon/SprintfFormat.h>
#include <libCommon/ZRNValue.h>
#include <libDataStore/TimeStamp.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "ModuleState.h"

namespace zrn {
namespace sql {

// ---- Quoting -----------------------------------------------------------------------------

// The quote characters are one byte each: appended as characters, they need no call.
void appendIdentifier(std::string& out, String const& name) {
    char const backquote = module::backquote().str()[0];
    out.push_back(backquote);
    out.append(name.str());
    out.push_back(backquote);
}

namespace {

// Writes into a buffer sized beforehand from the lengths of its parts, growing it only when a
// value holds quotes to double: every byte of a value is looked at once, and each run between
// quotes is copied at once.
class QuotedWriter {
public:
    // Writes from `out`'s current size on, into room for `bytes` more and a few doubled quotes.
    QuotedWriter(std::string& out, std::size_t bytes) : m_out(out) {
        std::size_t const start = out.size();
        std::size_t const needed = start + bytes + 16;
        // Grows geometrically, as appends do, when the caller did not reserve.
        if (needed > out.capacity()) out.reserve(std::max(needed, 2 * out.capacity()));
        out.resize(needed);
        m_at = &out[start];
        m_end = &out[0] + needed;
    }
    QuotedWriter(QuotedWriter const&) = delete;
    QuotedWriter& operator=(QuotedWriter const&) = delete;
    ~QuotedWriter() { m_out.resize(static_cast<std::size_t>(m_at - &m_out[0])); }

    void put(char c) {
        if (m_at == m_end) grow(1);
        *m_at++ = c;
    }
    void put(char const* bytes, std::size_t count) {
        if (count > static_cast<std::size_t>(m_end - m_at)) grow(count);
        if (count) std::memcpy(m_at, bytes, count);
        m_at += count;
    }
    void quoted(std::string const& text, char quote) {
        put(quote);
        char const* run = text.data();
        char const* const last = run + text.size();
        for (char const* at; (at = static_cast<char const*>(
                                  std::memchr(run, quote, static_cast<std::size_t>(last - run))));
             run = at + 1) {
            put(run, static_cast<std::size_t>(at + 1 - run));
            put(quote);
        }
        put(run, static_cast<std::size_t>(last - run));
        put(quote);
    }

private:
    void grow(std::size_t count) {
        std::size_t const written = static_cast<std::size_t>(m_at - &m_out[0]);
        std::size_t const size = std::max(2 * m_out.size(), written + count);
        m_out.resize(size);
        m_at = &m_out[0] + written;
        m_end = &m_out[0] + size;
    }

    std::string& m_out;
    char* m_at;   // where the next byte goes
    char* m_end;  // the end of the room
};

}  // namespace

void appendValue(std::string& out, String const& text) {
    QuotedWriter(out, text.byteSize() + 2).quoted(text.str(), module::quote().str()[0]);
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
            names.push_back(module::comma().str()[0]);
            values.push_back(module::comma().str()[0]);
        }
        appendIdentifier(names, entry.first);
        appendValue(values, entry.second);
    }
}

ColumnOrder::ColumnOrder(char const* table, std::initializer_list<char const*> columns)
    : m_table(table) {
    HashTable<String, String> row;
    std::size_t index = 0;
    for (char const* column : columns) row.insert(column, String(std::to_string(index++)));
    m_head = "INSERT OR REPLACE INTO ";
    appendIdentifier(m_head, m_table);
    m_head += " (";
    for (auto const& entry : row) {
        m_order.push_back(static_cast<std::size_t>(std::stoul(entry.second.str())));
        if (m_order.size() > 1) m_head += module::comma().str();
        appendIdentifier(m_head, entry.first);
    }
    m_head += ") VALUES(";
}

std::string ColumnOrder::insertOrReplace(std::initializer_list<Cell> values) const {
    ZRN_ASSERT(values.size() == m_order.size(), "sql::ColumnOrder");
    char const quote = module::quote().str()[0];
    char const comma = module::comma().str()[0];
    Cell const* const first = values.begin();
    // Two quotes and a comma (or the closing parenthesis) per value.
    std::size_t bytes = m_head.size() + 3 * m_order.size();
    for (Cell const& value : values) bytes += value.text->byteSize();
    std::string out;
    {
        QuotedWriter writer(out, bytes);
        writer.put(m_head.data(), m_head.size());
        for (std::size_t i = 0; i < m_order.size(); ++i) {
            if (i) writer.put(comma);
            writer.quoted(first[m_order[i]].text->str(), quote);
        }
        writer.put(')');
    }
    return out;
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
