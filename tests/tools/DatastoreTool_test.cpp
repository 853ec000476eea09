// The built datastore tool, run as a separate process on stores made by its own demo: what it
// prints of each record kind is pinned by golden files, its failures by exit codes and messages.

#include <gtest/gtest.h>
#include <libCommon/DateTime.h>
#include <libDataStore/AppStateDataStore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Golden.h"
#include "TestSupport.h"
#include "ToolRun.h"

namespace zrn {
namespace {

using Json = nlohmann::json;

using test::quoted;
using test::ToolRun;

long long secondsOf(Json const& iso) {
    return DateTime(String(iso.get<std::string>())).unixTimeStamp();
}

std::string replaceAll(std::string text, std::string const& from, std::string const& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at))
        text.replace(at, from.size(), to), at += to.size();
    return text;
}

using DatastoreToolTest = test::ToolTest;

TEST_F(DatastoreToolTest, FiltersNarrowTheResult) {
    demo();
    demo();  // a second, earlier day

    std::vector<Json> const apps = tool({"apps", "--json"}).records();
    ASSERT_EQ(apps.size(), 2u);
    // Newest first; the second demo recorded the day before the first.
    long long const laterDay = secondsOf(apps[0]["start"]);
    long long const earlierDay = secondsOf(apps[1]["start"]);
    EXPECT_GT(laterDay, earlierDay);
    std::string const since =
        DateTime::fromUnixTimeStamp(laterDay).toLocalTime().toString().str().substr(0, 10);
    std::string const until =
        DateTime::fromUnixTimeStamp(earlierDay).toLocalTime().toString().str().substr(0, 10);

    EXPECT_EQ(tool({"scripts", "--json"}).records().size(), 4u);
    for (Json const& script : tool({"scripts", "--json", "--since", since}).records()) {
        EXPECT_GE(secondsOf(script["start"]), laterDay);
    }
    EXPECT_EQ(tool({"scripts", "--json", "--since", since}).records().size(), 2u);
    // A bare date as --until covers that whole day.
    EXPECT_EQ(tool({"scripts", "--json", "--until", until}).records().size(), 2u);
    EXPECT_EQ(tool({"alerts", "--json", "--until", until}).records().size(), 3u);
    EXPECT_EQ(tool({"apps", "--json", "--since", std::to_string(laterDay)}).records().size(), 1u);
    EXPECT_EQ(tool({"scripts", "--json", "--limit", "3"}).records().size(), 3u);

    std::vector<Json> const untracked = tool({"alerts", "--json", "--untracked"}).records();
    EXPECT_EQ(untracked.size(), 4u);
    for (Json const& alert : untracked) EXPECT_FALSE(alert["tracked"].get<bool>());
    std::vector<Json> const software = tool({"alerts", "--json", "--type", "Software"}).records();
    EXPECT_EQ(software.size(), 2u);
    for (Json const& alert : software) EXPECT_EQ(alert["type"], "Software");

    std::vector<Json> const temperatures =
        tool({"measurements", "--json", "--type", "CPU temperature"}).records();
    EXPECT_EQ(temperatures.size(), 16u);
    for (Json const& m : temperatures) EXPECT_EQ(m["type"], "CPU temperature");
    EXPECT_EQ(tool({"scriptlets", "--json", "--status", "WARN"}).records().size(), 4u);
    EXPECT_EQ(tool({"diffs", "--json", "--category", "Drivers"}).records().size(), 2u);

    // Generic logs by category and by key/values: every requirement must hold.
    EXPECT_EQ(tool({"logs", "--json"}).records().size(), 6u);
    EXPECT_EQ(tool({"logs", "--json", "--category", "Power"}).records().size(), 2u);
    std::vector<Json> const warnings = tool({"logs", "--json", "--kv", "Status=Warning"}).records();
    EXPECT_EQ(warnings.size(), 4u);
    EXPECT_EQ(
        tool({"logs", "--json", "--kv", "Status=Warning", "--kv", "Wear=29%"}).records().size(),
        2u);
    EXPECT_EQ(tool({"logs", "--json", "--kv", "Status=warning"}).records().size(), 0u);
    EXPECT_EQ(tool({"logs", "--json", "--guid", warnings.at(0)["guid"].get<std::string>()})
                  .records()
                  .size(),
              1u);

    // Recent failures of a device: the disk still fails, the memory passed after reseating.
    std::vector<Json> const disk =
        tool({"failures", "8d2f4a61-5b3c-4f9e-a7d0-1c6e9b2f3a58", "--json"}).records();
    ASSERT_EQ(disk.size(), 1u);
    EXPECT_EQ(disk[0]["testName"], "Disk SMART check");
    EXPECT_GE(secondsOf(disk[0]["start"]), laterDay);
    EXPECT_EQ(tool({"failures", "3f6b9c2e-1a4d-4e7b-9c0f-5d2e8a7b6c41", "--json"}).records().size(),
              0u);
    EXPECT_EQ(tool({"failures", "--json"}).records().size(), 6u);

    // Events of one test are a part of its script's.
    long long const scriptId =
        tool({"scripts", "--json", "--limit", "1"}).records().at(0)["scriptId"].get<long long>();
    std::vector<Json> const tests = tool({"tests", std::to_string(scriptId), "--json"}).records();
    std::size_t perTest = 0;
    for (Json const& t : tests) {
        perTest +=
            tool({"events", "--test", std::to_string(t["testId"].get<long long>()), "--json"})
                .records()
                .size();
    }
    EXPECT_EQ(perTest,
              tool({"events", "--script", std::to_string(scriptId), "--json"}).records().size());

    EXPECT_EQ(tool({"state", "list", "--group", "ui", "--json"}).records().size(), 2u);
    EXPECT_EQ(tool({"sessions", "--json", "--limit", "1"}).records().size(), 1u);
    EXPECT_EQ(tool({"sessions", "--json"}).records().size(), 2u);
}

