#pragma once

// datastore report in two steps: what was read from event.db (ReportData, gathered by the
// command) and the page made of it (reportPage). Reading, rendering and writing stay apart so
// that each can change without the others.
//
// Times on the charts are the machine's wall clock in milliseconds (Unix seconds plus the
// zone's offset at that instant): the page formats them as UTC, so that its axes show the same
// times as its tables whatever the zone of the browser that opens it.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Output.h"

namespace datastore {

struct TimeRange;

// One measurement span: where it is on the time axis and its values.
struct MeasurementPoint {
    long long x = 0;  // wall-clock milliseconds of the span's middle
    double minimum = 0;
    double average = 0;
    double maximum = 0;
};

// The finished runs of one test on one day.
struct DayRuns {
    long long passes = 0;
    long long failures = 0;
};

// Everything the report shows, read once.
struct ReportData {
    std::map<std::string, std::vector<MeasurementPoint>> measurements;  // by type, oldest first
    // Test name -> day (wall-clock milliseconds of its midnight) -> runs that passed or failed.
    std::map<std::string, std::map<long long, DayRuns>> testDays;
    std::map<std::string, long long> failuresByDevice;
    std::map<std::string, long long> failuresByTest;
    std::vector<Json> failures;  // test-run records, newest first
    // Alert type -> day -> alerts raised.
    std::map<std::string, std::map<long long, long long>> alertDays;
    std::vector<Json> alerts;  // alert records, newest first
    std::set<long> offsets;    // the zone offsets (seconds east of UTC) of the times shown
};

// Wall-clock milliseconds of `unixSeconds` in the tool's zone (UTC with --utc), and the
// offset used.
long long wallClockMs(long long unixSeconds, long* offset = nullptr);
long long dayOfMs(long long wallMs);  // the midnight that starts the day of `wallMs`

// One rule for every number the report shows: measurements and percentages with one decimal,
// counts whole. The text for tables and the value for charts.
std::string oneDecimal(double value);
double roundedToOneDecimal(double value);

// The whole page: header, sections, charts' data and Chart.js (`library`) in the template.
struct ReportPage {
    std::string html;
    std::size_t charts = 0;
};
ReportPage reportPage(ReportData const& data, std::string const& storePath, TimeRange const& range,
                      std::string const& library);

}  // namespace datastore
