#pragma once

// The demo's days: what a day holds (DemoDays.cpp plans it) and its recording into the four
// stores (DemoRecord.cpp), shared by the demo command.

#include <libDataStore/SoftwareDiagRecords.h>

#include <cstdint>
#include <ctime>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace zrn {
class AppStateDataStore;
class EventDataStore;
class GeneralDataStore;
class SoftwareDiagEventDataStore;
}  // namespace zrn

namespace datastore {

// Local wall-clock times of one recorded day.
class Day {
public:
    // The day `daysBack` days before the local day of `reference` (Unix seconds).
    Day(long long reference, int daysBack);
    // Unix seconds of a local time of the day; hours past 23 run into the next day.
    long long at(int hour, int minute, int second = 0) const;
    std::string date() const;  // YYYY-MM-DD

private:
    std::tm m_midnight{};
};

// One run of the script: its tests run in order (memory, disk, battery).
struct ScriptPlan {
    long long start = 0;
    bool memoryFails = false;
    bool diskFails = false;
    int reallocated = 112;  // the disk's reallocated sectors, as its failure reports them
};

enum class AlertKind { Disk, Battery, Driver };

struct AlertPlan {
    AlertKind kind;
    long long time;
    bool tracked;
    int reallocated;  // for the disk's alert
};

// How the day's hourly measurements depart from the usual curve.
struct MeasurementPlan {
    double cpuOffset = 0;
    double memoryOffset = 0;
    int spikeHour = -1;  // an hour whose maxima spike; -1: none
};

// A repair session's finding: a diagnostic, the issue it found and the fix of it.
struct Finding {
    std::string diagnostic;
    std::string issue;
    std::string description;
    std::string fix;
    std::string fixResult;
    unsigned state;  // this suite's fix states: 1 done, 2 done in part
};

struct DayPlan {
    explicit DayPlan(Day const& recorded) : day(recorded) {}
    Day day;
    long long appStart = 0;
    long long appStop = 0;
    std::vector<ScriptPlan> scripts;
    // Each group is recorded as one call: several alerts at once, or one alone.
    std::vector<std::vector<AlertPlan>> alertGroups;
    MeasurementPlan measurements;
    int freeSpace = 23;        // percent of the disk, as the free-space check reports it
    int latency = 14;          // ms, as the network check reports it
    int pendingUpdates = 3;    // in the morning; none in the afternoon
    int diskLogSectors = 112;  // the disk's health log, then +2 when checked again
    std::string batteryWear = "29%";
    bool repair = false;  // the day's repair session, its profiler diffs and driver log
    std::vector<Finding> findings;
    std::string lastResult = "FAIL: Disk SMART check";  // the scheduler's last result
    std::mt19937_64 random;                             // the GUIDs of the day's new records
};

// The single fixed day the demo records without --days or --seed: its GUIDs are random.
DayPlan classicDay(Day const& day);
// Day `index` (0 the first) of `count` consecutive days ending on `last`, the same for the same
// seed: the disk's SMART check fails more and more often until the last day's repair session
// fixes it.
DayPlan storyDay(Day const& last, int index, int count, std::uint64_t seed);

struct EventDay {
    long long appId = 0;
    std::vector<long long> scriptIds;
    std::vector<std::string> alertGuids;
};
using LogKeys = std::vector<std::pair<std::string, std::string>>;  // type, GUID

// Each records the plan into its store; a failure throws (zrn::Exception or ToolError).
EventDay recordEvents(zrn::EventDataStore& store, DayPlan& plan, std::string const& user);
LogKeys recordGeneral(zrn::GeneralDataStore& store, std::string const& path, DayPlan& plan);
void recordState(zrn::AppStateDataStore& store, std::string const& path, DayPlan const& plan);
zrn::SessionLog recordRepair(zrn::SoftwareDiagEventDataStore& store, std::string const& path,
                             DayPlan& plan);

}  // namespace datastore
