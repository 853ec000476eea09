#include <libCommon/ResultSet.h>

#include <libCommon/Exception.h>

#include <algorithm>
#include <string>

namespace zrn {

String const& ResultSetRow::columnValue(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= m_cells.size()) return String::EMPTY();
    return m_cells[static_cast<std::size_t>(index)];
}

String const& ResultSetRow::columnValue(String const& columnName) const {
    if (!m_columnNames) return String::EMPTY();
    std::size_t const count = std::min(m_columnNames->size(), m_cells.size());
    for (std::size_t i = 0; i < count; ++i) {
        if ((*m_columnNames)[i] == columnName) return m_cells[i];
    }
    return String::EMPTY();
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
    m_columnNames = std::make_shared<std::vector<String> const>(std::move(columnNames));
    m_rows.clear();
}

void ResultSet::addRow(std::vector<String> cells) {
    m_rows.emplace_back(m_columnNames, std::move(cells));
}

}  // namespace zrn
