#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

#include <cstdint>
#include <memory>
#include <vector>

struct sqlite3_stmt;
struct sqlite3_value;

namespace zrn {

// One row of a query result: text cells in result order. A NULL cell, an index past the last
// cell and an unknown column name all read as the empty text.
//
// The number readers give exactly what String's parsers give for the cell's text
// (strToInt64(text, 10), strToUInt(text, 10), strToReal64(text)). On a row of a streamed
// statement (SQLite3Database::forEachRow) they read a number cell straight from SQLite where
// that gives the same value, and a text cell is only copied out when it is asked for: SQLite
// then never writes a number as text for it to be parsed back.
class ZRN_COMMON_API ResultSetRow {
public:
    ResultSetRow(std::shared_ptr<std::vector<String> const> columnNames, std::vector<String> cells)
        : m_columnNames(std::move(columnNames)), m_cells(std::move(cells)) {}
    // A copy holds every cell as text, also when made from a streamed row: it outlives the row.
    ResultSetRow(ResultSetRow const& other);
    ResultSetRow& operator=(ResultSetRow const& other);
    ResultSetRow(ResultSetRow&&) = default;
    ResultSetRow& operator=(ResultSetRow&&) = default;
    ~ResultSetRow() = default;

    unsigned int columnCount() const { return static_cast<unsigned int>(m_cells.size()); }
    String const& columnValue(int index) const;
    // The cell of the first column of that name (exact comparison).
    String const& columnValue(String const& columnName) const;

    long long int64Value(int index) const;
    long long int64Value(String const& columnName) const;
    unsigned int uintValue(int index) const;
    double realValue(int index) const;

private:
    // Points one row object at the current row of a streamed statement, for every row.
    friend class SQLite3Database;
    void streamFrom(sqlite3_stmt* statement) {
        m_statement = statement;
        // Row numbers start at 1, so a fresh mark (0) reads as unread; after 2^32 - 1 rows the
        // marks start over.
        if (++m_row == 0 || m_read.size() != m_cells.size()) restartMarks();
    }
    void restartMarks();

    // Cell `index` of the streamed statement's row; `index` must be a column.
    sqlite3_value* cell(int index) const;
    // The index of the first column of that name, or -1.
    int columnIndex(String const& columnName) const;
    // Whether cell `index` is still in SQLite, not yet copied out as text.
    bool unread(int index) const {
        return m_statement && index >= 0 && static_cast<std::size_t>(index) < m_cells.size() &&
               m_read[static_cast<std::size_t>(index)] != m_row;
    }

    std::shared_ptr<std::vector<String> const> m_columnNames;
    // The texts; on a streamed row, those not yet read are stale from an earlier row. Their
    // storage is kept from row to row, so a copy-out allocates only for a longer text.
    mutable std::vector<String> m_cells;
    // On a streamed row, the number of the row each cell was last copied out on: moving to the
    // next row is one increment, not a pass over every cell.
    mutable std::vector<std::uint32_t> m_read;
    std::uint32_t m_row = 0;
    sqlite3_stmt* m_statement = nullptr;
};

// A query result held in memory.
class ZRN_COMMON_API ResultSet {
public:
    ResultSet() = default;

    unsigned int rowCount() const { return static_cast<unsigned int>(m_rows.size()); }
    // Throws Exception when `index` is not a row of the result.
    ResultSetRow const& row(int index) const;

    std::vector<String> const& columnNames() const;

    // Filled by SQLite3Database::execute; replaces any earlier content.
    void reset(std::vector<String> columnNames);
    void addRow(std::vector<String> cells);

private:
    std::shared_ptr<std::vector<String> const> m_columnNames;
    std::vector<ResultSetRow> m_rows;
};

}  // namespace zrn
