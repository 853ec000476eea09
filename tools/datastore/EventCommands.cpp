// The event store's inspections (event.db): application runs, script runs, test runs, their
// events and tips, failures, alerts with their key/values and tips, measurements, profiler
// diffs and scriptlet results.

#include <libDataStore/EventDataStore.h>

#include <algorithm>
#include <ctime>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <vector>

#include "Commands.h"
#include "Follow.h"
#include "Output.h"
#include "Records.h"

namespace datastore {

namespace {

using zrn::EventTimePoint;

struct EventArgs {
    long long scriptId = 0;
    long long testId = 0;
    long long alertId = 0;
    std::string type;
    std::string name;
    std::string guid;
    std::string user;
    std::string category;
    std::string status;
    std::string deviceGuid;
    std::vector<std::string> failResults;
    std::vector<std::string> passResults;
    bool untracked = false;
    bool follow = false;
};

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint time) { return time.time_since_epoch().count(); }

class EventStore {
public:
    explicit EventStore(Options const& options)
        : m_path(existingStorePath(options, Store::Event)), m_store(openOrFail(m_path, [&] {
              return std::make_unique<zrn::EventDataStore>(zrn::String(m_path), readOnly(options));
          })) {
        zrn::String error;
        if (!m_store->checkValidity(error)) storeFailure(m_path, "not usable: " + error.str());
    }
    zrn::EventDataStore& operator*() { return *m_store; }
    zrn::EventDataStore* operator->() { return m_store.get(); }
    std::string const& path() const { return m_path; }

private:
    std::string m_path;
    std::unique_ptr<zrn::EventDataStore> m_store;
};

int limitOf(Options const& options) { return static_cast<int>(options.limit); }

// ---- Application and script runs

FollowFilter followFilter(EventArgs const& args) {
    FollowFilter filter;
    filter.type = args.type;
    filter.user = args.user;
    filter.untracked = args.untracked;
    filter.testId = args.testId;
    filter.scriptId = args.scriptId;
    return filter;
}

void apps(Options const& options, EventArgs const& args) {
    if (args.follow) return followApps(options, followFilter(args));
    TimeRange const range = timeRange(options);
    std::string const path = existingStorePath(options, Store::Event);
    std::vector<zrn::ApplicationRunRow> runs = readOrFail([&] {
        zrn::StoreReader reader(path, readOnly(options));
        return zrn::applicationRuns(reader);
    });
    // Newest first; runs started in the same second by id.
    std::sort(runs.begin(), runs.end(), [](auto const& a, auto const& b) {
        return a.startTime != b.startTime ? a.startTime > b.startTime : a.appId > b.appId;
    });
    RecordPrinter printer(appRunFields(), options.json);
    for (zrn::ApplicationRunRow const& run : runs) {
        if (range.since > 0 && run.startTime < range.since) continue;
        if (range.until > 0 && run.startTime > range.until) continue;
        if (!args.type.empty() && run.typeOfRun != args.type) continue;
        if (!args.user.empty() && run.userName != args.user) continue;
        if (options.limit > 0 && static_cast<long>(printer.count()) >= options.limit) break;
        printer.add(appRunRecord(options.json, run));
    }
    printer.print(std::cout);
}

void scripts(Options const& options, EventArgs const& args) {
    TimeRange const range = timeRange(options);
    EventStore store(options);
    auto text = [](std::string const& value) {
        return value.empty() ? boost::optional<zrn::String>()
                             : boost::optional<zrn::String>(zrn::String(value));
    };
    auto bound = [](long long seconds) {
        return seconds > 0 ? boost::optional<EventTimePoint>(at(seconds))
                           : boost::optional<EventTimePoint>();
    };
    RecordPrinter printer(scriptRunFields(), options.json);
    printer.stream(std::cout);
    store->scriptResultLogs(
        bound(range.since), bound(range.until), text(args.type), text(args.name), text(args.guid),
        limitOf(options),
        [&](zrn::ScriptResultLog const& log) { printer.add(scriptRunRecord(options.json, log)); });
    printer.print(std::cout);
}

// ---- Test runs, events, tips, failures

// No reader answers whether a script run exists: an empty list of test runs cannot tell a run
// without tests from a mistyped id.
bool scriptRunExists(Options const& options, std::string const& path, long long scriptId) {
    if (scriptId <= 0) return false;
    return readOrFail([&] {
        zrn::StoreReader reader(path, readOnly(options));
        return zrn::scriptRunExists(reader, scriptId);
    });
}

// The run or alert whose records a command lists must be there: an empty list cannot tell one
// without records from a mistyped id. Otherwise ToolError(NOT_FOUND).
void requireOwner(Options const& options, std::string const& path, EventArgs const& args) {
    readOrFail([&] {
        zrn::StoreReader reader(path, readOnly(options));
        if (args.testId > 0 && !zrn::testRunExists(reader, args.testId))
            throw ToolError(NOT_FOUND, path + ": no test run " + std::to_string(args.testId));
        if (args.scriptId > 0 && !zrn::scriptRunExists(reader, args.scriptId))
            throw ToolError(NOT_FOUND, path + ": no script run " + std::to_string(args.scriptId));
        if (args.alertId > 0 && !zrn::alertExists(reader, args.alertId))
            throw ToolError(NOT_FOUND, path + ": no alert " + std::to_string(args.alertId));
    });
}

void tests(Options const& options, EventArgs const& args) {
    TimeRange const range = timeRange(options);
    EventStore store(options);
    if (!scriptRunExists(options, store.path(), args.scriptId)) {
        throw ToolError(NOT_FOUND,
                        store.path() + ": no script run " + std::to_string(args.scriptId));
    }
    RecordPrinter printer(testRunFields(), options.json);
    printer.stream(std::cout);
    store->testRunResultLogs(
        args.scriptId, at(range.since), at(range.until), limitOf(options),
        [&](auto const& log) { printer.add(testRunRecord(options.json, log)); });
    printer.print(std::cout);
}

// Exactly one of the owners a command accepts must be given.
void requireOneOwner(std::vector<std::pair<char const*, long long>> const& owners) {
    int given = 0;
    std::string names;
    for (auto const& [name, id] : owners) {
        given += id > 0;
        names += (names.empty() ? "" : ", ") + std::string(name);
    }
    if (given != 1) throw ToolError(USAGE, "give exactly one of " + names + " (a positive id)");
}

// The events of every test run of a script run, newest first. The script's reader does not
// say which test run an event is of: each test run's events are read on their own and merged.
std::vector<Json> scriptRunEvents(Options const& options, zrn::EventDataStore& store,
                                  long long scriptId, TimeRange const& range) {
    std::vector<std::pair<long long, Json>> timed;
    for (auto const& test : store.testRunResultLogs(scriptId, at(0), at(0), 0)) {
        for (auto const& log : store.testRunEventResultLogs(test.testId(), at(range.since),
                                                            at(range.until), limitOf(options)))
            timed.emplace_back(secondsOf(log.timeStamp()),
                               eventRecord(options.json, log, test.testId()));
    }
    std::stable_sort(timed.begin(), timed.end(),
                     [](auto const& a, auto const& b) { return a.first > b.first; });
    if (options.limit > 0 && timed.size() > static_cast<std::size_t>(options.limit))
        timed.resize(static_cast<std::size_t>(options.limit));
    std::vector<Json> records;
    for (auto& entry : timed) records.push_back(std::move(entry.second));
    return records;
}

void events(Options const& options, EventArgs const& args) {
    requireOneOwner({{"--test", args.testId}, {"--script", args.scriptId}});
    requireOwner(options, existingStorePath(options, Store::Event), args);
    if (args.follow) return followEvents(options, followFilter(args));
    TimeRange const range = timeRange(options);
    EventStore store(options);
    RecordPrinter printer(eventFields(), options.json);
    printer.stream(std::cout);
    if (args.testId > 0) {
        store->testRunEventResultLogs(
            args.testId, at(range.since), at(range.until), limitOf(options),
            [&](auto const& log) { printer.add(eventRecord(options.json, log, args.testId)); });
    } else {
        for (Json& record : scriptRunEvents(options, *store, args.scriptId, range))
            printer.add(std::move(record));
    }
    printer.print(std::cout);
}

void tips(Options const& options, EventArgs const& args) {
    requireOneOwner(
        {{"--test", args.testId}, {"--script", args.scriptId}, {"--alert", args.alertId}});
    TimeRange const range = timeRange(options);
    EventStore store(options);
    requireOwner(options, store.path(), args);
    EventTimePoint const from = at(range.since);
    EventTimePoint const to = at(range.until);
    RecordPrinter printer(tipFields(), options.json);
    printer.stream(std::cout);
    auto const add = [&](zrn::TipResultLog const& log) {
        printer.add(tipRecord(options.json, log));
    };
    if (args.testId > 0) {
        store->testRunTipResultLogs(args.testId, from, to, limitOf(options), add);
    } else if (args.scriptId > 0) {
        store->scriptRunTipResultLogs(args.scriptId, from, to, limitOf(options), add);
    } else {
        store->alertTipResultLogs(args.alertId, from, to, limitOf(options), add);
    }
    printer.print(std::cout);
}

void failures(Options const& options, EventArgs const& args) {
    if (args.deviceGuid.empty() && !(args.failResults.empty() && args.passResults.empty())) {
        throw ToolError(USAGE,
                        "--fail and --pass need a device GUID (see 'datastore failures "
                        "--help')");
    }
    TimeRange const range = timeRange(options);
    EventStore store(options);
    std::vector<zrn::TestRunResultLog> logs;
    if (args.deviceGuid.empty()) {
        logs = store->getAllFails(at(range.since), at(range.until));
    } else {
        std::vector<zrn::String> const failResults(args.failResults.begin(),
                                                   args.failResults.end());
        std::vector<zrn::String> const passResults(args.passResults.begin(),
                                                   args.passResults.end());
        // The store looks at runs ended by the bound; without --until that is now.
        long long const until =
            range.until > 0 ? range.until : static_cast<long long>(std::time(nullptr));
        logs = store->getRecentFails(zrn::String(args.deviceGuid),
                                     failResults.empty() ? nullptr : &failResults,
                                     passResults.empty() ? nullptr : &passResults, at(until));
        logs.erase(std::remove_if(
                       logs.begin(), logs.end(),
                       [&](auto const& log) { return secondsOf(log.timeStamp()) < range.since; }),
                   logs.end());
    }
    RecordPrinter printer(testRunFields(), options.json);
    for (auto const& log : logs) {
        if (options.limit > 0 && static_cast<long>(printer.count()) >= options.limit) break;
        printer.add(testRunRecord(options.json, log));
    }
    printer.print(std::cout);
}

// ---- Alerts

Json alert(Options const& options, zrn::EventDataStore& store, zrn::AlertResultLog const& log) {
    return alertRecord(options.json, log, store.alertTracked(log.guid()));
}

void alerts(Options const& options, EventArgs const& args) {
    if (args.follow) return followAlerts(options, followFilter(args));
    TimeRange const range = timeRange(options);
    EventStore store(options);
    RecordPrinter printer(alertFields(), options.json);
    printer.stream(std::cout);
    store->alertResultLogs(at(range.since), at(range.until), zrn::String(args.type), args.untracked,
                           limitOf(options),
                           [&](auto const& log) { printer.add(alert(options, *store, log)); });
    printer.print(std::cout);
}

// One alert with its key/values and tips; --since/--until/--limit apply to the tips.
void oneAlert(Options const& options, EventArgs const& args) {
    TimeRange const range = timeRange(options);
    EventStore store(options);
    // No reader takes an alert id: the alert is found among all of them.
    std::vector<zrn::AlertResultLog> const all = store->alertResultLogs(at(0), at(0), "", false, 0);
    auto const found = std::find_if(all.begin(), all.end(),
                                    [&](auto const& log) { return log.alertId() == args.alertId; });
    if (found == all.end())
        throw ToolError(NOT_FOUND, store.path() + ": no alert " + std::to_string(args.alertId));

    RecordPrinter head(alertFields(), options.json);
    head.add(tagged("alert", alert(options, *store, *found)));
    if (!options.json) std::cout << "Alert " << args.alertId << "\n";
    head.print(std::cout);

    RecordPrinter keyValues(alertKeyValueFields(), options.json);
    for (auto const& kv : store->alertKeyValueResultLogs(args.alertId))
        keyValues.add(tagged("keyValue", alertKeyValueRecord(args.alertId, kv)));
    printSection(std::cout, options.json, "Key/values", keyValues);

    RecordPrinter tips(tipFields(), options.json);
    for (auto const& log : store->alertTipResultLogs(args.alertId, at(range.since), at(range.until),
                                                     limitOf(options))) {
        Json record = tipRecord(options.json, log);
        record["alertId"] = args.alertId;
        tips.add(tagged("tip", std::move(record)));
    }
    printSection(std::cout, options.json, "Tips", tips);
}

// ---- Measurements, profiler diffs, scriptlet results

void measurements(Options const& options, EventArgs const& args) {
    TimeRange const range = timeRange(options);
    EventStore store(options);
    RecordPrinter printer(measurementFields(), options.json);
    printer.stream(std::cout);
    auto const add = [&](zrn::MeasurementLog const& log) {
        printer.add(measurementRecord(options.json, log));
    };
    // The reader lists oldest first and would keep the oldest N: all are read, the newest N
    // kept (no more than N at a time), then printed still oldest first.
    std::size_t const keep = options.limit > 0 ? static_cast<std::size_t>(options.limit) : 0;
    std::deque<zrn::MeasurementLog> newest;
    std::size_t read = 0;
    store->measurementLogs(at(range.since), at(range.until), zrn::String(args.type), 0,
                           [&](zrn::MeasurementLog const& log) {
                               ++read;
                               if (keep == 0) return add(log);
                               if (newest.size() == keep) newest.pop_front();
                               newest.push_back(log);
                           });
    for (auto const& log : newest) add(log);
    if (read == 0 && !args.type.empty()) {
        std::set<std::string> types;
        for (auto const& log : store->measurementLogs(at(range.since), at(range.until), "", 0))
            types.insert(log.type().str());
        std::string known;
        for (auto const& type : types) known += (known.empty() ? "" : ", ") + ("'" + type + "'");
        // An empty answer, not an error; the note on standard error says what would match.
        std::cerr << "datastore: no measurements of type '" << args.type << "'"
                  << (known.empty() ? " (none in this range)" : "; the types are " + known) << "\n";
    }
    printer.print(std::cout);
}

void diffs(Options const& options, EventArgs const& args) {
    TimeRange const range = timeRange(options);
    EventStore store(options);
    RecordPrinter printer(diffFields(), options.json);
    printer.stream(std::cout);
    store->profilerDiffLogs(
        at(range.since), at(range.until), zrn::String(args.category), limitOf(options),
        [&](zrn::ProfilerDiffLog const& log) { printer.add(diffRecord(options.json, log)); });
    printer.print(std::cout);
}

void scriptlets(Options const& options, EventArgs const& args) {
    TimeRange const range = timeRange(options);
    EventStore store(options);
    RecordPrinter printer(scriptletFields(), options.json);
    printer.stream(std::cout);
    store->scriptletResultLogs(at(range.since), at(range.until), zrn::String(args.user),
                               zrn::String(args.category), zrn::String(args.status),
                               limitOf(options), [&](zrn::ScriptletResultLog const& log) {
                                   printer.add(scriptletRecord(options.json, log));
                               });
    printer.print(std::cout);
}

}  // namespace

