#pragma once

// What an incremental export remembers between runs, and how it tells what changed.

#include <libDataStore/StoreReader.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Output.h"

namespace datastore {

// One run of up to 64 consecutive row keys (key / 64) of a table: which of them exist and a
// digest of each of those rows.
struct MarkBucket {
    static constexpr std::size_t kDigestBytes = 6;
    long long bucket = 0;
    std::uint64_t present = 0;  // bit k: the key bucket * 64 + k exists
    std::string digests;        // kDigestBytes per key present, in key order
};
using MarkTable = std::vector<MarkBucket>;  // by bucket

struct ExportMark {
    std::string machine;
    unsigned long long version = 0;  // the _version of the export that wrote the mark
    std::map<std::string, std::map<std::string, MarkTable>> stores;  // store, table
};

// The mark in the file at `path`; an empty mark when there is no such file. Throws ToolError
// (USAGE) for a file that is not a mark.
ExportMark readMark(std::string const& path);
// Writes `mark` beside `path` and renames it there: the file is always one whole mark.
void writeMark(std::string const& path, ExportMark const& mark);

// Compares one table, read in key order, with what the mark remembers of it and tells what
// the fleet database must be told: every row that is new or whose digest changed, and the key
// of every row that is gone. Without a previous table every row is new.
class TableChanges {
public:
    using GoneSink = std::function<void(long long key)>;
    TableChanges(MarkTable const* previous, GoneSink onGone);

    // Whether `row` (the next in key order) is new or changed; its digest is taken from the
    // row's key and cells. Keys gone before it are handed to `onGone` first.
    bool changed(zrn::StoreRow const& row);
    // Flushes the last bucket and the gone ones; returns what the mark keeps of the table.
    MarkTable finish();
    long long sent() const { return m_sent; }

private:
    void flush();
    void passPrevious(long long upTo);
    MarkBucket const* previousBucket(long long bucket);

    MarkTable const* m_previous;
    std::size_t m_next = 0;  // the first previous bucket not yet compared
    GoneSink m_onGone;
    MarkTable m_table;
    MarkBucket m_current;
    bool m_open = false;
    MarkBucket const* m_before = nullptr;  // the previous export's m_current
    std::string m_bytes;                   // one row serialised, for its digest
    long long m_sent = 0;
};

}  // namespace datastore
