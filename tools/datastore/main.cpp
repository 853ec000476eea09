// datastore: records and inspects the stores of the diagnostics suite.

#include <libCommon/Exception.h>

#include <cstring>
#include <iostream>
#include <string>

#include "Commands.h"

namespace {

// The words an option takes when CLI11 lists them in its type name ("TEXT:{a,b->1,c}");
// empty for any other option.
std::string choicesOf(CLI::Option const& option) {
    std::string const type = option.get_type_name();
    std::size_t const open = type.find('{');
    std::size_t const close = type.find('}', open);
    if (open == std::string::npos || close == std::string::npos) return {};
    std::string words;
    std::size_t from = open + 1;
    while (from < close) {
        std::size_t end = type.find(',', from);
        if (end == std::string::npos || end > close) end = close;
        std::string word = type.substr(from, end - from);
        word = word.substr(0, word.find("->"));
        if (!word.empty()) words += " " + word;
        from = end + 1;
    }
    return words;
}

// The shell completions are generated at build time from this listing, so they follow the
// commands and options as they are added. One line per command and per named option:
//   command <path> <subcommand>...
//   flag|file|dir|value <path> <name>...        (what the option takes)
//   choices <path> <name>... -- <word>...
// where <path> is the command's words joined with '/', "datastore" for the program itself.
void printOptions(CLI::App const& command, std::string const& path) {
    for (CLI::Option const* option : command.get_options()) {
        if (option->get_group().empty()) continue;  // hidden
        std::string names;
        for (auto const& name : option->get_snames()) names += " -" + name;
        for (auto const& name : option->get_lnames()) names += " --" + name;
        if (names.empty()) continue;  // positional
        std::string const choices = choicesOf(*option);
        std::string kind = "value";
        if (option->get_items_expected_max() == 0) {
            kind = "flag";
        } else if (!choices.empty()) {
            kind = "choices";
        } else if (option->check_lname("file")) {
            kind = "file";
        } else if (option->check_lname("dir")) {
            kind = "dir";
        }
        std::cout << kind << " " << path << names;
        if (kind == "choices") std::cout << " --" << choices;
        std::cout << "\n";
    }
    // Option groups are nameless subcommands whose options belong to their parent.
    for (CLI::App const* group :
         command.get_subcommands([](CLI::App const* sub) { return sub->get_name().empty(); })) {
        printOptions(*group, path);
    }
}

void printListing(CLI::App const& command, std::string const& path) {
    auto const subcommands = command.get_subcommands(
        [](CLI::App const* sub) { return !sub->get_name().empty() && !sub->get_group().empty(); });
    std::cout << "command " << path;
    for (CLI::App const* sub : subcommands) std::cout << " " << sub->get_name();
    std::cout << "\n";
    printOptions(command, path);
    for (CLI::App const* sub : subcommands) printListing(*sub, path + "/" + sub->get_name());
}

}  // namespace

int main(int argc, char** argv) {
    using namespace datastore;
    QuietLog const quiet;

    CLI::App app{
        "Records and inspects the diagnostics suite's stores (appstate.db, genstore.db, "
        "event.db, softwarediagevent.db).",
        "datastore"};
    app.require_subcommand(1);
    app.set_version_flag("--version", DATASTORE_VERSION);
    app.footer(
        "Run 'datastore <command> --help' for a command's options and an example.\n"
        "Times: --since/--until take 2026-11-23, 2026-11-23T14:05:00[+01:00] or Unix seconds.\n"
        "Exit codes: 0 success, 1 usage error, 2 store error.");
    Options options;
    addDemoCommand(app, options);
    addInfoCommand(app, options);
    addEventCommands(app, options);
    addGeneralCommands(app, options);
    addStateCommands(app, options);
    addRepairCommands(app, options);

    // Undocumented: the build reads the commands and options from here for the completions.
    if (argc == 2 && std::strcmp(argv[1], "--completion-listing") == 0) {
        printListing(app, "datastore");
        return OK;
    }

    try {
        app.parse(argc, argv);
    } catch (CLI::CallForVersion const& e) {
        std::cout << e.what() << "\n";
        return OK;
    } catch (CLI::ParseError const& e) {
        // Help and --version end here too, with 0.
        return app.exit(e) == 0 ? OK : USAGE;
    } catch (ToolError const& e) {
        std::cout.flush();
        std::cerr << "datastore: " << e.what() << "\n";
        return e.code();
    } catch (zrn::Exception const& e) {
        std::cout.flush();
        std::cerr << "datastore: " << e.getMessage() << "\n";
        return STORE;
    } catch (std::exception const& e) {
        std::cout.flush();
        std::cerr << "datastore: " << e.what() << "\n";
        return STORE;
    }
    return OK;
}
