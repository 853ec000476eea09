#include <libCommon/ResultSet.h>

#include <libCommon/Exception.h>
#include <sqlite3.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

namespace zrn {

namespace {

// Integers of at most 18 digits: their text is parsed digit by digit, which gives the integer.
bool plainInteger(long long value) {
    return value > -1000000000000000000LL && value < 1000000000000000000LL;
}

// Whether strToReal64 of SQLite's text of `value` gives `value` back. SQLite writes a real with
// 15 significant digits; when the shortest text that reads back as `value` has at most 15, that
// is the text SQLite writes (padded with zeros), and reading it gives `value`. Zero is left to
// the text: its sign does not survive it.
bool readsBack(double value) {
    if (value == 0 || !(value - value == 0)) return false;  // zero, infinite or NaN
    // Measured values mostly have a few decimals: a decimal m / 10^k of at most 15 digits that
    // reads as `value` means the shortest text has at most 15 digits too. m and 10^k are exact
    // doubles, so their quotient is the double nearest to the decimal, as reading its text
    // gives. Cheaper than writing the shortest text, which decides when this finds nothing.
    static double const scales[] = {1, 10, 100, 1e3, 1e4, 1e5, 1e6};
    if (std::fabs(value) < 1e15) {
        for (double const scale : scales) {
            double const m = std::nearbyint(value * scale);
            if (std::fabs(m) >= 1e15) break;
            if (m / scale == value) return true;
        }
    }
    char text[32];
    auto const written = std::to_chars(text, text + sizeof text, value);
    if (written.ec != std::errc()) return false;
    int digits = 0;
    int zeros = 0;  // trailing zeros, not significant
    bool leading = true;
    for (char const* c = text; c != written.ptr && *c != 'e'; ++c) {
        if (*c < '0' || *c > '9') continue;
        if (leading && *c == '0') continue;
        leading = false;
        ++digits;
        zeros = *c == '0' ? zeros + 1 : 0;
    }
    return digits - zeros <= 15;
}

}  // namespace

ResultSetRow::ResultSetRow(ResultSetRow const& other) : m_columnNames(other.m_columnNames) {
    for (std::size_t i = 0; i < other.m_cells.size(); ++i) other.columnValue(static_cast<int>(i));
    m_cells = other.m_cells;
}

ResultSetRow& ResultSetRow::operator=(ResultSetRow const& other) {
    if (this != &other) *this = ResultSetRow(other);
    return *this;
}

void ResultSetRow::restartMarks() {
    m_read.assign(m_cells.size(), 0);
    if (m_row == 0) m_row = 1;
}

String const& ResultSetRow::columnValue(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= m_cells.size()) return String::EMPTY();
    auto const i = static_cast<std::size_t>(index);
    if (unread(index)) {
        sqlite3_value* const value = cell(index);
        auto const* text = reinterpret_cast<char const*>(sqlite3_value_text(value));
        if (text) {
            m_cells[i].assign(text, static_cast<std::size_t>(sqlite3_value_bytes(value)));
        } else {
            m_cells[i].clear();
        }
        m_read[i] = m_row;
    }
    return m_cells[i];
}

int ResultSetRow::columnIndex(String const& columnName) const {
    if (!m_columnNames) return -1;
    std::size_t const count = std::min(m_columnNames->size(), m_cells.size());
    for (std::size_t i = 0; i < count; ++i) {
        if ((*m_columnNames)[i] == columnName) return static_cast<int>(i);
    }
    return -1;
}

String const& ResultSetRow::columnValue(String const& columnName) const {
    return columnValue(columnIndex(columnName));
}

sqlite3_value* ResultSetRow::cell(int index) const {
    // One call into SQLite, one pass through the connection's mutex; the type and the value are
    // then read from the cell itself. The statement loop holds that mutex for the whole
    // statement, so the cell cannot change under the readers.
    return sqlite3_column_value(m_statement, index);
}

long long ResultSetRow::int64Value(int index) const {
    if (unread(index)) {
        sqlite3_value* const value = cell(index);
        if (sqlite3_value_type(value) == SQLITE_INTEGER) {
            long long const number = sqlite3_value_int64(value);
            if (plainInteger(number)) return number;
        }
    }
    return String::strToInt64(columnValue(index), 10);
}

long long ResultSetRow::int64Value(String const& columnName) const {
    return int64Value(columnIndex(columnName));
}

unsigned int ResultSetRow::uintValue(int index) const {
    if (unread(index)) {
        sqlite3_value* const value = cell(index);
        if (sqlite3_value_type(value) == SQLITE_INTEGER) {
            long long const number = sqlite3_value_int64(value);
            // The text's magnitude, negated in unsigned arithmetic for a '-', cut to 32 bits.
            if (plainInteger(number))
                return static_cast<unsigned int>(static_cast<unsigned long long>(number));
        }
    }
    return String::strToUInt(columnValue(index), 10);
}

double ResultSetRow::realValue(int index) const {
    if (unread(index)) {
        sqlite3_value* const value = cell(index);
        int const type = sqlite3_value_type(value);
        if (type == SQLITE_INTEGER) {
            long long const number = sqlite3_value_int64(value);
            // At most 15 digits: an exact double, as the text reads.
            if (number > -1000000000000000LL && number < 1000000000000000LL)
                return static_cast<double>(number);
        } else if (type == SQLITE_FLOAT) {
            double const number = sqlite3_value_double(value);
            if (readsBack(number)) return number;
        }
    }
    return String::strToReal64(columnValue(index));
}

ResultSetRow const& ResultSet::row(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= m_rows.size()) {
        throw Exception("ResultSet: row index " + String(std::to_string(index)) +
                        " is out of range (row count " + String(std::to_string(m_rows.size())) +
                        ")");
    }
    return m_rows[static_cast<std::size_t>(index)];
}

std::vector<String> const& ResultSet::columnNames() const {
    static std::vector<String> const none;
    return m_columnNames ? *m_columnNames : none;
}

void ResultSet::reset(std::vector<String> columnNames) {
    // No names (the reset before a statement runs, a statement without columns) reads as an
    // empty list without an allocation.
    if (columnNames.empty()) {
        m_columnNames.reset();
    } else {
        m_columnNames = std::make_shared<std::vector<String> const>(std::move(columnNames));
    }
    m_rows.clear();
}

void ResultSet::addRow(std::vector<String> cells) {
    m_rows.emplace_back(m_columnNames, std::move(cells));
}

}  // namespace zrn
