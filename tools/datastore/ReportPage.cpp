// The report's page, made of what the command read: sections of charts and tables, the charts'
// data as JSON for the page's script (report.html), every store text escaped.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "Context.h"
#include "Html.h"
#include "Records.h"
#include "Report.h"

namespace datastore {

std::string oneDecimal(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", roundedToOneDecimal(value));
    return text;
}

double roundedToOneDecimal(double value) {
    double const rounded = std::round(value * 10) / 10;
    return rounded == 0 ? 0 : rounded;  // never "-0.0"
}

namespace {

long long const kDayMs = 86400000;
std::size_t const kRowsShown = 10;

using Rows = std::vector<std::vector<std::string>>;

std::string table(std::vector<std::string> const& headers, Rows const& rows) {
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

// A long table shows its first rows; the others are folded in a <details> element below.
std::string foldedTable(std::vector<std::string> const& headers, Rows const& rows) {
    if (rows.size() <= kRowsShown) return table(headers, rows);
    Rows const first(rows.begin(), rows.begin() + kRowsShown);
    Rows const rest(rows.begin() + kRowsShown, rows.end());
    return table(headers, first) + "<details><summary>The other " + std::to_string(rest.size()) +
           " rows</summary>\n" + table(headers, rest) + "</details>\n";
}

// Records of one kind under their table's headers, the cells as a table shows them.
std::string recordTable(std::vector<Field> const& fields, std::vector<Json> const& records) {
    std::vector<std::string> headers;
    for (Field const& field : fields) headers.push_back(field.header);
    Rows rows;
    for (Json const& record : records) {
        rows.emplace_back();
        for (Field const& field : fields)
            rows.back().push_back(record.contains(field.key) ? displayText(record[field.key]) : "");
    }
    return foldedTable(headers, rows);
}

struct Chart {
    std::string id;
    std::string title;
    Json config;
};

struct Charts {
    std::vector<Chart> list;
    std::string axisTitle;  // the time axes': "Time (UTC+01:00)"

    std::string add(std::string const& id, std::string const& title, Json config) {
        config["id"] = id;
        list.push_back({id, title, std::move(config)});
        return "<figure><figcaption>" + html(title) +
               "</figcaption><div class=\"chart\"><canvas id=\"" + id +
               "\"></canvas></div></figure>\n";
    }
};

// "UTC+01:00", "UTC+01:00/+02:00" when daylight saving changes within the report, "UTC".
std::string zoneText(std::set<long> const& offsets) {
    std::string zone = "UTC";
    for (long const offset : offsets) {
        if (offset == 0 && offsets.size() == 1) break;
        long const minutes = std::labs(offset) / 60;
        char text[48];
        std::snprintf(text, sizeof text, "%c%02ld:%02ld", offset < 0 ? '-' : '+', minutes / 60,
                      minutes % 60);
        zone += (zone.size() > 3 ? "/" : "") + std::string(text);
    }
    return zone;
}

// A chart over time: `datasets` of {x, y} points, x in wall-clock milliseconds from `first`
// to `last`. Per-day charts (`days`) leave half a day either side for the day's bar.
Json timeChart(char const* type, Json datasets, long long first, long long last, bool days,
               int decimals) {
    long long const margin = days ? kDayMs / 2 : 0;
    return Json{{"type", type},
                {"time", true},
                {"days", days},
                {"min", first - margin},
                {"max", last + margin},
                {"decimals", decimals},
                {"datasets", std::move(datasets)}};
}

Json point(long long x, Json y) { return Json{{"x", x}, {"y", std::move(y)}}; }

std::string measurementsSection(ReportData const& data, Charts& charts) {
    std::string body = "<section><h2>Measurements</h2>\n";
    if (data.measurements.empty())
        return body + "<p class=\"none\">No measurements in this period.</p>\n</section>\n";
    Rows rows;
    for (auto const& [type, points] : data.measurements) {
        Json average = Json::array(), maximum = Json::array(), minimum = Json::array();
        double low = points.front().minimum, high = points.front().maximum, sum = 0;
        for (MeasurementPoint const& p : points) {
            average.push_back(point(p.x, roundedToOneDecimal(p.average)));
            maximum.push_back(point(p.x, roundedToOneDecimal(p.maximum)));
            minimum.push_back(point(p.x, roundedToOneDecimal(p.minimum)));
            low = std::min(low, p.minimum);
            high = std::max(high, p.maximum);
            sum += p.average;
        }
        Json datasets = Json::array({Json{{"label", "average"}, {"data", average}},
                                     Json{{"label", "maximum"}, {"data", maximum}},
                                     Json{{"label", "minimum"}, {"data", minimum}}});
        body += charts.add(
            "measurement-" + std::to_string(charts.list.size()), type,
            timeChart("line", std::move(datasets), points.front().x, points.back().x, false, 1));
        rows.push_back({type, std::to_string(points.size()), oneDecimal(low),
                        oneDecimal(sum / static_cast<double>(points.size())), oneDecimal(high)});
    }
    return body + table({"Type", "Spans", "Minimum", "Mean of averages", "Maximum"}, rows) +
           "</section>\n";
}

// Every day from the first to the last one that has a run of any test.
std::vector<long long> testDays(ReportData const& data) {
    long long first = 0, last = 0;
    for (auto const& [test, days] : data.testDays) {
        if (first == 0 || days.begin()->first < first) first = days.begin()->first;
        last = std::max(last, days.rbegin()->first);
    }
    std::vector<long long> every;
    for (long long day = first; day <= last; day += kDayMs) every.push_back(day);
    return every;
}

// Failures per day (stacked by test, a bar on every day) and each test's pass rate on the
// days it ran, on one time axis; then each test's runs, failures and pass rate.
std::string trendCharts(ReportData const& data, Charts& charts) {
    std::vector<long long> const days = testDays(data);
    Json failed = Json::array(), rates = Json::array();
    Rows rows;
    for (auto const& [test, byDay] : data.testDays) {
        Json counts = Json::array(), rate = Json::array();
        long long passes = 0, failures = 0;
        for (long long const day : days) {
            auto const runs = byDay.find(day);
            counts.push_back(point(day, runs == byDay.end() ? 0 : runs->second.failures));
            if (runs == byDay.end()) continue;
            long long const n = runs->second.passes + runs->second.failures;
            rate.push_back(point(day, roundedToOneDecimal(100.0 * runs->second.passes / n)));
            passes += runs->second.passes;
            failures += runs->second.failures;
        }
        failed.push_back(Json{{"label", test}, {"data", counts}});
        rates.push_back(Json{{"label", test}, {"data", rate}});
        rows.push_back({test, std::to_string(passes + failures), std::to_string(failures),
                        oneDecimal(100.0 * passes / static_cast<double>(passes + failures))});
    }
    Json perDay = timeChart("bar", failed, days.front(), days.back(), true, 0);
    perDay["stacked"] = true;
    Json passRate = timeChart("line", rates, days.front(), days.back(), true, 1);
    passRate["unit"] = "%";
    passRate["yMax"] = 100;
    return charts.add("failures-per-day", "Failures per day", perDay) +
           charts.add("pass-rate", "Pass rate per test (% of runs that passed)", passRate) +
           table({"Test", "Runs", "Failures", "Pass rate (%)"}, rows);
}

// The counts of `groups`, most first, as a bar chart and a table.
std::string countsSection(Charts& charts, std::string const& id, std::string const& title,
                          std::string const& header,
                          std::map<std::string, long long> const& groups) {
    std::vector<std::pair<std::string, long long>> sorted(groups.begin(), groups.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](auto const& a, auto const& b) { return a.second > b.second; });
    Json labels = Json::array(), values = Json::array();
    Rows rows;
    for (auto const& [name, count] : sorted) {
        labels.push_back(name);
        values.push_back(count);
        rows.push_back({name, std::to_string(count)});
    }
    Json config{{"type", "bar"},
                {"decimals", 0},
                {"labels", labels},
                {"datasets", Json::array({Json{{"label", "Failures"}, {"data", values}}})}};
    return charts.add(id, title, config) + foldedTable({header, "Failures"}, rows);
}

std::string testsSection(ReportData const& data, Charts& charts) {
    std::string body = "<section><h2>Tests</h2>\n";
    if (data.testDays.empty())
        return body + "<p class=\"none\">No finished tests in this period.</p>\n</section>\n";
    body += trendCharts(data, charts);
    if (data.failures.empty())
        return body + "<p class=\"none\">No failed tests in this period.</p>\n</section>\n";
    body += countsSection(charts, "failures-device", "Failures per device", "Device",
                          data.failuresByDevice);
    body +=
        countsSection(charts, "failures-test", "Failures per test", "Test", data.failuresByTest);
    return body + "<h3>Failures, newest first</h3>\n" +
           recordTable(testRunFields(), data.failures) + "</section>\n";
}

// Alerts per day, stacked by type, a bar on every day from the first alert's to the last's.
std::string alertsSection(ReportData const& data, Charts& charts) {
    std::string body = "<section><h2>Alerts</h2>\n";
    if (data.alerts.empty())
        return body + "<p class=\"none\">No alerts in this period.</p>\n</section>\n";
    long long first = 0, last = 0;
    for (auto const& [type, days] : data.alertDays) {
        if (first == 0 || days.begin()->first < first) first = days.begin()->first;
        last = std::max(last, days.rbegin()->first);
    }
    Json datasets = Json::array();
    for (auto const& [type, days] : data.alertDays) {
        Json counts = Json::array();
        for (long long day = first; day <= last; day += kDayMs) {
            auto const found = days.find(day);
            counts.push_back(point(day, found == days.end() ? 0 : found->second));
        }
        datasets.push_back(Json{{"label", type}, {"data", counts}});
    }
    Json config = timeChart("bar", datasets, first, last, true, 0);
    config["stacked"] = true;
    return body + charts.add("alerts-per-day", "Alerts per day by type", config) +
           "<h3>Alerts, newest first</h3>\n" + recordTable(alertFields(), data.alerts) +
           "</section>\n";
}

}  // namespace

ReportPage reportPage(ReportData const& data, std::string const& storePath, TimeRange const& range,
                      std::string const& library) {
    Charts charts;
    std::string const zone = zoneText(data.offsets);
    // One after the other: the charts' data follows the page's order.
    std::string body = measurementsSection(data, charts);
    body += testsSection(data, charts);
    body += alertsSection(data, charts);
    Json configs = Json::array();
    for (Chart const& chart : charts.list) {
        Json config = chart.config;
        if (config.value("time", false)) config["axisTitle"] = "Time (" + zone + ")";
        configs.push_back(std::move(config));
    }
    std::string const period =
        (range.since > 0 ? "from " + localTime(range.since) : std::string("from the start")) +
        (range.until > 0 ? " to " + localTime(range.until) : std::string(" to now"));
    std::string const page =
        fillTemplate(reportTemplate(), {{"host", html(hostName())},
                                        {"store", html(storePath)},
                                        {"period", html(period)},
                                        {"zone", html(zone)},
                                        {"made", html(localTime(std::time(nullptr)))},
                                        {"version", DATASTORE_VERSION},
                                        {"body", body},
                                        {"data", scriptJson(configs)},
                                        {"chartjs", library}});
    return {page, charts.list.size()};
}

}  // namespace datastore
