#pragma once

// -f/--follow of apps, alerts and events: what is recorded after the command started, as it
// is recorded, until interrupted.

#include <string>

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

}  // namespace datastore
