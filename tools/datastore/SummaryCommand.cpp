// datastore summary: one screen answering "what is wrong with this machine": failures by
// device and by test, untracked alerts, the last repair session, measurements per day.

#include <libCommon/FileSystem.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>

#include "Commands.h"
#include "Output.h"
#include "Records.h"

namespace datastore {

namespace {

using zrn::EventTimePoint;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint time) { return time.time_since_epoch().count(); }

std::string localDate(long long seconds) {
    std::string const time = localTime(seconds);
    return time.substr(0, 10);
}

struct FailureGroup {
    std::string name;
    std::string guid;
    long long count = 0;
    long long last = 0;
    std::string lastError;
};

void addGroup(std::map<std::string, FailureGroup>& groups, std::string const& key,
              std::string const& name, std::string const& guid, zrn::TestRunResultLog const& log) {
    FailureGroup& group = groups[key];
    group.name = name;
    group.guid = guid;
    ++group.count;
    long long const time = secondsOf(log.timeStamp());
    if (time >= group.last) {
        group.last = time;
        group.lastError = log.errorCode().str();
    }
}

void printGroups(Options const& options, char const* title, char const* kind, char const* header,
                 std::map<std::string, FailureGroup> const& groups) {
    RecordPrinter printer({{"name", header},
                           {"count", "FAILS"},
                           {"last", "LAST SEEN"},
                           {"lastError", "LAST ERROR"},
                           {"guid", "GUID", 1, true}},
                          options.json);
    std::vector<FailureGroup const*> sorted;
    for (auto const& [key, group] : groups) sorted.push_back(&group);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](auto const* a, auto const* b) { return a->last > b->last; });
    for (FailureGroup const* group : sorted) {
        printer.add(tagged(kind, Json{{"name", group->name},
                                      {"guid", group->guid},
                                      {"count", group->count},
                                      {"last", timeCell(options.json, group->last)},
                                      {"lastError", group->lastError}}));
    }
    printSection(std::cout, options.json, title, printer);
}

void eventSummary(Options const& options, TimeRange const& range) {
    std::string const path = existingStorePath(options, Store::Event);
    auto const store = openOrFail(path, [&] {
        return std::make_unique<zrn::EventDataStore>(zrn::String(path), readOnly(options));
    });
    EventTimePoint const from = at(range.since), to = at(range.until);

    std::map<std::string, FailureGroup> byDevice, byTest;
    for (auto const& log : store->getAllFails(from, to)) {
        addGroup(byDevice, log.deviceGuid().str(), log.deviceName().str(), log.deviceGuid().str(),
                 log);
        addGroup(byTest, log.testGuid().str() + "\n" + log.testName().str(), log.testName().str(),
                 log.testGuid().str(), log);
    }
    printGroups(options, "Failures by device", "deviceFailures", "DEVICE", byDevice);
    printGroups(options, "Failures by test", "testFailures", "TEST", byTest);

    RecordPrinter alerts(alertFields(), options.json);
    for (auto const& log : store->alertResultLogs(from, to, "", true, 0)) {
        alerts.add(tagged("untrackedAlert",
                          alertRecord(options.json, log, store->alertTracked(log.guid()))));
    }
    printSection(std::cout, options.json, "Untracked alerts", alerts);

    struct Day {
        double minimum = 0, maximum = 0, weighted = 0;
        long long samples = 0, spans = 0;
    };
    std::map<std::pair<std::string, std::string>, Day> days;
    for (auto const& log : store->measurementLogs(from, to, "", 0)) {
        Day& day = days[{log.type().str(), localDate(secondsOf(log.spanMiddle()))}];
        if (day.spans == 0 || log.minimum() < day.minimum) day.minimum = log.minimum();
        if (day.spans == 0 || log.maximum() > day.maximum) day.maximum = log.maximum();
        // A span's average counts as often as it has samples; a span without any, once.
        long long const weight = std::max<long long>(1, log.numberOfSamples());
        day.weighted += log.average() * static_cast<double>(weight);
        day.samples += weight;
        ++day.spans;
    }
    RecordPrinter measurements({{"type", "TYPE"},
                                {"day", "DAY"},
                                {"minimum", "MIN"},
                                {"average", "AVERAGE"},
                                {"maximum", "MAX"},
                                {"spans", "SPANS", 1}},
                               options.json);
    for (auto const& [key, day] : days) {
        measurements.add(tagged("measurementDay",
                                Json{{"type", key.first},
                                     {"day", key.second},
                                     {"minimum", day.minimum},
                                     {"average", day.weighted / static_cast<double>(day.samples)},
                                     {"maximum", day.maximum},
                                     {"spans", day.spans}}));
    }
    printSection(std::cout, options.json, "Measurements per day", measurements);
}

void repairSummary(Options const& options, TimeRange const& range) {
    std::string const path = existingStorePath(options, Store::SoftwareDiag);
    auto const store = openOrFail(path, [&] {
        return std::make_unique<zrn::SoftwareDiagEventDataStore>(zrn::String(path),
                                                                 readOnly(options));
    });
    auto bound = [](long long s) { return s > 0 ? zrn::TimeStamp(s) : zrn::TimeStamp(); };
    zrn::SessionList const sessions =
        store->getSessions(bound(range.since), bound(range.until), true, 1);
    RecordPrinter session(sessionFields(), options.json);
    RecordPrinter issues(issueFields(), options.json);
    RecordPrinter fixes(fixActionFields(), options.json);
    if (sessions.size() > 0) {
        zrn::SessionLog const last = sessions.get(0);
        session.add(tagged("lastSession", sessionRecord(options.json, last)));
        zrn::IssueList const issueList = store->getIssuesBySession(last, false, 0);
        for (unsigned i = 0; i < issueList.size(); ++i)
            issues.add(tagged("issue", issueRecord(options.json, issueList.get(i))));
        zrn::FixActionList const fixList = store->getFixActionsBySession(last, false, 0);
        for (unsigned i = 0; i < fixList.size(); ++i)
            fixes.add(tagged("fixAction", fixActionRecord(options.json, fixList.get(i))));
    }
    printSection(std::cout, options.json, "Last repair session", session);
    printSection(std::cout, options.json, "Its issues", issues);
    printSection(std::cout, options.json, "Its fix actions", fixes);
}

void summary(Options const& options) {
    TimeRange const range = timeRange(options);
    if (!options.json) {
        std::cout << "Summary"
                  << (options.since.empty() ? std::string(" of everything recorded")
                                            : " since " + localTime(range.since))
                  << "\n";
    }
    // A store that was never written is a missing part of the picture, not a failure.
    bool any = false;
    for (Store store : {Store::Event, Store::SoftwareDiag}) {
        if (!zrn::FileSystem::exists(storePath(options, store))) {
            if (!options.json) std::cout << "\n(no " << fileNameOf(store) << ")\n";
            continue;
        }
        any = true;
        if (store == Store::Event) {
            eventSummary(options, range);
        } else {
            repairSummary(options, range);
        }
    }
    if (!any) existingStorePath(options, Store::Event);  // says why nothing could be shown
}

}  // namespace

void addSummaryCommand(CLI::App& app, Options& options) {
    CLI::App* c = addInspection(app, options, "summary",
                                "What is wrong with this machine: failures by device and test, "
                                "untracked alerts, the last repair session, measurements per day",
                                "datastore summary --since -7d", true, false);
    c->callback([&options] { summary(options); });
}

}  // namespace datastore
