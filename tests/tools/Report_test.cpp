// datastore report, run as a separate process: the page pinned by a golden file, then drawn
// by headless Chromium (DOM dump, network log, screenshot) on a store of several days.

#include <gtest/gtest.h>
#include <libDataStore/EventDataStore.h>

#include <ctime>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "Golden.h"
#include "TestSupport.h"
#include "ToolRun.h"

namespace zrn {
namespace {

using Json = nlohmann::json;
using test::quoted;
using test::ToolRun;

class ReportTest : public test::ToolTest {
protected:
    // The demo's fixed day, 2026-11-23, or its story of `days` days ending on it.
    void demoDays(int days = 0) const {
        std::vector<std::string> args{"--day", "2026-11-23"};
        if (days > 0) args.insert(args.end(), {"--days", std::to_string(days), "--seed", "1"});
        demo(args);
    }

    // Headless Chromium on `page` in the zone `zone` with `args`; its standard output.
    std::string chromium(std::string const& page, std::string const& args,
                         std::string const& zone = "UTC") const {
        std::string const profile = m_dir.file("profile");
        std::filesystem::remove_all(profile);
        std::filesystem::create_directories(profile);
        std::string const out = m_dir.file("chromium.out");
        std::string const command =
            "cd " + quoted(m_dir.path()) + " && TZ=" + zone +
            " timeout 120 chromium --headless --no-sandbox --disable-gpu --disable-quic "
            "--no-first-run --disable-background-networking --disable-component-update "
            "--disable-sync --user-data-dir=" +
            quoted(profile) + " --window-size=1200,5000 " + args + " " + quoted("file://" + page) +
            " >" + quoted(out) + " 2>/dev/null";
        EXPECT_EQ(test::runProcess({"/bin/sh", "-c", command}), 0) << command;
        return test::readFile(out);
    }

    // The URLs of the requests the page at `page` made (the browser's own, such as update
    // checks, have no origin and are left out), read from Chromium's network log.
    std::vector<std::string> pageRequests(std::string const& page) const {
        std::string const log = m_dir.file("net.json");
        chromium(page, "--dump-dom --log-net-log=" + quoted(log));
        Json const net = Json::parse(test::readFile(log));
        int const start = net["constants"]["logEventTypes"]["URL_REQUEST_START_JOB"];
        std::vector<std::string> urls;
        for (Json const& event : net["events"]) {
            if (event["type"] != start) continue;
            Json const& params = event["params"];
            if (params.contains("url") && params.value("initiator", "") != "not an origin")
                urls.push_back(params.value("url", ""));
        }
        return urls;
    }
};

std::size_t occurrences(std::string const& text, std::string const& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// Each canvas's id with its data-<name> attribute as the page's script wrote it.
std::map<std::string, std::string> canvasAttributes(std::string const& dom,
                                                    std::string const& name) {
    std::map<std::string, std::string> found;
    std::regex const canvas("<canvas id=\"([^\"]+)\"[^>]*>");
    std::regex const attribute(" data-" + name + "=\"([^\"]*)\"");
    for (std::sregex_iterator it(dom.begin(), dom.end(), canvas), end; it != end; ++it) {
        std::smatch value;
        std::string const tag = it->str();
        if (std::regex_search(tag, value, attribute)) found[(*it)[1]] = value[1];
    }
    return found;
}

// The page of a fixed day, whole but for Chart.js and what differs from run to run (host,
// folder, time made, version, the alerts' GUIDs): every text, table cell, rounded number and
// point of the charts' data fails here when it changes.
TEST_F(ReportTest, PageOfAFixedDayIsPinnedWhole) {
    m_env = "TZ=UTC USER=technician";
    demoDays();
    std::string const page = m_dir.file("report.html");
    ToolRun const run = tool({"report", "--out", page});
    ASSERT_EQ(run.code, 0) << run.err;
    std::string html = test::readFile(page);
    std::size_t const library = html.find("/*!\n * Chart.js v3");
    ASSERT_NE(library, std::string::npos);
    html.replace(library, html.find("\n</script>", library) - library, "<Chart.js>");
    for (std::size_t at; (at = html.find(m_stores)) != std::string::npos;)
        html.replace(at, m_stores.size(), "<stores>");
    html = std::regex_replace(html, std::regex("report: [^<]+<"), "report: <host><");
    html = std::regex_replace(html, std::regex("made [-0-9]+ [:0-9]+ by datastore [0-9.]*[0-9]"),
                              "made <now> by datastore <version>");
    html = std::regex_replace(
        html, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}"),
        "<guid>");
    test::expectGolden("tool/report.html", html);
}

// Thirty days made in one zone, drawn in another: time axes with date ticks on the machine's
// Mondays, a point per day in the trends, long tables folded after their first 10 rows.
TEST_F(ReportTest, ShowsTrendsOnTimeAxesInARealBrowser) {
    if (test::runProcess({"/bin/sh", "-c", "command -v chromium >/dev/null"}) != 0)
        GTEST_SKIP() << "chromium is not installed (scripts/setup.sh installs it)";
    m_env = "TZ=Asia/Kolkata";
    demoDays(30);
    {
        // Store text that would be markup if it were not escaped, on the last day.
        EventDataStore events(m_stores + "/event.db");
        EventDataStore::AlertData alert;
        alert.guid = "hostile";
        alert.type = "Hardware";
        alert.title = "<script>document.title='owned'</script><b id=\"injected\">x</b>";
        alert.message = "Tom & \"Jerry\" </table>";
        alert.time = EventTimePoint(EventTimePoint::duration(1795415400));  // 23 Nov, 12:00
        ASSERT_TRUE(events.logAlert(alert));
    }
    std::string const page = m_dir.file("report.html");
    ToolRun const run = tool({"report", "--out", page, "-o", "ndjson"});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.records().at(0)["charts"], 7);

