// datastore timeline, run as a separate process on a demo day whose stores are given times
// that interleave: the order across stores, the filters and every format are pinned by a
// golden file (tool/timeline.txt); following and the terminal are checked on their own.

#include <gtest/gtest.h>
#include <libDataStore/EventDataStore.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>
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

// 2026-11-23 00:00:00 UTC, the demo's day.
long long const kDay = 1795392000;

class TimelineTest : public test::ToolTest {
protected:
    TimelineTest() { m_env = "TZ=UTC USER=technician"; }

    // The demo's day, with the times and GUIDs the other stores take from the clock moved into
    // it: logs among the first script's tests, an update in the same second as a test, the
    // items in the second the application ends (one written in a zone of its own, so that it
    // sorts last), the repair session after it, its diagnostics in one second.
    void demoDay() {
        demo({"--day", "2026-11-23"});
        auto const at = [](long long seconds) { return std::to_string(kDay + seconds); };
        test::RawDb general(store("genstore.db"));
        general.exec("UPDATE GenericLog SET creationTimeStamp = " + at(32580) + " + rowid * 60");
        general.exec("UPDATE GenericLog SET updateTimeStamp = creationTimeStamp");
        general.exec("UPDATE GenericLog SET updateTimeStamp = " + at(50680) + " WHERE rowid = 1");
        general.exec(
            "UPDATE GenericLog SET guid = "
            "printf('%08d-0000-4000-8000-000000000000', rowid)");
        test::RawDb state(store("appstate.db"));
        state.exec("UPDATE AppState SET dateTime = '2026-11-23T16:45:00+00:00'");
        state.exec("UPDATE AppState SET dateTime = '2026-11-23T08:00:00-09:00' WHERE rowid = 2");
        test::RawDb repair(store("softwarediagevent.db"));
        repair.exec("UPDATE Sessions SET startTimeStamp = " + at(61200) +
                    ", endTimeStamp = " + at(63000));
        repair.exec("UPDATE SoftwareDiagnostics SET startTimeStamp = " + at(61260));
        repair.exec("UPDATE Issues SET timeStamp = " + at(61230) + " + softwareDiagnosticId * 60");
        repair.exec("UPDATE FixActions SET startTimeStamp = " + at(61800) + " + rowid * 60");
    }
};

TEST_F(TimelineTest, OneDayAcrossTheStoresInOrderNarrowedByEveryFilter) {
    demoDay();
    std::vector<std::vector<std::string>> const commands{
        {"timeline"},
        {"timeline", "-o", "ndjson"},
        {"timeline", "--kind", "test,alert", "--store", "event", "-r"},
        {"timeline", "--kind", "session", "--kind", "fix", "-n", "3"},
        {"timeline", "--since", "2026-11-23T14:04:40", "--until", "2026-11-23T16:45", "-o", "csv"},
        {"timeline", "-n", "2", "-r", "-o", "json"},
        {"timeline", "--kind", "diagnostic", "-r", "--since", "2026-11-23T16:45"},
        {"timeline", "--kind", "bogus"},
        {"timeline", "--store", "event", "--follow", "-r"}};
    std::string text;
    for (auto const& command : commands) {
        ToolRun const run = tool(command);
        text += "##";
        for (std::string const& arg : command) text += " " + arg;
        text += "\n" + run.out + run.err + "exit " + std::to_string(run.code) + "\n";
    }
    test::expectGolden("tool/timeline.txt", text);

    // A store that is not there has nothing to show; one named, or no store at all, is an error.
    std::remove(store("appstate.db").c_str());
    ToolRun const rest = tool({"timeline", "-o", "ndjson"});
    EXPECT_EQ(rest.code, 0) << rest.err;
    EXPECT_EQ(rest.out.find("appstate"), std::string::npos);
    EXPECT_EQ(rest.records().size(), tool({"timeline", "-o", "ndjson"}).records().size());
    EXPECT_EQ(tool({"timeline", "--store", "appstate"}).code, 2);
    for (char const* name : {"event.db", "genstore.db", "softwarediagevent.db"})
        std::remove(store(name).c_str());
    ToolRun const none = tool({"timeline"});
    EXPECT_EQ(none.code, 2);
    EXPECT_NE(none.err.find("no such store, nor any other in its folder"), std::string::npos);
}

