// The demo's day plans: the one fixed day, and the story of several days drawn from a seed.
//
// Every choice of a story day comes from a std::mt19937_64 seeded with the seed and the day's
// index alone, and is drawn from its raw output (never through a standard distribution, whose
// algorithm differs between libraries), so the same seed gives the same days everywhere.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "Demo.h"

namespace datastore {

Day::Day(long long reference, int daysBack) {
    std::time_t const t = static_cast<std::time_t>(reference);
    localtime_r(&t, &m_midnight);
    m_midnight.tm_mday -= daysBack;
    m_midnight.tm_hour = m_midnight.tm_min = m_midnight.tm_sec = 0;
    m_midnight.tm_isdst = -1;
    std::time_t const midnight = std::mktime(&m_midnight);
    localtime_r(&midnight, &m_midnight);
}

long long Day::at(int hour, int minute, int second) const {
    std::tm tm = m_midnight;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    return static_cast<long long>(std::mktime(&tm));
}

std::string Day::date() const {
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &m_midnight);
    return text;
}

namespace {

std::vector<Finding> softwareFindings() {
    return {
        {"Startup programs", "Slow start-up",
         "7 programs start with the system; 3 are rarely used.",
         "Disable 3 rarely used start-up programs", "Disabled 3 programs", 1},
        {"Wi-Fi driver check", "Outdated Wi-Fi driver", "Installed 21.40.1; 22.10.0 is available.",
         "Update the Wi-Fi driver to 22.10.0", "Installed 22.10.0", 1},
        {"Disk cleanup candidates", "Temporary files", "4.2 GB of temporary files in 3 folders.",
         "Remove temporary files", "3.9 GB removed; 2 files were in use", 2}};
}

}  // namespace

DayPlan classicDay(Day const& day) {
    DayPlan plan(day);
    plan.random.seed(std::random_device{}());
    plan.appStart = day.at(8, 55);
    plan.appStop = day.at(16, 45);
    // Morning: memory and disk fail. Afternoon, after the memory was reseated: only the disk.
    plan.scripts = {{day.at(9, 0), true, true, 112}, {day.at(14, 0), false, true, 112}};
    // Three alerts, the disk's followed up.
    plan.alertGroups = {
        {{AlertKind::Disk, day.at(9, 7), true, 112}, {AlertKind::Battery, day.at(9, 12), false, 0}},
        {{AlertKind::Driver, day.at(11, 30), false, 0}}};
    plan.repair = true;
    plan.findings = softwareFindings();
    return plan;
}

namespace {

// Uniform in [0, 1) from the generator's raw 64 bits.
double uniform(std::mt19937_64& random) {
    return static_cast<double>(random() >> 11) * (1.0 / 9007199254740992.0);
}
bool chance(std::mt19937_64& random, double p) { return uniform(random) < p; }
int between(std::mt19937_64& random, int low, int high) {  // low..high inclusive
    return low + static_cast<int>(random() % static_cast<std::uint64_t>(high - low + 1));
}
// Roughly normal noise of the given spread (a sum of uniforms).
double noise(std::mt19937_64& random, double spread) {
    return (uniform(random) + uniform(random) + uniform(random) - 1.5) * 2 * spread;
}

// How far the disk has gone, from 0 (a rare failure) to 1 (fails almost always): it wears
// over its last weeks, whatever the number of days recorded.
double diskWear(int daysLeft) { return std::exp(-daysLeft / 8.0); }

void planScripts(DayPlan& plan, int daysLeft) {
    Day const& day = plan.day;
    std::mt19937_64& random = plan.random;
    bool const last = daysLeft == 0;
    double const wear = diskWear(daysLeft);
    int const reallocated = 101 + static_cast<int>(std::lround(44 * wear));
    std::vector<long long> starts{day.at(9, between(random, 0, 45)),
                                  day.at(13, between(random, 0, 90))};
    if (!last && chance(random, 0.4)) starts.push_back(day.at(15, between(random, 30, 58)));
    for (std::size_t i = 0; i < starts.size(); ++i) {
        ScriptPlan script{starts[i], chance(random, 0.07), chance(random, 0.05 + 0.9 * wear),
                          reallocated};
        // The last day: it fails in the morning; the repair at noon fixes it.
        if (last) script.diskFails = i == 0;
        if (last && i > 0) script.memoryFails = false;
        plan.scripts.push_back(script);
    }
    plan.diskLogSectors = reallocated;
    plan.appStart = day.at(8, between(random, 40, 58));
    plan.appStop = std::max(plan.scripts.back().start + 470, day.at(16, between(random, 30, 70)));
    bool const lastPasses = !plan.scripts.back().diskFails && !plan.scripts.back().memoryFails;
    plan.lastResult = lastPasses                      ? "PASS"
                      : plan.scripts.back().diskFails ? "FAIL: Disk SMART check"
                                                      : "FAIL: Memory pattern test";
}

// The disk's warning after its first failure, the battery's now and then, the driver's daily.
void planAlerts(DayPlan& plan, double wear) {
    std::mt19937_64& random = plan.random;
    std::vector<AlertPlan> alerts;
    for (ScriptPlan const& script : plan.scripts) {
        if (!script.diskFails) continue;
        alerts.push_back({AlertKind::Disk, script.start + 60 * between(random, 6, 12),
                          chance(random, 0.15 + 0.6 * wear), script.reallocated});
        break;
    }
    if (chance(random, 0.35)) {
        alerts.push_back({AlertKind::Battery,
                          plan.day.at(between(random, 9, 15), 0) + 60 * between(random, 0, 59),
                          chance(random, 0.1), 0});
    }
    alerts.push_back({AlertKind::Driver,
                      plan.day.at(10, 0) + 60 * between(random, 0, 119) + between(random, 0, 59),
                      false, 0});
    std::sort(alerts.begin(), alerts.end(),
              [](AlertPlan const& a, AlertPlan const& b) { return a.time < b.time; });
    plan.alertGroups = {alerts};
}

}  // namespace

DayPlan storyDay(Day const& lastDay, int index, int count, std::uint64_t seed) {
    DayPlan plan(Day(lastDay.at(12, 0), count - 1 - index));
    std::seed_seq seq{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                      static_cast<std::uint32_t>(index)};
    plan.random.seed(seq);
    double const progress = count > 1 ? static_cast<double>(index) / (count - 1) : 1.0;
    bool const last = index == count - 1;
    planScripts(plan, count - 1 - index);
    planAlerts(plan, diskWear(count - 1 - index));
    std::mt19937_64& random = plan.random;
    // Dust and age: the temperature and the memory in use creep up; now and then a spike.
    plan.measurements = {5 * progress + noise(random, 0.8), 4 * progress + noise(random, 1.0),
                         chance(random, 0.12) ? between(random, 9, 16) : -1};
    plan.freeSpace = 40 - static_cast<int>(std::lround(22 * progress)) + between(random, -1, 1);
    plan.latency = between(random, 8, 40);
    plan.pendingUpdates = between(random, 0, 4);
    plan.batteryWear = std::to_string(22 + static_cast<int>(std::lround(8 * progress))) + "%";
    if (last) {
        plan.repair = true;
        plan.findings = softwareFindings();
        plan.findings.push_back(
            {"Disk health check", "Disk remapping sectors",
             "NVMe SSD 512 GB: " + std::to_string(plan.diskLogSectors) +
                 " reallocated sectors; its SMART check fails with DSK-0112.",
             "Update the NVMe SSD 512 GB firmware and remap its failing sectors",
             "Firmware 3B2QGXA7 installed; the SMART check passes", 1});
    }
    return plan;
}

}  // namespace datastore