TEST_F(DatastoreToolTest, InspectionRefusesAMissingStoreWithoutCreatingIt) {
    for (std::vector<std::string> const& args :
         std::vector<std::vector<std::string>>{{"apps"},
                                               {"alerts", "--json"},
                                               {"tests", "1"},
                                               {"logs"},
                                               {"state", "list"},
                                               {"state", "get", "k"},
                                               {"state", "rm", "k"},
                                               {"sessions"},
                                               {"session", "1"}}) {
        SCOPED_TRACE(args[0]);
        ToolRun const run = tool(args);
        EXPECT_EQ(run.code, 2);
        EXPECT_EQ(run.out, "");
        // One line naming the file.
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_NE(run.err.find(m_stores + "/"), std::string::npos) << run.err;
        EXPECT_NE(run.err.find("no such store"), std::string::npos) << run.err;
    }
    // --file names the store itself.
    ToolRun const one = tool({"alerts", "--file", m_dir.file("elsewhere.db")}, false);
    EXPECT_EQ(one.code, 2);
    EXPECT_EQ(one.err, "datastore: " + m_dir.file("elsewhere.db") +
                           ": no such store (nothing was created; record with 'datastore demo' or "
                           "give --dir/--file)\n");
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("elsewhere.db")));

    // info reports what is missing and still creates nothing.
    ToolRun const info = tool({"info", "--json"});
    EXPECT_EQ(info.code, 0) << info.err;
    for (Json const& record : info.records()) EXPECT_FALSE(record["exists"].get<bool>());
    EXPECT_FALSE(std::filesystem::exists(m_stores));
}

TEST_F(DatastoreToolTest, UsageErrorsLeaveNoStoreBehind) {
    ToolRun const day =
        tool({"demo", "--day", "2026-11-23x", "--dir", m_dir.file("elsewhere")}, false);
    EXPECT_EQ(day.code, 1);
    EXPECT_EQ(day.err, "datastore: --day: expected YYYY-MM-DD, got '2026-11-23x'\n");
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("elsewhere")));
}

TEST_F(DatastoreToolTest, StoreErrorsNameTheFileAndTheCause) {
    std::filesystem::create_directories(m_stores);
    test::writeFile(store("event.db"),
                    "this is not a database, just text long enough to be looked at");
    ToolRun const run = tool({"alerts"});
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("datastore: " + store("event.db") + ": cannot open: ", 0), 0u)
        << run.err;
    EXPECT_NE(run.err.find("not a database"), std::string::npos) << run.err;

    // info reports everything, then fails on the unusable store.
    ToolRun const info = tool({"info", "--json"});
    EXPECT_EQ(info.code, 2);
    std::vector<Json> const records = info.records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_FALSE(records[2]["valid"].get<bool>());
    EXPECT_EQ(info.err.rfind("datastore: " + store("event.db") + ": not usable: ", 0), 0u)
        << info.err;

    // Things that are not there.
    std::filesystem::remove(store("event.db"));
    demo();
    EXPECT_EQ(tool({"state", "get", "no.such.key"}).err,
              "datastore: " + store("appstate.db") + ": no item with the key 'no.such.key'\n");
    EXPECT_EQ(tool({"session", "999"}).code, 4);

    // A file of another store is refused before any store class could add its tables to it
    // (the messages are in tool/errors.txt).
    EXPECT_EQ(tool({"alerts", "--file", store("appstate.db")}, false).code, 2);
    EXPECT_EQ(test::RawDb(store("appstate.db"), true)
                  .scalar("SELECT count(*) FROM sqlite_master WHERE type = 'table'"),
              "1");
    EXPECT_EQ(tool({"alert", "999"}).code, 4);
}

TEST_F(DatastoreToolTest, StateSetReplacesAndRmRemoves) {
    // Recording creates the folder and the store.
    ASSERT_EQ(tool({"state", "set", "ui.theme", "light", "--group", "ui"}).code, 0);
    EXPECT_EQ(tool({"state", "get", "ui.theme"}).out, "light\n");
    ToolRun const replaced = tool({"state", "set", "ui.theme", "it's dark", "--group", "look"});
    EXPECT_EQ(replaced.code, 0) << replaced.err;

    AppStateDataStore state{String(store("appstate.db"))};
    EXPECT_EQ(state.data("ui.theme").str(), "it's dark");
    EXPECT_EQ(state.group("ui.theme").str(), "look");
    EXPECT_EQ(state.count(""), 1);
    Json const item = tool({"state", "get", "ui.theme", "--json"}).records().at(0);
    EXPECT_EQ(item["group"], "look");
    EXPECT_EQ(secondsOf(item["written"]), std::chrono::duration_cast<std::chrono::seconds>(
                                              state.entryTime("ui.theme")->time_since_epoch())
                                              .count());

    EXPECT_EQ(tool({"state", "rm", "ui.theme"}).code, 0);
    EXPECT_FALSE(state.contains("ui.theme"));
    EXPECT_EQ(tool({"state", "rm", "ui.theme"}).code, 4);

    // Two processes replacing one item over and over: a replacement is a removal and an
    // insertion, and neither process may slip its insertion between the other's two steps.
    std::string const set = "env -u ZRN_LOG_LEVEL -u ZRN_LOG_FILE " + quoted(DATASTORE_TOOL) +
                            " state set race \"$i\" --dir " + quoted(m_stores) +
                            " 2>&1 || echo failed";
    std::string const loop = "for i in $(seq 30); do " + set + "; done";
    std::string const both = "(" + loop + ") & (" + loop + ") & wait";
    ToolRun const race = test::runShell("sh -c " + quoted(both));
    EXPECT_EQ(race.code, 0);
    EXPECT_EQ(race.out, "");
    EXPECT_TRUE(state.contains("race"));
}

