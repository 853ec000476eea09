// Exports for a fleet database: machine identity, incremental exports with their mark, the
// ClickHouse schema, and the whole pipeline against a real clickhouse-server run as a child.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "ClickHouseServer.h"
#include "Golden.h"
#include "TestSupport.h"
#include "ToolRun.h"

namespace zrn {
namespace {

using Json = nlohmann::json;
using test::ClickHouseServer;
using test::lines;
using test::quoted;
using test::RawDb;
using test::ToolRun;

char const* const kStores[] = {"appstate", "genstore", "event", "softwarediagevent"};

std::vector<Json> records(std::string const& text) {
    std::vector<Json> result;
    for (std::string const& line : lines(text)) result.push_back(Json::parse(line));
    return result;
}

// Runs the tool piped on the stores in `stores`; standard error goes to `err`.
ToolRun tool(std::string const& stores, std::vector<std::string> const& args,
             std::string const& errFile) {
    std::vector<std::string> withDir{"--dir", stores};
    withDir.insert(withDir.end(), args.begin(), args.end());
    return test::runTool(withDir, errFile);
}

// Sums of an export's listing: rows in the tables, records sent, tombstones.
struct Sent {
    long long rows = 0, sent = 0, deleted = 0;
    std::map<std::string, std::pair<long long, long long>> tables;  // sent, deleted
};

Sent sentBy(ToolRun const& run) {
    Sent sum;
    for (Json const& r : run.records()) {
        sum.rows += r["rows"].get<long long>();
        sum.sent += r["sent"].get<long long>();
        sum.deleted += r["deleted"].get<long long>();
        sum.tables[r["store"].get<std::string>() + "." + r["table"].get<std::string>()] = {
            r["sent"].get<long long>(), r["deleted"].get<long long>()};
    }
    return sum;
}

// One table of a store file read by Python's sqlite3 module: its row key (the INTEGER PRIMARY
// KEY, else rowid), its columns, and every row as a JSON object of SQLite's own types.
struct RawTable {
    std::string key;
    std::vector<std::string> columns;  // the key first
    std::vector<Json> rows;            // in key order
};

RawTable readRaw(std::string const& path, std::string const& table) {
    ToolRun const run = test::runShell(
        "python3 -c '"
        "import json, sqlite3, sys\n"
        "db = sqlite3.connect(sys.argv[1])\n"
        "info = db.execute(\"PRAGMA table_info(`%s`)\" % sys.argv[2]).fetchall()\n"
        "key = next((c[1] for c in info if c[5] == 1 and c[2] == \"INTEGER\"), \"rowid\")\n"
        "columns = [key] + [c[1] for c in info if c[1] != key]\n"
        "names = \", \".join(\"`%s`\" % c for c in columns)\n"
        "rows = db.execute(\"SELECT %s FROM `%s` ORDER BY `%s`\" % (names, sys.argv[2], key))\n"
        "print(json.dumps([key, columns, [dict(zip(columns, row)) for row in rows]]))' " +
        quoted(path) + " " + quoted(table));
    EXPECT_EQ(run.code, 0) << path << " " << table;
    Json const read = Json::parse(run.out);
    return {read[0], read[1], read[2]};
}

std::vector<std::string> tablesOf(std::string const& path) {
    std::vector<std::string> names;
    for (auto const& row :
         RawDb(path, true)
             .query(
                 "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite%'"))
        names.push_back(row[0]);
    return names;
}

// ---- without a server

class FleetExportTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(run({"demo"}).code, 0);
        ASSERT_EQ(run({"demo"}).code, 0);
    }
    ToolRun run(std::vector<std::string> const& args) const {
        return tool(m_stores, args, m_dir.file("err.txt"));
    }
    // The incremental export of this machine as "pc-7" (or `machine`) with `mark`.
    ToolRun exportMarked(std::string const& machine = "pc-7") const {
        return run(
            {"export", "--out", m_out, "-o", "ndjson", "--machine", machine, "--mark", m_mark});
    }
    std::string file(std::string const& name) const { return test::readFile(m_out + "/" + name); }

