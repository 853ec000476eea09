// datastore demo: records realistic diagnostics days of one machine into all four stores,
// then prints what the stores' queries read back and where the files are.
//
// Without --days or --seed it records one fixed day: each run a new one, the first the latest
// day that is over (today once it is past 17:00, else yesterday), every later one the day
// before the earliest application run already stored (or the day --day names).
//
// With --days N (and --seed S, default 1) it records N consecutive days ending on that day, the
// same records for the same command, a story worth exploring:
// - the "Disk SMART check" on "NVMe SSD 512 GB" fails with DSK-0112 a few runs early and most
//   runs late (it wears over its last weeks, so the last week of any story fails more often in
//   its second half), its reallocated sectors rising, until the last day's repair session
//   (which also updates the Wi-Fi driver and disables start-up programs) fixes it: the last
//   afternoon passes;
// - the memory test fails now and then (MEM-0031);
// - CPU temperature and memory usage drift up over the days, with a spike now and then;
// - two or three script runs a day at varying times; the disk's warning after its first
//   failure of a day, tracked more often as it gets worse; the battery's now and then; the
//   driver's every day; generic logs each day, the state items of the last day.
// Each day's choices and GUIDs come from the seed and the day's index alone (DemoDays.cpp).
//
// The machine's devices, tests and script keep their GUIDs from day to day, so days can be
// compared; alerts, logs, restore points and repairs get new ones. Each store is opened once
// for all the days; each test, and each store's other records of a day, go in as one
// StoreBatch, as a program that records a day should write them.

#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>
#include <libDataStore/StoreBatch.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Demo.h"

namespace datastore {

namespace {

using zrn::EventTimePoint;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint time) { return time.time_since_epoch().count(); }

char const kScriptGuid[] = "6f1d2a9e-3b5c-4d7e-8f90-a1b2c3d4e5f6";

Day dayToRecord(zrn::EventDataStore& store) {
    long long const earliest = secondsOf(store.firstApplicationRun());
    if (earliest > 0) return Day(earliest, 1);
    long long const now = static_cast<long long>(std::time(nullptr));
    Day const today(now, 0);
    return now >= today.at(17, 0) ? today : Day(now, 1);
}

std::string userName() {
    char const* user = std::getenv("USER");
    return user && *user ? user : "technician";
}

// ---- The day, read back

// The day named "YYYY-MM-DD" (local), so that what the demo records is the same on every run;
// none when no day is named. Read before any store is opened: a mistyped day creates nothing.
std::optional<Day> namedDay(std::string const& named) {
    if (named.empty()) return std::nullopt;
    std::tm noon{};
    std::istringstream in(named);
    in >> std::get_time(&noon, "%Y-%m-%d");
    if (in.fail() || in.peek() != std::char_traits<char>::eof())
        throw ToolError(USAGE, "--day: expected YYYY-MM-DD, got '" + named + "'");
    noon.tm_hour = 12;
    noon.tm_isdst = -1;
    return Day(static_cast<long long>(std::mktime(&noon)), 0);
}

// --days and --seed as given; empty when not.
struct DemoSettings {
    std::string day;
    std::string days;
    std::string seed;
};

unsigned long long numberOption(std::string const& text, char const* option, unsigned long long low,
                                unsigned long long high) {
    char* end = nullptr;
    errno = 0;
    unsigned long long const value = std::strtoull(text.c_str(), &end, 10);
    bool const digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || errno == ERANGE || value < low || value > high) {
        throw ToolError(USAGE, std::string(option) + ": '" + text + "' is not a number from " +
                                   std::to_string(low) + " to " + std::to_string(high));
    }
    return value;
}

struct Stores {
    std::string eventPath, generalPath, statePath, repairPath;
    std::unique_ptr<zrn::EventDataStore> events;
    std::unique_ptr<zrn::GeneralDataStore> general;
    std::unique_ptr<zrn::AppStateDataStore> state;
    std::unique_ptr<zrn::SoftwareDiagEventDataStore> repair;
};

Stores openStores(Options const& options) {
    Stores s;
    s.eventPath = recordingStorePath(options, Store::Event);
    s.generalPath = recordingStorePath(options, Store::General);
    s.statePath = recordingStorePath(options, Store::AppState);
    s.repairPath = recordingStorePath(options, Store::SoftwareDiag);
    s.events = openOrFail(s.eventPath, [&] {
        return std::make_unique<zrn::EventDataStore>(zrn::String(s.eventPath));
    });
    s.general = openOrFail(s.generalPath, [&] {
        return std::make_unique<zrn::GeneralDataStore>(zrn::String(s.generalPath));
    });
    if (!s.general->isInitialized()) storeFailure(s.generalPath, "cannot open");
    s.state = std::make_unique<zrn::AppStateDataStore>(zrn::String(s.statePath));
    zrn::String error;
    if (!s.state->checkValidity(error)) storeFailure(s.statePath, "cannot open");
    s.repair = openOrFail(s.repairPath, [&] {
        return std::make_unique<zrn::SoftwareDiagEventDataStore>(zrn::String(s.repairPath));
    });
    return s;
}

