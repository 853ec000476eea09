// datastore timeline: one stream by time over the four stores. Each source is read in time
// order by its own statement, within the range asked for, and the sources are merged holding
// one entry each: the whole history is never in memory (a table still collects the lines it
// prints, for its column widths).

#include <libCommon/FileSystem.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <queue>
#include <sstream>
#include <tuple>

#include "Commands.h"
#include "Follow.h"
#include "Timeline.h"

namespace datastore {

namespace {

struct TimelineArgs {
    std::vector<std::string> kinds;
    std::vector<std::string> stores;
    long long lines = -1;  // -1: every entry
    bool reverse = false;
    bool follow = false;
};

// Which entries a feed hands out: within [since, until] (0: open), and when following, only
// those after the last one printed of the source.
struct Window {
    long long since = 0;
    long long until = 0;
    bool descending = false;
    long long afterTime = 0;
    long long afterKey = 0;
};

bool before(TimelineEntry const& a, TimelineEntry const& b) {
    if (a.time != b.time) return a.time < b.time;
    if (a.store != b.store) return a.store < b.store;
    if (a.source != b.source) return a.source < b.source;
    return a.key < b.key;
}

// One source's entries, one at a time, in the window's order.
class Feed {
public:
    Feed(int index, zrn::StoreReader& reader, Window const& window)
        : m_source(timelineSources()[static_cast<std::size_t>(index)]),
          m_index(index),
          m_reader(reader),
          m_window(window) {
        if (m_source.textTime) {
            readWhole();
            return;
        }
        zrn::StoreRowQuery query;
        query.orderBy = m_source.timeColumn;
        // Unset times (NULL, "", 0) stay out: a run still going has not ended.
        query.atLeast = zrn::StoreCell::of(std::max({window.since, window.afterTime, 1LL}));
        if (window.until > 0) query.atMost = zrn::StoreCell::of(window.until);
        query.descending = window.descending;
        m_cursor = std::make_unique<zrn::StoreReader::Cursor>(reader, m_source.table, query);
    }

    // Steps to the next entry; false after the last.
    bool next() {
        if (!m_cursor) return m_at < m_sorted.size() && (m_head = m_sorted[m_at++], true);
        while (m_cursor->next()) {
            zrn::StoreRow const row = m_cursor->row();
            if (m_source.keep && !m_source.keep(row)) continue;
            m_head = timelineEntry(m_source, m_index, m_reader, row);
            if (inWindow(m_head)) return true;
        }
        return false;
    }
    TimelineEntry const& head() const { return m_head; }

private:
    bool inWindow(TimelineEntry const& entry) const {
        if (entry.time <= 0 || entry.time < m_window.since) return false;
        if (m_window.until > 0 && entry.time > m_window.until) return false;
        if (entry.time != m_window.afterTime) return entry.time > m_window.afterTime;
        return entry.key > m_window.afterKey;
    }

    void readWhole() {
        m_reader.forEachRow(m_source.table, [&](zrn::StoreRow const& row) {
            if (m_source.keep && !m_source.keep(row)) return;
            TimelineEntry entry = timelineEntry(m_source, m_index, m_reader, row);
            if (inWindow(entry)) m_sorted.push_back(std::move(entry));
        });
        std::sort(m_sorted.begin(), m_sorted.end(), [this](auto const& a, auto const& b) {
            return m_window.descending ? before(b, a) : before(a, b);
        });
    }

