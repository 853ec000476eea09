#pragma once

// Running the built datastore tool (or any shell command) as a separate process and reading
// what it printed: shared by the tool's tests.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace test {

// The lines of `text`, without their line ends.
inline std::vector<std::string> lines(std::string const& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

struct ToolRun {
    int code = -1;  // the exit code, or 128 + the signal that ended it
    std::string out;
    std::string err;

    // Every line of standard output as one JSON object.
    std::vector<nlohmann::json> records() const {
        std::vector<nlohmann::json> result;
        std::istringstream stream(out);
        for (std::string line; std::getline(stream, line);) {
            nlohmann::json record = nlohmann::json::parse(line);
            EXPECT_TRUE(record.is_object()) << line;
            result.push_back(std::move(record));
        }
        return result;
    }
    std::vector<std::string> lines() const { return test::lines(out); }
};

// `text` as one word for sh.
inline std::string quoted(std::string const& text) {
    std::string result = "'";
    for (char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

// Runs `command` through sh and returns its standard output and exit code (`err` is left to
// the caller, who redirects standard error where it wants it).
inline ToolRun runShell(std::string const& command) {
    ToolRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return run;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        run.out.append(buffer, n);
    int const status = ::pclose(pipe);
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

// The rows of the csv file at `path` (tsv with '\t'), as Python's csv module reads them.
inline std::vector<std::vector<std::string>> csvFileRows(std::string const& path,
                                                         char delimiter = ',') {
    ToolRun const run = runShell(
        "python3 -c 'import csv, json, sys; print(json.dumps(list(csv.reader(open(sys.argv[1], "
        "newline=\"\"), delimiter=sys.argv[2]))))' " +
        quoted(path) + " " + quoted(std::string(1, delimiter)));
    EXPECT_EQ(run.code, 0) << path;
    return nlohmann::json::parse(run.out).get<std::vector<std::vector<std::string>>>();
}

#ifdef DATASTORE_TOOL
// Runs the built tool with `args` and standard error in `errFile`, in an environment cleared of
// what would change its output (the library's log settings, DATASTORE_DIR, COLUMNS, NO_COLOR,
// the pagers) plus `env` ("NAME=value ..."), piped, or on a pseudo-terminal of `rows` x
// `columns` when `columns` > 0 (its "\r\n" read as "\n"; its pager `cat` unless `env` names
// one).
inline ToolRun runTool(std::vector<std::string> const& args, std::string const& errFile,
                       std::string const& env = "", int columns = 0, int rows = 24) {
    std::string command =
        "env -u ZRN_LOG_LEVEL -u ZRN_LOG_FILE -u COLUMNS -u DATASTORE_DIR -u NO_COLOR -u PAGER "
        "-u DATASTORE_PAGER " +
        std::string(env.find("PAGER") == std::string::npos ? "DATASTORE_PAGER=cat " : "") + env +
        " " + quoted(DATASTORE_TOOL);
    for (auto const& arg : args) command += " " + quoted(arg);
    command += " 2>" + quoted(errFile);
    if (columns > 0) {
        command = "script -qec " +
                  quoted("stty cols " + std::to_string(columns) + " rows " + std::to_string(rows) +
                         "; " + command) +
                  " /dev/null";
    }
    ToolRun run = runShell(command + " </dev/null");
    std::FILE* file = std::fopen(errFile.c_str(), "rb");
    char buffer[4096];
    for (std::size_t n; file && (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
        run.err.append(buffer, n);
    if (file) std::fclose(file);
    if (columns > 0)
        run.out.erase(std::remove(run.out.begin(), run.out.end(), '\r'), run.out.end());
    return run;
}
// A test of the tool: a folder of its own with the stores' folder in it (not made yet: the first
// recording makes it), and the tool run on those stores in the environment `m_env` adds.
class ToolTest : public ::testing::Test {
protected:
    // `args` plus --dir of the stores unless `withDir` is false; `columns` > 0: on a terminal.
    ToolRun tool(std::vector<std::string> const& args, bool withDir = true, int columns = 0) const {
        std::vector<std::string> all = args;
        if (withDir) all.insert(all.end(), {"--dir", m_stores});
        return runTool(all, m_dir.file("stderr.txt"), m_env, columns);
    }
    // Records the demo (with `args`, say --day), which must succeed without a word on stderr.
    void demo(std::vector<std::string> const& args = {}) const {
        std::vector<std::string> all{"demo"};
        all.insert(all.end(), args.begin(), args.end());
        ToolRun const run = tool(all);
        ASSERT_EQ(run.code, 0) << run.err;
        ASSERT_EQ(run.err, "");
    }
    std::string store(char const* name) const { return m_stores + "/" + name; }

    std::string m_env;  // VAR=value ... for the tool's environment
    TempDir m_dir;
    std::string const m_stores = m_dir.file("stores");
};
#endif

}  // namespace test
}  // namespace zrn