// Every command's help, pinned whole (tool/help.txt): its example, its exit codes and the
// formats it writes, and only those.
TEST_F(DatastoreToolTest, EveryCommandHasHelpWithAnExample) {
    std::string text;
    for (std::string const command :
         {"",           "demo",    "info",  "check",      "summary",   "apps",         "scripts",
          "tests",      "events",  "tips",  "failures",   "alerts",    "measurements", "diffs",
          "scriptlets", "logs",    "state", "state list", "state get", "state set",    "state rm",
          "sessions",   "session", "prune", "export",     "collect",   "report",       "grep",
          "timeline"}) {
        std::vector<std::string> args;
        std::istringstream words(command);
        for (std::string word; words >> word;) args.push_back(word);
        args.push_back("--help");
        ToolRun const help = tool(args, false);
        EXPECT_EQ(help.code, 0) << command;
        text += "## datastore " + (command.empty() ? "" : command + " ") + "--help\n" + help.out;
    }
    test::expectGolden("tool/help.txt", text);
    // The older single-alert command still answers but is not listed.
    EXPECT_EQ(text.find("\n  alert "), std::string::npos);
    EXPECT_EQ(tool({"alert", "--help"}, false).code, 0);
}

// ---- Output for people and for programs

// Columns a line takes on a terminal, as the C library's UTF-8 tables count them (CJK
// ideographs take two, combining accents none).
std::size_t displayWidth(std::string const& line) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    std::wstring wide(line.size(), L'\0');
    wide.resize(std::mbstowcs(wide.data(), line.c_str(), wide.size()));
    return static_cast<std::size_t>(::wcswidth(wide.c_str(), wide.size()));
}

// The records of a json listing written as Python's csv module writes them (minimal quoting,
// "\r\n" line ends), in the columns of `header`, Booleans as true/false and null as "".
std::string pythonSeparated(test::TempDir const& dir, std::string const& json,
                            std::string const& header, char delimiter) {
    std::string const file = dir.file("records.json");
    test::writeFile(file, json);
    std::string const command =
        "python3 -c '"
        "import csv, json, sys\n"
        "keys = sys.argv[3].split(sys.argv[2])\n"
        "w = csv.writer(sys.stdout, delimiter=sys.argv[2], lineterminator=\"\\r\\n\")\n"
        "w.writerow(keys)\n"
        "for r in json.load(open(sys.argv[1])):\n"
        "    assert sorted(r) == sorted(keys), (sorted(r), keys)\n"
        "    w.writerow([\"\" if r[k] is None else str(r[k]).lower() if type(r[k]) is bool "
        "else r[k] for k in keys])' " +
        quoted(file) + " " + quoted(std::string(1, delimiter)) + " " + quoted(header);
    ToolRun const run = test::runShell(command);
    EXPECT_EQ(run.code, 0) << command;
    return run.out;
}

TEST_F(DatastoreToolTest, SeparatedListingsAreTheJsonRecordsAsACsvWriterWritesThem) {
    demo();
    // Listings printed as they are read, one from a limit kept in memory, and collected ones.
    for (std::vector<std::string> const& args :
         std::vector<std::vector<std::string>>{{"measurements"},
                                               {"measurements", "--limit", "3"},
                                               {"alerts"},
                                               {"tests", "1"},
                                               {"events", "--script", "1"},
                                               {"tips", "--script", "1"},
                                               {"diffs"},
                                               {"scriptlets"},
                                               {"apps"}}) {
        std::vector<std::string> json = args;
        json.insert(json.end(), {"-o", "json"});
        ToolRun const records = tool(json);
        ASSERT_EQ(records.code, 0) << records.err;
        ASSERT_GT(Json::parse(records.out).size(), 0u) << args[0];
        for (char delimiter : {',', '\t'}) {
            std::vector<std::string> separated = args;
            separated.insert(separated.end(), {"-o", delimiter == ',' ? "csv" : "tsv"});
            ToolRun const run = tool(separated);
            ASSERT_EQ(run.code, 0) << run.err;
            std::string const header = run.out.substr(0, run.out.find("\r\n"));
            EXPECT_EQ(run.out, pythonSeparated(m_dir, records.out, header, delimiter))
                << args[0] << " " << delimiter;
        }
    }
    // The members of the records come after the columns a table shows.
    auto const firstLine = [](std::string const& text) {
        return text.substr(0, text.find("\r\n") + 2);
    };
    EXPECT_EQ(firstLine(tool({"measurements", "-o", "csv"}).out),
              "type,spanStart,spanMiddle,spanEnd,minimum,maximum,average,median,numberOfSamples"
              "\r\n");
    EXPECT_EQ(firstLine(tool({"alerts", "-o", "tsv"}).out),
              "alertId\ttime\ttype\ttitle\tdeviceName\ttracked\tmessage\tkey\tguid\r\n");
    // An empty listing still names its columns; ndjson has no line at all.
    EXPECT_EQ(tool({"alerts", "-o", "csv", "--type", "None"}).out,
              "alertId,time,type,title,deviceName,tracked,message\r\n");
    EXPECT_EQ(tool({"measurements", "-o", "tsv", "--since", "2100-01-01"}).out,
              "type\tspanStart\tspanMiddle\tspanEnd\tminimum\tmaximum\taverage\tmedian\t"
              "numberOfSamples\r\n");
    EXPECT_EQ(tool({"scriptlets", "-o", "ndjson", "--status", "None"}).out, "");
}

