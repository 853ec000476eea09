#include "Usage.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "Context.h"

namespace datastore {

std::size_t editDistance(std::string const& a, std::string const& b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t const above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string nearestWord(std::string const& word, std::vector<std::string> const& candidates) {
    std::string nearest;
    std::size_t best = 0;
    for (std::string const& candidate : candidates) {
        std::size_t const distance = editDistance(word, candidate);
        if (nearest.empty() || distance < best) nearest = candidate, best = distance;
    }
    if (nearest.empty() || best > std::max<std::size_t>(2, word.size() / 2)) return "";
    return nearest;
}

namespace {

// The options `command` takes, with those of its option groups (nameless subcommands).
std::vector<CLI::Option const*> optionsOf(CLI::App const& command) {
    std::vector<CLI::Option const*> options = command.get_options();
    for (CLI::App const* group :
         command.get_subcommands([](CLI::App const* sub) { return sub->get_name().empty(); })) {
        std::vector<CLI::Option const*> const more = optionsOf(*group);
        options.insert(options.end(), more.begin(), more.end());
    }
    return options;
}

// The option named `name` ("since", without dashes) on `command` or a parent, or nullptr.
CLI::Option const* longOption(CLI::App const* command, std::string const& name,
                              std::vector<std::string>& known) {
    for (; command; command = command->get_parent()) {
        for (CLI::Option const* option : optionsOf(*command)) {
            if (option->check_lname(name)) return option;
            for (std::string const& lname : option->get_lnames()) known.push_back(lname);
        }
    }
    return nullptr;
}

CLI::Option const* shortOption(CLI::App const* command, std::string const& name) {
    for (; command; command = command->get_parent()) {
        for (CLI::Option const* option : optionsOf(*command)) {
            if (option->check_sname(name)) return option;
        }
    }
    return nullptr;
}

// The named subcommand of `command` that `word` is, or nullptr.
CLI::App const* subcommandNamed(CLI::App const& command, std::string const& word) {
    for (CLI::App const* sub :
         command.get_subcommands([](CLI::App const* s) { return !s->get_name().empty(); })) {
        if (sub->check_name(word)) return sub;
    }
    return nullptr;
}

bool takesValue(CLI::Option const* option) {
    return option && option->get_items_expected_max() > 0;
}

// "datastore state list": the words that lead to `command`.
std::string commandPath(CLI::App const& command) {
    std::string path;
    for (CLI::App const* c = &command; c->get_parent(); c = c->get_parent())
        path = c->get_name() + " " + path;
    return "datastore " + path;
}

ToolError unknownOption(CLI::App const& command, std::string const& name,
                        std::vector<std::string> const& known) {
    std::string const nearest = nearestWord(name, known);
    std::string line = "unknown option '--" + name + "'";
    if (!nearest.empty()) line += "; did you mean '--" + nearest + "'?";
    return ToolError(USAGE, line + " (see '" + commandPath(command) + "--help')");
}

}  // namespace

void checkOptionNames(CLI::App const& app, int argc, char** argv) {
    CLI::App const* command = &app;
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if (arg == "--") return;
        if (arg.rfind("--", 0) == 0) {
            std::size_t const equals = arg.find('=');
            std::string const name =
                arg.substr(2, equals == std::string::npos ? equals : equals - 2);
            std::vector<std::string> known;
            CLI::Option const* option = longOption(command, name, known);
            if (!option) throw unknownOption(*command, name, known);
            if (equals == std::string::npos && takesValue(option)) ++i;
        } else if (arg.size() == 2 && arg[0] == '-') {
            if (takesValue(shortOption(command, arg.substr(1)))) ++i;
        } else if (CLI::App const* sub = subcommandNamed(*command, arg)) {
            command = sub;
        }
    }
}

}  // namespace datastore
