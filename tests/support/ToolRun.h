#pragma once

// Running the built datastore tool (or any shell command) as a separate process and reading
// what it printed: shared by the tool's tests.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace zrn {
namespace test {

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
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::istringstream stream(out);
        for (std::string line; std::getline(stream, line);) result.push_back(line);
        return result;
    }
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

}  // namespace test
}  // namespace zrn
