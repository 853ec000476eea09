// What the tool says of stores that are damaged, truncated, not stores at all, oddly named or
// not there: check, collect and export run as a separate process on copies of demo stores.

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ToolRun.h"

namespace zrn {
namespace {

using Json = nlohmann::json;
using test::quoted;
using test::RawDb;
using test::ToolRun;

class DamagedStoresTest : public test::ToolTest {
protected:
    void SetUp() override { demo(); }

    // Fills the root page of `table` with bytes no page has.
    void overwriteTable(std::string const& path, std::string const& table) const {
        long long page = 0;
        long long size = 0;
        {
            RawDb db(path, true);
            page = std::stoll(
                db.scalar("SELECT rootpage FROM sqlite_master WHERE name = '" + table + "'"));
            size = std::stoll(db.scalar("PRAGMA page_size"));
        }
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp((page - 1) * size);
        file << std::string(static_cast<std::size_t>(size), '\x5a');
    }

    // The bundle's files in `folder`, its manifest returned.
    Json unpack(std::string const& bundle, std::string const& folder) const {
        std::filesystem::create_directories(folder);
        EXPECT_EQ(test::runProcess(
                      {"/bin/sh", "-c", "tar -xzf " + quoted(bundle) + " -C " + quoted(folder)}),
                  0);
        return Json::parse(test::readFile(folder + "/manifest.json"));
    }
};

TEST_F(DamagedStoresTest, CheckKnowsWhichStoreAFileIsAndThatAMissingFolderIsNoHealth) {
    ToolRun run = tool({"check", "--file", store("event.db"), "-o", "ndjson"}, false);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "{\"store\":\"event.db\",\"path\":\"" + store("event.db") +
                           "\",\"status\":\"ok\",\"version\":3}\n");
    // Known by its tables, whatever its name.
    std::string const renamed = m_dir.file("copy-of-repairs");
    std::filesystem::copy_file(store("softwarediagevent.db"), renamed);
    run = tool({"check", "--file", renamed, "-o", "ndjson"}, false);
    EXPECT_EQ(run.code, 0) << run.err;
    ASSERT_EQ(run.records().size(), 1u);
    EXPECT_EQ(run.records()[0]["store"], "softwarediagevent.db");

    std::string const nowhere = m_dir.file("no/such/folder");
    run = tool({"check", "--dir", nowhere}, false);
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err,
              "datastore: " + nowhere + ": no such folder (give the stores' folder with --dir)\n");
    run = tool({"check", "--file", m_dir.file("none.db")}, false);
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.err, "datastore: " + m_dir.file("none.db") + ": no such store file\n");
    std::string const text = m_dir.file("notes.txt");
    test::writeFile(text, "not a database");
    run = tool({"check", "--file", text}, false);
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.err, "datastore: " + text +
                           ": not a store file (it has the tables of none of the stores)\n");

    overwriteTable(store("event.db"), "TestRuns");
    run = tool({"check", "--file", store("event.db"), "-o", "ndjson"}, false);
    EXPECT_EQ(run.code, 3);
    ASSERT_EQ(run.records().size(), 1u);
    EXPECT_EQ(run.records()[0]["status"], "damaged");
    EXPECT_EQ(run.err.rfind("datastore: " + store("event.db") + ": damaged: integrity: ", 0), 0u)
        << run.err;
}

