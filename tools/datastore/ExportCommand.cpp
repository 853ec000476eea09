// datastore export: every table of every store (or of one) to one file per table, every row,
// columns as stored, from one read snapshot per store, for analysis elsewhere.

#include <libCommon/FileSystem.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "Commands.h"
#include "Output.h"
#include "RawStore.h"

namespace datastore {

namespace {

struct ExportArgs {
    std::string out;
    std::string store;
};

// One CSV cell: RFC 4180 quoting, NULL as an empty cell, numbers as SQLite wrote them.
std::string csvCell(Json const& value) {
    if (value.is_null()) return "";
    std::string const text = value.is_string()
                                 ? value.get<std::string>()
                                 : value.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (text.find_first_of("\",\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

long long exportTable(RawStore& db, std::string const& storeName, std::string const& table,
                      std::string const& host, bool csv, std::string const& file) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!out) throw ToolError(STORE, file + ": cannot write: " + std::strerror(errno));
    long long rows = 0;
    bool header = false;
    db.query("SELECT " + db.selectList(table) + " FROM `" + table + "`",
             [&](std::vector<std::string> const& columns, std::vector<Json>& cells) {
                 if (csv) {
                     if (!header) {
                         for (std::size_t i = 0; i < columns.size(); ++i)
                             out << (i ? "," : "") << csvCell(columns[i]);
                         out << "\r\n";
                         header = true;
                     }
                     for (std::size_t i = 0; i < cells.size(); ++i)
                         out << (i ? "," : "") << csvCell(cells[i]);
                     out << "\r\n";
                 } else {
                     Json record{{"host", host}, {"store", storeName}, {"table", table}};
                     for (std::size_t i = 0; i < cells.size(); ++i)
                         record[columns[i]] = std::move(cells[i]);
                     out << record.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
                 }
                 ++rows;
             });
    // An empty table still says what its columns are.
    if (csv && !header) {
        std::string const list = db.selectList(table);
        std::string names;
        for (char c : list) {
            if (c != '`') names += c;
        }
        out << names << "\r\n";
    }
    out.flush();
    if (!out) throw ToolError(STORE, file + ": cannot write: " + std::strerror(errno));
    return rows;
}

void exportStores(Options const& options, ExportArgs const& args) {
    Format const format = outputStyle().format;
    // -o table is the default: CSV then.
    bool const csv = format == Format::Table || format == Format::Csv;
    if (!csv && format != Format::Ndjson)
        throw ToolError(USAGE, "export writes csv (the default) or ndjson (-o ndjson)");
    std::vector<Store> const stores = storesChosen(
        options, args.store, {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag});
    std::string const host = hostName();
    RecordPrinter printer(
        {{"store", "STORE"}, {"table", "TABLE"}, {"rows", "ROWS"}, {"file", "FILE", 0, true}},
        options.json);
    bool any = false;
    for (Store store : stores) {
        std::string const path = storePath(options, store);
        if (args.store.empty() && !zrn::FileSystem::exists(path)) continue;
        existingStorePath(options, store);
        any = true;
        std::string const name = storeNameOf(store);
        std::filesystem::path const folder = std::filesystem::path(args.out) / name;
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) throw ToolError(STORE, folder.string() + ": cannot create: " + error.message());
        RawStore db(path, static_cast<int>(readOnly(options).wait.count()));
        // One read transaction: every table of the store from the same moment, whatever
        // the suite records meanwhile.
        db.query("BEGIN", [](auto const&, auto&) {});
        for (std::string const& table : db.tables()) {
            std::string const file = (folder / (table + (csv ? ".csv" : ".ndjson"))).string();
            long long const rows = exportTable(db, name, table, host, csv, file);
            printer.add(Json{{"store", name}, {"table", table}, {"rows", rows}, {"file", file}});
        }
        db.query("COMMIT", [](auto const&, auto&) {});
    }
    if (!any) existingStorePath(options, Store::Event);
    printer.print(std::cout);
}

}  // namespace

void addExportCommand(CLI::App& app, Options& options) {
    static ExportArgs args;
    CLI::App* c = app.add_subcommand(
        "export",
        "Writes every table of every store (or of one) to DIR/<store>/<Table>.csv or .ndjson: "
        "every row, columns as stored, one read snapshot per store; ndjson records also name "
        "the host, store and table");
    addLocationOptions(*c, options);
    addJsonOption(*c, options);
    addWaitOption(*c, options);
    c->add_option("--out", args.out, "Folder to write into (made when missing)")->required();
    addStoreOption(*c, args.store, "Exports only this store");
    c->footer(
        "Example: datastore export --out /tmp/export -o ndjson\n"
        "Tables whose rows are known by their rowid (Alerts, GenericLog, ...) get it as the "
        "first column \"rowid\". CSV: a header row, RFC 4180 quoting, CRLF line ends.\n"
        "Exit codes: 0 success, 1 usage error, 2 store error or a file that cannot be written.");
    c->callback([&options] { exportStores(options, args); });
}

}  // namespace datastore