    test::TempDir m_dir;
    std::string const m_stores = m_dir.file("stores");
    std::string const m_mark = m_dir.file("export.mark");
    std::string const m_out = m_dir.file("out");
};

TEST_F(FleetExportTest, RecordsNameTheMachineAndAMarkedExportSendsNothingTwice) {
    // A whole export: every record names the machine (by default this one's identity) and
    // carries _version and _deleted.
    ToolRun const whole = run({"export", "--out", m_out, "-o", "ndjson"});
    ASSERT_EQ(whole.code, 0) << whole.err;
    std::ifstream idFile("/etc/machine-id");
    std::string machine;
    if (!(idFile >> machine)) {
        char host[256] = {};
        ::gethostname(host, sizeof host - 1);
        machine = host;
    }
    std::string const firstLine = lines(file("event/TestRuns.ndjson")).at(0);
    EXPECT_EQ(firstLine.substr(0, 21 + machine.size()),
              "{\"machine\":\"" + machine + "\",\"host\":");
    Json const first = Json::parse(firstLine);
    EXPECT_EQ(first["_deleted"], 0);
    unsigned long long const wholeVersion = first["_version"].get<unsigned long long>();

    // The first marked export sends everything, the second nothing; the version grows.
    Sent const initial = sentBy(exportMarked());
    EXPECT_EQ(initial.sent, initial.rows);
    EXPECT_EQ(initial.deleted, 0);
    Json const markJson = Json::parse(test::readFile(m_mark));
    EXPECT_EQ(markJson["machine"], "pc-7");
    EXPECT_GT(markJson["version"].get<unsigned long long>(), wholeVersion);
    Sent const again = sentBy(exportMarked());
    EXPECT_EQ(again.sent + again.deleted, 0);
    EXPECT_EQ(file("event/TestRuns.ndjson"), "");
    EXPECT_GT(Json::parse(test::readFile(m_mark))["version"], markJson["version"]);
    // One store exported alone leaves what the mark knows of the others.
    ASSERT_EQ(run({"export", "--out", m_out, "-o", "ndjson", "--machine", "pc-7", "--mark", m_mark,
                   "--store", "genstore"})
                  .code,
              0);
    EXPECT_EQ(sentBy(exportMarked()).sent, 0);

    // Small next to the stores: the mark is under 10% of them.
    std::uintmax_t storeBytes = 0;
    for (char const* name : kStores)
        storeBytes += std::filesystem::file_size(m_stores + "/" + name + ".db");
    EXPECT_LT(std::filesystem::file_size(m_mark) * 10, storeBytes);
}

TEST_F(FleetExportTest, AMarkedExportSendsTheChangedRowsAndTombstonesForTheGone) {
    ASSERT_EQ(exportMarked().code, 0);
    // A run finished later, an item replaced, a test run removed: exactly those are sent.
    RawDb(m_stores + "/event.db")
        .exec(
            "UPDATE TestRuns SET result = 'FAIL' WHERE testId = 3; DELETE FROM TestRuns "
            "WHERE testId = 5");
    ASSERT_EQ(run({"state", "set", "ui.theme", "light"}).code, 0);
    Sent const changes = sentBy(exportMarked());
    EXPECT_EQ(changes.sent, 2);  // the test run and the item under its new rowid
    EXPECT_EQ(changes.deleted, 2);
    EXPECT_EQ((changes.tables.at("event.TestRuns")), (std::pair<long long, long long>{1, 1}));
    std::vector<Json> const testRuns = records(file("event/TestRuns.ndjson"));
    ASSERT_EQ(testRuns.size(), 2u);
    EXPECT_EQ(testRuns[0]["testId"], 3);
    EXPECT_EQ(testRuns[0]["result"], "FAIL");
    Json const tombstone = testRuns[1];
    EXPECT_EQ(lines(file("event/TestRuns.ndjson"))[1],
              "{\"machine\":\"pc-7\",\"host\":" + tombstone["host"].dump() +
                  ",\"store\":\"event\",\"table\":\"TestRuns\",\"_version\":" +
                  tombstone["_version"].dump() + ",\"_deleted\":1,\"testId\":5}");
    EXPECT_EQ(testRuns[0]["_version"], tombstone["_version"]);
    std::vector<Json> const items = records(file("appstate/AppState.ndjson"));
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0]["data"], "light");
    EXPECT_EQ(items[1]["_deleted"], 1);
    EXPECT_TRUE(items[1].contains("rowid"));
    // Another machine's mark sends everything.
    EXPECT_EQ(sentBy(exportMarked("pc-8")).sent, changes.rows);
}

