// datastore check: each store file's integrity, validity, schema version and tables, without
// writing to a damaged file.

#include <libCommon/FileSystem.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <iostream>
#include <set>
#include <sstream>
#include <type_traits>

#include "Commands.h"
#include "Output.h"

namespace datastore {

namespace {

struct Schema {
    char const* versionTable;  // nullptr: the store keeps no version
    int version;
    std::vector<char const*> tables;
};

Schema schemaOf(Store store) {
    switch (store) {
        case Store::AppState:
            return {nullptr, -1, {"AppState"}};
        case Store::General:
            return {"Version", 1, {"Version", "GenericLog", "KeyValues"}};
        case Store::Event:
            return {"Versioning",
                    3,
                    {"Versioning", "ApplicationRuns", "ScriptRuns", "ScriptSpecs", "TestRuns",
                     "TestRunEvents", "TestRunTips", "AlertTips", "AlertKeyValues", "ScriptletRuns",
                     "Alerts", "ProfilerDiffs", "Measurements"}};
        case Store::SoftwareDiag:
            return {"Versioning",
                    1,
                    {"Versioning", "Sessions", "RunTransactions", "FixTransactions",
                     "SoftwareDiagnostics", "Issues", "FixActions", "Issues_FixActions"}};
    }
    return {nullptr, -1, {}};
}

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

std::vector<std::string> storeDamage(std::string const& path, Store store,
                                     zrn::ReadOnly const& reader) {
    std::vector<std::string> damage;
    try {
        auto const database = openReadOnly(path, reader);
        zrn::ResultSet rows;
        database->execute("PRAGMA integrity_check", &rows);
        // SQLite may answer in one row of many lines: the first three findings name the
        // damage well enough for a message on one line, the count says how much more there is.
        std::vector<std::string> findings;
        for (unsigned i = 0; i < rows.rowCount(); ++i) {
            std::istringstream lines(rows.row(static_cast<int>(i)).columnValue(0).str());
            for (std::string line; std::getline(lines, line);) {
                if (line != "ok" && line.rfind("*** in database", 0) != 0) findings.push_back(line);
            }
        }
        for (std::size_t i = 0; i < findings.size() && i < 3; ++i)
            damage.push_back("integrity: " + findings[i]);
        if (findings.size() > 3)
            damage.push_back(std::to_string(findings.size() - 3) + " more integrity findings");
        zrn::ResultSet names;
        database->execute("SELECT `name` FROM `sqlite_master` WHERE `type` = 'table'", &names);
        std::set<std::string> present;
        for (unsigned i = 0; i < names.rowCount(); ++i)
            present.insert(names.row(static_cast<int>(i)).columnValue(0).str());
        Schema const schema = schemaOf(store);
        for (char const* table : schema.tables) {
            if (!present.count(table)) damage.push_back(std::string("missing table ") + table);
        }
        if (schema.versionTable && present.count(schema.versionTable)) {
            zrn::ResultSet version;
            database->execute(
                zrn::String(std::string("SELECT `version` FROM `") + schema.versionTable + "`"),
                &version);
            std::string const found =
                version.rowCount() > 0 ? version.row(0).columnValue(0).str() : "";
            if (found != std::to_string(schema.version)) {
                damage.push_back("schema version " + (found.empty() ? "missing" : found) +
                                 ", expected " + std::to_string(schema.version));
            }
        }
    } catch (ToolError const& e) {
        damage.push_back(e.what());
    } catch (zrn::Exception const& e) {
        damage.push_back(e.getMessage().str());
    }
    QuietLog::takeFirstError();
    return damage;
}

namespace {

void check(Options const& options) {
    RecordPrinter printer({{"store", "STORE"},
                           {"status", "STATUS"},
                           {"version", "VERSION"},
                           {"path", "PATH", 0, true},
                           {"problem", "PROBLEM"}},
                          options.json);
    std::vector<std::string> damaged;
    for (Store store : {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag}) {
        std::string const path = storePath(options, store);
        Json record{{"store", fileNameOf(store)}, {"path", path}};
        if (!zrn::FileSystem::exists(path)) {
            record["status"] = "absent";
            record["version"] = nullptr;
            printer.add(std::move(record));
            continue;
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
        printer.add(std::move(record));
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
        "Each store file's integrity, validity, schema version and tables; exit 3 when any "
        "store is damaged (never creates or repairs a store)");
    addLocationOptions(*c, options);
    addJsonOption(*c, options);
    c->footer("Example: datastore check --dir /var/lib/diagnostics/datastore && echo healthy");
    c->callback([&options] { check(options); });
}

}  // namespace datastore
