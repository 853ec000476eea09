// datastore export: every table of every store (or of one) to one file per table, every row,
// columns as stored, from one read snapshot per store, for analysis elsewhere.

#include <libCommon/FileSystem.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <vector>

#include "Commands.h"
#include "Output.h"

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

struct ExportTarget {
    std::string storeName;
    std::string host;
    bool csv = true;
};

void writeRow(std::ostream& out, ExportTarget const& target, std::string const& table,
              zrn::StoreRow const& row) {
    if (target.csv) {
        for (std::size_t i = 0; i < row.cells.size(); ++i)
            out << (i ? "," : "") << csvCell(jsonOf(row.cells[i]));
        out << "\r\n";
        return;
    }
    Json record{{"host", target.host}, {"store", target.storeName}, {"table", table}};
    for (std::size_t i = 0; i < row.cells.size(); ++i)
        record[row.columns[i]] = jsonOf(row.cells[i]);
    out << record.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

// Writes `table` into `file` through a temporary file renamed when complete: a file that is
// there is always a whole table. Returns its rows.
long long exportTable(zrn::StoreReader& reader, ExportTarget const& target,
                      zrn::StoreTable const& table, std::string const& file) {
    std::string const partial = file + ".partial";
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    if (!out) throw ToolError(STORE, partial + ": cannot write: " + std::strerror(errno));
    if (target.csv) {
        // Even an empty table says what its columns are.
        std::vector<std::string> const columns = table.readColumns();
        for (std::size_t i = 0; i < columns.size(); ++i)
            out << (i ? "," : "") << csvCell(columns[i]);
        out << "\r\n";
    }
    long long rows = 0;
    try {
        rows = reader.forEachRow(
            table.name, [&](zrn::StoreRow const& row) { writeRow(out, target, table.name, row); });
    } catch (...) {
        out.close();
        std::remove(partial.c_str());
        throw;
    }
    out.close();
    if (!out) throw ToolError(STORE, partial + ": cannot write: " + std::strerror(errno));
    std::error_code error;
    std::filesystem::rename(partial, file, error);
    if (error) throw ToolError(STORE, file + ": cannot write: " + error.message());
    return rows;
}

// Every table of one store from one read snapshot; the tables that cannot be read are named
// in `unreadable` and the others still written.
void exportStore(Options const& options, std::string const& path, ExportTarget const& target,
                 std::filesystem::path const& folder, RecordPrinter& printer,
                 std::vector<zrn::StoreReadError>& unreadable) {
    zrn::StoreReader reader(path, readOnly(options));
    // One read transaction: every table of the store from the same moment, whatever the
    // suite records meanwhile.
    zrn::StoreReader::Snapshot const snapshot(reader);
    std::vector<std::string> names = reader.tableNames();
    std::sort(names.begin(), names.end());
    for (std::string const& name : names) {
        std::string const file = (folder / (name + (target.csv ? ".csv" : ".ndjson"))).string();
        try {
            long long const rows = exportTable(reader, target, reader.table(name), file);
            printer.add(
                Json{{"store", target.storeName}, {"table", name}, {"rows", rows}, {"file", file}});
        } catch (zrn::StoreReadError const& e) {
            if (e.cause() == zrn::StoreReadError::Cause::Locked) throw;
            unreadable.push_back(e);
            std::cerr << "datastore: " << path << ": table " << name
                      << " not exported: " << e.getMessage().str().substr(path.size() + 2) << "\n";
        }
    }
}

void exportStores(Options const& options, ExportArgs const& args) {
    Format const format = outputStyle().format;
    ExportTarget target;
    // -o table is the default: CSV then.
    target.csv = format == Format::Table || format == Format::Csv;
    if (!target.csv && format != Format::Ndjson)
        throw ToolError(
            USAGE, "-o: export does not write " + formatName(format) + " (use one of csv, ndjson)");
    std::vector<Store> const stores = storesChosen(
        options, args.store, {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag});
    target.host = hostName();
    RecordPrinter printer(
        {{"store", "STORE"}, {"table", "TABLE"}, {"rows", "ROWS"}, {"file", "FILE", 0, true}},
        options.json);
    bool any = false;
    std::vector<zrn::StoreReadError> unreadable;
    for (Store store : stores) {
        std::string const path = storePath(options, store);
        if (args.store.empty() && !zrn::FileSystem::exists(path)) continue;
        existingStorePath(options, store);
        any = true;
        target.storeName = storeNameOf(store);
        std::filesystem::path const folder = std::filesystem::path(args.out) / target.storeName;
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) throw ToolError(STORE, folder.string() + ": cannot create: " + error.message());
        readOrFail([&] { exportStore(options, path, target, folder, printer, unreadable); });
    }
    if (!any) existingStorePath(options, Store::Event);
    printer.print(std::cout);
    if (unreadable.empty()) return;
    std::cout.flush();
    throw ToolError(DAMAGED, std::to_string(unreadable.size()) + " table" +
                                 (unreadable.size() == 1 ? "" : "s") +
                                 " not exported (damaged store; see 'datastore check')");
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
    addJsonOption(*c, options, {"csv", "ndjson"});
    addWaitOption(*c, options);
    c->add_option("--out", args.out, "Folder to write into (made when missing)")->required();
    addStoreOption(*c, args.store, "Exports only this store");
    c->footer(
        "Example: datastore export --out /tmp/export -o ndjson\n"
        "Tables whose rows are known by their rowid (Alerts, GenericLog, ...) get it as the "
        "first column \"rowid\". CSV: a header row, RFC 4180 quoting, CRLF line ends.\n"
        "Each file is written under a temporary name and renamed when complete; a table that "
        "cannot "
        "be read is named on standard error and the others are still written.\n"
        "Exit codes: 0 success, 1 usage error, 2 store error or a file that cannot be written, "
        "3 a damaged store (some tables not exported).");
    c->callback([&options] { exportStores(options, args); });
}

}  // namespace datastore