TEST_F(DatastoreToolTest, TerminalTablesFitEightyColumnsAndNeverCutIdentifiers) {
    demo();
    m_env = "NO_COLOR=1";
    std::regex const guid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    for (std::vector<std::string> const& args :
         std::vector<std::vector<std::string>>{{"apps"},
                                               {"scripts"},
                                               {"tests", "1"},
                                               {"failures"},
                                               {"measurements"},
                                               {"logs"},
                                               {"sessions"},
                                               {"alerts"},
                                               {"summary"}}) {
        SCOPED_TRACE(args[0]);
        ToolRun const narrow = tool(args, true, 80);
        ASSERT_EQ(narrow.code, 0) << narrow.err;
        ASSERT_GT(narrow.lines().size(), 1u);
        for (std::string const& line : narrow.lines()) EXPECT_LE(displayWidth(line), 80u) << line;
        // Every GUID shown is whole, and piped output is never cut.
        std::string const piped = tool(args).out;
        for (std::sregex_iterator it(narrow.out.begin(), narrow.out.end(), guid), end; it != end;
             ++it) {
            EXPECT_NE(piped.find(it->str()), std::string::npos);
        }
    }
    // Free text is cut with "..."; numbers and times never are (piped tables: tool/*.txt).
    ToolRun const alerts = tool({"alerts"}, true, 80);
    EXPECT_NE(alerts.out.find("..."), std::string::npos);
    std::regex const time("^[0-9]+ +[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}  ");
    for (std::size_t i = 1; i < 4; ++i)
        EXPECT_TRUE(std::regex_search(alerts.lines().at(i), time)) << alerts.out;

    // A device GUID from the table pastes straight into the next command.
    ToolRun const tests = tool({"tests", "1"}, true, 80);
    std::smatch device;
    ASSERT_TRUE(std::regex_search(tests.out, device, guid)) << tests.out;
    ToolRun const failures = tool({"failures", device.str(), "--fail", "FAIL", "--fail", "ERROR"});
    EXPECT_EQ(failures.code, 0) << failures.err;
    for (std::size_t i = 1; i < failures.lines().size(); ++i)
        EXPECT_NE(failures.lines()[i].find(device.str()), std::string::npos);

    // --wide shows every column even on a narrow terminal; without it low-priority ones go.
    ToolRun const all = tool({"tests", "1", "--wide"}, true, 80);
    EXPECT_NE(all.lines()[0].find("PASS"), std::string::npos);
    EXPECT_GT(displayWidth(all.lines()[1]), 80u);
    EXPECT_EQ(tests.lines()[0].find("PASS"), std::string::npos) << tests.lines()[0];

    // Colour only on a terminal, and never with NO_COLOR.
    EXPECT_EQ(tests.out.find('\x1b'), std::string::npos);
    m_env = "";
    EXPECT_NE(tool({"tests", "1"}, true, 80).out.find("\x1b[31mFAIL\x1b[0m"), std::string::npos);
    m_env = "NO_COLOR=";  // empty: as if unset
    EXPECT_NE(tool({"tests", "1"}, true, 80).out.find("\x1b[31m"), std::string::npos);
    EXPECT_EQ(tool({"tests", "1"}).out.find('\x1b'), std::string::npos);
}

TEST_F(DatastoreToolTest, HostileTextIsEscapedOnTerminalsAndReplacedInMachineOutput) {
    demo();
    {
        test::RawDb raw(store("event.db"));
        raw.exec(
            "INSERT INTO Alerts (appId, guid, key, type, title, message, deviceName, dateTime, "
            "tracked) VALUES (1, 'g-hostile', 'k', 'Hardware', "
            "'red' || char(27) || '[31m bell' || char(7) || ' back' || char(13) || 'x', "
            "CAST(X'626164ff627974652c2022717565' AS TEXT) || char(10) || 'next line', "
            "'磁盘驱动器 cafe' || char(769), 1999999999, 0)");
    }
    m_env = "NO_COLOR=1";
    ToolRun const terminal = tool({"alerts", "--wide"}, true, 80);
    ASSERT_EQ(terminal.code, 0) << terminal.err;
    EXPECT_EQ(terminal.out.find_first_of(std::string("\x1b\x07", 2)), std::string::npos);
    EXPECT_NE(terminal.out.find("red\\e[31m bell\\a back\\rx"), std::string::npos) << terminal.out;
    EXPECT_NE(terminal.out.find("bad\xEF\xBF\xBD"
                                "byte"),
              std::string::npos);
    // The wide and combining characters do not shift the columns after them.
    std::vector<std::string> const lines = terminal.lines();
    std::size_t const tracked = displayWidth(lines[0].substr(0, lines[0].find("TRACKED")));
    ASSERT_EQ(lines.size(), 5u);
    for (std::size_t i = 1; i < lines.size(); ++i) {
        std::size_t const cell = std::min(lines[i].find(" no "), lines[i].find(" yes ")) + 1;
        EXPECT_EQ(displayWidth(lines[i].substr(0, cell)), tracked) << lines[i];
    }

    // JSON: the bad byte becomes U+FFFD, every record is there.
    for (char const* format : {"json", "json-pretty"}) {
        ToolRun const json = tool({"alerts", "-o", format});
        ASSERT_EQ(json.code, 0) << json.err;
        Json const array = Json::parse(json.out);
        ASSERT_EQ(array.size(), 4u);
        EXPECT_EQ(array[0]["message"],
                  "bad\xEF\xBF\xBD"
                  "byte, \"que\nnext line");
        EXPECT_EQ(array[0]["title"], "red\x1b[31m bell\a back\rx");
    }
    ToolRun const ndjson = tool({"alerts", "--json"});
    EXPECT_EQ(ndjson.records().size(), 4u);
    EXPECT_EQ(tool({"alerts", "-o", "ndjson"}).out, ndjson.out);

    // csv and tsv: a header row, quoting that a real parser reads back to the stored text.
    for (char delimiter : {',', '\t'}) {
        ToolRun const table = tool({"alerts", "-o", delimiter == ',' ? "csv" : "tsv"});
        ASSERT_EQ(table.code, 0) << table.err;
        test::writeFile(m_dir.file("table.csv"), table.out);
        auto const rows = test::csvFileRows(m_dir.file("table.csv"), delimiter);
        ASSERT_EQ(rows.size(), 5u);
        EXPECT_EQ(rows[0][0], "alertId");
        EXPECT_EQ(rows[0][6], "message");
        EXPECT_EQ(rows[1][6],
                  "bad\xEF\xBF\xBD"
                  "byte, \"que\nnext line");
        EXPECT_EQ(rows[1][3], "red\x1b[31m bell\a back\rx");
    }
    // A listing that finds nothing is still one array.
    EXPECT_EQ(tool({"alerts", "-o", "json", "--type", "None"}).out, "[]\n");
    // Several sections make one array of tagged records.
    Json const session = Json::parse(tool({"session", "1", "-o", "json"}).out);
    ASSERT_TRUE(session.is_array());
    EXPECT_EQ(session[0]["record"], "session");
}

