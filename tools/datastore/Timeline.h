#pragma once

// datastore timeline: what happened on the machine, taken from the four stores and merged into
// one stream by time. Each kind of entry comes from the rows of one table at the time of one of
// their columns (a run's start and its end are two sources of one table).

#include <string>
#include <vector>

#include "Context.h"
#include "Output.h"

namespace datastore {

// One line of the timeline.
struct TimelineEntry {
    long long time = 0;  // Unix seconds
    int store = 0;       // the store's place in the family: the order within one second
    int source = 0;      // the source's place in timelineSources(): the order next
    long long key = 0;   // the row's key: the order last
    char const* storeName = "";
    char const* kind = "";
    char const* what = "";  // "started", "ended", "raised", ...
    Json id;                // what the detailed command takes: a number, a GUID or a key
    std::string description;
    std::string command;  // the arguments of the detailed command ("session 3")
    bool failed = false;  // a test or script run whose result is FAIL
};

struct TimelineSource {
    Store store;
    char const* kind;  // as --kind takes it
    char const* what;
    char const* table;
    char const* timeColumn;
    // The time column holds date-time texts rather than seconds: the table (one row per
    // application-state item, however long the machine runs) is read whole and sorted here.
    bool textTime;
    // Whether a row makes an entry; nullptr: every row with a time.
    bool (*keep)(zrn::StoreRow const& row);
    // Fills the entry's id, description, command and mark; may read more of the store.
    void (*describe)(zrn::StoreReader& reader, zrn::StoreRow const& row, TimelineEntry& entry);
};

// Every source, in the order entries of one store and one second are listed.
std::vector<TimelineSource> const& timelineSources();
// The kinds --kind takes, in that order, each once.
std::vector<std::string> timelineKinds();

// The entry a row of `source` makes (time 0: the row has no usable time).
TimelineEntry timelineEntry(TimelineSource const& source, int sourceIndex, zrn::StoreReader& reader,
                            zrn::StoreRow const& row);

// The columns of the table, and an entry as a record: time, store, kind, what, id,
// description, command, failed.
std::vector<Field> timelineFields();
Json timelineRecord(bool json, TimelineEntry const& entry);

}  // namespace datastore
