// datastore prune: retention. Removes what the stores that keep history recorded before a
// time, through the stores' own pruneBefore, or counts it (--dry-run) without writing.

#include <libCommon/FileSystem.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/PruneResult.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <iostream>
#include <memory>

#include "Commands.h"
#include "Output.h"

namespace datastore {

namespace {

struct PruneArgs {
    std::string before;
    std::string store;
    bool dryRun = false;
    bool vacuum = false;
};

zrn::EventTimePoint at(long long seconds) {
    return zrn::EventTimePoint(zrn::EventTimePoint::duration(seconds));
}

// Opens the store at `path` (read-only for a dry run) and prunes or counts.
template <class StoreType, class Cutoff>
zrn::PruneResult pruneOne(Options const& options, PruneArgs const& args, std::string const& path,
                          Cutoff const& cutoff) {
    zrn::PruneOptions pruneOptions;
    pruneOptions.vacuum = args.vacuum;
    try {
        if (args.dryRun) {
            StoreType const store(zrn::String(path), readOnly(options));
            return store.prunableBefore(cutoff);
        }
        StoreType store{zrn::String(path)};
        return store.pruneBefore(cutoff, pruneOptions);
    } catch (zrn::Exception const& e) {
        libraryFailure(path, args.dryRun ? "cannot count: " : "cannot prune: ", e);
    }
}

// The general store's writing constructor logs a failed opening instead of throwing.
template <>
zrn::PruneResult pruneOne<zrn::GeneralDataStore, zrn::TimeStamp>(Options const& options,
                                                                 PruneArgs const& args,
                                                                 std::string const& path,
                                                                 zrn::TimeStamp const& cutoff) {
    zrn::PruneOptions pruneOptions;
    pruneOptions.vacuum = args.vacuum;
    try {
        if (args.dryRun) {
            zrn::GeneralDataStore const store(zrn::String(path), readOnly(options));
            return store.prunableBefore(cutoff);
        }
        zrn::GeneralDataStore store{zrn::String(path)};
        if (!store.isInitialized()) storeFailure(path, "cannot open: ");
        return store.pruneBefore(cutoff, pruneOptions);
    } catch (zrn::Exception const& e) {
        libraryFailure(path, args.dryRun ? "cannot count: " : "cannot prune: ", e);
    }
}

void prune(Options const& options, PruneArgs const& args) {
    long long const cutoff = parseTime(args.before, "--before", false);
    std::vector<Store> const stores =
        storesChosen(options, args.store, {Store::General, Store::Event, Store::SoftwareDiag});
    RecordPrinter printer({{"store", "STORE"},
                           {"table", "TABLE"},
                           {"rows", args.dryRun ? "WOULD REMOVE" : "REMOVED"}},
                          options.json);
    bool any = false;
    for (Store store : stores) {
        if (store == Store::AppState)
            throw ToolError(USAGE, "--store appstate: the application state keeps no history");
        std::string const path = storePath(options, store);
        // Without --store an absent store has nothing to prune; a named one must exist.
        if (args.store.empty() && !zrn::FileSystem::exists(path)) continue;
        existingStorePath(options, store);
        any = true;
        zrn::PruneResult result;
        if (store == Store::Event) {
            result = pruneOne<zrn::EventDataStore>(options, args, path, at(cutoff));
        } else if (store == Store::General) {
            result = pruneOne<zrn::GeneralDataStore>(options, args, path, zrn::TimeStamp(cutoff));
        } else {
            result = pruneOne<zrn::SoftwareDiagEventDataStore>(options, args, path,
                                                               zrn::TimeStamp(cutoff));
        }
        for (auto const& table : result.tables) {
            printer.add(Json{
                {"store", fileNameOf(store)}, {"table", table.name.str()}, {"rows", table.rows}});
        }
    }
    // Says why there is nothing: no store in the folder.
    if (!any) existingStorePath(options, Store::Event);
    printer.print(std::cout);
}

}  // namespace

void addPruneCommand(CLI::App& app, Options& options) {
    static PruneArgs args;
    CLI::App* c = app.add_subcommand(
        "prune",
        "Removes what the event, general and software-diagnostics stores recorded before a "
        "time, with everything under it, in one transaction per store; prints the rows "
        "removed per table");
    addLocationOptions(*c, options);
    addJsonOption(*c, options);
    addWaitOption(*c, options);
    c->add_option("--before", args.before,
                  "Removes application runs and sessions started, logs last updated and "
                  "measurements ended before this time (same forms as --since)")
        ->required();
    c->add_flag("--dry-run", args.dryRun,
                "Counts what would be removed, reading the stores read-only; changes nothing");
    c->add_flag("--vacuum", args.vacuum,
                "Compacts each file afterwards so it shrinks (rewrites the whole file)");
    addStoreOption(*c, args.store, "Prunes only this store (event, genstore, softwarediagevent)");
    c->footer(
        "Example: datastore prune --before -90d --dry-run && datastore prune --before -90d "
        "--vacuum\n"
        "Exit codes: 0 success, 1 usage error, 2 store error (nothing of that store removed).");
    c->callback([&options] { prune(options, args); });
}

}  // namespace datastore