TEST_F(FleetExportTest, AMarkIsWrittenOnlyWhenEveryFileIsAndBadOnesAreRefused) {
    ASSERT_EQ(exportMarked().code, 0);
    std::string const before = test::readFile(m_mark);
    ASSERT_EQ(run({"demo"}).code, 0);
    // The last store's table cannot be written: the files before it are, the mark is not, so
    // the next export sends the same changes again.
    std::filesystem::remove(m_out + "/softwarediagevent/Sessions.ndjson");
    std::filesystem::create_directories(m_out + "/softwarediagevent/Sessions.ndjson");
    ToolRun const stopped = exportMarked();
    EXPECT_EQ(stopped.code, 2);
    EXPECT_EQ(test::readFile(m_mark), before);
    EXPECT_EQ(records(file("event/TestRuns.ndjson")).size(), 6u);
    std::filesystem::remove(m_out + "/softwarediagevent/Sessions.ndjson");
    EXPECT_EQ(sentBy(exportMarked()).tables.at("event.TestRuns").first, 6);
    EXPECT_NE(test::readFile(m_mark), before);

    test::writeFile(m_dir.file("bad.mark"), "{\"machine\":\"pc-7\"}");
    ToolRun const refused =
        run({"export", "--out", m_out, "-o", "ndjson", "--mark", m_dir.file("bad.mark")});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.err, "datastore: " + m_dir.file("bad.mark") +
                               ": not an export mark (written by 'export --mark')\n");
    ToolRun const csv = run({"export", "--out", m_out, "--mark", m_dir.file("new.mark")});
    EXPECT_EQ(csv.code, 1);
    EXPECT_EQ(csv.err, "datastore: --mark: an incremental export writes ndjson (add -o ndjson)\n");
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("new.mark")));
    std::string const unwritable = m_dir.file("none/export.mark");
    ToolRun const nowhere = run({"export", "--out", m_out, "-o", "ndjson", "--mark", unwritable});
    EXPECT_EQ(nowhere.code, 2);
    EXPECT_EQ(nowhere.err,
              "datastore: " + unwritable + ".partial: cannot write: No such file or directory\n");
    EXPECT_EQ(run({"export"}).err, "datastore: --out is required\n");
    EXPECT_EQ(run({"export", "--schema", "clickhouse", "--out", m_out}).code, 1);
}

TEST(FleetSchemaTest, ClickHouseSchemaIsTheLibrarysTables) {
    test::TempDir dir;
    ToolRun const schema =
        tool(dir.file("none"), {"export", "--schema", "clickhouse"}, dir.file("err.txt"));
    ASSERT_EQ(schema.code, 0) << schema.err;
    test::expectGolden("tool/clickhouse-schema.sql", schema.out);
    // It needs no stores and makes none.
    EXPECT_FALSE(std::filesystem::exists(dir.file("none")));
    EXPECT_EQ(tool(dir.file("none"), {"export", "--schema", "mysql"}, dir.file("err.txt")).code, 1);
}

// ---- against a real server

