// The tool's support commands (prune, export, follow, collect), run as a separate
// process; what they write is read back with the raw sqlite3 API and parsed.

#include <gtest/gtest.h>
#include <libDataStore/EventDataStore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ToolRun.h"

namespace zrn {
namespace {

using Json = nlohmann::json;
using test::RawDb;

using test::lines;
using test::quoted;
using test::ToolRun;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

using SupportToolTest = test::ToolTest;

// ---- prune

TEST_F(SupportToolTest, PruneCountsThenRemovesOnlyWhatCameBeforeTheCutoff) {
    demo();
    long long const old = 1700000000;  // long before the demo's day
    {
        EventDataStore events(store("event.db"));
        for (int day = 0; day < 2; ++day) {
            long long const t = old + day * 86400;
            long long const app = *events.logAppStart("old", "u", "t", at(t));
            long long const script =
                *events.logScriptStart(app, "PASS", "g", "s", at(t), 1, "<old/>");
            long long const testId =
                *events.logTestStart(script, "t", "d", "tg", "dg", "Disk", "PASS", at(t), 1);
            events.logTestRunEvent(testId, "m", "INFO", "E", "C", at(t));
        }
    }
    std::map<std::string, std::string> files;
    for (char const* name : {"event.db", "genstore.db", "softwarediagevent.db", "appstate.db"})
        files[name] = test::readFile(store(name));
    std::string const cutoff = "@" + std::to_string(old + 3 * 86400);

    auto removed = [](ToolRun const& run) {
        std::map<std::string, long long> rows;
        for (Json const& record : run.records()) {
            if (record["rows"].get<long long>() > 0)
                rows[record["store"].get<std::string>() + " " +
                     record["table"].get<std::string>()] = record["rows"].get<long long>();
        }
        return rows;
    };
    std::map<std::string, long long> const expected = {{"event.db ApplicationRuns", 2},
                                                       {"event.db ScriptRuns", 2},
                                                       {"event.db ScriptSpecs", 1},
                                                       {"event.db TestRuns", 2},
                                                       {"event.db TestRunEvents", 2}};
    ToolRun const dry = tool({"prune", "--before", cutoff, "--dry-run", "-o", "ndjson"});
    ASSERT_EQ(dry.code, 0) << dry.err;
    EXPECT_EQ(removed(dry), expected);
    // Every table of the three stores is listed, also with nothing to remove.
    EXPECT_EQ(dry.records().size(), 12u + 2u + 7u);
    for (auto const& [name, bytes] : files) EXPECT_EQ(test::readFile(store(name.c_str())), bytes);

    ToolRun const real = tool({"prune", "--before", cutoff, "--vacuum", "-o", "ndjson"});
    ASSERT_EQ(real.code, 0) << real.err;
    EXPECT_EQ(removed(real), expected);
    RawDb raw(store("event.db"), true);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM ApplicationRuns WHERE name = 'old'"), "0");
    EXPECT_NE(raw.scalar("SELECT COUNT(*) FROM ApplicationRuns"), "0");  // the demo's day
    EXPECT_EQ(raw.scalar("PRAGMA freelist_count"), "0");

    // Usage errors and a store that is not there.
    EXPECT_EQ(tool({"prune"}).code, 1);
    EXPECT_EQ(tool({"prune", "--before", "soon"}).code, 1);
    EXPECT_EQ(tool({"prune", "--before", "now", "--store", "appstate"}).code, 1);
    std::filesystem::remove(store("genstore.db"));
    ToolRun const missing = tool({"prune", "--before", "now", "--store", "genstore"});
    EXPECT_EQ(missing.code, 2);
    EXPECT_NE(missing.err.find("genstore.db: no such store"), std::string::npos) << missing.err;
}

// ---- export

TEST_F(SupportToolTest, ExportWritesEveryRowOfEveryTableInBothFormats) {
    demo();
    std::string const awkward = "comma, \"quote\"\r\nand a new line";
    {
        EventDataStore events(store("event.db"));
        EventDataStore::AlertData alert;
        alert.guid = "awkward";
        alert.message = String(awkward.c_str());
        alert.time = at(1800000000);
        ASSERT_TRUE(events.logAlert(alert));
    }
    std::string const out = m_dir.file("export");
    ToolRun const csv = tool({"export", "--out", out, "-o", "ndjson"});
    // -o chooses the files' format; the listing printed follows it too.
    ASSERT_EQ(csv.code, 0) << csv.err;
    ToolRun const csvFiles = tool({"export", "--out", out});
    ASSERT_EQ(csvFiles.code, 0) << csvFiles.err;

    std::size_t tables = 0;
    for (char const* storeName : {"appstate", "genstore", "event", "softwarediagevent"}) {
        RawDb raw(store((std::string(storeName) + ".db").c_str()), true);
        for (auto const& row : raw.query("SELECT name FROM sqlite_master WHERE type = 'table' "
                                         "AND name NOT LIKE 'sqlite%'")) {
            std::string const table = row[0];
            ++tables;
            std::string const count = raw.scalar("SELECT COUNT(*) FROM `" + table + "`");
            std::string const base = out + "/" + storeName + "/" + table;
            auto const records = lines(test::readFile(base + ".ndjson"));
            EXPECT_EQ(std::to_string(records.size()), count) << base;
            for (auto const& line : records) {
                Json const record = Json::parse(line);
                EXPECT_EQ(record["store"], storeName);
                EXPECT_EQ(record["table"], table);
                EXPECT_FALSE(record["host"].get<std::string>().empty());
            }
            auto const csvRows = test::csvFileRows(base + ".csv");
            ASSERT_FALSE(csvRows.empty()) << base;  // the header, at least
            EXPECT_EQ(std::to_string(csvRows.size() - 1), count) << base;
        }
    }
    EXPECT_EQ(tables, 1u + 3u + 13u + 8u);
    EXPECT_EQ(csv.records().size(), tables);

    // Columns as stored: the alert's rowid leads (its key/values refer to it), integers stay
    // numbers, NULL stays null, text comes back byte for byte.
    Json awkwardRecord;
    for (auto const& line : lines(test::readFile(out + "/event/Alerts.ndjson"))) {
        Json const record = Json::parse(line);
        if (record["guid"] == "awkward") awkwardRecord = record;
    }
    ASSERT_TRUE(awkwardRecord.is_object());
    EXPECT_EQ(awkwardRecord["message"], awkward);
    EXPECT_EQ(awkwardRecord["dateTime"], 1800000000);
    EXPECT_TRUE(awkwardRecord["rowid"].is_number_integer());
    auto const alerts = test::csvFileRows(out + "/event/Alerts.csv");
    EXPECT_EQ(alerts[0][0], "rowid");
    EXPECT_EQ(alerts.back()[6], awkward);

    ToolRun const one = tool({"export", "--out", m_dir.file("one"), "--store", "genstore"});
    EXPECT_EQ(one.code, 0) << one.err;
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("one") + "/event"));
    EXPECT_TRUE(std::filesystem::exists(m_dir.file("one") + "/genstore/KeyValues.csv"));
    EXPECT_EQ(tool({"export", "--out", out, "-o", "json"}).code, 1);
}

