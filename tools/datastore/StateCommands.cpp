// datastore state list|get|set|rm: application state items in appstate.db.

#include <libCommon/GlobalMutex.h>
#include <libDataStore/AppStateDataStore.h>

#include <chrono>
#include <iostream>

#include "Commands.h"
#include "Output.h"
#include "Records.h"

namespace datastore {

bool replaceStateItem(zrn::AppStateDataStore& store, zrn::String const& key,
                      zrn::String const& data, zrn::String const& group) {
    // Items are never updated in place. The store's operations take this mutex themselves; it
    // is re-entrant for this thread, so holding it here only widens the critical section to
    // both steps.
    zrn::GlobalMutex mutex("appstate_store");
    zrn::AutoGlobalMutex hold(mutex);
    if (store.contains(key) && !store.remove(key)) return false;
    return store.insert(key, data, group);
}

namespace {

struct StateArgs {
    std::string key;
    std::string value;
    std::string group;
};

// The store never throws: a failed opening only shows in its validity and in the log.
// Inspections pass `readOnly`; recording and removal open the store for writing.
zrn::AppStateDataStore openStore(std::string const& path, zrn::ReadOnly const* readOnly = nullptr) {
    zrn::AppStateDataStore store = readOnly ? zrn::AppStateDataStore(zrn::String(path), *readOnly)
                                            : zrn::AppStateDataStore(zrn::String(path));
    zrn::String error;
    if (!store.checkValidity(error))
        storeFailure(path, "cannot open" + (error.empty() ? "" : ": " + error.str()));
    return store;
}

long long entrySeconds(zrn::AppStateDataStore const& store, zrn::String const& key) {
    auto const time = store.entryTime(key);
    if (!time) return 0;
    return std::chrono::duration_cast<std::chrono::seconds>(time->time_since_epoch()).count();
}

void list(Options const& options, StateArgs const& args) {
    std::string const path = existingStorePath(options, Store::AppState);
    zrn::ReadOnly const reader = readOnly(options);
    zrn::AppStateDataStore const store = openStore(path, &reader);
    RecordPrinter printer(stateItemFields(), options.json);
    for (auto const& [key, data] : store.getItems(zrn::String(args.group))) {
        if (options.limit > 0 && static_cast<long>(printer.count()) >= options.limit) break;
        long long const seconds = entrySeconds(store, key);
        printer.add(stateItemRecord(options.json,
                                    {key.str(), store.group(key).str(), seconds, data.str()}));
    }
    printer.print(std::cout);
}

void get(Options const& options, StateArgs const& args) {
    std::string const path = existingStorePath(options, Store::AppState);
    zrn::ReadOnly const reader = readOnly(options);
    zrn::AppStateDataStore const store = openStore(path, &reader);
    zrn::String const key(args.key);
    if (!store.contains(key))
        throw ToolError(NOT_FOUND, path + ": no item with the key '" + args.key + "'");
    zrn::String const data = store.data(key);
    if (options.json) {
        StateItem const item{args.key, store.group(key).str(), entrySeconds(store, key),
                             data.str()};
        std::cout << stateItemRecord(true, item).dump() << "\n";
    } else {
        std::cout << data << "\n";
    }
}

void set(Options const& options, StateArgs const& args) {
    // Recording may create the store, and its folder.
    std::string const path = recordingStorePath(options, Store::AppState);
    zrn::AppStateDataStore store = openStore(path);
    zrn::String const key(args.key);
    if (!replaceStateItem(store, key, zrn::String(args.value), zrn::String(args.group)))
        storeFailure(path, "cannot store '" + args.key + "'");
}

void remove(Options const& options, StateArgs const& args) {
    std::string const path = existingStorePath(options, Store::AppState);
    zrn::AppStateDataStore store = openStore(path);
    zrn::String const key(args.key);
    if (!store.contains(key))
        throw ToolError(NOT_FOUND, path + ": no item with the key '" + args.key + "'");
    if (!store.remove(key)) storeFailure(path, "cannot remove '" + args.key + "'");
}

}  // namespace

void addStateCommands(CLI::App& app, Options& options) {
    static StateArgs args;
    CLI::App* state =
        app.add_subcommand("state", "Application state items (appstate.db): list, get, set, rm");
    state->require_subcommand(1);
    state->footer("Example: datastore state list --group scheduler");

    CLI::App* listCommand =
        addInspection(*state, options, "list", "List items (key, group, written, data), by key",
                      "datastore state list --group ui", false, true);
    listCommand->add_option("--group", args.group, "Only items of this group");
    listCommand->callback([&options] { list(options, args); });

    CLI::App* getCommand =
        addInspection(*state, options, "get", "Print one item's data (with --json: the whole item)",
                      "datastore state get scheduler.lastResult", false, false);
    getCommand->add_option("key", args.key, "The item's key")->required();
    getCommand->callback([&options] { get(options, args); });

    CLI::App* setCommand =
        state->add_subcommand("set", "Store an item, replacing one of the same key");
    setCommand->add_option("key", args.key, "The item's key")->required();
    setCommand->add_option("value", args.value, "The item's data")->required();
    setCommand->add_option("--group", args.group, "The item's group");
    addLocationOptions(*setCommand, options);
    setCommand->footer("Example: datastore state set ui.theme dark --group ui");
    setCommand->callback([&options] { set(options, args); });

    CLI::App* rmCommand = state->add_subcommand("rm", "Remove an item");
    rmCommand->add_option("key", args.key, "The item's key")->required();
    addLocationOptions(*rmCommand, options);
    rmCommand->footer("Example: datastore state rm ui.theme");
    rmCommand->callback([&options] { remove(options, args); });
}

}  // namespace datastore
