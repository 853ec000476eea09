#pragma once

// What the summary tells of a window of time, gathered from the event store: failures per
// test, alerts grouped by title and device, measurements per type, each with how its window's
// second half compares with its first.

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zrn {
class EventDataStore;
}

namespace datastore {

// Unix seconds; 0 for a bound not set.
struct Window {
    long long since = 0;
    long long until = 0;
};

// A rate or an average of the first and the second half of the time something was seen in.
struct Halves {
    std::vector<std::pair<long long, double>> samples;  // time, value (1 a failure, 0 a pass)
    double first = 0;
    double second = 0;
    // Splits the samples at the middle of their first and last time.
    void settle();
};

struct TestTally {
    std::string name, guid, device, deviceGuid;
    long long runs = 0;
    long long fails = 0;
    long long lastFailed = 0;
    std::string lastError;
    Halves failures;
    // "worse" when the second half fails at least 10 points more often, "better" when at
    // least 10 less, else "steady".
    std::string trend() const;
};

struct AlertGroup {
    std::string title, device, type, key;
    long long count = 0;
    long long tracked = 0;
    long long first = 0;
    long long last = 0;
    long long lastAlertId = 0;
};

struct MeasurementTally {
    std::string type;
    double minimum = 0, maximum = 0, weighted = 0;
    long long samples = 0, spans = 0;
    Halves averages;
    double average() const { return weighted / static_cast<double>(samples); }
    // "rising" or "falling" when the second half's average differs by 2% or more, else
    // "steady".
    std::string trend() const;
};

// Tests that failed in the window, most failures first.
std::vector<TestTally> testTallies(zrn::EventDataStore const& store, Window const& window);
// Alerts by title and device, the most frequent first.
std::vector<AlertGroup> alertGroups(zrn::EventDataStore const& store, Window const& window);
// Measurements per type, by type name.
std::vector<MeasurementTally> measurementTallies(zrn::EventDataStore const& store,
                                                 Window const& window);

}  // namespace datastore