TEST_F(TimelineTest, TerminalLinesFitTheScreenAndKeepTheirCommandsWhole) {
    demoDay();
    std::vector<Json> const records = tool({"timeline", "-o", "ndjson"}).records();
    ToolRun const terminal = tool({"timeline"}, true, 100);
    ASSERT_EQ(terminal.code, 0) << terminal.err;
    std::vector<std::string> const lines = terminal.lines();
    ASSERT_EQ(lines.size(), records.size() + 1) << terminal.out;
    EXPECT_EQ(lines[0].rfind("TIME (UTC+00:00)", 0), 0u) << lines[0];
    // The long descriptions give way, not the commands.
    EXPECT_NE(terminal.out.find("Storage/NVMe created: "), std::string::npos) << terminal.out;
    EXPECT_EQ(terminal.out.find("CheckedBy=Quick hardware check"), std::string::npos);
    for (std::size_t i = 1; i < lines.size(); ++i) {
        EXPECT_LE(lines[i].size(), 100u) << lines[i];
        std::string const command = records[i - 1]["command"];
        EXPECT_EQ(lines[i].substr(lines[i].size() - command.size()), command) << lines[i];
    }
}

// Starts the tool in the background with its output in `out`; the pid is the tool's own.
int startTool(std::string const& stores, std::vector<std::string> const& args,
              std::string const& out) {
    std::string command =
        "exec env -u ZRN_LOG_LEVEL -u ZRN_LOG_FILE TZ=UTC " + quoted(DATASTORE_TOOL);
    for (auto const& arg : args) command += " " + quoted(arg);
    command += " --dir " + quoted(stores) + " >" + quoted(out) + " 2>&1";
    return test::spawnProcess({"/bin/sh", "-c", command});
}

TEST_F(TimelineTest, FollowPrintsWhatIsRecordedAfterTheNewestEntries) {
    demoDay();
    std::string const out = m_dir.file("follow.out");
    int const pid = startTool(m_stores, {"timeline", "-f", "-n", "1", "-o", "ndjson"}, out);
    struct Stopper {
        int pid;
        ~Stopper() {
            if (::kill(pid, SIGKILL) == 0) test::waitProcess(pid, 5);
        }
    } const stopper{pid};
    // The follower starts in its own time: once it has printed the newest entry, record until
    // it shows something new.
    for (int i = 0; i < 100 && test::readFile(out).find("ended") == std::string::npos; ++i)
        ::usleep(100 * 1000);
    EventDataStore events(store("event.db"));
    bool seen = false;
    for (int i = 0; i < 40 && !seen; ++i) {
        events.logAppStart("early", "u", "t", EventTimePoint(std::chrono::seconds(kDay + 86400)));
        ::usleep(250 * 1000);
        seen = test::readFile(out).find("early") != std::string::npos;
    }
    ASSERT_TRUE(seen) << test::readFile(out);
    ToolRun const set = tool({"state", "set", "followed", "yes"});
    ASSERT_EQ(set.code, 0) << set.err;
    for (int i = 0; i < 40 && test::readFile(out).find("followed") == std::string::npos; ++i)
        ::usleep(100 * 1000);
    ::kill(pid, SIGINT);
    EXPECT_EQ(test::waitProcess(pid, 10), 0);

    // The newest entry, then only what came later, each as the timeline prints it.
    std::vector<std::string> lines;
    std::istringstream stream(test::readFile(out));
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    ASSERT_GE(lines.size(), 3u);
    EXPECT_NE(lines[0].find("\"session 1 ended\""), std::string::npos) << lines[0];
    for (std::size_t i = 1; i + 1 < lines.size(); ++i)
        EXPECT_NE(lines[i].find("\"early started (t, u)\""), std::string::npos) << lines[i];
    EXPECT_EQ(lines.back(),
              tool({"timeline", "--kind", "state", "-n", "1", "-o", "ndjson"}).lines().at(0));
}

}  // namespace
}  // namespace zrn