namespace {

using EventCommand = void (*)(Options const&, EventArgs const&);

// `command` run on the options and arguments as parsed.
std::function<void()> bound(Options const& options, EventArgs const& args, EventCommand command) {
    return [&options, &args, command] { command(options, args); };
}

void addFollowFlag(CLI::App& command, EventArgs& args) {
    command.add_flag("-f,--follow", args.follow,
                     "Prints what is recorded from now on, as it is recorded, until interrupted "
                     "(Ctrl-C exits 0)");
}

// apps, scripts, tests, events, tips.
void addRunCommands(CLI::App& app, Options& options, EventArgs& args) {
    auto const run = [&options, &args](EventCommand command) {
        return bound(options, args, command);
    };

    CLI::App* c = addInspection(app, options, "apps", "Application runs (event.db), newest first",
                                "datastore apps --since 2026-11-23 --type Scheduled");
    c->add_option("--type", args.type, "Only runs of this type");
    c->add_option("--user", args.user, "Only runs of this user");
    addFollowFlag(*c, args);
    c->callback(run(apps));

    c = addInspection(app, options, "scripts", "Script runs with their script, newest first",
                      "datastore scripts --name 'Quick hardware check' --limit 5");
    c->add_option("--type", args.type, "Only runs within application runs of this type");
    c->add_option("--name", args.name, "Only scripts of this name");
    c->add_option("--guid", args.guid, "Only scripts of this GUID");
    c->callback(run(scripts));

    c = addInspection(app, options, "tests", "Test runs of one script run, newest first",
                      "datastore tests 2 --json");
    c->add_option("script-id", args.scriptId, "The script run (see 'datastore scripts')")
        ->required();
    c->callback(run(tests));

    c = addInspection(app, options, "events",
                      "Events of a test run or of every test of a script run",
                      "datastore events --script 2 --since 2026-11-23T09:00");
    c->add_option("--test", args.testId, "Events of this test run");
    c->add_option("--script", args.scriptId, "Events of every test run of this script run");
    addFollowFlag(*c, args);
    c->callback(run(events));

    c = addInspection(app, options, "tips",
                      "Tips of a test run, of a script run's tests, or of an alert",
                      "datastore tips --test 7");
    c->add_option("--test", args.testId, "Tips of this test run");
    c->add_option("--script", args.scriptId, "Tips of every test run of this script run");
    c->add_option("--alert", args.alertId, "Tips of this alert");
    c->callback(run(tips));
}

// failures, alerts, and the older alert.
void addFailureAndAlertCommands(CLI::App& app, Options& options, EventArgs& args) {
    auto const run = [&options, &args](EventCommand command) {
        return bound(options, args, command);
    };

    CLI::App* c =
        addInspection(app, options, "failures",
                      "Failed test runs: of one device, the newest run of each test whose latest "
                      "result is a failure; without a device, every FAIL",
                      "datastore failures 5d1c-disk-0 --fail FAIL --fail ERROR");
    c->add_option("device-guid", args.deviceGuid,
                  "The device (see DEVICE GUID in 'datastore tests')");
    c->add_option("--fail", args.failResults,
                  "A result that counts as a failure (default FAIL); repeatable")
        ->allow_extra_args(false);
    c->add_option("--pass", args.passResults,
                  "A result that counts as a pass (default PASS); repeatable")
        ->allow_extra_args(false);
    c->callback(run(failures));

    c = addInspection(app, options, "alerts",
                      "Alerts, newest first; with an id, that alert with its key/values and tips "
                      "(range and limit then apply to the tips)",
                      "datastore alerts --untracked --type Hardware; datastore alerts 3");
    c->add_flag("--untracked", args.untracked, "Only alerts not marked as tracked");
    c->add_option("--type", args.type, "Only alerts of this type");
    addFollowFlag(*c, args);
    CLI::Option* const alertId =
        c->add_option("alert-id", args.alertId, "One alert (see ALERT in 'datastore alerts')");
    c->callback([&options, &args, alertId] {
        if (alertId->count() > 0 && args.follow)
            throw ToolError(USAGE, "--follow prints new alerts: give no alert id with it");
        if (alertId->count() > 0)
            oneAlert(options, args);
        else
            alerts(options, args);
    });

    // The single-alert form before "alerts ID" existed. Hidden, so that completing "al" gives
    // "alerts" rather than stopping at the shared prefix; scripts that call it still work.
    c = addInspection(app, options, "alert", "One alert with its key/values and tips",
                      "datastore alert 3");
    c->group("");
    c->add_option("alert-id", args.alertId, "The alert (see ALERT in 'datastore alerts')")
        ->required();
    c->callback(run(oneAlert));
}

// measurements, diffs, scriptlets.
void addMeasurementCommands(CLI::App& app, Options& options, EventArgs& args) {
    auto const run = [&options, &args](EventCommand command) {
        return bound(options, args, command);
    };

    CLI::App* c = addInspection(
        app, options, "measurements",
        "Measurements whose span middle is in the range, oldest first (--limit: the newest N)",
        "datastore measurements --type 'CPU temperature' --since 2026-11-23");
    c->add_option("--type", args.type, "Only measurements of this type");
    c->callback(run(measurements));

    c = addInspection(app, options, "diffs", "Profiler diffs, newest first",
                      "datastore diffs --category Drivers");
    c->alias("profiler-diffs");
    c->add_option("--category", args.category, "Only diffs of this category");
    c->callback(run(diffs));

    c = addInspection(app, options, "scriptlets", "Scriptlet results, newest first",
                      "datastore scriptlets --status WARN");
    c->add_option("--user", args.user, "Only results of application runs of this user");
    c->add_option("--category", args.category, "Only results of this category");
    c->add_option("--status", args.status, "Only results of this status");
    c->callback(run(scriptlets));
}

}  // namespace

void addEventCommands(CLI::App& app, Options& options) {
    static EventArgs args;
    addRunCommands(app, options, args);
    addFailureAndAlertCommands(app, options, args);
    addMeasurementCommands(app, options, args);
}

}  // namespace datastore