class ClickHouseFleetTest : public ::testing::Test {
protected:
    std::string stores(std::string const& machine) const { return m_dir.file(machine); }
    ToolRun run(std::string const& machine, std::vector<std::string> const& args) const {
        return tool(stores(machine), args, m_dir.file("err.txt"));
    }
    // The incremental export of `machine` into out/<machine>.
    ToolRun exportMachine(std::string const& machine) const {
        return run(machine, {"export", "--out", m_dir.file("out/" + machine), "-o", "ndjson",
                             "--machine", machine, "--mark", m_dir.file(machine + ".mark")});
    }
    // Loads every table's file of every machine, one INSERT per table.
    void load(ClickHouseServer const& server) const {
        for (char const* store : kStores)
            for (std::string const& table : tablesOf(stores(m_machines[0]) + "/" + store + ".db")) {
                std::string const all = m_dir.file("load.ndjson");
                std::string text;
                for (auto const& machine : m_machines)
                    text += test::readFile(
                        m_dir.file("out/" + machine + "/" + store + "/" + table + ".ndjson"));
                if (text.empty()) continue;  // the server refuses an INSERT of nothing
                test::writeFile(all, text);
                auto const insert = server.query("INSERT INTO datastore." + std::string(store) +
                                                     "_" + table + " FORMAT JSONEachRow",
                                                 all);
                ASSERT_EQ(insert.code, 0) << store << "." << table << ": " << insert.err;
            }
    }
    // Every table of every machine: the rows FINAL keeps (tombstones left out) are the rows
    // of the machine's files, cell for cell.
    void expectSameRows(ClickHouseServer const& server) const {
        for (auto const& machine : m_machines)
            for (char const* store : kStores) {
                std::string const path = stores(machine) + "/" + store + ".db";
                for (std::string const& table : tablesOf(path)) {
                    RawTable const raw = readRaw(path, table);
                    std::string columns;
                    for (auto const& c : raw.columns)
                        columns += (columns.empty() ? "`" : ", `") + c + "`";
                    auto const result = server.query(
                        "SELECT " + columns + " FROM datastore." + store + "_" + table +
                            " FINAL WHERE machine = '" + machine + "' AND _deleted = 0 ORDER BY `" +
                            raw.key + "` FORMAT JSONEachRow",
                        "", "--output_format_json_quote_64bit_integers=0");
                    ASSERT_EQ(result.code, 0) << result.err;
                    EXPECT_EQ(records(result.out), raw.rows)
                        << machine << " " << store << "." << table;
                }
            }
    }

    void recordMore() const;
    void expectFleetAnswers(ClickHouseServer const& clickhouse) const;

    test::TempDir m_dir;
    std::vector<std::string> const m_machines{"pc-1", "pc-2", "pc-3"};
};

// pc-1 finishes a run differently, records a new day and replaces a state item; pc-2 prunes
// its older day; pc-3 does all of it but the finished run.
void ClickHouseFleetTest::recordMore() const {
    long long const dayA = std::stoll(
        RawDb(stores("pc-2") + "/event.db", true).scalar("SELECT MAX(startTime) FROM ScriptRuns"));
    std::string const cutoff = "@" + std::to_string(dayA - 12 * 3600);
    RawDb(stores("pc-1") + "/event.db")
        .exec("UPDATE TestRuns SET result = 'FAIL' WHERE testId = 3");
    for (std::string const machine : {"pc-1", "pc-3"}) {
        ASSERT_EQ(run(machine, {"demo"}).code, 0);
        ASSERT_EQ(run(machine, {"state", "set", "ui.theme", "light"}).code, 0);
    }
    for (std::string const machine : {"pc-2", "pc-3"})
        ASSERT_EQ(run(machine, {"prune", "--before", cutoff}).code, 0);
}

// Two fleet questions in SQL against the same questions asked of every machine's file.
void ClickHouseFleetTest::expectFleetAnswers(ClickHouseServer const& clickhouse) const {
    std::map<std::string, long long> failures;
    std::map<std::string, long long> untracked;
    for (auto const& machine : m_machines) {
        RawDb db(stores(machine) + "/event.db", true);
        for (auto const& row : db.query("SELECT testName FROM TestRuns WHERE result = 'FAIL'"))
            ++failures[row[0]];
        for (auto const& row : db.query("SELECT type FROM Alerts WHERE tracked = 0"))
            ++untracked[machine + "\t" + row[0]];
    }
    std::string expectedFailures, expectedUntracked;
    for (auto const& [name, count] : failures)
        expectedFailures += name + "\t" + std::to_string(count) + "\n";
    for (auto const& [key, count] : untracked)
        expectedUntracked += key + "\t" + std::to_string(count) + "\n";
    ASSERT_FALSE(failures.empty());
    ASSERT_FALSE(untracked.empty());
    EXPECT_EQ(clickhouse
                  .query("SELECT testName, count() FROM datastore.event_TestRuns FINAL WHERE "
                         "_deleted = 0 AND result = 'FAIL' GROUP BY testName ORDER BY testName")
                  .out,
              expectedFailures);
    EXPECT_EQ(clickhouse
                  .query("SELECT machine, type, count() FROM datastore.event_Alerts FINAL WHERE "
                         "_deleted = 0 AND tracked = 0 GROUP BY machine, type ORDER BY machine, "
                         "type")
                  .out,
              expectedUntracked);
}

