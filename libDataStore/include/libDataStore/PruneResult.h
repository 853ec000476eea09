#pragma once

#include <libCommon/String.h>
#include <libDataStore/Export.h>

#include <vector>

namespace zrn {

// How a store's pruneBefore runs.
struct ZRN_DATASTORE_API PruneOptions {
    // Runs VACUUM after the rows are removed, so the file shrinks instead of keeping the
    // freed pages for later rows. Rewrites the whole file: takes a while and needs as much
    // free disk space again as the file takes.
    bool vacuum = false;
};

// What a prune removed (pruneBefore) or would remove (prunableBefore): the rows per table.
struct ZRN_DATASTORE_API PruneResult {
    struct Table {
        String name;
        long long rows = 0;
    };

    // Every table the store prunes, also those with nothing to remove, in the order the rows
    // are removed: children before their parents.
    std::vector<Table> tables;

    // All rows together.
    long long total() const;
    // The rows of table `name`; 0 for a table not listed.
    long long rows(String const& name) const;
};

}  // namespace zrn