// ---- Exit codes, check, summary, pager

// Every class of failure, each with its exit code and its one line on standard error: the
// commands are the "## [arguments]" lines of tool/errors.txt ($STORES: the stores' folder).
TEST_F(DatastoreToolTest, EveryClassOfFailureHasItsExitCodeAndOneLine) {
    demo();
    std::string text;
    std::istringstream cases(test::goldenText("tool/errors.txt"));
    for (std::string line; std::getline(cases, line);) {
        if (line.rfind("## ", 0) != 0) continue;
        std::vector<std::string> args = Json::parse(line.substr(3));
        for (std::string& arg : args) arg = replaceAll(arg, "$STORES", m_stores);
        ToolRun const run = tool(args);
        EXPECT_EQ(run.out, "") << line;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << line << run.err;
        text += line + "\nexit " + std::to_string(run.code) + "\n" +
                replaceAll(run.err, m_stores, "$STORES");
    }
    test::expectGolden("tool/errors.txt", text);
    EXPECT_NE(text.find("\nexit 4\n"), std::string::npos);  // the file was read
    // Once stack overflows: 60000 digits read by a regex that recursed per digit, and long
    // blank runs in the spoken forms.
    for (std::string const& since :
         {"@" + std::string(60000, '1'), "yesterday" + std::string(60000, ' ') + "10:00",
          "5" + std::string(60000, ' ') + "days ago"}) {
        ToolRun const run = tool({"alerts", "--since", since});
        EXPECT_EQ(run.code, 1);
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1);
    }

    // --fail takes one result each time: the device stays the device.
    std::string const device = tool({"failures", "--json"}).records().at(0)["deviceGuid"];
    ToolRun const one = tool({"failures", device, "--fail", "FAIL", "--fail", "ERROR", "--json"});
    ASSERT_EQ(one.code, 0) << one.err;
    for (Json const& record : one.records()) EXPECT_EQ(record["deviceGuid"], device);
    EXPECT_LT(one.records().size(), tool({"failures", "--json"}).records().size());

    // Options before the command; the folder from DATASTORE_DIR.
    EXPECT_EQ(tool({"--dir", m_stores, "alerts", "--json"}, false).records().size(), 3u);
    m_env = "DATASTORE_DIR=" + quoted(m_stores);
    EXPECT_EQ(tool({"alerts", "-o", "ndjson"}, false).records().size(), 3u);
    Json const info = tool({"info", "--json"}, false).records().at(0);
    EXPECT_EQ(info["folderSource"], "DATASTORE_DIR");
    EXPECT_EQ(info["path"], store("appstate.db"));
    m_env = "HOME=" + quoted(m_dir.file("home")) + " XDG_DATA_HOME=";
    EXPECT_EQ(tool({"info", "--json"}, false).records().at(0)["path"],
              m_dir.file("home") + "/.local/share/datastore/appstate.db");

    // A store the library logs about never shows the logger's name.
    test::writeFile(store("genstore.db"), std::string(4096, 'x'));
    ToolRun const broken = tool({"logs"});
    EXPECT_EQ(broken.code, 2);
    EXPECT_EQ(broken.err.find("libDataStore."), std::string::npos) << broken.err;
}