TEST_F(DamagedStoresTest, CollectAlwaysWritesTheBundleAndNamesTheDamage) {
    overwriteTable(store("event.db"), "Measurements");
    std::string const general = test::readFile(store("genstore.db"));
    std::filesystem::resize_file(store("genstore.db"), general.size() / 2);
    test::writeFile(store("softwarediagevent.db"), "no longer a database");
    std::string const bundle = m_dir.file("bundle.tar.gz");
    ToolRun const run = tool({"collect", "--out", bundle, "-o", "ndjson"});
    EXPECT_EQ(run.code, 3) << run.err;
    EXPECT_EQ(run.err, "datastore: " + store("genstore.db") +
                           ": damaged (collected as it is)\ndatastore: " + store("event.db") +
                           ": damaged (collected as it is)\ndatastore: " +
                           store("softwarediagevent.db") + ": damaged (collected as it is)\n");
    std::vector<Json> const printed = run.records();
    ASSERT_EQ(printed.size(), 4u);
    EXPECT_EQ(printed[0]["integrity"], "ok");
    EXPECT_EQ(printed[2]["integrity"], "damaged");

    std::string const folder = m_dir.file("unpacked");
    Json const manifest = unpack(bundle, folder);
    ASSERT_EQ(manifest["files"].size(), 4u);
    Json const& state = manifest["files"][0];
    EXPECT_EQ(state["name"], "appstate.db");
    EXPECT_EQ(state["integrity"], "ok");
    EXPECT_EQ(state["copy"], "backup");
    Json const& events = manifest["files"][2];
    EXPECT_EQ(events["copy"], "backup");
    ASSERT_TRUE(events["integrity"].is_array());
    EXPECT_FALSE(events["integrity"].empty());
    EXPECT_EQ(events["rows"].size(), 13u);
    EXPECT_EQ(events["rows"]["Versioning"], 1);
    EXPECT_EQ(events["schemaVersion"], 3);
    EXPECT_TRUE(manifest["files"][1]["integrity"].is_array());
    // What no backup can read goes into the bundle byte for byte.
    Json const& repairs = manifest["files"][3];
    EXPECT_EQ(repairs["copy"], "bytes");
    EXPECT_EQ(repairs["integrity"], Json::array({"cannot read: file is not a database"}));
    EXPECT_TRUE(test::readFile(folder + "/softwarediagevent.db") == "no longer a database");
}

TEST_F(DamagedStoresTest, CollectWritesTheArchiveItsNameAsksFor) {
    std::string const zip = m_dir.file("bundle.zip");
    ToolRun run = tool({"collect", "--out", zip});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(test::readFile(zip).substr(0, 4), "PK\x03\x04");
    std::string const folder = m_dir.file("unzipped");
    ASSERT_EQ(
        test::runProcess({"/bin/sh", "-c", "unzip -q " + quoted(zip) + " -d " + quoted(folder)}),
        0);
    EXPECT_EQ(Json::parse(test::readFile(folder + "/manifest.json"))["files"].size(), 4u);
    EXPECT_EQ(test::readFile(folder + "/event.db").substr(0, 16),
              std::string("SQLite format 3\0", 16));
    std::string const tar = m_dir.file("bundle.tar");
    EXPECT_EQ(tool({"collect", "--out", tar}).code, 0);
    EXPECT_EQ(test::readFile(tar).substr(257, 5), "ustar");
    EXPECT_EQ(test::readFile(tar).substr(0, 12), std::string("appstate.db\0", 12));
    std::string const tgz = m_dir.file("bundle.tgz");
    EXPECT_EQ(tool({"collect", "--out", tgz}).code, 0);
    EXPECT_EQ(test::readFile(tgz).substr(0, 2), "\x1f\x8b");
    // A name it cannot honour: refused, nothing written.
    std::string const rar = m_dir.file("bundle.rar");
    run = tool({"collect", "--out", rar});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.err, "datastore: --out " + rar + ": a bundle is a .tar.gz, .tgz, .tar or .zip\n");
    EXPECT_FALSE(std::filesystem::exists(rar));
    EXPECT_FALSE(std::filesystem::exists(rar + ".partial"));
}

