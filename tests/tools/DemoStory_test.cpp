// The demo's story of many days and the summary of it, run as the built tool: the same seed
// gives the same stores, the story's disk gets worse until its repair, and the summary of a
// month fits one terminal screen and names that disk.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ToolRun.h"

namespace zrn {
namespace {

using test::quoted;
using test::ToolRun;

class DemoStoryTest : public ::testing::Test {
protected:
    // The tool in UTC with `args` and --dir `dir` (a folder of this test); piped, or with
    // `terminal` in a pseudo-terminal of 80x24 with the terminal's line ends undone.
    ToolRun tool(std::string const& dir, std::vector<std::string> const& args,
                 bool terminal = false) const {
        std::vector<std::string> withDir = args;
        withDir.insert(withDir.end(), {"--dir", m_dir.file(dir)});
        return test::runTool(withDir, m_dir.file("err"),
                             "TZ=UTC USER=technician COLUMNS=80 LINES=24", terminal ? 80 : 0);
    }
    std::string scalar(std::string const& dir, std::string const& sql) const {
        return test::RawDb(m_dir.file(dir + "/event.db"), true).scalar(sql);
    }

    test::TempDir m_dir;
};

TEST_F(DemoStoryTest, TheSameSeedRecordsTheSameMonthAndItsDiskGetsWorseUntilRepaired) {
    std::vector<std::string> const month{"demo", "--days", "30", "--day", "2026-11-23"};
    ToolRun const first = tool("a", month);
    ASSERT_EQ(first.code, 0) << first.err;
    EXPECT_EQ(first.lines().at(0),
              "Recorded 30 diagnostics days, 2026-10-25 to 2026-11-23 (seed 1; application runs "
              "1 to 30, repair session 1). Read back:");
    std::vector<std::string> seeded = month;
    seeded.insert(seeded.end(), {"--seed", "1"});
    ASSERT_EQ(tool("b", seeded).code, 0);
    seeded.back() = "2";
    ASSERT_EQ(tool("c", seeded).code, 0);
    std::string const events = test::readFile(m_dir.file("a/event.db"));
    EXPECT_EQ(events, test::readFile(m_dir.file("b/event.db")));
    EXPECT_NE(events, test::readFile(m_dir.file("c/event.db")));

    // The disk: a few failures in the first ten days, most runs of the last week failing, each
    // with DSK-0112, then the last day's afternoon passing after the repair.
    std::string const disk = "FROM TestRuns WHERE testName = 'Disk SMART check' AND startTime ";
    long long const day11 = 1792886400 + 10 * 86400, day21 = day11 + 10 * 86400,
                    day24 = day21 + 3 * 86400;
    auto rate = [&](std::string const& range) {
        return std::stod(scalar("a", "SELECT avg(result = 'FAIL') " + disk + range));
    };
    EXPECT_LT(rate("< " + std::to_string(day11)), 0.3);
    EXPECT_GT(rate(">= " + std::to_string(day24)), 0.55);
    EXPECT_EQ(scalar("a", "SELECT count(*) " + disk +
                              "> 0 AND result = 'FAIL' AND errorCode "
                              "<> 'DSK-0112'"),
              "0");
    EXPECT_EQ(scalar("a", "SELECT group_concat(result) FROM (SELECT result " + disk +
                              ">= 1795392000 ORDER BY startTime)"),
              "FAIL,PASS");
    // The memory now and then; alerts at many times, some tracked; the temperature creeping up.
    EXPECT_EQ(scalar("a",
                     "SELECT count(*) BETWEEN 1 AND 15 FROM TestRuns WHERE errorCode = "
                     "'MEM-0031'"),
              "1");
    EXPECT_EQ(scalar("a",
                     "SELECT count(DISTINCT dateTime % 86400) > 25 AND sum(tracked) "
                     "BETWEEN 1 AND 30 FROM Alerts"),
              "1");
    std::string const cpu =
        "SELECT avg(average) FROM Measurements WHERE type = 'CPU "
        "temperature' AND spanMiddleTime ";
    EXPECT_GT(std::stod(scalar("a", cpu + ">= " + std::to_string(day21))),
              std::stod(scalar("a", cpu + "< " + std::to_string(day11))) + 2);
    EXPECT_EQ(test::RawDb(m_dir.file("a/softwarediagevent.db"), true)
                  .scalar("SELECT count(*) FROM Issues WHERE issueName = 'Disk remapping sectors'"),
              "1");

    // Days and seeds out of range are refused before anything is created.
    for (auto const& [option, value] : std::vector<std::pair<std::string, std::string>>{
             {"--days", "0"}, {"--days", "3661"}, {"--days", "1e3"}, {"--seed", "-1"}}) {
        ToolRun const refused = tool("none", {"demo", option, value});
        EXPECT_EQ(refused.code, 1);
        EXPECT_EQ(refused.err,
                  "datastore: " + option + ": '" + value + "' is not a number from " +
                      (option == "--days" ? "1 to 3660\n" : "0 to 18446744073709551615\n"));
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("none")));
}

// The support engineer's first look at a month: one 80x24 screen that names the disk getting
// worse, with every list capped and the command that shows all of it; the machine formats
// carry the same facts.
TEST_F(DemoStoryTest, TheSummaryOfAMonthFitsOneScreenAndNamesTheDiskGettingWorse) {
    ASSERT_EQ(tool("m", {"demo", "--days", "30", "--seed", "1", "--day", "2026-11-23"}).code, 0);
    // Three more kinds of alert in the last week: six groups, of which four are shown.
    test::RawDb(m_dir.file("m/event.db"))
        .exec(
            "INSERT INTO Alerts (appId, guid, key, type, title, message, deviceName, dateTime, "
            "tracked) VALUES (30, 'g1', 'k', 'Hardware', 'Fan noisy', '', 'Fan', 1795400000, "
            "0), (30, 'g2', 'k', 'Hardware', 'Fan slow', '', 'Fan', 1795400001, 0), (30, 'g3', "
            "'k', 'Hardware', 'Fan stopped', '', 'Fan', 1795400002, 0)");
    ToolRun const screen = tool("m", {"summary"}, true);
    ASSERT_EQ(screen.code, 0) << screen.err;
    std::vector<std::string> const lines = screen.lines();
    EXPECT_LE(lines.size(), 23u) << screen.out;  // and the prompt after it
    for (std::string const& line : lines) EXPECT_LE(line.size(), 80u) << line;
    EXPECT_EQ(lines.at(0),
              "Summary since 2026-11-17 00:00:00: the last 7 days recorded (--all: everything)");
    auto const disk = std::find_if(lines.begin(), lines.end(), [](std::string const& line) {
        return line.rfind("Disk SMART check  NVMe SSD 512 GB", 0) == 0;
    });
    ASSERT_NE(disk, lines.end()) << screen.out;
    EXPECT_NE(disk->find(" of 17  "), std::string::npos) << *disk;
    EXPECT_NE(disk->find("  worse  DSK-0112"), std::string::npos) << *disk;
    EXPECT_NE(screen.out.find("\nand 2 more: datastore alerts --since 2026-11-17\n"),
              std::string::npos)
        << screen.out;
    EXPECT_NE(screen.out.find("\nits issues and fix actions: datastore session 1\n"),
              std::string::npos);

    // The same facts for programs: every group, the halves' failure rates.
    std::vector<nlohmann::json> const records = tool("m", {"summary", "-o", "ndjson"}).records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0]["deviceName"], "NVMe SSD 512 GB");
    EXPECT_EQ(records[0]["trend"], "worse");
    EXPECT_EQ(records[0]["runs"], 17);
    EXPECT_GT(records[0]["secondHalfFailureRate"], records[0]["firstHalfFailureRate"]);
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](auto const& r) { return r["record"] == "alertGroup"; }),
              6);
}

}  // namespace
}  // namespace zrn
