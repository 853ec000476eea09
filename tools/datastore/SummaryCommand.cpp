// datastore summary: one screen answering "what is wrong with this machine" for the last week
// recorded: the tests that fail (with their pass rate and whether they fail more often in the
// second half of the week than in the first), the alerts grouped by title and device, the
// measurements per type with their trend, and the last repair session. On a terminal every
// list shows its first rows and then how many more there are and the command that lists them
// all; the machine formats carry every row.

#include <libCommon/FileSystem.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>

#include "Commands.h"
#include "Output.h"
#include "Records.h"
#include "SummaryFacts.h"

namespace datastore {

namespace {

using zrn::EventTimePoint;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint time) { return time.time_since_epoch().count(); }

std::size_t const kShown = 4;  // rows of each list on a terminal
int const kDays = 7;           // the default window, in days recorded

struct SummaryArgs {
    bool all = false;
    bool byDay = false;
};

std::string localDate(long long seconds) { return localTime(seconds).substr(0, 10); }

std::unique_ptr<zrn::EventDataStore> openEvents(Options const& options) {
    std::string const path = existingStorePath(options, Store::Event);
    return openOrFail(path, [&] {
        return std::make_unique<zrn::EventDataStore>(zrn::String(path), readOnly(options));
    });
}

// The window and the line that says which it is. By default the last 7 days recorded: those
// up to the newest application run, which is today's on a machine in use and the last day of
// a store copied from one.
Window windowOf(Options const& options, SummaryArgs const& args, zrn::EventDataStore* store,
                std::string& said) {
    if (args.all) {
        said = "Summary of everything recorded";
        return {};
    }
    if (!options.since.empty() || !options.until.empty()) {
        TimeRange const range = timeRange(options);
        said = !range.until ? "Summary since " + localTime(range.since)
               : !range.since
                   ? "Summary until " + localTime(range.until)
                   : "Summary from " + localTime(range.since) + " to " + localTime(range.until);
        return {range.since, range.until};
    }
    long long newest = store ? secondsOf(store->lastApplicationRun()) : 0;
    if (newest <= 0) newest = static_cast<long long>(std::time(nullptr));
    Window const window{midnightBefore(newest, kDays - 1), 0};
    said = "Summary since " + localTime(window.since) + ": the last " + std::to_string(kDays) +
           " days recorded (--all: everything)";
    return window;
}

// The window as options of the listing commands.
std::string windowOptions(Window const& window) {
    auto option = [](char const* name, long long seconds) {
        return std::string(" ") + name + " @" + std::to_string(seconds);
    };
    std::string text;
    if (window.since > 0)
        text += midnightBefore(window.since, 0) == window.since
                    ? " --since " + localDate(window.since)
                    : option("--since", window.since);
    if (window.until > 0) text += option("--until", window.until);
    return text;
}

// The records of the first rows of `items` (every row for a machine format) as a section;
// on a terminal then how many more there are and the command that lists them.
template <class Item, class Make>
void printList(Options const& options, char const* title, std::vector<Field> fields,
               std::vector<Item> const& items, Make make, std::string const& all) {
    if (items.empty() && !options.json) {
        std::cout << "\n" << title << "\n(none)\n";
        return;
    }
    RecordPrinter printer(std::move(fields), options.json);
    std::size_t const shown = options.json ? items.size() : std::min(items.size(), kShown);
    for (std::size_t i = 0; i < shown; ++i) printer.add(make(items[i]));
    printSection(std::cout, options.json, title, printer);
    if (items.size() > shown)
        std::cout << "and " << items.size() - shown << " more: " << all << "\n";
}

std::string percent(double share) { return std::to_string(std::lround(100 * share)) + "%"; }

// A rate as JSON: a share of 1 with three decimals.
double rate(double share) { return std::round(share * 1000) / 1000; }

std::vector<Field> testFields(bool json) {
    if (json) {
        return {{"testName", ""},
                {"testGuid", ""},
                {"deviceName", ""},
                {"deviceGuid", ""},
                {"runs", ""},
                {"fails", ""},
                {"passRate", ""},
                {"firstHalfFailureRate", ""},
                {"secondHalfFailureRate", ""},
                {"trend", ""},
                {"lastFailed", ""},
                {"lastError", ""}};
    }
    return {{"testName", "TEST"},         {"deviceName", "DEVICE"}, {"failed", "FAILED"},
            {"passRate", "PASSED"},       {"trend", "TREND"},       {"lastError", "LAST ERROR", 1},
            {"testGuid", "GUID", 2, true}};
}

Json testRecord(bool json, TestTally const& test) {
    double const passed = static_cast<double>(test.runs - test.fails) / test.runs;
    if (!json) {
        return tagged("testFailures", Json{{"testName", test.name},
                                           {"deviceName", test.device},
                                           {"failed", std::to_string(test.fails) + " of " +
                                                          std::to_string(test.runs)},
                                           {"passRate", percent(passed)},
                                           {"trend", test.trend()},
                                           {"lastError", test.lastError},
                                           {"testGuid", test.guid}});
    }
    return tagged("testFailures", Json{{"testName", test.name},
                                       {"testGuid", test.guid},
                                       {"deviceName", test.device},
                                       {"deviceGuid", test.deviceGuid},
                                       {"runs", test.runs},
                                       {"fails", test.fails},
                                       {"passRate", rate(passed)},
                                       {"firstHalfFailureRate", rate(test.failures.first)},
                                       {"secondHalfFailureRate", rate(test.failures.second)},
                                       {"trend", test.trend()},
                                       {"lastFailed", isoTime(test.lastFailed)},
                                       {"lastError", test.lastError}});
}

std::vector<Field> alertGroupFields(bool json) {
    if (json) {
        return {{"title", ""}, {"deviceName", ""}, {"type", ""},
                {"key", ""},   {"count", ""},      {"tracked", ""},
                {"first", ""}, {"last", ""},       {"lastAlertId", ""}};
    }
    return {{"title", "TITLE"},      {"deviceName", "DEVICE"}, {"count", "COUNT"},
            {"first", "FIRST SEEN"}, {"last", "LAST SEEN"},    {"tracked", "TRACKED"}};
}

Json alertGroupRecord(bool json, AlertGroup const& group) {
    if (!json) {
        std::string const tracked =
            group.tracked == 0 ? "no"
            : group.tracked == group.count
                ? "yes"
                : std::to_string(group.tracked) + " of " + std::to_string(group.count);
        return tagged("alertGroup", Json{{"title", group.title},
                                         {"deviceName", group.device},
                                         {"count", group.count},
                                         {"first", localDate(group.first)},
                                         {"last", localDate(group.last)},
                                         {"tracked", tracked}});
    }
    return tagged("alertGroup", Json{{"title", group.title},
                                     {"deviceName", group.device},
                                     {"type", group.type},
                                     {"key", group.key},
                                     {"count", group.count},
                                     {"tracked", group.tracked},
                                     {"first", isoTime(group.first)},
                                     {"last", isoTime(group.last)},
                                     {"lastAlertId", group.lastAlertId}});
}

std::vector<Field> measurementFields(bool json) {
    if (json) {
        return {{"type", ""},  {"minimum", ""},          {"average", ""},           {"maximum", ""},
                {"spans", ""}, {"firstHalfAverage", ""}, {"secondHalfAverage", ""}, {"trend", ""}};
    }
    return {{"type", "TYPE"},   {"minimum", "MIN"}, {"average", "AVERAGE"},
            {"maximum", "MAX"}, {"trend", "TREND"}, {"spans", "SPANS", 1}};
}

Json measurementRecord(bool json, MeasurementTally const& type) {
    Json record{{"type", type.type},
                {"minimum", type.minimum},
                {"average", type.average()},
                {"maximum", type.maximum},
                {"spans", type.spans}};
    if (json) {
        record["firstHalfAverage"] = type.averages.first;
        record["secondHalfAverage"] = type.averages.second;
        record["trend"] = type.trend();
    } else {
        char change[32];
        std::snprintf(change, sizeof change, " (%+.2f)",
                      type.averages.second - type.averages.first);
        record["trend"] = type.trend() + change;
    }
    return tagged("measurementType", record);
}

// The window's measurements per local day: only with --by-day.
void printDays(Options const& options, zrn::EventDataStore const& store, Window const& window) {
    std::map<std::pair<std::string, std::string>, MeasurementTally> days;
    store.measurementLogs(at(window.since), at(window.until), "", 0, [&](auto const& log) {
        MeasurementTally& day = days[{log.type().str(), localDate(secondsOf(log.spanMiddle()))}];
        if (day.spans == 0 || log.minimum() < day.minimum) day.minimum = log.minimum();
        if (day.spans == 0 || log.maximum() > day.maximum) day.maximum = log.maximum();
        long long const weight = std::max<long long>(1, log.numberOfSamples());
        day.weighted += log.average() * static_cast<double>(weight);
        day.samples += weight;
        ++day.spans;
    });
    RecordPrinter printer({{"type", "TYPE"},
                           {"day", "DAY"},
                           {"minimum", "MIN"},
                           {"average", "AVERAGE"},
                           {"maximum", "MAX"},
                           {"spans", "SPANS", 1}},
                          options.json);
    for (auto const& [key, day] : days) {
        printer.add(tagged("measurementDay", Json{{"type", key.first},
                                                  {"day", key.second},
                                                  {"minimum", day.minimum},
                                                  {"average", day.average()},
                                                  {"maximum", day.maximum},
                                                  {"spans", day.spans}}));
    }
    printSection(std::cout, options.json, "Measurements per day", printer);
}

void eventSummary(Options const& options, SummaryArgs const& args, zrn::EventDataStore const& store,
                  Window const& window) {
    std::string const range = windowOptions(window);
    bool const json = options.json;
    printList(
        options, "Failures per test (trend: the second half against the first)", testFields(json),
        testTallies(store, window), [json](auto const& test) { return testRecord(json, test); },
        "datastore failures" + range);
    printList(
        options, "Alerts by title and device", alertGroupFields(json), alertGroups(store, window),
        [json](auto const& group) { return alertGroupRecord(json, group); },
        "datastore alerts" + range);
    printList(
        options, "Measurements per type", measurementFields(json),
        measurementTallies(store, window),
        [json](auto const& type) { return measurementRecord(json, type); },
        "datastore measurements" + range);
    if (args.byDay) printDays(options, store, window);
}

}  // namespace

