#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

#include <memory>
#include <vector>

namespace zrn {

// One row of a query result: text cells in result order. A NULL cell, an index past the last
// cell and an unknown column name all read as the empty text.
class ZRN_COMMON_API ResultSetRow {
public:
    ResultSetRow(std::shared_ptr<std::vector<String> const> columnNames, std::vector<String> cells)
        : m_columnNames(std::move(columnNames)), m_cells(std::move(cells)) {}

    unsigned int columnCount() const { return static_cast<unsigned int>(m_cells.size()); }
    String const& columnValue(int index) const;
    // The cell of the first column of that name (exact comparison).
    String const& columnValue(String const& columnName) const;

private:
    // Refills one row object in place for every row of a streamed statement.
    friend class SQLite3Database;

    std::shared_ptr<std::vector<String> const> m_columnNames;
    std::vector<String> m_cells;
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
