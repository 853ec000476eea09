#pragma once

// Mistyped words on the command line, answered with the nearest word the tool knows.

#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>

namespace datastore {

// Levenshtein distance: insertions, deletions and substitutions of single bytes.
std::size_t editDistance(std::string const& a, std::string const& b);

// The nearest of `candidates`, or "" when even the nearest is farther than half of `word`
// (a different word, not a typo).
std::string nearestWord(std::string const& word, std::vector<std::string> const& candidates);

// Walks the command line as CLI11 will, and stops at the first long option that neither the
// command it follows nor its parents know: ToolError(USAGE) "unknown option '--sinse'; did you
// mean '--since'?". CLI11 would take the option's value for a positional argument first and
// answer about that instead ("Could not convert: alert-id = -7d").
void checkOptionNames(CLI::App const& app, int argc, char** argv);

}  // namespace datastore
