// datastore: records and inspects the stores of the diagnostics suite.

#include <libCommon/Exception.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "Usage.h"

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
//   flag|file|path|dir|value <path> <name>...   (what the option takes: file is a store file,
//                                               path any file)
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
        } else if (option->get_type_name() == "FILE") {
            kind = "path";
        } else if (option->check_lname("dir") || option->get_type_name() == "DIR") {
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

using namespace datastore;

// The first word of the command line that is neither an option nor an option's value: the
// command the user meant. Empty when there is none.
std::string commandWord(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if (arg.rfind("-", 0) != 0) return arg;
        bool const takesValue =
            arg == "--dir" || arg == "--file" || arg == "-o" || arg == "--output";
        if (takesValue) ++i;
    }
    return "";
}

// One line for a parse error: an unknown command with the nearest one, else CLI11's message.
std::string parseErrorLine(CLI::App const& app, CLI::ParseError const& e, int argc, char** argv) {
    std::string const word = commandWord(argc, argv);
    std::vector<CLI::App const*> const commands =
        app.get_subcommands([](CLI::App const*) { return true; });
    bool const known = std::any_of(commands.begin(), commands.end(),
                                   [&](CLI::App const* c) { return c->check_name(word); });
    if (!word.empty() && !known) {
        std::vector<std::string> names;
        for (CLI::App const* command : commands) names.push_back(command->get_name());
        std::string const nearest = nearestWord(word, names);
        std::string line = "'" + word + "' is not a command";
        if (!nearest.empty()) line += "; did you mean '" + nearest + "'?";
        return line + " (see 'datastore --help')";
    }
    std::string message = e.what();
    std::replace(message.begin(), message.end(), '\n', ' ');
    return message;
}

// The application with every command registered on `options`.
void describe(CLI::App& app, Options& options) {
    app.description(
        "Records and inspects the diagnostics suite's stores (appstate.db, genstore.db, "
        "event.db, softwarediagevent.db).");
    app.require_subcommand(1);
    app.set_version_flag("--version", DATASTORE_VERSION);
    app.footer(
        "Run 'datastore <command> --help' for a command's options and an example.\n"
        "Folder of the stores: --dir, else $DATASTORE_DIR, else $XDG_DATA_HOME/datastore "
        "(~/.local/share/datastore).\n"
        "Common options (--dir, --file, -o, --json, --utc, --wide, --no-pager) go before or "
        "after the command.\n"
        "Times: --since/--until take 2026-11-23, 2026-11-23T14:05:00[+01:00], now, today, "
        "yesterday, -30m, -12h, -7d, -2w, Unix seconds (9 or more digits, or @N).\n"
        "Pager: $DATASTORE_PAGER, else $PAGER, else 'less -FRSX'; NO_COLOR turns colour off.\n"
        "Exit codes: 0 success, 1 usage error, 2 store error (cannot open or read), 3 damaged "
        "store (check), 4 no such record.");
    addCommonOptions(app, options);
    addDemoCommand(app, options);
    addInfoCommand(app, options);
    addCheckCommand(app, options);
    addSummaryCommand(app, options);
    addTimelineCommand(app, options);
    addEventCommands(app, options);
    addGeneralCommands(app, options);
    addStateCommands(app, options);
    addRepairCommands(app, options);
    addPruneCommand(app, options);
    addExportCommand(app, options);
    addCollectCommand(app, options);
    addReportCommand(app, options);
    addGrepCommand(app, options);
}

// Parses and runs the command line; failures become one line on standard error and the exit
// code of their class.
int parseAndRun(CLI::App& app, int argc, char** argv) {
    // A pager would hold what --follow prints until it ends.
    bool const noPager = std::any_of(argv + 1, argv + argc, [](char const* arg) {
        return !std::strcmp(arg, "--no-pager") || !std::strcmp(arg, "-f") ||
               !std::strcmp(arg, "--follow");
    });
    Pager pager(!noPager);
    // grep answers "nothing matched" with 1, as grep does: its usage errors are 2.
    int const usage = commandWord(argc, argv) == "grep" ? STORE : USAGE;
    try {
        checkOptionNames(app, argc, argv);
        app.parse(argc, argv);
        finishOutput(std::cout);
    } catch (CLI::CallForVersion const& e) {
        std::cout << e.what() << "\n";
        return OK;
    } catch (CLI::CallForHelp const& e) {
        return app.exit(e);
    } catch (CLI::CallForAllHelp const& e) {
        return app.exit(e);
    } catch (CLI::ParseError const& e) {
        pager.finish();
        std::cerr << "datastore: " << parseErrorLine(app, e, argc, argv) << "\n";
        return usage;
    } catch (ToolError const& e) {
        // What a command printed before it failed (check, info) is still one whole document.
        finishOutput(std::cout);
        pager.finish();
        // No message: an answer, not a failure (grep's "nothing matched").
        if (*e.what() == '\0') return e.code();
        std::cerr << "datastore: " << e.what() << "\n";
        return e.code() == USAGE ? usage : e.code();
    } catch (zrn::Exception const& e) {
        pager.finish();
        std::cerr << "datastore: " << e.getMessage() << "\n";
        return STORE;
    } catch (std::exception const& e) {
        pager.finish();
        std::cerr << "datastore: " << e.what() << "\n";
        return STORE;
    }
    return OK;
}

int run(int argc, char** argv) {
    CLI::App app{"", "datastore"};
    Options options;
    describe(app, options);

    // Undocumented: the build reads the commands and options from here for the completions.
    if (argc == 2 && std::strcmp(argv[1], "--completion-listing") == 0) {
        printListing(app, "datastore");
        return OK;
    }
    return parseAndRun(app, argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
    datastore::QuietLog const quiet;
    return run(argc, argv);
}
