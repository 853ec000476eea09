// datastore: records and inspects the stores of the diagnostics suite.

#include <libCommon/Exception.h>

#include <iostream>

#include "Commands.h"

int main(int argc, char** argv) {
    using namespace datastore;
    CLI::App app{"Records and inspects the diagnostics suite's stores (appstate.db, genstore.db, "
                 "event.db, softwarediagevent.db)."};
    app.require_subcommand(1);
    app.footer("Run 'datastore <command> --help' for a command's options and an example.\n"
               "Exit codes: 0 success, 1 usage error, 2 store error.");
    Options options;
    addInfoCommand(app, options);
    addDemoCommand(app, options);
    addStateCommands(app, options);
    addGeneralCommands(app, options);
    addEventCommands(app, options);
    addRepairCommands(app, options);

    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const& e) {
        return app.exit(e);
    } catch (CLI::CallForAllHelp const& e) {
        return app.exit(e);
    } catch (CLI::ParseError const& e) {
        app.exit(e);
        return USAGE;
    } catch (ToolError const& e) {
        std::cerr << "datastore: " << e.what() << "\n";
        return e.code();
    } catch (zrn::Exception const& e) {
        std::cerr << "datastore: " << e.getMessage() << "\n";
        return STORE;
    } catch (std::exception const& e) {
        std::cerr << "datastore: " << e.what() << "\n";
        return STORE;
    }
    return OK;
}
