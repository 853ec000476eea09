// datastore: records and inspects the stores of the diagnostics suite.

#include <libCommon/Exception.h>

#include <iostream>

#include "Commands.h"

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