// ---- follow

// Starts `args` of the tool in the background with its standard output in `out`; the pid is
// the tool's own.
int startTool(std::string const& stores, std::vector<std::string> const& args,
              std::string const& out) {
    std::string command = "exec env -u ZRN_LOG_LEVEL -u ZRN_LOG_FILE " + quoted(DATASTORE_TOOL);
    for (auto const& arg : args) command += " " + quoted(arg);
    command += " --dir " + quoted(stores) + " >" + quoted(out) + " 2>&1";
    return test::spawnProcess({"/bin/sh", "-c", command});
}

// Waits up to `seconds` for `text` in the file at `path`.
bool waitFor(std::string const& path, std::string const& text, double seconds) {
    for (int i = 0; i < seconds * 20; ++i) {
        if (test::readFile(path).find(text) != std::string::npos) return true;
        ::usleep(50 * 1000);
    }
    return false;
}

TEST_F(SupportToolTest, FollowPrintsWhatIsRecordedAfterItStartedUntilInterrupted) {
    demo();
    std::string const alertsOut = m_dir.file("alerts.out");
    std::string const appsOut = m_dir.file("apps.out");
    int const alertsPid = startTool(m_stores, {"alerts", "-f", "-o", "ndjson"}, alertsOut);
    int const appsPid = startTool(m_stores, {"apps", "--follow", "--type", "watched"}, appsOut);
    // A failed assertion must not leave the followers running.
    struct Stopper {
        std::vector<int> pids;
        ~Stopper() {
            for (int pid : pids) {
                if (::kill(pid, SIGKILL) == 0) test::waitProcess(pid, 5);
            }
        }
    } const stopper{{alertsPid, appsPid}};
    EventDataStore events(store("event.db"));
    auto logAlert = [&](std::string const& guid) {
        EventDataStore::AlertData alert;
        alert.guid = String(guid.c_str());
        alert.type = "Hardware";
        // Every member its own text: a column read for another shows.
        alert.key = "key";
        alert.title = "title";
        alert.message = "message";
        alert.deviceName = "device";
        alert.time = at(1800000000);
        ASSERT_TRUE(events.logAlert(alert));
    };
    // The followers start in their own time: record until one of them shows a record.
    bool seen = false;
    for (int i = 0; i < 20 && !seen; ++i) {
        logAlert("early-" + std::to_string(i));
        events.logAppStart("app", "u", "watched", at(1800000000));
        seen = waitFor(alertsOut, "early-", 1) && waitFor(appsOut, "watched", 1);
    }
    ASSERT_TRUE(seen) << test::readFile(alertsOut) << test::readFile(appsOut);
    logAlert("last");
    events.logAppStart("other", "u", "unwatched", at(1800000000));
    events.logAppStart("second", "u", "watched", at(1800000000));
    EXPECT_TRUE(waitFor(alertsOut, "\"last\"", 5)) << test::readFile(alertsOut);
    EXPECT_TRUE(waitFor(appsOut, "second", 5)) << test::readFile(appsOut);

    ::kill(alertsPid, SIGINT);
    ::kill(appsPid, SIGINT);
    EXPECT_EQ(test::waitProcess(alertsPid, 10), 0);
    EXPECT_EQ(test::waitProcess(appsPid, 10), 0);

    // One record per line, only what came after the start, in the order recorded, each as the
    // listing prints it.
    std::vector<std::string> guids;
    std::vector<std::string> const followed = lines(test::readFile(alertsOut));
    for (auto const& line : followed) guids.push_back(Json::parse(line)["guid"].get<std::string>());
    ASSERT_FALSE(guids.empty());
    EXPECT_EQ(guids.back(), "last");
    EXPECT_EQ(followed.back(), lines(tool({"alerts", "-o", "ndjson", "--limit", "1"}).out).at(0));
    for (std::size_t i = 0; i + 1 < guids.size(); ++i)
        EXPECT_EQ(guids[i].rfind("early-", 0), 0u) << guids[i];
    // A table: one header however many batches, only runs of the type asked for.
    std::string const apps = test::readFile(appsOut);
    auto const appLines = lines(apps);
    EXPECT_EQ(appLines.front().rfind("RUN", 0), 0u) << apps;
    EXPECT_EQ(apps.find("RUN", 1), std::string::npos) << apps;
    EXPECT_EQ(apps.find("unwatched"), std::string::npos) << apps;
    EXPECT_NE(apps.find("second"), std::string::npos) << apps;
}

