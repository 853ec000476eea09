// datastore report: one self-contained HTML file to attach to a ticket: measurements over
// time, failures per day and the pass rate of each test over time, failures per device and
// per test, alerts per day by type, and the tables behind them. Chart.js (Debian's
// libjs-chart.js) is inlined; the page loads nothing. This file reads the store and writes
// the file; ReportPage.cpp makes the page.

#include <libDataStore/EventDataStore.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>

#include "AtomicFile.h"
#include "Commands.h"
#include "Records.h"
#include "Report.h"

#ifndef DATASTORE_CHARTJS
#define DATASTORE_CHARTJS "/usr/share/javascript/chart.js/chart.min.js"
#endif

namespace datastore {

long long wallClockMs(long long unixSeconds, long* offset) {
    long zone = 0;
    if (!outputStyle().utc) {
        std::time_t const t = static_cast<std::time_t>(unixSeconds);
        std::tm parts{};
        localtime_r(&t, &parts);
        zone = parts.tm_gmtoff;
    }
    if (offset) *offset = zone;
    return (unixSeconds + zone) * 1000;
}

long long dayOfMs(long long wallMs) {
    long long const day = 86400000;
    return (wallMs >= 0 ? wallMs / day : (wallMs - day + 1) / day) * day;
}

namespace {

using zrn::EventTimePoint;

struct ReportArgs {
    std::string out;
};

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }
long long secondsOf(EventTimePoint time) { return time.time_since_epoch().count(); }

std::string chartLibrary() {
    char const* chosen = std::getenv("DATASTORE_CHARTJS");
    std::string const path = chosen && *chosen ? chosen : DATASTORE_CHARTJS;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw ToolError(STORE, path +
                                   ": cannot read Chart.js (install libjs-chart.js, or set "
                                   "DATASTORE_CHARTJS)");
    std::string code((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The library is inlined into a <script> element, which its text must not end.
    for (std::size_t at = 0; (at = code.find("</script", at)) != std::string::npos; at += 2)
        code.replace(at, 2, "<\\/");
    return code;
}

// Where `unixSeconds` is on the charts' axes, noting its zone's offset.
long long placed(ReportData& data, long long unixSeconds) {
    long offset = 0;
    long long const x = wallClockMs(unixSeconds, &offset);
    data.offsets.insert(offset);
    return x;
}

void gatherMeasurements(zrn::EventDataStore& store, EventTimePoint from, EventTimePoint to,
                        ReportData& data) {
    store.measurementLogs(from, to, "", 0, [&](zrn::MeasurementLog const& log) {
        data.measurements[log.type().str()].push_back({placed(data, secondsOf(log.spanMiddle())),
                                                       log.minimum(), log.average(),
                                                       log.maximum()});
    });
}

// Every finished test run (passed or failed) by day, and the failures with their groups.
// Test runs are read per script run, so that passes count as well as failures; a script run
// started up to a day before the range may hold test runs within it.
void gatherTests(zrn::EventDataStore& store, TimeRange const& range, ReportData& data) {
    auto bound = [](long long seconds) {
        return seconds > 0 ? boost::optional<EventTimePoint>(at(seconds))
                           : boost::optional<EventTimePoint>();
    };
    long long const earlier = range.since > 86400 ? range.since - 86400 : 0;
    std::vector<std::pair<long long, Json>> failures;
    for (auto const& script : store.scriptResultLogs(bound(earlier), bound(range.until),
                                                     boost::none, boost::none, boost::none, 0)) {
        store.testRunResultLogs(script.scriptId(), at(range.since), at(range.until), 0,
                                [&](zrn::TestRunResultLog const& log) {
                                    std::string const result = log.result().str();
                                    if (result != "PASS" && result != "FAIL") return;
                                    long long const start = secondsOf(log.timeStamp());
                                    long long const day = dayOfMs(placed(data, start));
                                    DayRuns& runs = data.testDays[log.testName().str()][day];
                                    if (result == "PASS") return void(++runs.passes);
                                    ++runs.failures;
                                    ++data.failuresByDevice[log.deviceName().str()];
                                    ++data.failuresByTest[log.testName().str()];
                                    failures.emplace_back(start, testRunRecord(false, log));
                                });
    }
    // Newest first: the rows a folded table shows are the latest.
    std::stable_sort(failures.begin(), failures.end(),
                     [](auto const& a, auto const& b) { return a.first > b.first; });
    for (auto& failure : failures) data.failures.push_back(std::move(failure.second));
}

void gatherAlerts(zrn::EventDataStore& store, EventTimePoint from, EventTimePoint to,
                  ReportData& data) {
    for (auto const& log : store.alertResultLogs(from, to, "", false, 0)) {
        long long const day = dayOfMs(placed(data, secondsOf(log.timeStamp())));
        ++data.alertDays[log.type().str()][day];
        data.alerts.push_back(alertRecord(false, log, store.alertTracked(log.guid())));
    }
}

void writeReport(std::string const& out, std::string const& text) {
    // A reader never sees half a report.
    writeAtomically(out, [&](std::string const& partial) {
        std::ofstream file(partial, std::ios::binary | std::ios::trunc);
        file << text;
        file.flush();
        if (!file) throw ToolError(STORE, out + ": cannot write: " + std::strerror(errno));
    });
}

void report(Options const& options, ReportArgs const& args) {
    TimeRange const range = timeRange(options);
    std::string const path = existingStorePath(options, Store::Event);
    auto const store = openOrFail(path, [&] {
        return std::make_unique<zrn::EventDataStore>(zrn::String(path), readOnly(options));
    });
    EventTimePoint const from = at(range.since), to = at(range.until);
    // A missing Chart.js fails before the store is read.
    std::string const library = chartLibrary();
    ReportData data;
    try {
        gatherMeasurements(*store, from, to, data);
        gatherTests(*store, range, data);
        gatherAlerts(*store, from, to, data);
    } catch (zrn::Exception const& e) {
        libraryFailure(path, "cannot read: ", e);
    }
    ReportPage const page = reportPage(data, path, range, library);
    writeReport(args.out, page.html);
    RecordPrinter printer({{"file", "FILE", 0, true}, {"charts", "CHARTS"}, {"bytes", "BYTES"}},
                          options.json);
    printer.add(Json{{"file", args.out}, {"charts", page.charts}, {"bytes", page.html.size()}});
    printer.print(std::cout);
}

}  // namespace

void addReportCommand(CLI::App& app, Options& options) {
    static ReportArgs args;
    CLI::App* c = addInspection(
        app, options, "report",
        "Writes one self-contained HTML report of event.db (Chart.js inlined, nothing loaded "
        "when opened): measurements over time, failures per day and each test's pass rate "
        "over time, failures per device and per test, alerts per day by type, with their "
        "tables (long ones folded after their first 10 rows)",
        "datastore report --out /tmp/report.html --since -7d", true, false);
    c->add_option("--out", args.out, "The HTML file to write (replaced when it exists)")
        ->required();
    c->footer(
        "Example: datastore report --out /tmp/report.html --since -7d\n"
        "Times are the machine's local time (UTC with --utc) on the charts as in the tables. "
        "Measurements and percentages are shown with one decimal, counts whole. A pass rate "
        "counts the runs that passed or failed.\n"
        "Chart.js is read from " DATASTORE_CHARTJS
        " (Debian's libjs-chart.js) or $DATASTORE_CHARTJS.\n"
        "Exit codes: 0 success, 1 usage error, 2 store error, Chart.js missing or a file that "
        "cannot be written.");
    c->callback([&options] { report(options, args); });
}

}  // namespace datastore
