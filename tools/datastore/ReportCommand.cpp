// datastore report: one self-contained HTML file to attach to a ticket: charts of the
// measurements over time, test failures per device and per test, alerts per day by type, and
// the tables behind them. Chart.js (Debian's libjs-chart.js) is inlined; the page loads nothing.

#include <libDataStore/EventDataStore.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "AtomicFile.h"
#include "Commands.h"
#include "Html.h"
#include "Output.h"
#include "Records.h"

#ifndef DATASTORE_CHARTJS
#define DATASTORE_CHARTJS "/usr/share/javascript/chart.js/chart.min.js"
#endif

namespace datastore {

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

// A table of `rows` under `headers`, every cell escaped.
std::string table(std::vector<std::string> const& headers,
                  std::vector<std::vector<std::string>> const& rows) {
    std::string out = "<table><thead><tr>";
    for (auto const& header : headers) out += "<th>" + html(header) + "</th>";
    out += "</tr></thead><tbody>";
    for (auto const& row : rows) {
        out += "<tr>";
        for (auto const& cell : row) out += "<td>" + html(cell) + "</td>";
        out += "</tr>";
    }
    return out + "</tbody></table>\n";
}

// Records of one kind under their table's headers, the cells as a table shows them.
std::string recordTable(std::vector<Field> const& fields, std::vector<Json> const& records) {
    std::vector<std::string> headers;
    for (Field const& field : fields) headers.push_back(field.header);
    std::vector<std::vector<std::string>> rows;
    for (Json const& record : records) {
        rows.emplace_back();
        for (Field const& field : fields)
            rows.back().push_back(record.contains(field.key) ? displayText(record[field.key]) : "");
    }
    return table(headers, rows);
}

struct Chart {
    std::string id;
    std::string title;
    Json config;
};

std::string canvas(Chart const& chart) {
    return "<figure><figcaption>" + html(chart.title) + "</figcaption><canvas id=\"" + chart.id +
           "\" width=\"900\" height=\"300\"></canvas></figure>\n";
}

// The counts of `groups`, most first, as a bar chart and a table.
void countsSection(std::string& body, std::vector<Chart>& charts, std::string const& id,
                   std::string const& title, std::string const& header,
                   std::map<std::string, long long> const& groups) {
    std::vector<std::pair<std::string, long long>> sorted(groups.begin(), groups.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](auto const& a, auto const& b) { return a.second > b.second; });
    Json labels = Json::array(), values = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (auto const& [name, count] : sorted) {
        labels.push_back(name);
        values.push_back(count);
        rows.push_back({name, std::to_string(count)});
    }
    Chart chart{id, title,
                Json{{"type", "bar"},
                     {"labels", labels},
                     {"datasets", Json::array({Json{{"label", "Failures"}, {"data", values}}})}}};
    body += canvas(chart) + table({header, "Failures"}, rows);
    charts.push_back(std::move(chart));
}

// Measurements: one chart per type, its average with the span's extremes.
std::string measurementsSection(zrn::EventDataStore& store, EventTimePoint from, EventTimePoint to,
                                std::vector<Chart>& charts) {
    std::string body;
    std::map<std::string, std::vector<zrn::MeasurementLog>> byType;
    for (auto const& log : store.measurementLogs(from, to, "", 0))
        byType[log.type().str()].push_back(log);
    body += "<section><h2>Measurements</h2>\n";
    if (byType.empty()) body += "<p class=\"none\">No measurements in this period.</p>\n";
    std::vector<std::vector<std::string>> measurementRows;
    for (auto const& [type, logs] : byType) {
        Json labels = Json::array(), average = Json::array(), maximum = Json::array(),
             minimum = Json::array();
        double low = logs.front().minimum(), high = logs.front().maximum(), sum = 0;
        for (auto const& log : logs) {
            labels.push_back(localTime(secondsOf(log.spanMiddle())));
            average.push_back(log.average());
            maximum.push_back(log.maximum());
            minimum.push_back(log.minimum());
            low = std::min(low, log.minimum());
            high = std::max(high, log.maximum());
            sum += log.average();
        }
        Chart chart{
            "measurement-" + std::to_string(charts.size()), type,
            Json{{"type", "line"},
                 {"labels", labels},
                 {"datasets", Json::array({Json{{"label", "average"}, {"data", average}},
                                           Json{{"label", "maximum"}, {"data", maximum}},
                                           Json{{"label", "minimum"}, {"data", minimum}}})}}};
        body += canvas(chart);
        charts.push_back(std::move(chart));
        std::ostringstream mean;
        mean.precision(4);
        mean << sum / static_cast<double>(logs.size());
        std::ostringstream lowText, highText;
        lowText << low;
        highText << high;
        measurementRows.push_back(
            {type, std::to_string(logs.size()), lowText.str(), mean.str(), highText.str()});
    }
    if (!byType.empty())
        body += table({"Type", "Spans", "Minimum", "Mean of averages", "Maximum"}, measurementRows);
    body += "</section>\n";
    return body;
}

