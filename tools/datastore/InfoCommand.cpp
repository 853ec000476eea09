// datastore info: for each store file, where it is, whether it exists, its size, schema
// version, validity and the rows of each table.

#include <libCommon/FileSystem.h>

#include <filesystem>
#include <iostream>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "Output.h"

namespace datastore {

namespace {

struct StoreInfo {
    char const* name;
    std::string path;
    bool exists = false;
    long long size = -1;
    Json version;  // null when the store keeps none
    bool valid = false;
    std::string problem;
    std::vector<std::pair<std::string, long long>> tables;
};

void countRows(StoreInfo& info, zrn::ReadOnly const& reader) {
    try {
        zrn::StoreReader file(info.path, reader);
        zrn::StoreReader::Snapshot const snapshot(file);
        for (zrn::StoreTable const& table : file.tables())
            info.tables.emplace_back(table.name, table.rows);
    } catch (zrn::StoreReadError const& e) {
        if (info.problem.empty()) info.problem = e.getMessage().str();
        info.valid = false;
    }
}

StoreInfo inspect(Options const& options, Store store) {
    StoreInfo info;
    info.name = fileNameOf(store);
    info.path = storePath(options, store);
    info.exists = zrn::FileSystem::exists(info.path);
    if (!info.exists) return info;
    std::error_code error;
    auto const size = std::filesystem::file_size(info.path, error);
    if (!error) info.size = static_cast<long long>(size);
    // A damaged file is never handed to a store, which could call it valid or write to it.
    std::vector<std::string> const damage = storeDamage(info.path, store, readOnly(options));
    if (!damage.empty()) {
        for (auto const& problem : damage)
            info.problem += (info.problem.empty() ? "damaged: " : "; ") + problem;
        return info;
    }
    int version = -1;
    info.problem = storeValidity(info.path, store, readOnly(options), version);
    info.valid = info.problem.empty();
    if (version >= 0) info.version = version;
    countRows(info, readOnly(options));
    if (!info.valid && info.problem.empty()) info.problem = QuietLog::takeFirstError();
    QuietLog::takeFirstError();
    return info;
}

void info(Options const& options) {
    std::vector<StoreInfo> stores;
    for (Store store : {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag}) {
        stores.push_back(inspect(options, store));
    }

    RecordPrinter summary({{"store", "STORE"},
                           {"exists", "EXISTS"},
                           {"size", "SIZE"},
                           {"version", "VERSION"},
                           {"valid", "VALID"},
                           {"path", "PATH", 0, true}},
                          options.json);
    RecordPrinter tables({{"store", "STORE"}, {"table", "TABLE"}, {"rows", "ROWS"}}, false);
    for (StoreInfo const& store : stores) {
        Json record{{"store", store.name},
                    {"path", store.path},
                    {"exists", store.exists},
                    {"size", store.exists && store.size >= 0 ? Json(store.size) : Json()},
                    {"version", store.version},
                    {"valid", store.exists ? Json(store.valid) : Json()},
                    {"folderSource", folderSource(options)}};
        if (!store.problem.empty()) record["problem"] = store.problem;
        Json rows = Json::object();
        for (auto const& [table, count] : store.tables) {
            rows[table] = count;
            tables.add(Json{{"store", store.name}, {"table", table}, {"rows", count}});
        }
        if (options.json) record["tables"] = std::move(rows);
        summary.add(std::move(record));
    }
    if (!options.json) {
        std::cout << "Stores from " << folderSource(options) << "\n";
    }
    summary.print(std::cout);
    if (!options.json && tables.count() > 0) {
        std::cout << "\n";
        tables.print(std::cout);
    }

    // A store that is there but cannot be used is a store error, after the report.
    for (StoreInfo const& store : stores) {
        if (store.exists && !store.valid) {
            throw ToolError(STORE, store.path + ": not usable: " + store.problem);
        }
    }
}

}  // namespace

void addInfoCommand(CLI::App& app, Options& options) {
    CLI::App* c =
        app.add_subcommand("info",
                           "Each store file: path, existence, size, schema version, validity, "
                           "rows per table (never creates a store)");
    addDirOption(*c, options);
    addJsonOption(*c, options);
    addWaitOption(*c, options);
    c->footer("Example: datastore info --dir /var/lib/diagnostics/datastore");
    c->callback([&options] { info(options); });
}

}  // namespace datastore