// ---- collect

TEST_F(SupportToolTest, CollectBundlesConsistentCopiesWithTheirManifestWhileTheSuiteRecords) {
    demo();
    // Another process keeps recording whole days while the bundles are made.
    std::string const writer = "for i in 1 2 3 4 5 6; do " + quoted(DATASTORE_TOOL) +
                               " demo --dir " + quoted(m_stores) + " >/dev/null 2>&1; done";
    int const writerPid = test::spawnProcess({"/bin/sh", "-c", writer});
    for (int round = 0; round < 3; ++round) {
        std::string const bundle = m_dir.file("bundle" + std::to_string(round) + ".tar.gz");
        ToolRun const run = tool({"collect", "--out", bundle, "--wait", "30", "-o", "ndjson"});
        ASSERT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(run.records().size(), 4u);
        EXPECT_FALSE(std::filesystem::exists(bundle + ".partial"));
        std::string const folder = m_dir.file("x" + std::to_string(round));
        std::filesystem::create_directories(folder);
        ASSERT_EQ(test::runProcess(
                      {"/bin/sh", "-c", "tar -xzf " + quoted(bundle) + " -C " + quoted(folder)}),
                  0);

        Json const manifest = Json::parse(test::readFile(folder + "/manifest.json"));
        EXPECT_EQ(manifest["tool"], "datastore");
        EXPECT_FALSE(manifest["toolVersion"].get<std::string>().empty());
        EXPECT_FALSE(manifest["host"].get<std::string>().empty());
        EXPECT_FALSE(manifest["collected"].get<std::string>().empty());
        std::map<std::string, Json> const expectedVersion = {{"appstate.db", nullptr},
                                                             {"genstore.db", 1},
                                                             {"event.db", 3},
                                                             {"softwarediagevent.db", 1}};
        ASSERT_EQ(manifest["files"].size(), 4u);
        for (Json const& file : manifest["files"]) {
            std::string const name = file["name"];
            std::string const copy = folder + "/" + name;
            std::string const bytes = test::readFile(copy);
            EXPECT_EQ(file["size"], bytes.size()) << name;
            // sha256sum(1) as a second opinion on the manifest's hash.
            std::string const sums = m_dir.file("sums.txt");
            ASSERT_EQ(test::runProcess(
                          {"/bin/sh", "-c", "sha256sum " + quoted(copy) + " >" + quoted(sums)}),
                      0);
            EXPECT_EQ(test::readFile(sums).substr(0, 64), file["sha256"]) << name;
            EXPECT_EQ(file["schemaVersion"], expectedVersion.at(name)) << name;
            RawDb raw(copy, true);
            EXPECT_EQ(raw.scalar("PRAGMA integrity_check"), "ok") << name;
            for (auto const& [table, rows] : file["rows"].items()) {
                EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM `" + table + "`"),
                          std::to_string(rows.get<long long>()))
                    << name << " " << table;
            }
        }
    }
    EXPECT_EQ(test::waitProcess(writerPid, 60), 0);
    // A folder without stores: no bundle.
    std::filesystem::remove_all(m_stores);
    EXPECT_EQ(tool({"collect", "--out", m_dir.file("none.tar.gz")}).code, 2);
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("none.tar.gz")));
}

}  // namespace
}  // namespace zrn