// Failures per device and per test.
std::string failuresSection(zrn::EventDataStore& store, EventTimePoint from, EventTimePoint to,
                            std::vector<Chart>& charts) {
    std::string body;
    std::map<std::string, long long> byDevice, byTest;
    std::vector<Json> failRows;
    for (auto const& log : store.getAllFails(from, to)) {
        ++byDevice[log.deviceName().str()];
        ++byTest[log.testName().str()];
        failRows.push_back(testRunRecord(false, log));
    }
    body += "<section><h2>Test failures</h2>\n";
    if (failRows.empty()) {
        body += "<p class=\"none\">No failed tests in this period.</p>\n";
    } else {
        countsSection(body, charts, "failures-device", "Failures per device", "Device", byDevice);
        countsSection(body, charts, "failures-test", "Failures per test", "Test", byTest);
        body += "<h3>Every failure</h3>\n" + recordTable(testRunFields(), failRows);
    }
    body += "</section>\n";
    return body;
}

// Alerts per day by type (stacked).
std::string alertsSection(zrn::EventDataStore& store, EventTimePoint from, EventTimePoint to,
                          std::vector<Chart>& charts) {
    std::string body;
    std::map<std::string, std::map<std::string, long long>> perDay;  // day -> type -> n
    std::set<std::string> types;
    std::vector<Json> alertRows;
    for (auto const& log : store.alertResultLogs(from, to, "", false, 0)) {
        std::string const time = localTime(secondsOf(log.timeStamp()));
        ++perDay[time.substr(0, 10)][log.type().str()];
        types.insert(log.type().str());
        alertRows.push_back(alertRecord(false, log, store.alertTracked(log.guid())));
    }
    body += "<section><h2>Alerts</h2>\n";
    if (alertRows.empty()) {
        body += "<p class=\"none\">No alerts in this period.</p>\n";
    } else {
        Json labels = Json::array(), datasets = Json::array();
        for (auto const& day : perDay) labels.push_back(day.first);
        for (auto const& type : types) {
            Json counts = Json::array();
            for (auto const& day : perDay) {
                auto const found = day.second.find(type);
                counts.push_back(found == day.second.end() ? 0 : found->second);
            }
            datasets.push_back(Json{{"label", type}, {"data", counts}});
        }
        Chart chart{
            "alerts-per-day", "Alerts per day by type",
            Json{{"type", "bar"}, {"stacked", true}, {"labels", labels}, {"datasets", datasets}}};
        body += canvas(chart) + recordTable(alertFields(), alertRows);
        charts.push_back(std::move(chart));
    }
    body += "</section>\n";
    return body;
}

// The whole page: the template with the host, the period, `body`, the charts' data and
// Chart.js filled in. Every value but the library and the data is escaped.
std::string page(std::string const& path, TimeRange const& range, std::string const& body,
                 std::vector<Chart> const& charts, std::string const& library) {
    Json configs = Json::array();
    for (auto const& chart : charts) {
        Json config = chart.config;
        config["id"] = chart.id;
        configs.push_back(config);
    }
    std::string const period =
        (range.since > 0 ? "from " + localTime(range.since) : std::string("from the start")) +
        (range.until > 0 ? " to " + localTime(range.until) : std::string(" to now"));
    return fillTemplate(reportTemplate(), {{"host", html(hostName())},
                                           {"store", html(path)},
                                           {"period", html(period)},
                                           {"made", html(localTime(std::time(nullptr)))},
                                           {"version", DATASTORE_VERSION},
                                           {"body", body},
                                           {"data", scriptJson(configs)},
                                           {"chartjs", library}});
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
    std::vector<Chart> charts;
    std::string body;
    try {
        body += measurementsSection(*store, from, to, charts);
        body += failuresSection(*store, from, to, charts);
        body += alertsSection(*store, from, to, charts);
    } catch (zrn::Exception const& e) {
        libraryFailure(path, "cannot read: ", e);
    }
    std::string const text = page(path, range, body, charts, library);
    // A reader never sees half a report.
    writeAtomically(args.out, [&](std::string const& partial) {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        out << text;
        out.flush();
        if (!out) throw ToolError(STORE, args.out + ": cannot write: " + std::strerror(errno));
    });
    RecordPrinter printer({{"file", "FILE", 0, true}, {"charts", "CHARTS"}, {"bytes", "BYTES"}},
                          options.json);
    printer.add(Json{{"file", args.out}, {"charts", charts.size()}, {"bytes", text.size()}});
    printer.print(std::cout);
}

}  // namespace

void addReportCommand(CLI::App& app, Options& options) {
    static ReportArgs args;
    CLI::App* c = addInspection(
        app, options, "report",
        "Writes one self-contained HTML report of event.db (Chart.js inlined, nothing loaded "
        "when opened): measurements over time, test failures per device and per test, alerts "
        "per day by type, with their tables",
        "datastore report --out /tmp/report.html --since -7d", true, false);
    c->add_option("--out", args.out, "The HTML file to write (replaced when it exists)")
        ->required();
    c->footer(
        "Example: datastore report --out /tmp/report.html --since -7d\n"
        "Chart.js is read from " DATASTORE_CHARTJS
        " (Debian's libjs-chart.js) or $DATASTORE_CHARTJS.\n"
        "Exit codes: 0 success, 1 usage error, 2 store error, Chart.js missing or a file that "
        "cannot be written.");
    c->callback([&options] { report(options, args); });
}

}  // namespace datastore
