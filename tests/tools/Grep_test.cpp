// datastore grep, run as a separate process on the demo of a fixed day: what it finds and where
// (pinned by a golden file), how the pattern is read, its exit codes, its colours on a
// terminal, and cells no listing would show (invalid UTF-8, a long text, an oddly named table).

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
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

class GrepTest : public test::ToolTest {
protected:
    GrepTest() { m_env = "TZ=UTC"; }
    void SetUp() override { demo({"--day", "2026-11-23"}); }

    // The `column` of each ndjson record `args` print.
    std::vector<std::string> found(std::vector<std::string> args, char const* column) const {
        args.insert(args.end(), {"-o", "ndjson"});
        std::vector<std::string> values;
        for (Json const& record : tool(args).records()) values.push_back(record[column].dump());
        return values;
    }
};

TEST_F(GrepTest, FindsTheErrorCodeInTestRunsAndEventsWithTheirIds) {
    std::string text;
    for (auto const& args :
         std::vector<std::vector<std::string>>{{"grep", "DSK-0?112"},
                                               {"grep", "DSK-0112", "-o", "ndjson"},
                                               {"grep", "-c", "dsk"},
                                               {"grep", "battery", "--store", "event"}}) {
        ToolRun const run = tool(args);
        EXPECT_EQ(run.code, 0) << run.err;
        text += "## datastore";
        for (std::string const& arg : args) text += " " + arg;
        text += "\n" + run.out;
    }
    test::expectGolden("tool/grep.txt", text);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

TEST_F(GrepTest, ReadsThePatternAsGrepDoes) {
    using Found = std::vector<std::string>;
    // Smart case: lower case matches any case, an upper-case letter only itself.
    EXPECT_EQ(found({"grep", "dsk-0112"}, "row"), (Found{"2", "5", "5", "13"}));
    EXPECT_EQ(found({"grep", "Dsk-0112"}, "row"), Found{});
    EXPECT_EQ(found({"grep", "-i", "Dsk-0112"}, "row"), (Found{"2", "5", "5", "13"}));
    EXPECT_EQ(found({"grep", "-s", "dsk-0112"}, "row"), Found{});
    // \D is an escape, not an upper-case letter.
    EXPECT_EQ(found({"grep", "dsk\\D0112"}, "row"), (Found{"2", "5", "5", "13"}));
    // -F: regular expression characters are themselves.
    EXPECT_EQ(found({"grep", "-F", "(bit 17"}, "match"), Found{"\"(bit 17\""});
    EXPECT_EQ(found({"grep", "-F", "DSK.0112"}, "row"), Found{});
    EXPECT_EQ(found({"grep", "-E", "DSK.0112"}, "row"), (Found{"2", "5", "5", "13"}));
    EXPECT_EQ(found({"grep", "-w", "011"}, "row"), Found{});
    EXPECT_EQ(found({"grep", "-w", "0112", "--store", "event"}, "column"),
              (Found{"\"errorCode\"", "\"errorCode\"", "\"customerEventCode\"",
                     "\"customerEventCode\""}));
    // Rows with a time in the range; --limit counts cells.
    EXPECT_EQ(found({"grep", "DSK-0112", "--since", "2026-11-23T12:00:00Z"}, "row"),
              (Found{"5", "13"}));
    EXPECT_EQ(found({"grep", "DSK", "--limit", "1"}, "row"), Found{"2"});
}

TEST_F(GrepTest, ExitsAsGrepDoes) {
    ToolRun run = tool({"grep", "no such text"});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.out + run.err, "");
    run = tool({"grep", "no such text", "-o", "json"});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.out, "[]\n");
    run = tool({"grep", "a(b"});
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.err, "datastore: bad pattern 'a(b': missing closing parenthesis at offset 3\n");
    run = tool({"grep", "--sinse", "-7d", "x"});
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.err,
              "datastore: unknown option '--sinse'; did you mean '--since'? (see 'datastore grep "
              "--help')\n");
    run = tool({"grep", "x", "--file", m_dir.file("none.db")});
    EXPECT_EQ(run.code, 2);
    // Other commands keep their usage code.
    EXPECT_EQ(tool({"alerts", "--sinse", "-7d"}).code, 1);
}

TEST_F(GrepTest, HighlightsMatchesOnATerminalOnly) {
    ToolRun run = tool({"grep", "dsk-0112", "--store", "event"}, true, 200);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.out.find("\x1b[1;31mDSK-0112\x1b[0m\n"), std::string::npos) << run.out;
    m_env += " NO_COLOR=1";
    run = tool({"grep", "dsk-0112", "--store", "event"}, true, 200);
    EXPECT_NE(run.out.find("  DSK-0112\n"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find('\x1b'), std::string::npos) << run.out;
}

TEST_F(GrepTest, SearchesCellsNoListingShows) {
    {
        test::RawDb db(m_stores + "/genstore.db");
        db.exec(
            "CREATE TABLE `odd\"na``me x` (`it's` TEXT);"
            "INSERT INTO `odd\"na``me x` VALUES (CAST(X'636166E920FF206E6565646C65' AS TEXT));"
            "INSERT INTO `odd\"na``me x` VALUES ('" +
            std::string(200, 'a') + " needle " + std::string(200, 'z') + "');");
    }
    ToolRun const run = tool({"grep", "needle", "--store", "genstore", "-o", "ndjson"});
    EXPECT_EQ(run.code, 0) << run.err;
    std::vector<Json> const records = run.records();
    ASSERT_EQ(records.size(), 2u) << run.out;
    EXPECT_EQ(run.lines()[0],
              "{\"store\":\"genstore\",\"table\":\"odd\\\"na`me x\",\"row\":1,\"column\":\"it's\","
              "\"time\":null,\"show\":null,\"text\":\"caf\xef\xbf\xbd \xef\xbf\xbd "
              "needle\",\"match\":\"needle\"}");
    // A long cell: 30 bytes before the match, 120 shown.
    EXPECT_EQ(records[1]["text"],
              "..." + std::string(29, 'a') + " needle " + std::string(83, 'z') + "...");
}

}  // namespace
}  // namespace zrn
