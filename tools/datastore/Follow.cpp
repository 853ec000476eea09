#include "Follow.h"

#include <csignal>
#include <ctime>
#include <functional>
#include <iostream>
#include <sstream>
#include <vector>

#include "Output.h"
#include "Records.h"

namespace datastore {

namespace {

volatile std::sig_atomic_t g_stop = 0;

extern "C" void onStop(int) { g_stop = 1; }

// A text cell as the typed readers give it: NULL as "".
zrn::String text(zrn::StoreRow const& row, char const* column) {
    return zrn::String(row[column].asText());
}

zrn::EventTimePoint timeOf(zrn::StoreRow const& row, char const* column) {
    return zrn::EventTimePoint(zrn::EventTimePoint::duration(row[column].asInteger()));
}

// New rows are those whose key (rowid or an INTEGER PRIMARY KEY, which only grows for a
// table nobody prunes meanwhile) is above the highest seen.
struct Source {
    std::string table;
    zrn::StoreRowQuery query;  // which rows; its afterKey is the follower's
    std::function<bool(zrn::StoreReader&, zrn::StoreRow const&)> keep;
    std::function<Json(zrn::StoreReader&, zrn::StoreRow const&)> record;
    std::vector<Field> fields;
};

void onStopSignals() {
    struct sigaction action {};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: the pause between looks ends at once.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The new rows' records in the format chosen; "" when there are none.
std::string newRecords(Options const& options, zrn::StoreReader& reader, Source& source) {
    RecordPrinter printer(source.fields, options.json);
    zrn::StoreReader::Snapshot const snapshot(reader);
    reader.forEachRow(
        source.table,
        [&](zrn::StoreRow const& row) {
            source.query.afterKey = std::max(*source.query.afterKey, row.key);
            if (!source.keep || source.keep(reader, row)) printer.add(source.record(reader, row));
        },
        source.query);
    if (printer.count() == 0) return "";
    std::ostringstream text;
    printer.print(text);
    return text.str();
}

void follow(Options const& options, Source source) {
    std::string const path = existingStorePath(options, Store::Event);
    zrn::StoreReader reader(path, readOnly(options));
    source.query.afterKey = reader.lastKey(source.table);
    Format const format = outputStyle().format;
    bool const headerEachPrint =
        format == Format::Table || format == Format::Csv || format == Format::Tsv;
    bool first = true;
    whileFollowing({&reader}, [&] {
        std::string out = newRecords(options, reader, source);
        if (out.empty()) return;
        // One header for the whole run.
        if (headerEachPrint && !first) out.erase(0, out.find('\n') + 1);
        first = false;
        std::cout << out << std::flush;
    });
}

}  // namespace

// Tracked as the store answers it: any alert of the GUID marked.
bool alertTracked(zrn::StoreReader& reader, zrn::StoreCell const& guid) {
    zrn::StoreRowQuery query;
    query.equal = {{"guid", guid}, {"tracked", zrn::StoreCell::of(1)}};
    query.limit = 1;
    return reader.forEachRow(
               "Alerts", [](zrn::StoreRow const&) {}, query) > 0;
}

void whileFollowing(std::vector<zrn::StoreReader*> const& readers,
                    std::function<void()> const& onChange) {
    std::vector<long long> versions;
    for (zrn::StoreReader* reader : readers) versions.push_back(reader->changeCounter());
    onStopSignals();
    while (!g_stop) {
        // A quarter of a second: changes show promptly and an idle follower costs nothing
        // worth measuring (one look at a counter in memory).
        timespec pause{0, 250 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        if (g_stop) break;
        bool changed = false;
        for (std::size_t i = 0; i < readers.size(); ++i) {
            long long const now = readers[i]->changeCounter();
            changed = changed || now != versions[i];
            versions[i] = now;
        }
        if (changed) onChange();
    }
}

void followApps(Options const& options, FollowFilter const& filter) {
    Source source;
    source.table = "ApplicationRuns";
    if (!filter.type.empty())
        source.query.equal.emplace_back("typeOfRun", zrn::StoreCell::of(filter.type));
    if (!filter.user.empty())
        source.query.equal.emplace_back("userName", zrn::StoreCell::of(filter.user));
    source.fields = appRunFields();
    bool const json = options.json;
    source.record = [json](zrn::StoreReader&, zrn::StoreRow const& row) {
        zrn::ApplicationRunRow run;
        run.appId = row.key;
        run.name = row["name"].asText();
        run.userName = row["userName"].asText();
        run.typeOfRun = row["typeOfRun"].asText();
        run.startTime = row["startTime"].asInteger();
        run.endTime = row["endTime"].asInteger();
        return appRunRecord(json, run);
    };
    readOrFail([&] { follow(options, source); });
}

void followAlerts(Options const& options, FollowFilter const& filter) {
    Source source;
    source.table = "Alerts";
    if (!filter.type.empty())
        source.query.equal.emplace_back("type", zrn::StoreCell::of(filter.type));
    if (filter.untracked) source.query.equal.emplace_back("tracked", zrn::StoreCell::of(0));
    source.fields = alertFields();
    bool const json = options.json;
    source.record = [json](zrn::StoreReader& reader, zrn::StoreRow const& row) {
        zrn::AlertResultLog const log(row.key, text(row, "guid"), text(row, "key"),
                                      text(row, "type"), text(row, "title"), text(row, "message"),
                                      text(row, "deviceName"), timeOf(row, "dateTime"));
        return alertRecord(json, log, alertTracked(reader, row["guid"]));
    };
    readOrFail([&] { follow(options, source); });
}

// Whether the test run `testId` belongs to the script run `scriptId`.
bool ofScript(zrn::StoreReader& reader, long long testId, long long scriptId) {
    zrn::StoreRowQuery query;
    query.equal = {{"testId", zrn::StoreCell::of(testId)},
                   {"scriptId", zrn::StoreCell::of(scriptId)}};
    query.limit = 1;
    return reader.forEachRow(
               "TestRuns", [](zrn::StoreRow const&) {}, query) > 0;
}

void followEvents(Options const& options, FollowFilter const& filter) {
    Source source;
    source.table = "TestRunEvents";
    if (filter.testId > 0) {
        source.query.equal.emplace_back("testId", zrn::StoreCell::of(filter.testId));
    } else {
        long long const scriptId = filter.scriptId;
        source.keep = [scriptId](zrn::StoreReader& reader, zrn::StoreRow const& row) {
            return ofScript(reader, row["testId"].asInteger(), scriptId);
        };
    }
    source.fields = eventFields();
    bool const json = options.json;
    source.record = [json](zrn::StoreReader&, zrn::StoreRow const& row) {
        zrn::TestRunEventResultLog const log(text(row, "message"), text(row, "type"),
                                             text(row, "eventCode"), text(row, "customerEventCode"),
                                             timeOf(row, "dateTime"));
        return eventRecord(json, log, row["testId"].asInteger());
    };
    readOrFail([&] { follow(options, source); });
}

}  // namespace datastore