// ---- The last repair session

namespace {

// The newest session, within --since/--until when they were given (the repair tool stamps
// its sessions with the moment of recording, not with the day the diagnostics ran).
void repairSummary(Options const& options, SummaryArgs const& args) {
    std::string const path = existingStorePath(options, Store::SoftwareDiag);
    auto const store = openOrFail(path, [&] {
        return std::make_unique<zrn::SoftwareDiagEventDataStore>(zrn::String(path),
                                                                 readOnly(options));
    });
    TimeRange const range = args.all ? TimeRange{} : timeRange(options);
    auto bound = [](long long s) { return s > 0 ? zrn::TimeStamp(s) : zrn::TimeStamp(); };
    zrn::SessionList const sessions =
        store->getSessions(bound(range.since), bound(range.until), true, 1);
    std::vector<Field> fields = sessionFields();
    fields.push_back({"issues", "ISSUES"});
    fields.push_back({"fixed", "FIXED"});
    RecordPrinter session(fields, options.json);
    RecordPrinter issues(issueFields(), options.json);
    RecordPrinter fixes(fixActionFields(), options.json);
    if (sessions.size() == 0) {
        printSection(std::cout, options.json, "Last repair session", session);
        return;
    }
    zrn::SessionLog const last = sessions.get(0);
    zrn::IssueList const issueList = store->getIssuesBySession(last, false, 0);
    for (unsigned i = 0; i < issueList.size(); ++i)
        issues.add(tagged("issue", issueRecord(options.json, issueList.get(i))));
    zrn::FixActionList const fixList = store->getFixActionsBySession(last, false, 0);
    long long done = 0;
    for (unsigned i = 0; i < fixList.size(); ++i) {
        Json const fix = fixActionRecord(options.json, fixList.get(i));
        done += fix["stateName"] == "done";
        fixes.add(tagged("fixAction", fix));
    }
    Json record = sessionRecord(options.json, last);
    record["issues"] = issueList.size();
    record["fixed"] =
        options.json
            ? Json(done)
            : Json(std::to_string(done) + " of " + std::to_string(fixList.size()) + " done");
    session.add(tagged("lastSession", record));
    printSection(std::cout, options.json, "Last repair session", session);
    if (!options.json) {
        std::cout << "its issues and fix actions: datastore session " << last.sessionId() << "\n";
        return;
    }
    issues.print(std::cout);
    fixes.print(std::cout);
}

void summary(Options const& options, SummaryArgs const& args) {
    if (args.all && (!options.since.empty() || !options.until.empty()))
        throw ToolError(USAGE, "--all: give it without --since and --until");
    // A store that was never written is a missing part of the picture, not a failure.
    bool const events = zrn::FileSystem::exists(storePath(options, Store::Event));
    bool const repairs = zrn::FileSystem::exists(storePath(options, Store::SoftwareDiag));
    if (!events && !repairs) existingStorePath(options, Store::Event);  // says why: nothing
    std::unique_ptr<zrn::EventDataStore> store;
    if (events) store = openEvents(options);
    std::string said;
    Window const window = windowOf(options, args, store.get(), said);
    if (!options.json) std::cout << said << "\n";
    if (store) {
        eventSummary(options, args, *store, window);
    } else if (!options.json) {
        std::cout << "\n(no " << fileNameOf(Store::Event) << ")\n";
    }
    if (repairs) {
        repairSummary(options, args);
    } else if (!options.json) {
        std::cout << "\n(no " << fileNameOf(Store::SoftwareDiag) << ")\n";
    }
}

}  // namespace

void addSummaryCommand(CLI::App& app, Options& options) {
    CLI::App* c = addInspection(app, options, "summary",
                                "What is wrong with this machine, on one screen: failing tests "
                                "with their pass rate and trend, alerts grouped, measurements per "
                                "type, the last repair session",
                                "datastore summary --since -30d --by-day", true, false);
    c->footer(
        "By default the last 7 days recorded (up to the newest application run). A trend "
        "compares the second half of the time a test ran or a type was measured with the first "
        "(worse: failing at least 10 points more often). On a terminal each list shows its first "
        "4 rows, then how many more and the command that lists them all; the machine formats "
        "carry every row.\nExample: datastore summary --since -30d --by-day");
    static SummaryArgs args;
    c->add_flag("--all", args.all, "Everything recorded, rather than the last 7 days");
    c->add_flag("--by-day", args.byDay,
                "Also each measurement type's minimum, average and maximum per day");
    c->callback([&options] { summary(options, args); });
}

}  // namespace datastore
