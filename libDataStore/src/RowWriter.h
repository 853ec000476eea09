#pragma once

// Writing the library's own fixed-column rows through the table layer without building a
// HashTable for each: same checks, same trace message, same statement as append(row).

#include <libDataStore/SQLiteDataStore.h>

#include <initializer_list>

#include "SqlText.h"

namespace zrn {

class RowWriter {
public:
    // table.append(row) for the row whose entries are `order`'s columns, inserted in that
    // order, holding `values` (one per column, in the same order).
    static void append(SQLiteDataStore& table, sql::ColumnOrder const& order,
                       std::initializer_list<sql::Cell> values);
};

}  // namespace zrn
