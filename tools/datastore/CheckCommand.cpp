// datastore check: each store file's integrity, validity, schema version and tables, without
// writing to a damaged file.

#include <libCommon/FileSystem.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <type_traits>

#include "Commands.h"
#include "Output.h"

namespace datastore {

namespace {

template <class StoreClass>
std::string askStore(std::string const& path, zrn::ReadOnly const& reader, int& version) {
    StoreClass store{zrn::String(path), reader};
    zrn::String error;
    bool valid = store.checkValidity(error);
    if constexpr (std::is_same_v<StoreClass, zrn::GeneralDataStore>) {
        // Its failed opening shows only here.
        valid = valid && store.isInitialized();
    }
    if constexpr (!std::is_same_v<StoreClass, zrn::AppStateDataStore>) {
        if (valid) version = store.getVersion();
    }
    if (valid) return "";
    std::string const cause = error.empty() ? QuietLog::takeFirstError() : error.str();
    return cause.empty() ? "the store calls itself invalid" : cause;
}

}  // namespace

std::string storeValidity(std::string const& path, Store store, zrn::ReadOnly const& reader,
                          int& version) {
    version = -1;
    try {
        switch (store) {
            case Store::AppState:
                return askStore<zrn::AppStateDataStore>(path, reader, version);
            case Store::General:
                return askStore<zrn::GeneralDataStore>(path, reader, version);
            case Store::Event:
                return askStore<zrn::EventDataStore>(path, reader, version);
            case Store::SoftwareDiag:
                return askStore<zrn::SoftwareDiagEventDataStore>(path, reader, version);
        }
    } catch (zrn::Exception const& e) {
        return e.getMessage().str();
    }
    return "";
}

namespace {

// The first three findings name the damage well enough for a message on one line; the count
// says how much more there is.
void addIntegrity(std::vector<std::string>& damage, std::vector<std::string> const& findings) {
    for (std::size_t i = 0; i < findings.size() && i < 3; ++i)
        damage.push_back("integrity: " + findings[i]);
    if (findings.size() > 3)
        damage.push_back(std::to_string(findings.size() - 3) + " more integrity findings");
}

// What the library's own description of the store says is missing or different.
void addSchema(std::vector<std::string>& damage, zrn::StoreIdentity const& identity,
               zrn::StoreFacts const& facts) {
    for (std::string const& table : identity.missingTables)
        damage.push_back("missing table " + table);
    bool const versionTablePresent =
        facts.versionTable &&
        std::find(identity.missingTables.begin(), identity.missingTables.end(),
                  facts.versionTable) == identity.missingTables.end();
    if (versionTablePresent && identity.version != facts.schemaVersion) {
        damage.push_back(
            "schema version " +
            (identity.version < 0 ? std::string("missing") : std::to_string(identity.version)) +
            ", expected " + std::to_string(facts.schemaVersion));
    }
}

}  // namespace

std::vector<std::string> storeDamage(std::string const& path, Store store,
                                     zrn::ReadOnly const& reader) {
    std::vector<std::string> damage;
    zrn::StoreFacts const& facts = zrn::factsOf(store);
    try {
        zrn::StoreReader file(path, reader);
        addIntegrity(damage, file.integrityCheck());
        zrn::StoreIdentity identity = file.identify();
        if (!identity.kind || *identity.kind != store) {
            // Not this store at all: every table of it is missing.
            identity.missingTables.assign(facts.tables.begin(), facts.tables.end());
        }
        addSchema(damage, identity, facts);
    } catch (zrn::StoreReadError const& e) {
        // A file a writer holds past the wait is busy, not damaged: that is said as such.
        if (e.cause() == zrn::StoreReadError::Cause::Locked) readFailure(e);
        damage.push_back(e.getMessage().str());
    }
    QuietLog::takeFirstError();
    return damage;
}

namespace {

// One store file's record; its problems, if any, are added to `damaged`.
Json checkOne(Options const& options, Store store, std::string const& path,
              std::vector<std::string>& damaged) {
    Json record{{"store", fileNameOf(store)}, {"path", path}};
    if (!zrn::FileSystem::exists(path)) {
        record["status"] = "absent";
        record["version"] = nullptr;
        return record;
    }
    std::vector<std::string> problems = storeDamage(path, store, readOnly(options));
    int version = -1;
    // The store itself is asked only about a file that is whole: a store's own checks
    // assume the pages they read are sound.
    if (problems.empty()) {
        std::string const invalid = storeValidity(path, store, readOnly(options), version);
        if (!invalid.empty()) problems.push_back("invalid: " + invalid);
    }
    std::string joined;
    for (auto const& problem : problems) joined += (joined.empty() ? "" : "; ") + problem;
    record["status"] = problems.empty() ? "ok" : "damaged";
    record["version"] = version >= 0 ? Json(version) : Json();
    if (!problems.empty()) {
        record["problem"] = joined;
        damaged.push_back(path + ": damaged: " + joined);
    }
    return record;
}

// The store a --file is: the one whose tables it has, else (too damaged to tell) the one
// whose file name it has. Neither: ToolError(STORE).
Store storeOfFile(Options const& options, std::string const& path) {
    if (!zrn::FileSystem::exists(path)) throw ToolError(STORE, path + ": no such store file");
    try {
        zrn::StoreReader reader(path, readOnly(options));
        if (auto const kind = reader.identify().kind) return *kind;
    } catch (zrn::StoreReadError const& e) {
        if (e.cause() == zrn::StoreReadError::Cause::Locked) readFailure(e);
    }
    std::string const name = std::filesystem::path(path).filename().string();
    for (zrn::StoreFacts const& facts : zrn::storeFamily()) {
        if (name == facts.fileName) return facts.kind;
    }
    throw ToolError(STORE, path + ": not a store file (it has the tables of none of the stores)");
}

void check(Options const& options) {
    RecordPrinter printer({{"store", "STORE"},
                           {"status", "STATUS"},
                           {"version", "VERSION"},
                           {"path", "PATH", 0, true},
                           {"problem", "PROBLEM"}},
                          options.json);
    std::vector<std::string> damaged;
    if (!options.file.empty()) {
        std::string const path = storePath(options, Store::Event);
        printer.add(checkOne(options, storeOfFile(options, path), path, damaged));
    } else {
        // A folder that is not there holds no healthy stores.
        std::string const folder = options.dir.empty() ? defaultFolder(Store::Event) : options.dir;
        if (!std::filesystem::is_directory(folder))
            throw ToolError(STORE,
                            folder + ": no such folder (give the stores' folder with --dir)");
        for (Store store : {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag})
            printer.add(checkOne(options, store, storePath(options, store), damaged));
    }
    printer.print(std::cout);
    if (damaged.empty()) return;
    std::cout.flush();
    for (std::size_t i = 0; i + 1 < damaged.size(); ++i)
        std::cerr << "datastore: " << damaged[i] << "\n";
    throw ToolError(DAMAGED, damaged.back());
}

}  // namespace

void addCheckCommand(CLI::App& app, Options& options) {
    CLI::App* c = app.add_subcommand(
        "check",
        "Each store file's integrity, validity, schema version and tables (with --file, the "
        "store that file is); exit 3 when any store is damaged, 2 when the folder or file is "
        "not there or a writer holds a store past --wait (never creates or repairs a store)");
    addLocationOptions(*c, options);
    addJsonOption(*c, options);
    addWaitOption(*c, options);
    c->footer("Example: datastore check --dir /var/lib/diagnostics/datastore && echo healthy");
    c->callback([&options] { check(options); });
}

}  // namespace datastore