TEST_F(DamagedStoresTest, ExportWritesWholeFilesOfEveryTableItCanRead) {
    {
        RawDb db(store("genstore.db"));
        db.exec(
            "CREATE TABLE `odd\"na``me x` (`it's` TEXT); INSERT INTO `odd\"na``me x` "
            "VALUES ('a,b');");
    }
    std::string const out = m_dir.file("export");
    ToolRun run = tool({"export", "--out", out, "--store", "genstore"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(test::readFile(out + "/genstore/odd\"na`me x.csv"), "rowid,it's\r\n1,\"a,b\"\r\n");

    overwriteTable(store("event.db"), "TestRuns");
    run = tool({"export", "--out", out, "--store", "event", "-o", "ndjson"});
    EXPECT_EQ(run.code, 3);
    EXPECT_EQ(run.err, "datastore: " + store("event.db") +
                           ": table TestRuns not exported: cannot read: database disk image is "
                           "malformed\ndatastore: 1 table not exported (damaged store; see "
                           "'datastore check')\n");
    EXPECT_FALSE(std::filesystem::exists(out + "/event/TestRuns.ndjson"));
    // The tables after it are still there, and nothing half written is left.
    EXPECT_TRUE(std::filesystem::exists(out + "/event/Versioning.ndjson"));
    EXPECT_NE(test::readFile(out + "/event/Versioning.ndjson")
                  .find(",\"store\":\"event\",\"table\":\"Versioning\",\"_version\":"),
              std::string::npos);
    EXPECT_NE(
        test::readFile(out + "/event/Versioning.ndjson").find(",\"_deleted\":0,\"version\":3}\n"),
        std::string::npos);
    for (auto const& entry : std::filesystem::recursive_directory_iterator(out))
        EXPECT_NE(entry.path().extension(), ".partial") << entry.path();
}

TEST_F(DamagedStoresTest, AMissingRecordExits4FromEveryCommand) {
    std::string const events = store("event.db");
    std::vector<std::pair<std::vector<std::string>, std::string>> const cases = {
        {{"events", "--test", "999"}, "no test run 999"},
        {{"events", "--test", "999", "-f"}, "no test run 999"},
        {{"events", "--script", "999"}, "no script run 999"},
        {{"tips", "--test", "999"}, "no test run 999"},
        {{"tips", "--script", "999"}, "no script run 999"},
        {{"tips", "--alert", "999"}, "no alert 999"},
        {{"tests", "999"}, "no script run 999"},
        {{"alerts", "999"}, "no alert 999"},
    };
    for (auto const& [args, message] : cases) {
        std::vector<std::string> command = args;
        ToolRun const run = tool(command);
        EXPECT_EQ(run.code, 4) << args[0] << " " << args[1];
        EXPECT_EQ(run.out, "") << args[0] << " " << args[1];
        EXPECT_EQ(run.err, "datastore: " + events + ": " + message + "\n")
            << args[0] << " " << args[1];
    }
    // The ones that are there still list.
    EXPECT_EQ(tool({"tips", "--alert", "1"}).code, 0);
    EXPECT_EQ(tool({"events", "--test", "1"}).code, 0);
}

// journalctl's time forms select what the tool's own forms for the same moment select.
TEST_F(DamagedStoresTest, JournalctlTimeFormsMeanWhatTheyDoThere) {
    std::vector<std::pair<std::string, std::string>> const same = {
        {"00:00", "today"},       {"0:00:00", "today"},   {"yesterday 00:00", "yesterday"},
        {"today 00:00", "today"}, {"3 days ago", "-3d"},  {"3days ago", "-3d"},
        {"36 hours ago", "-36h"}, {"90 min ago", "-90m"}, {"2 weeks ago", "-2w"},
    };
    std::string const all = tool({"alerts", "-o", "ndjson"}).out;
    ASSERT_FALSE(all.empty());
    for (auto const& [spoken, own] : same) {
        ToolRun const a = tool({"alerts", "-o", "ndjson", "--since", spoken});
        ToolRun const b = tool({"alerts", "-o", "ndjson", "--since", own});
        EXPECT_EQ(a.code, 0) << spoken << ": " << a.err;
        EXPECT_EQ(a.out, b.out) << spoken;
    }
    // As upper bounds too, where a wrong moment would cut the day's records elsewhere.
    std::time_t const now = std::time(nullptr);
    std::tm today{};
    localtime_r(&now, &today);
    char date[16];
    std::strftime(date, sizeof date, "%Y-%m-%d", &today);
    std::vector<std::pair<std::string, std::string>> const bounds = {
        {"10:00", std::string(date) + "T10:00"},
        {"today 06:30:15", std::string(date) + "T06:30:15"},
        {"23:59", std::string(date) + "T23:59"},
        {"yesterday 23:59:59", "yesterday"},
        {"90 min ago", "-90m"},
        {"5 hours ago", "-5h"},
        {"3 days ago", "-3d"},
    };
    for (auto const& [spoken, own] : bounds) {
        ToolRun const a = tool({"alerts", "-o", "ndjson", "--until", spoken});
        ToolRun const b = tool({"alerts", "-o", "ndjson", "--until", own});
        EXPECT_EQ(a.code, 0) << spoken << ": " << a.err;
        EXPECT_EQ(a.out, b.out) << spoken;
    }
    // A moment later than every record selects none, an earlier one all.
    EXPECT_EQ(tool({"alerts", "-o", "ndjson", "--since", "tomorrow 00:00"}).out, "");
    EXPECT_EQ(tool({"alerts", "-o", "ndjson", "--until", "tomorrow 00:00"}).out, all);
    for (char const* wrong : {"24:00", "10:60", "3 days", "ago", "yesterday 9"}) {
        ToolRun const run = tool({"alerts", "--since", wrong});
        EXPECT_EQ(run.code, 1) << wrong;
        EXPECT_EQ(run.err.rfind(std::string("datastore: --since: '") + wrong + "' ", 0), 0u)
            << run.err;
    }
}

}  // namespace
}  // namespace zrn
