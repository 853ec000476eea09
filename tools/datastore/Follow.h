#pragma once

// -f/--follow of apps, alerts and events: what is recorded after the command started, as it
// is recorded, until interrupted.

#include <functional>
#include <string>
#include <vector>

#include "Context.h"

namespace datastore {

struct FollowFilter {
    std::string type;        // apps: type of run; alerts: alert type
    std::string user;        // apps
    bool untracked = false;  // alerts
    long long testId = 0;    // events: of this test run
    long long scriptId = 0;  // events: of every test run of this script run
};

// Each polls the event store read-only a few times a second (SQLite's data_version tells
// whether anything was committed since the last look) and prints the new rows in the format
// chosen: tables and csv/tsv print their header once, ndjson one flushed line per record,
// json and json-pretty their array when following ends. SIGINT or SIGTERM end it normally.
void followApps(Options const& options, FollowFilter const& filter);
void followAlerts(Options const& options, FollowFilter const& filter);
void followEvents(Options const& options, FollowFilter const& filter);

// Whether an alert of `guid` is marked tracked, as the event store answers it for an alert.
bool alertTracked(zrn::StoreReader& reader, zrn::StoreCell const& guid);

// The loop behind them, for followers of several stores: calls `onChange` each time another
// connection has committed to any of `readers`' files, until SIGINT or SIGTERM.
void whileFollowing(std::vector<zrn::StoreReader*> const& readers,
                    std::function<void()> const& onChange);

}  // namespace datastore