TEST_F(DatastoreToolTest, CheckFindsDamageWithoutWritingAndInfoAgrees) {
    demo();
    ToolRun const healthy = tool({"check", "--json"});
    EXPECT_EQ(healthy.code, 0) << healthy.err;
    ASSERT_EQ(healthy.records().size(), 4u);
    for (Json const& record : healthy.records()) EXPECT_EQ(record["status"], "ok");
    EXPECT_EQ(healthy.records()[2]["version"], 3);

    // A dropped table, a wrong version, and pages overwritten in the middle of a file.
    test::RawDb(store("genstore.db")).exec("DROP TABLE KeyValues");
    test::RawDb(store("softwarediagevent.db")).exec("UPDATE Versioning SET version = 7");
    std::string events = test::readFile(store("event.db"));
    for (std::size_t page = 4096; page + 4096 < events.size(); page += 4 * 4096)
        std::fill(events.begin() + page + 8, events.begin() + page + 200, '\x7f');
    test::writeFile(store("event.db"), events);

    ToolRun const damaged = tool({"check", "-o", "json"});
    EXPECT_EQ(damaged.code, 3);
    Json const stores = Json::parse(damaged.out);
    EXPECT_EQ(stores[0]["status"], "ok");
    EXPECT_EQ(stores[1]["status"], "damaged");
    EXPECT_EQ(stores[1]["problem"], "missing table KeyValues");
    EXPECT_EQ(stores[2]["status"], "damaged");
    EXPECT_EQ(stores[3]["problem"], "schema version 7, expected 1");
    // One line per damaged store, naming the file.
    std::vector<std::string> const lines = ToolRun{0, damaged.err, ""}.lines();
    ASSERT_EQ(lines.size(), 3u) << damaged.err;
    EXPECT_EQ(lines[0],
              "datastore: " + store("genstore.db") + ": damaged: missing table KeyValues");
    EXPECT_EQ(lines[1].rfind("datastore: " + store("event.db") + ": damaged: ", 0), 0u);
    // Nothing was repaired behind the reader's back.
    EXPECT_EQ(test::RawDb(store("genstore.db"), true)
                  .scalar("SELECT count(*) FROM sqlite_master WHERE name = 'KeyValues'"),
              "0");
    EXPECT_EQ(
        test::RawDb(store("softwarediagevent.db"), true).scalar("SELECT version FROM Versioning"),
        "7");

    ToolRun const info = tool({"info", "--json"});
    EXPECT_EQ(info.code, 2);
    EXPECT_TRUE(info.records()[0]["valid"].get<bool>());
    for (std::size_t i = 1; i < 4; ++i) EXPECT_FALSE(info.records()[i]["valid"].get<bool>());
}

TEST_F(DatastoreToolTest, TimeFormsAndUnknownMeasurementTypesAnswerSupportQuestions) {
    demo();
    std::vector<Json> const all = tool({"measurements", "--json"}).records();
    ToolRun const unknown = tool({"measurements", "--type", "Fan noise"});
    EXPECT_EQ(unknown.code, 0);
    EXPECT_NE(unknown.err.find("no measurements of type 'Fan noise'; the types are '"),
              std::string::npos)
        << unknown.err;
    EXPECT_NE(unknown.err.find(all[0]["type"].get<std::string>()), std::string::npos);

    // Relative and named times: the demo's day is today (after 17:00) or yesterday, and its
    // alerts are in the morning, so "now" on finds nothing, "-2w" and "yesterday" on find
    // everything, and nothing is older than three weeks.
    std::size_t const alerts = tool({"alerts", "--json"}).records().size();
    EXPECT_EQ(tool({"alerts", "--json", "--since", "-2w"}).records().size(), alerts);
    EXPECT_EQ(tool({"alerts", "--json", "--since", "now"}).records().size(), 0u);
    EXPECT_EQ(tool({"alerts", "--json", "--since", "yesterday", "--until", "now"}).records().size(),
              alerts);
    EXPECT_EQ(tool({"alerts", "--json", "--until", "-3w"}).records().size(), 0u);
    long long const first = secondsOf(tool({"alerts", "--json"}).records().back()["time"]);
    EXPECT_EQ(
        tool({"alerts", "--json", "--since", "@" + std::to_string(first + 1)}).records().size(),
        alerts - 1);
    EXPECT_EQ(tool({"alerts", "--json", "--since", std::to_string(first)}).records().size(),
              alerts);
    // --utc moves the table's times by the zone's offset, not the JSON's.
    m_env = "TZ=Asia/Kolkata";
    ToolRun const local = tool({"alerts"});
    ToolRun const utc = tool({"alerts", "--utc"});
    EXPECT_NE(local.out, utc.out);
    EXPECT_EQ(tool({"alerts", "--json", "--utc"}).out, tool({"alerts", "--json"}).out);
    // Each table names the zone of its times, piped or not; a column without times does not.
    EXPECT_EQ(local.lines().at(0).rfind("ALERT  TIME (UTC+05:30)     TYPE  ", 0), 0u) << local.out;
    EXPECT_EQ(utc.lines().at(0).rfind("ALERT  TIME (UTC)           TYPE  ", 0), 0u) << utc.out;
    EXPECT_NE(
        tool({"apps"}, true, 200).out.find("STARTED (UTC+05:30)  ENDED (UTC+05:30)    SECONDS\n"),
        std::string::npos);
}

TEST_F(DatastoreToolTest, LongOutputOnATerminalGoesThroughThePager) {
    demo();
    // 24 lines: the measurements (16 and a header) fit, a whole session does not.
    m_env = "DATASTORE_PAGER=" + quoted("sed s/^/paged:/");
    ToolRun const paged = tool({"session", "1"}, true, 80);
    ASSERT_EQ(paged.code, 0) << paged.err;
    ASSERT_GT(paged.lines().size(), 24u);
    for (std::string const& line : paged.lines()) EXPECT_EQ(line.rfind("paged:", 0), 0u) << line;
    ToolRun const fits = tool({"measurements"}, true, 80);
    EXPECT_EQ(fits.out.find("paged:"), std::string::npos);
    EXPECT_EQ(tool({"session", "1", "--no-pager"}, true, 80).out.find("paged:"), std::string::npos);
    EXPECT_EQ(tool({"session", "1"}).out.find("paged:"), std::string::npos);  // piped
    // $PAGER when the tool's own is not set.
    m_env = "PAGER=" + quoted("sed s/^/pager:/");
    EXPECT_EQ(tool({"session", "1"}, true, 80).out.rfind("pager:", 0), 0u);
}

// ---- Read-only inspection