    std::string const dom = chromium(page, "--dump-dom", "America/New_York");
    EXPECT_NE(dom.find("data-charts-drawn=\"7\""), std::string::npos) << dom.substr(0, 2000);
    std::string const mondays = "26 Oct 2026|2 Nov|9 Nov|16 Nov|23 Nov";
    std::map<std::string, std::string> const ticks{{"measurement-0", mondays},
                                                   {"measurement-1", mondays},
                                                   {"failures-per-day", mondays},
                                                   {"pass-rate", mondays},
                                                   {"alerts-per-day", mondays}};
    EXPECT_EQ(canvasAttributes(dom, "x-ticks"), ticks);
    std::map<std::string, std::string> const points{
        {"measurement-0", "240,240,240"}, {"measurement-1", "240,240,240"},
        {"failures-per-day", "30,30,30"}, {"pass-rate", "30,30,30"},
        {"failures-device", "2"},         {"failures-test", "2"},
        {"alerts-per-day", "30,30"}};
    EXPECT_EQ(canvasAttributes(dom, "points"), points);
    // Every failure and every alert the listings show: ten rows of each, the rest folded.
    for (char const* listing : {"failures", "alerts"}) {
        std::size_t const rows = tool({listing, "-o", "ndjson"}).records().size();
        ASSERT_GT(rows, 10u) << listing;
        EXPECT_NE(dom.find("<details><summary>The other " + std::to_string(rows - 10) +
                           " rows</summary>"),
                  std::string::npos)
            << listing;
    }
    EXPECT_EQ(occurrences(dom, "<details>"), 2u);
    // Shown as text, never run or parsed as markup.
    EXPECT_EQ(dom.find("<b id=\"injected\">"), std::string::npos);
    EXPECT_NE(dom.find("&lt;script&gt;document.title="), std::string::npos);
    EXPECT_NE(dom.find("Tom &amp; \"Jerry\" &lt;/table&gt;"), std::string::npos);

    std::string const shot = m_dir.file("report.png");
    chromium(page, "--screenshot=" + quoted(shot));
    std::string const png = test::readFile(shot);
    ASSERT_GT(png.size(), 8u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    // Text and seven charts compress to far more than an empty page does (a few KB).
    EXPECT_GT(png.size(), 100000u);
}

// The page asks for nothing: no request in Chromium's network log, even for an image its
// text might hold, which its Content-Security-Policy refuses; without that policy the same
// image is requested, which shows the log would tell.
TEST_F(ReportTest, NoRequestLeavesThePage) {
    if (test::runProcess({"/bin/sh", "-c", "command -v chromium >/dev/null"}) != 0)
        GTEST_SKIP() << "chromium is not installed (scripts/setup.sh installs it)";
    demoDays();
    std::string const page = m_dir.file("report.html");
    ASSERT_EQ(tool({"report", "--out", page}).code, 0);
    std::string const probe = "http://127.0.0.1:9/probe.png";
    std::string html = test::readFile(page);
    html.insert(html.find("<h1>"), "<img src=\"" + probe + "\">");
    test::writeFile(page, html);
    EXPECT_EQ(pageRequests(page), std::vector<std::string>{});
    std::size_t const policy = html.find("<meta http-equiv=\"Content-Security-Policy\"");
    ASSERT_NE(policy, std::string::npos);
    html.erase(policy, html.find('>', policy) + 1 - policy);
    test::writeFile(page, html);
    EXPECT_EQ(pageRequests(page), std::vector<std::string>{probe});

    // Without Chart.js there is no report; without --out, a usage error.
    m_env = "DATASTORE_CHARTJS=" + m_dir.file("missing.js");
    ToolRun const missing = tool({"report", "--out", m_dir.file("other.html")});
    EXPECT_EQ(missing.code, 2);
    EXPECT_NE(missing.err.find("libjs-chart.js"), std::string::npos) << missing.err;
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("other.html")));
    EXPECT_EQ(tool({"report"}).code, 1);
}

}  // namespace
}  // namespace zrn