struct Recorded {
    Recorded(Day const& firstDay, Day const& lastDay) : first(firstDay), last(lastDay) {}
    Day first, last;
    EventDay events;  // every day's; appId is the last day's
    long long firstAppId = 0;
    LogKeys logs;
    std::optional<zrn::SessionLog> session;  // the last day's
};

template <typename Record>
auto recordOrFail(std::string const& path, Record record) {
    try {
        return record();
    } catch (zrn::Exception const& e) {
        storeFailure(path, "cannot record: " + e.getMessage().str());
    }
}

// One day into the event store; the generic logs, the state items and the repair session when
// the plan has them (the story's last day, or the single day).
void recordDay(Stores& stores, DayPlan& plan, Recorded& recorded) {
    EventDay const day = recordOrFail(
        stores.eventPath, [&] { return recordEvents(*stores.events, plan, userName()); });
    if (recorded.firstAppId == 0) recorded.firstAppId = day.appId;
    recorded.events.appId = day.appId;
    recorded.events.scriptIds.insert(recorded.events.scriptIds.end(), day.scriptIds.begin(),
                                     day.scriptIds.end());
    recorded.events.alertGuids.insert(recorded.events.alertGuids.end(), day.alertGuids.begin(),
                                      day.alertGuids.end());
    if (plan.repair) {
        // The general store stamps a log with the moment it is written, not with the story's
        // day: a log per earlier day would pile up at this moment on every timeline, so only
        // the last day (the machine's state now) writes its logs.
        LogKeys const logs = recordGeneral(*stores.general, stores.generalPath, plan);
        recorded.logs.insert(recorded.logs.end(), logs.begin(), logs.end());
        recordState(*stores.state, stores.statePath, plan);
        recorded.session.emplace(recordOrFail(stores.repairPath, [&] {
            return recordRepair(*stores.repair, stores.repairPath, plan);
        }));
    }
}

// The story's days, a month of them to a batch of the event and the general store (each test's
// and each day's own batches become savepoints in it): a few commits instead of two a day.
void recordStory(Stores& stores, Day const& last, int count, std::uint64_t seed,
                 Recorded& recorded) {
    int const daysPerBatch = 31;
    for (int first = 0; first < count; first += daysPerBatch) {
        recordOrFail(stores.eventPath, [&] {
            zrn::StoreBatch events(*stores.events);
            zrn::StoreBatch general(*stores.general);
            for (int index = first; index < std::min(count, first + daysPerBatch); ++index) {
                DayPlan plan = storyDay(last, index, count, seed);
                recordDay(stores, plan, recorded);
            }
            general.commit();
            events.commit();
        });
    }
}

// The event store's part of what was read back.
void printEventReadBack(zrn::EventDataStore& events, Recorded const& recorded) {
    EventTimePoint const from = at(recorded.first.at(0, 0));
    EventTimePoint const to = at(recorded.last.at(23, 59, 59));
    std::size_t tests = 0, failed = 0, eventCount = 0, tips = 0;
    for (long long scriptId : recorded.events.scriptIds) {
        auto const runs = events.testRunResultLogs(scriptId, at(0), at(0), 0);
        tests += runs.size();
        for (auto const& run : runs) failed += run.result() == "FAIL";
        eventCount += events.scriptRunEventResultLogs(scriptId, at(0), at(0), 0).size();
        tips += events.scriptRunTipResultLogs(scriptId, at(0), at(0), 0).size();
    }
    std::size_t tracked = 0;
    for (auto const& guid : recorded.events.alertGuids)
        tracked += events.alertTracked(zrn::String(guid));
    std::size_t const scripts =
        events.scriptResultLogs(from, to, boost::none, boost::none, zrn::String(kScriptGuid), 0)
            .size();
    std::cout << "  event.db              " << scripts << " script runs, " << tests
              << " test runs (" << failed << " failed), " << eventCount << " events, " << tips
              << " tips,\n"
              << "                        " << events.alertResultLogs(from, to, "", false, 0).size()
              << " alerts (" << tracked << " tracked), "
              << events.measurementLogs(from, to, "", 0).size() << " measurements, "
              << events.profilerDiffLogs(from, to, "", 0).size() << " profiler diffs, "
              << events.scriptletResultLogs(from, to, "", "", "", 0).size()
              << " scriptlet results\n";
}

std::string datesOf(Recorded const& recorded) {
    std::string const first = recorded.first.date(), last = recorded.last.date();
    return first == last ? last : first + " to " + last;
}