// Runs a shell command line; standard error into `errFile`.
ToolRun shell(std::string const& command, std::string const& errFile) {
    ToolRun run = test::runShell(command + " 2>" + quoted(errFile));
    run.err = test::readFile(errFile);
    return run;
}

TEST_F(DatastoreToolTest, InspectionOfAReadOnlyCopyChangesNoByteAndNeedsNoLock) {
    demo();
    std::string const scriptId = std::to_string(
        tool({"scripts", "--json", "--limit", "1"}).records().at(0)["scriptId"].get<long long>());
    std::string const testId = std::to_string(
        tool({"tests", scriptId, "--json"}).records().at(0)["testId"].get<long long>());
    std::string const alertId = std::to_string(
        tool({"alerts", "--json", "--limit", "1"}).records().at(0)["alertId"].get<long long>());
    std::string const sessionId = std::to_string(
        tool({"sessions", "--json", "--limit", "1"}).records().at(0)["sessionId"].get<long long>());
    std::string const key = tool({"state", "list", "--json"}).records().at(0)["key"];

    // An evidence copy: read-only files in a read-only folder, read by an unprivileged user
    // (when the tests run as root) for whom the lock folder cannot even be made.
    for (auto const& entry : std::filesystem::directory_iterator(m_stores))
        std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_read |
                                                       std::filesystem::perms::group_read |
                                                       std::filesystem::perms::others_read);
    std::filesystem::permissions(
        m_stores, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec |
                      std::filesystem::perms::group_read | std::filesystem::perms::group_exec |
                      std::filesystem::perms::others_read | std::filesystem::perms::others_exec);
    std::string const user =
        ::geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
    std::string const noLocks = "/proc/zrn-no-lock-folder-" + std::to_string(::getpid());
    auto const before = test::snapshot(m_stores);

    for (std::vector<std::string> const& args :
         std::vector<std::vector<std::string>>{{"info"},
                                               {"apps"},
                                               {"scripts"},
                                               {"tests", scriptId},
                                               {"events", "--script", scriptId},
                                               {"tips", "--test", testId},
                                               {"failures"},
                                               {"alerts"},
                                               {"alert", alertId},
                                               {"measurements"},
                                               {"diffs"},
                                               {"scriptlets"},
                                               {"logs"},
                                               {"state", "list"},
                                               {"state", "get", key},
                                               {"sessions"},
                                               {"session", sessionId}}) {
        SCOPED_TRACE(args[0]);
        std::string command = "env -u ZRN_LOG_LEVEL -u ZRN_LOG_FILE ZRN_LOCK_DIR=" + noLocks + " " +
                              user + quoted(DATASTORE_TOOL);
        for (auto const& arg : args) command += " " + quoted(arg);
        ToolRun const run =
            shell(command + " --json --dir " + quoted(m_stores), m_dir.file("stderr.txt"));
        EXPECT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(run.err, "");
        // Tips may rightly be none; everything else of the demo day has records.
        if (args[0] != "tips") {
            EXPECT_FALSE(run.records().empty());
        }
        if (args[0] == "info") {
            for (Json const& record : run.records()) {
                if (record.contains("valid")) {
                    EXPECT_TRUE(record["valid"].get<bool>()) << record;
                }
            }
        }
        EXPECT_EQ(test::snapshot(m_stores), before);
    }
    std::filesystem::permissions(m_stores, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add);
}

TEST_F(DatastoreToolTest, InspectionIgnoresTheNamedMutexAndGivesUpOnAWriterAfterWait) {
    demo();
    std::string const lockDir = m_dir.file("locks");
    std::filesystem::create_directories(lockDir);
    test::ScopedEnv env("ZRN_LOCK_DIR", lockDir.c_str());

    // A suite program holding "event_store" (for whatever file) does not hold up a reader.
    test::MutexHolder holder(ZRN_CHILD, "event_store", m_dir.file("ready"));
    auto start = std::chrono::steady_clock::now();
    ToolRun const free = tool({"alerts", "--json"});
    EXPECT_EQ(free.code, 0) << free.err;
    EXPECT_FALSE(free.records().empty());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    holder.release();

    // A writer that holds the file: the reader waits --wait seconds, then says so, through the
    // library's readers (alerts) and through the table reader (check: busy, not damaged).
    test::RawDb writer(store("event.db"));
    writer.exec("BEGIN EXCLUSIVE");
    for (char const* command : {"alerts", "check"}) {
        start = std::chrono::steady_clock::now();
        ToolRun const locked = tool({command, "--wait", "1"});
        auto const waited = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(locked.code, 2) << command;
        EXPECT_EQ(locked.out, "");
        EXPECT_EQ(locked.err, "datastore: " + store("event.db") +
                                  ": locked by another program (gave up waiting; --wait SECONDS "
                                  "waits longer)\n");
        EXPECT_GE(waited, std::chrono::milliseconds(900)) << command;
        EXPECT_LT(waited, std::chrono::seconds(4)) << command;
    }
    writer.exec("ROLLBACK");
}