TEST_F(ClickHouseFleetTest, TheServerHoldsWhatEveryMachineHolds) {
    std::string const server = test::clickHouseServerPath();
    std::string const client = test::clickHouseClientPath();
    if (server.empty() || client.empty())
        GTEST_SKIP() << "clickhouse-server or clickhouse-client is not installed "
                        "(scripts/setup.sh installs both): the fleet pipeline is not tested";
    std::filesystem::create_directories(m_dir.file("server"));
    ClickHouseServer const clickhouse(server, client, m_dir.file("server"));
    ASSERT_TRUE(clickhouse.waitReady(60)) << test::readFile(m_dir.file("server/console.log"))
                                          << test::readFile(m_dir.file("server/error.log"));

    // The schema from the tool's output, as an operator would make it.
    test::writeFile(m_dir.file("schema.sql"),
                    run("pc-1", {"export", "--schema", "clickhouse"}).out);
    auto const created = clickhouse.query("", m_dir.file("schema.sql"), "--multiquery");
    ASSERT_EQ(created.code, 0) << created.err;
    // Two days on each machine, exported and loaded.
    for (auto const& machine : m_machines)
        for (int day = 0; day < 2; ++day) ASSERT_EQ(run(machine, {"demo"}).code, 0);
    for (auto const& machine : m_machines) ASSERT_EQ(exportMachine(machine).code, 0);
    ASSERT_NO_FATAL_FAILURE(load(clickhouse));
    ASSERT_NO_FATAL_FAILURE(expectSameRows(clickhouse));

    ASSERT_NO_FATAL_FAILURE(recordMore());
    ToolRun const wholeExport =
        run("pc-1", {"export", "--out", m_dir.file("whole"), "-o", "ndjson"});
    std::map<std::string, Sent> sent;
    for (auto const& machine : m_machines) {
        ToolRun const incremental = exportMachine(machine);
        ASSERT_EQ(incremental.code, 0) << incremental.err;
        sent[machine] = sentBy(incremental);
    }
    // Only the changes went: pc-1 sends its new day's test runs and the finished one, pc-2 only
    // tombstones for its pruned day.
    EXPECT_EQ(sent["pc-1"].tables["event.TestRuns"], (std::pair<long long, long long>{7, 0}));
    EXPECT_EQ(sent["pc-2"].tables["event.TestRuns"], (std::pair<long long, long long>{0, 6}));
    EXPECT_EQ(sent["pc-2"].sent, 0);
    // Measured against a whole export of the same state.
    long long wholeRecords = 0;
    for (Json const& table : wholeExport.records()) wholeRecords += table["rows"].get<long long>();
    long long const incrementalRecords = sent["pc-1"].sent + sent["pc-1"].deleted;
    EXPECT_LT(2 * incrementalRecords, wholeRecords);
    std::cout << "pc-1 after one more day: " << incrementalRecords << " records sent, "
              << wholeRecords << " in a whole export\n";
    ASSERT_NO_FATAL_FAILURE(load(clickhouse));
    ASSERT_NO_FATAL_FAILURE(expectSameRows(clickhouse));
    EXPECT_EQ(clickhouse
                  .query("SELECT count() FROM datastore.event_TestRuns FINAL WHERE machine = "
                         "'pc-2' AND _deleted = 1")
                  .out,
              "6\n");
    expectFleetAnswers(clickhouse);
}

}  // namespace
}  // namespace zrn
