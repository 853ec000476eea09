// datastore state list|get|set|rm: application state items in appstate.db.

#include <libDataStore/AppStateDataStore.h>

#include <chrono>
#include <iostream>

#include "Commands.h"
#include "Output.h"

namespace datastore {

namespace {

struct StateArgs {
    std::string key;
    std::string value;
    std::string group;
};

zrn::AppStateDataStore openStore(std::string const& path) {
    zrn::AppStateDataStore store{zrn::String(path)};
    zrn::String error;
    if (!store.checkValidity(error)) storeFailure(path, "cannot open: " + error.str());
    return store;
}

long long entrySeconds(zrn::AppStateDataStore const& store, zrn::String const& key) {
    auto const time = store.entryTime(key);
    if (!time) return 0;
    return std::chrono::duration_cast<std::chrono::seconds>(time->time_since_epoch()).count();
}

void list(Options const& options, StateArgs const& args) {
    std::string const path = existingStorePath(options, Store::AppState);
    zrn::AppStateDataStore const store = openStore(path);
    RecordPrinter printer({{"key", "KEY"}, {"group", "GROUP"}, {"written", "WRITTEN"}, {"data", "DATA"}},
                          options.json);
    for (auto const& [key, data] : store.getItems(zrn::String(args.group))) {
        if (options.limit > 0 && static_cast<long>(printer.count()) >= options.limit) break;
        long long const seconds = entrySeconds(store, key);
        printer.add(Json{{"key", key.str()},
                         {"group", store.group(key).str()},
                         {"written", options.json ? isoTime(seconds) : Json(localTime(seconds))},
                         {"data", data.str()}});
    }
    printer.print(std::cout);
}

void get(Options const& options, StateArgs const& args) {
    std::string const path = existingStorePath(options, Store::AppState);
    zrn::AppStateDataStore const store = openStore(path);
    zrn::String const key(args.key);
    if (!store.contains(key)) throw ToolError(STORE, path + ": no item with the key '" + args.key + "'");
    zrn::String const data = store.data(key);
    if (options.json) {
        std::cout << Json{{"key", args.key},
                          {"group", store.group(key).str()},
                          {"written", isoTime(entrySeconds(store, key))},
                          {"data", data.str()}}
                         .dump()
                  << "\n";
    } else {
        std::cout << data << "\n";
    }
}

void set(Options const& options, StateArgs const& args) {
    // Recording may create the store; its folder must exist.
    std::string const path = storePath(options, Store::AppState);
    zrn::AppStateDataStore store = openStore(path);
    zrn::String const key(args.key);
    // An item is never updated in place: replacing it is a removal and a new insertion.
    if (store.contains(key) && !store.remove(key)) storeFailure(path, "cannot replace '" + args.key + "'");
    if (!store.insert(key, zrn::String(args.value), zrn::String(args.group))) {
        storeFailure(path, "cannot store '" + args.key + "'");
    }
}

void remove(Options const& options, StateArgs const& args) {
    std::string const path = existingStorePath(options, Store::AppState);
    zrn::AppStateDataStore store = openStore(path);
    zrn::String const key(args.key);
    if (!store.contains(key)) throw ToolError(STORE, path + ": no item with the key '" + args.key + "'");
    if (!store.remove(key)) storeFailure(path, "cannot remove '" + args.key + "'");
}

}  // namespace

void addStateCommands(CLI::App& app, Options& options) {
    static StateArgs args;
    CLI::App* state = app.add_subcommand("state", "Application state items (appstate.db)");
    state->require_subcommand(1);

    CLI::App* listCommand = state->add_subcommand("list", "List items, optionally of one group");
    listCommand->add_option("--group", args.group, "Only items of this group");
    addLocationOptions(*listCommand, options);
    addJsonOption(*listCommand, options);
    addLimitOption(*listCommand, options);
    listCommand->footer("Example: datastore state list --group ui");
    listCommand->callback([&options] { list(options, args); });

    CLI::App* getCommand = state->add_subcommand("get", "Print one item's data");
    getCommand->add_option("key", args.key, "The item's key")->required();
    addLocationOptions(*getCommand, options);
    addJsonOption(*getCommand, options);
    getCommand->footer("Example: datastore state get last-run");
    getCommand->callback([&options] { get(options, args); });

    CLI::App* setCommand = state->add_subcommand("set", "Store an item, replacing one of the same key");
    setCommand->add_option("key", args.key, "The item's key")->required();
    setCommand->add_option("value", args.value, "The item's data")->required();
    setCommand->add_option("--group", args.group, "The item's group");
    addLocationOptions(*setCommand, options);
    setCommand->footer("Example: datastore state set last-run 2026-11-23 --group scheduler");
    setCommand->callback([&options] { set(options, args); });

    CLI::App* rmCommand = state->add_subcommand("rm", "Remove an item");
    rmCommand->add_option("key", args.key, "The item's key")->required();
    addLocationOptions(*rmCommand, options);
    rmCommand->footer("Example: datastore state rm last-run");
    rmCommand->callback([&options] { remove(options, args); });
}

}  // namespace datastore