    TimelineSource const& m_source;
    int m_index;
    zrn::StoreReader& m_reader;
    Window m_window;
    std::unique_ptr<zrn::StoreReader::Cursor> m_cursor;
    std::vector<TimelineEntry> m_sorted;  // a source of text times, read whole
    std::size_t m_at = 0;
    TimelineEntry m_head;
};

// The stores the timeline reads, each with the sources it gives.
struct OpenStore {
    Store store;
    std::unique_ptr<zrn::StoreReader> reader;
    std::vector<int> sources;
};

using Stores = std::vector<OpenStore>;

bool wanted(std::vector<std::string> const& chosen, std::string const& name) {
    return chosen.empty() || std::find(chosen.begin(), chosen.end(), name) != chosen.end();
}

// The sources of `store` the command asked for.
std::vector<int> sourcesOf(Store store, TimelineArgs const& args) {
    std::vector<int> indexes;
    auto const& sources = timelineSources();
    for (std::size_t i = 0; i < sources.size(); ++i) {
        if (sources[i].store == store && wanted(args.kinds, sources[i].kind))
            indexes.push_back(static_cast<int>(i));
    }
    return indexes;
}

// Like journalctl with journal files missing, a store that does not exist has nothing to
// show and is passed over, unless it was named (--store, --file); when none exists at all,
// that is a store error. A file that is not its store, or cannot be read, is one too.
Stores openStores(Options const& options, TimelineArgs const& args) {
    std::vector<Store> const all{Store::AppState, Store::General, Store::Event,
                                 Store::SoftwareDiag};
    bool const named = !args.stores.empty() || !options.file.empty();
    Stores stores;
    for (Store store : storesChosen(options, "", all)) {
        std::vector<int> sources = sourcesOf(store, args);
        if (!wanted(args.stores, storeNameOf(store)) || sources.empty()) continue;
        if (!named && !zrn::FileSystem::exists(storePath(options, store))) continue;
        std::string const path = existingStorePath(options, store);
        auto reader =
            readOrFail([&] { return std::make_unique<zrn::StoreReader>(path, readOnly(options)); });
        stores.push_back({store, std::move(reader), std::move(sources)});
    }
    if (stores.empty() && !named) {
        throw ToolError(STORE, storePath(options, Store::Event) +
                                   ": no such store, nor any other in its folder (record with "
                                   "'datastore demo' or give --dir/--file)");
    }
    return stores;
}

// Each store as it is at one moment, while this lives.
using Snapshots = std::vector<std::unique_ptr<zrn::StoreReader::Snapshot>>;
Snapshots snapshotsOf(Stores& stores) {
    Snapshots snapshots;
    for (OpenStore& open : stores)
        snapshots.push_back(std::make_unique<zrn::StoreReader::Snapshot>(*open.reader));
    return snapshots;
}

// Hands the entries of `stores` to `onEntry` in order until it returns false; the window of
// a source comes from `windowOf`. The caller holds the stores' snapshots.
template <class WindowOf, class OnEntry>
void merge(Stores& stores, WindowOf const& windowOf, OnEntry const& onEntry) {
    std::vector<std::unique_ptr<Feed>> feeds;
    bool descending = false;
    for (OpenStore& open : stores) {
        for (int source : open.sources) {
            Window const window = windowOf(source);
            descending = window.descending;
            feeds.push_back(std::make_unique<Feed>(source, *open.reader, window));
        }
    }
    auto const later = [descending](Feed const* a, Feed const* b) {
        return descending ? before(a->head(), b->head()) : before(b->head(), a->head());
    };
    std::priority_queue<Feed*, std::vector<Feed*>, decltype(later)> queue(later);
    for (auto& feed : feeds)
        if (feed->next()) queue.push(feed.get());
    while (!queue.empty()) {
        Feed* const feed = queue.top();
        queue.pop();
        if (!onEntry(feed->head())) break;
        if (feed->next()) queue.push(feed);
    }
}

// Prints the window: oldest first, or newest first with -r; with -n only the newest N.
void printWindow(Options const& options, TimelineArgs const& args, Stores& stores,
                 Window const& range, std::ostream& out) {
    RecordPrinter printer(timelineFields(), options.json);
    printer.stream(out);
    Window window = range;
    // The newest N are found newest first, then turned round unless -r asked for that order.
    window.descending = args.reverse || args.lines >= 0;
    std::vector<Json> newest;
    long long count = 0;
    merge(
        stores, [&](int) { return window; },
        [&](TimelineEntry const& entry) {
            if (args.lines >= 0 && count >= args.lines) return false;
            ++count;
            if (args.lines >= 0 && !args.reverse)
                newest.push_back(timelineRecord(options.json, entry));
            else
                printer.add(timelineRecord(options.json, entry));
            return true;
        });
    for (auto record = newest.rbegin(); record != newest.rend(); ++record)
        printer.add(std::move(*record));
    printer.print(out);
}

// The newest entry of each source, by source: where following starts.
using Marks = std::vector<std::pair<long long, long long>>;
Marks newestOf(Stores& stores) {
    Marks last(timelineSources().size());
    for (OpenStore& open : stores) {
        for (int source : open.sources) {
            Window newestFirst;
            newestFirst.descending = true;
            Feed feed(source, *open.reader, newestFirst);
            if (feed.next())
                last[static_cast<std::size_t>(source)] = {feed.head().time, feed.head().key};
        }
    }
    return last;
}

// After `last` of each source, what is recorded from now on, until interrupted.
void follow(Options const& options, Stores& stores, Window const& range, Marks last) {
    std::vector<zrn::StoreReader*> readers;
    for (OpenStore& open : stores) readers.push_back(open.reader.get());
    Format const format = outputStyle().format;
    bool const header = format == Format::Table || format == Format::Csv || format == Format::Tsv;
    whileFollowing(readers, [&] {
        RecordPrinter printer(timelineFields(), options.json);
        auto const windowOf = [&](int source) {
            Window window = range;
            std::tie(window.afterTime, window.afterKey) = last[static_cast<std::size_t>(source)];
            return window;
        };
        Snapshots const now = snapshotsOf(stores);
        merge(stores, windowOf, [&](TimelineEntry const& entry) {
            last[static_cast<std::size_t>(entry.source)] = {entry.time, entry.key};
            printer.add(timelineRecord(options.json, entry));
            return true;
        });
        if (printer.count() == 0) return;
        std::ostringstream text;
        printer.print(text);
        std::string out = text.str();
        // The header was printed with the entries before following.
        if (header) out.erase(0, out.find('\n') + 1);
        std::cout << out << std::flush;
    });
}

void timeline(Options const& options, TimelineArgs args) {
    TimeRange const range = timeRange(options);
    if (args.follow && (args.reverse || range.until > 0))
        throw ToolError(USAGE, "--follow prints what comes next: give no --reverse or --until");
    if (args.follow && args.lines < 0) args.lines = 10;  // as journalctl does
    Stores stores = openStores(options, args);
    Window window;
    window.since = range.since;
    window.until = range.until;
    readOrFail([&] {
        Marks last;
        {
            // Following starts after the newest entries as they were when printed.
            Snapshots const now = snapshotsOf(stores);
            if (!args.follow) return printWindow(options, args, stores, window, std::cout);
            // Printed as a batch of its own, so that the header is on it whatever follows.
            std::ostringstream first;
            printWindow(options, args, stores, window, first);
            std::cout << first.str() << std::flush;
            last = newestOf(stores);
        }
        follow(options, stores, window, std::move(last));
    });
}

}  // namespace

void addTimelineCommand(CLI::App& app, Options& options) {
    static TimelineArgs args;
    std::string const example = "datastore timeline --since -1d --kind test,alert";
    CLI::App* c = addInspection(
        app, options, "timeline",
        "What the stores recorded, merged by time, oldest first; SEE is the command that shows "
        "the entry's record",
        example, true, false);
    c->footer(
        "Kinds: state (an application-state item entered), log (a generic log created, "
        "updated), app (an application run started, ended), script (a script run started, "
        "ended with its result), test (a test run finished: its result, failed when FAIL), alert "
        "(raised; tracked or not), session (a repair session started, ended), diagnostic, issue, "
        "fix (of a repair session).\n"
        "Entries of one second: by store (appstate, genstore, event, softwarediagevent), then "
        "in the order of the kinds, then by id.\n"
        "A store file that does not exist is passed over; one named with --store or --file, "
        "or none at all, is a store error (exit 2).\n"
        "Example: " +
        example);
    c->add_option("--kind", args.kinds, "Only entries of these kinds (repeatable, or a comma list)")
        ->delimiter(',')
        ->check(CLI::IsMember(timelineKinds()));
    c->add_option("--store", args.stores,
                  "Only entries of these stores (repeatable, or a comma list)")
        ->delimiter(',')
        ->check(CLI::IsMember({"appstate", "genstore", "event", "softwarediagevent"}));
    c->add_option("-n,--lines", args.lines, "Only the newest N entries (still oldest first)")
        ->check(CLI::NonNegativeNumber);
    c->add_flag("-r,--reverse", args.reverse, "Newest first");
    c->add_flag("-f,--follow", args.follow,
                "After the newest 10 entries (or -n N), prints what is recorded from now on, as "
                "it is recorded, until interrupted (Ctrl-C exits 0)");
    c->callback([&options] { timeline(options, args); });
}

}  // namespace datastore
