// The summary's facts, read through the event store's own readers.

#include "SummaryFacts.h"

#include <libDataStore/EventDataStore.h>

#include <algorithm>
#include <cmath>
#include <map>

namespace datastore {

namespace {

using zrn::EventTimePoint;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint time) { return time.time_since_epoch().count(); }

double mean(std::vector<double> const& values) {
    double sum = 0;
    for (double value : values) sum += value;
    return values.empty() ? 0 : sum / static_cast<double>(values.size());
}

}  // namespace

void Halves::settle() {
    if (samples.empty()) return;
    auto const [low, high] =
        std::minmax_element(samples.begin(), samples.end(),
                            [](auto const& a, auto const& b) { return a.first < b.first; });
    // Twice the middle, so that an odd sum of seconds is not rounded into one half.
    long long const middle2 = low->first + high->first;
    std::vector<double> early, late;
    for (auto const& [time, value] : samples) (2 * time < middle2 ? early : late).push_back(value);
    first = mean(early);
    second = mean(late);
}

std::string TestTally::trend() const {
    if (failures.second - failures.first >= 0.1) return "worse";
    if (failures.first - failures.second >= 0.1) return "better";
    return "steady";
}

std::string MeasurementTally::trend() const {
    double const change = averages.second - averages.first;
    if (std::fabs(change) < 0.02 * std::fabs(averages.first) || change == 0) return "steady";
    return change > 0 ? "rising" : "falling";
}

std::vector<TestTally> testTallies(zrn::EventDataStore const& store, Window const& window) {
    std::map<std::string, TestTally> tests;
    auto const bound = [](long long s) {
        return s > 0 ? boost::make_optional(at(s)) : boost::none;
    };
    for (auto const& script : store.scriptResultLogs(bound(window.since), bound(window.until),
                                                     boost::none, boost::none, boost::none, 0)) {
        store.testRunResultLogs(script.scriptId(), at(0), at(0), 0, [&](auto const& run) {
            TestTally& test = tests[run.testGuid().str() + "\n" + run.testName().str()];
            test.name = run.testName().str();
            test.guid = run.testGuid().str();
            test.device = run.deviceName().str();
            test.deviceGuid = run.deviceGuid().str();
            long long const time = secondsOf(run.timeStamp());
            bool const failed = run.result() == "FAIL";
            ++test.runs;
            test.fails += failed;
            test.failures.samples.emplace_back(time, failed ? 1.0 : 0.0);
            if (failed && time >= test.lastFailed) {
                test.lastFailed = time;
                test.lastError = run.errorCode().str();
            }
        });
    }
    std::vector<TestTally> failing;
    for (auto& [key, test] : tests) {
        if (test.fails == 0) continue;
        test.failures.settle();
        failing.push_back(std::move(test));
    }
    std::stable_sort(failing.begin(), failing.end(), [](auto const& a, auto const& b) {
        return a.fails != b.fails ? a.fails > b.fails : a.lastFailed > b.lastFailed;
    });
    return failing;
}

std::vector<AlertGroup> alertGroups(zrn::EventDataStore const& store, Window const& window) {
    std::map<std::pair<std::string, std::string>, AlertGroup> groups;
    store.alertResultLogs(at(window.since), at(window.until), "", false, 0, [&](auto const& log) {
        AlertGroup& group = groups[{log.title().str(), log.deviceName().str()}];
        long long const time = secondsOf(log.timeStamp());
        if (group.count++ == 0 || time < group.first) group.first = time;
        if (time >= group.last) {
            group.last = time;
            group.lastAlertId = log.alertId();
        }
        group.title = log.title().str();
        group.device = log.deviceName().str();
        group.type = log.type().str();
        group.key = log.key().str();
        group.tracked += store.alertTracked(log.guid());
    });
    std::vector<AlertGroup> sorted;
    for (auto& [key, group] : groups) sorted.push_back(std::move(group));
    std::stable_sort(sorted.begin(), sorted.end(), [](auto const& a, auto const& b) {
        return a.count != b.count ? a.count > b.count : a.last > b.last;
    });
    return sorted;
}

std::vector<MeasurementTally> measurementTallies(zrn::EventDataStore const& store,
                                                 Window const& window) {
    std::map<std::string, MeasurementTally> types;
    store.measurementLogs(at(window.since), at(window.until), "", 0, [&](auto const& log) {
        MeasurementTally& type = types[log.type().str()];
        type.type = log.type().str();
        if (type.spans == 0 || log.minimum() < type.minimum) type.minimum = log.minimum();
        if (type.spans == 0 || log.maximum() > type.maximum) type.maximum = log.maximum();
        // A span's average counts as often as it has samples; a span without any, once.
        long long const weight = std::max<long long>(1, log.numberOfSamples());
        type.weighted += log.average() * static_cast<double>(weight);
        type.samples += weight;
        ++type.spans;
        type.averages.samples.emplace_back(secondsOf(log.spanMiddle()), log.average());
    });
    std::vector<MeasurementTally> sorted;
    for (auto& [name, type] : types) {
        type.averages.settle();
        sorted.push_back(std::move(type));
    }
    return sorted;
}

}  // namespace datastore