TEST_F(DatastoreToolTest, ParallelRecordingsOfAFreshFolderNeverTakeItForAnotherStore) {
    std::string const lockDir = m_dir.file("locks");
    std::filesystem::create_directories(lockDir);
    test::ScopedEnv env("ZRN_LOCK_DIR", lockDir.c_str());
    auto runTogether = [&](std::string const& name, auto&& argsOf) {
        std::filesystem::remove_all(m_stores);
        std::vector<int> pids;
        for (int i = 0; i < 4; ++i) {
            pids.push_back(test::spawnProcess({"/bin/sh", "-c",
                                               quoted(DATASTORE_TOOL) + " " + argsOf(i) +
                                                   " --dir " + quoted(m_stores) + " >/dev/null 2>" +
                                                   quoted(m_dir.file(name + std::to_string(i)))}));
        }
        std::vector<std::pair<int, std::string>> results;
        for (std::size_t i = 0; i < pids.size(); ++i) {
            int const code = test::waitProcess(pids[i], 120);
            results.emplace_back(code, test::readFile(m_dir.file(name + std::to_string(i))));
        }
        return results;
    };
    // Four items into a store that none of them finds there.
    for (auto const& [code, err] :
         runTogether("set", [](int i) { return "state set key" + std::to_string(i) + " value"; })) {
        EXPECT_EQ(code, 0) << err;
    }
    EXPECT_EQ(tool({"state", "list", "--json"}).records().size(), 4u);
    // Whole demo days into all four stores. The days' app-state items are replaced by each
    // run in turn, which may collide; no run may take a store another is creating for a
    // database of another kind.
    for (auto const& [code, err] : runTogether("demo", [](int) { return std::string("demo"); })) {
        EXPECT_EQ(err.find(": not a"), std::string::npos) << err;
        (void)code;
    }
    EXPECT_EQ(tool({"info", "--json"}).code, 0);
}

// ---- Records pinned

// The date and time texts of `seconds` in UTC: "2026-11-25 17:47:04" and the ISO form.
std::vector<std::string> timeTexts(long long seconds) {
    std::time_t const t = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&t, &parts);
    char table[32], iso[40];
    std::strftime(table, sizeof table, "%Y-%m-%d %H:%M:%S", &parts);
    std::strftime(iso, sizeof iso, "%Y-%m-%dT%H:%M:%S+00:00", &parts);
    return {table, iso};
}

// `text` with the times between `before` and `after` (a second of slack) as <now> and each
// GUID as "<guid N>", numbered in order of first appearance across calls sharing `numbers`.
std::string placeholders(std::string text, long long before, long long after,
                         std::map<std::string, std::string>& numbers) {
    for (long long second = before - 1; second <= after + 1; ++second) {
        for (std::string const& now : timeTexts(second)) text = replaceAll(text, now, "<now>");
    }
    std::regex const guid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    std::string numbered, rest = text;
    for (std::smatch m; std::regex_search(rest, m, guid);) {
        std::string const label = "<guid " + std::to_string(numbers.size() + 1) + ">";
        numbered += m.prefix().str() + numbers.emplace(m.str(), label).first->second;
        std::string const suffix = m.suffix().str();
        rest = suffix;
    }
    return numbered + rest;
}

// Each record kind as every command that prints it does, a golden file per kind
// (tool/<kind>.txt), each command in ndjson and as a table: a field renamed, reordered, retyped
// or dropped, a header or a state named another way fails here. From the demo of a fixed day in
// UTC; the times the stores take from the clock become <now>, the GUIDs they make up <guid N>.
TEST_F(DatastoreToolTest, EachRecordKindIsPrintedOneWayByEveryCommand) {
    m_env = "TZ=UTC USER=technician";
    long long const before = static_cast<long long>(std::time(nullptr));
    ToolRun const made = tool({"demo", "--day", "2026-11-23"});
    ASSERT_EQ(made.code, 0) << made.err;
    long long const after = static_cast<long long>(std::time(nullptr));
    using Commands = std::vector<std::vector<std::string>>;
    std::vector<std::pair<std::string, Commands>> const kinds{
        {"app-run", {{"apps"}}},
        {"script-run", {{"scripts"}}},
        {"test-run", {{"tests", "1"}, {"failures"}}},
        {"event", {{"events", "--test", "1"}, {"events", "--script", "2", "--limit", "4"}}},
        {"tip", {{"tips", "--script", "1"}, {"tips", "--alert", "2"}}},
        {"alert", {{"alerts"}, {"alerts", "1"}}},
        {"measurement", {{"measurements", "--limit", "3"}}},
        {"profiler-diff", {{"diffs"}}},
        {"scriptlet-result", {{"scriptlets"}}},
        {"generic-log", {{"logs"}}},
        {"state-item", {{"state", "list"}, {"state", "get", "scheduler.lastRun", "--json"}}},
        // The session with its transactions, diagnostics, issues and fix actions.
        {"session", {{"sessions"}, {"session", "1"}}},
        {"summary", {{"summary"}, {"summary", "--by-day"}}}};
    std::map<std::string, std::string> guids;
    for (auto const& [kind, commands] : kinds) {
        std::string text;
        for (std::vector<std::string> const& command : commands) {
            for (std::vector<std::string> const& format : Commands{{"-o", "ndjson"}, {"--wide"}}) {
                std::vector<std::string> args = command;
                if (args.back() != "--json") args.insert(args.end(), format.begin(), format.end());
                ToolRun const run = tool(args);
                EXPECT_EQ(run.code, 0) << run.err;
                text += "## datastore";
                for (std::string const& arg : args) text += " " + arg;
                text += "\n" + run.out;
                if (args.back() == "--json") break;
            }
        }
        test::expectGolden("tool/" + kind + ".txt", placeholders(text, before, after, guids));
    }

    // info: the row counts are those of the files.
    std::vector<Json> const info = tool({"info", "--json"}).records();
    ASSERT_EQ(info.size(), 4u);
    for (Json const& record : info) {
        test::RawDb raw(record["path"].get<std::string>(), true);
        for (auto const& [table, rows] : record["tables"].items()) {
            EXPECT_EQ(std::to_string(rows.get<long long>()),
                      raw.scalar("SELECT count(*) FROM `" + table + "`"));
        }
    }
}

}  // namespace
}  // namespace zrn