// The other stores' part of what was read back, then the note on their times.
void printOtherReadBack(Stores const& stores, Recorded const& recorded) {
    std::size_t generalCount = 0, keyValues = 0;
    for (auto const& [type, guid] : recorded.logs) {
        zrn::GenericLogList const found =
            stores.general->getLogs(zrn::GenericLogFilter(zrn::String(type), zrn::String(guid)));
        generalCount += found.size();
        for (unsigned i = 0; i < found.size(); ++i) keyValues += found.get(i).keyValues().size();
    }
    zrn::SoftwareDiagEventDataStore& repair = *stores.repair;
    zrn::AppStateDataStore& state = *stores.state;
    zrn::SessionLog const& session = *recorded.session;
    zrn::RunTransactionLog const run = repair.getRunTransactionBySession(session);
    std::cout << "  genstore.db           " << generalCount << " generic logs with " << keyValues
              << " key/values\n"
              << "  appstate.db           " << state.count("") << " items: " << state.count("ui")
              << " in \"ui\", " << state.count("scheduler") << " in \"scheduler\"\n"
              << "  softwarediagevent.db  "
              << repair.getSoftwareDiagnosticsByRunTransaction(run, false, 0).size()
              << " diagnostics, " << repair.getIssuesBySession(session, false, 0).size()
              << " issues, " << repair.getFixActionsBySession(session, false, 0).size()
              << " fix actions, restore point "
              << repair.getFixTransactionBySession(session).restorePointUuid()
              << "\n"
              // The general and repair stores stamp what they record with the moment of
              // recording: their API takes no time, so their records cannot join the day.
              << "Note: genstore.db and softwarediagevent.db take no time for what they record "
                 "(they stamp it with the moment of recording):\n"
              << "  their generic logs and repair session carry the time of this run, not "
              << datesOf(recorded) << ".\n"
              << "Files:\n";
}

void printRecorded(Recorded const& recorded, int count, std::optional<std::uint64_t> seed) {
    if (!seed) {
        std::cout << "Recorded a diagnostics day, " << recorded.last.date() << " (application run "
                  << recorded.events.appId;
    } else {
        std::cout << "Recorded " << count << " diagnostics day" << (count == 1 ? "" : "s") << ", "
                  << datesOf(recorded) << " (seed " << *seed << "; application run"
                  << (count == 1 ? " " : "s " + std::to_string(recorded.firstAppId) + " to ")
                  << recorded.events.appId;
    }
    std::cout << ", repair session " << recorded.session->sessionId() << "). Read back:\n";
}

void demo(Options const& options, DemoSettings const& settings) {
    std::optional<Day> const named = namedDay(settings.day);
    int const count = settings.days.empty()
                          ? 1
                          : static_cast<int>(numberOption(settings.days, "--days", 1, 3660));
    std::optional<std::uint64_t> seed;
    if (!settings.seed.empty())
        seed = numberOption(settings.seed, "--seed", 0, UINT64_MAX);
    else if (!settings.days.empty())
        seed = 1;
    Stores stores = openStores(options);
    Day const last = named ? *named : dayToRecord(*stores.events);
    Recorded recorded(Day(last.at(12, 0), count - 1), last);
    if (seed) {
        recordStory(stores, last, count, *seed, recorded);
    } else {
        DayPlan plan = classicDay(last);
        recordDay(stores, plan, recorded);
    }

    // Everything below is read back through the stores' queries.
    printRecorded(recorded, count, seed);
    printEventReadBack(*stores.events, recorded);
    printOtherReadBack(stores, recorded);
    for (auto const* path :
         {&stores.eventPath, &stores.generalPath, &stores.statePath, &stores.repairPath})
        std::cout << "  " << *path << "\n";
}

}  // namespace

void addDemoCommand(CLI::App& app, Options& options) {
    CLI::App* c = app.add_subcommand(
        "demo",
        "Record realistic diagnostics days into all four stores (a new, earlier day on each "
        "run; with --days a reproducible story of N days) and print what was read back");
    addDirOption(*c, options);
    static DemoSettings settings;
    c->add_option("--day", settings.day,
                  "Record this local day (YYYY-MM-DD), the same records on every run, rather "
                  "than a new day before the stores' earliest; with --days, the last day");
    c->add_option("--days", settings.days,
                  "Record N consecutive days (1 to 3660) ending on that day, the same records "
                  "for the same seed: the Disk SMART check on NVMe SSD 512 GB fails with "
                  "DSK-0112 more and more often until the last day's repair session fixes it; "
                  "the memory test fails now and then (MEM-0031); measurements drift and spike; "
                  "alerts come at varying times, some tracked")
        ->type_name("N");
    c->add_option("--seed", settings.seed,
                  "Draw the days from this seed (default 1): the same seed, the same days")
        ->type_name("S");
    c->footer(
        "Example: datastore demo --dir /tmp/stores && datastore alerts --dir /tmp/stores\n"
        "         datastore demo --days 30 --dir /tmp/month && datastore summary --dir "
        "/tmp/month");
    c->callback([&options] { demo(options, settings); });
}

}  // namespace datastore
