// datastore export: every table of every store (or of one) to one file per table, every row,
// columns as stored, from one read snapshot per store, for analysis elsewhere; with --mark
// only what changed since the last export, for a fleet database fed by many machines.

#include <libCommon/FileSystem.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <vector>

#include "AtomicFile.h"
#include "ClickHouseSchema.h"
#include "Commands.h"
#include "ExportMark.h"
#include "Output.h"

namespace datastore {

namespace {

struct ExportArgs {
    std::string out;
    std::string store;
    std::string mark;
    std::string machine;
    std::string schema;
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
    std::string machine;
    unsigned long long version = 0;
    bool csv = true;
    ExportMark const* previous = nullptr;  // with --mark: what the last export sent
    ExportMark* next = nullptr;            // with --mark: what this one sends
};

// What one table's export read and wrote.
struct TableCounts {
    long long rows = 0;     // rows in the table
    long long sent = 0;     // of them, written
    long long deleted = 0;  // tombstones written
};

// The machine's stable identity: systemd's machine id, else the host name.
std::string machineIdentity() {
    std::ifstream in("/etc/machine-id");
    std::string id;
    if (in >> id && !id.empty()) return id;
    return hostName();
}

MarkTable const* markedTable(ExportMark const* mark, std::string const& store,
                             std::string const& table) {
    if (!mark) return nullptr;
    auto const tables = mark->stores.find(store);
    if (tables == mark->stores.end()) return nullptr;
    auto const found = tables->second.find(table);
    return found == tables->second.end() ? nullptr : &found->second;
}

// A table that could not be read keeps what the mark knew of it, so that its changes are sent
// by the next export that can read it.
void keepMarked(ExportTarget const& target, std::string const& table) {
    MarkTable const* const previous = markedTable(target.previous, target.storeName, table);
    if (target.next && previous) target.next->stores[target.storeName][table] = *previous;
}

// The export's fields that lead every ndjson record.
Json recordHead(ExportTarget const& target, std::string const& table, bool deleted) {
    return Json{{"machine", target.machine},  {"host", target.host},
                {"store", target.storeName},  {"table", table},
                {"_version", target.version}, {"_deleted", deleted ? 1 : 0}};
}

void writeJson(std::ostream& out, Json const& record) {
    out << record.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

void writeCsvRow(std::ostream& out, zrn::StoreRow const& row) {
    for (std::size_t i = 0; i < row.cells.size(); ++i)
        out << (i ? "," : "") << csvCell(jsonOf(row.cells[i]));
    out << "\r\n";
}

// The table's rows as ndjson: every row, or with a mark only the changes and tombstones.
TableCounts writeNdjson(std::ostream& out, zrn::StoreReader& reader, ExportTarget const& target,
                        zrn::StoreTable const& table) {
    // A table the mark does not know is sent whole, as a first export would.
    MarkTable const* const previous = markedTable(target.previous, target.storeName, table.name);
    TableCounts counts;
    TableChanges changes(previous, [&](long long key) {
        Json tombstone = recordHead(target, table.name, true);
        tombstone[table.rowKey] = key;
        writeJson(out, tombstone);
        ++counts.deleted;
    });
    counts.rows = reader.forEachRow(table.name, [&](zrn::StoreRow const& row) {
        if (!changes.changed(row)) return;
        Json record = recordHead(target, table.name, false);
        for (std::size_t i = 0; i < row.cells.size(); ++i)
            record[row.columns[i]] = jsonOf(row.cells[i]);
        writeJson(out, record);
    });
    MarkTable kept = changes.finish();
    counts.sent = changes.sent();
    if (target.next) target.next->stores[target.storeName][table.name] = std::move(kept);
    return counts;
}

// Writes `table` into `file` through a temporary file renamed when complete: a file that is
// there is always a whole table (or all of its changes).
TableCounts exportTable(zrn::StoreReader& reader, ExportTarget const& target,
                        zrn::StoreTable const& table, std::string const& file) {
    TableCounts counts;
    writeAtomically(file, [&](std::string const& partial) {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        if (!out) throw ToolError(STORE, partial + ": cannot write: " + std::strerror(errno));
        if (target.csv) {
            // Even an empty table says what its columns are.
            std::vector<std::string> const columns = table.readColumns();
            for (std::size_t i = 0; i < columns.size(); ++i)
                out << (i ? "," : "") << csvCell(columns[i]);
            out << "\r\n";
            counts.rows = counts.sent = reader.forEachRow(
                table.name, [&](zrn::StoreRow const& row) { writeCsvRow(out, row); });
        } else {
            counts = writeNdjson(out, reader, target, table);
        }
        out.close();
        if (!out) throw ToolError(STORE, partial + ": cannot write: " + std::strerror(errno));
    });
    return counts;
}

// Every table of one store from one read snapshot; the tables that cannot be read are named
// in `unreadable` and the others still written.
void exportStore(Options const& options, std::string const& path, ExportTarget const& target,
                 std::filesystem::path const& folder, RecordPrinter& printer,
                 std::vector<zrn::StoreReadError>& unreadable) {
    zrn::StoreReader reader(path, readOnly(options));
    if (target.next) target.next->stores.erase(target.storeName);
    // One read transaction: every table of the store from the same moment, whatever the
    // suite records meanwhile.
    zrn::StoreReader::Snapshot const snapshot(reader);
    std::vector<std::string> names = reader.tableNames();
    std::sort(names.begin(), names.end());
    for (std::string const& name : names) {
        std::string const file = (folder / (name + (target.csv ? ".csv" : ".ndjson"))).string();
        try {
            TableCounts const counts = exportTable(reader, target, reader.table(name), file);
            Json listed{{"store", target.storeName}, {"table", name}, {"rows", counts.rows}};
            if (target.next) {
                listed["sent"] = counts.sent;
                listed["deleted"] = counts.deleted;
            }
            listed["file"] = file;
            printer.add(listed);
        } catch (zrn::StoreReadError const& e) {
            if (e.cause() == zrn::StoreReadError::Cause::Locked) throw;
            unreadable.push_back(e);
            keepMarked(target, name);
            std::cerr << "datastore: " << path << ": table " << name
                      << " not exported: " << e.getMessage().str().substr(path.size() + 2) << "\n";
        }
    }
}

// A number above every earlier export's of this machine: the time in microseconds, and above
// the mark's own in case the clock went back.
unsigned long long exportVersion(ExportMark const& mark) {
    auto const now = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    return std::max<unsigned long long>(now.count(), mark.version + 1);
}

ExportTarget exportTarget(ExportArgs const& args, ExportMark const& previous, ExportMark& next) {
    Format const format = outputStyle().format;
    ExportTarget target;
    // -o table is the default: CSV then.
    target.csv = format == Format::Table || format == Format::Csv;
    if (!target.csv && format != Format::Ndjson)
        throw ToolError(
            USAGE, "-o: export does not write " + formatName(format) + " (use one of csv, ndjson)");
    if (target.csv && !args.mark.empty())
        throw ToolError(USAGE, "--mark: an incremental export writes ndjson (add -o ndjson)");
    target.host = hostName();
    target.machine = args.machine.empty() ? machineIdentity() : args.machine;
    target.version = exportVersion(previous);
    if (!args.mark.empty()) {
        next.machine = target.machine;
        next.version = target.version;
        target.next = &next;
        // The fleet database has nothing of a machine the mark was not written for. What the
        // mark knows of stores not exported this time (--store, a file not there) is kept.
        if (previous.machine == target.machine) {
            target.previous = &previous;
            next.stores = previous.stores;
        }
    }
    return target;
}

// What the listing shows of each table written; an incremental export says what it sent.
std::vector<Field> listingFields(bool incremental) {
    std::vector<Field> fields{{"store", "STORE"}, {"table", "TABLE"}, {"rows", "ROWS"}};
    if (incremental) {
        fields.push_back({"sent", "SENT"});
        fields.push_back({"deleted", "DELETED"});
    }
    fields.push_back({"file", "FILE", 0, true});
    return fields;
}

void exportStores(Options const& options, ExportArgs const& args) {
    ExportMark const previous = args.mark.empty() ? ExportMark{} : readMark(args.mark);
    ExportMark next;
    ExportTarget target = exportTarget(args, previous, next);
    std::vector<Store> const stores = storesChosen(
        options, args.store, {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag});
    RecordPrinter printer(listingFields(target.next != nullptr), options.json);
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
    // Only now that every file is whole: an export that stops before sends it all again.
    if (target.next) writeMark(args.mark, next);
    printer.print(std::cout);
    if (unreadable.empty()) return;
    std::cout.flush();
    throw ToolError(DAMAGED, std::to_string(unreadable.size()) + " table" +
                                 (unreadable.size() == 1 ? "" : "s") +
                                 " not exported (damaged store; see 'datastore check')");
}

void runExport(Options const& options, ExportArgs const& args) {
    if (!args.schema.empty()) {
        std::cout << clickHouseSchema(libraryTables());
        return;
    }
    if (args.out.empty()) throw ToolError(USAGE, "--out is required");
    exportStores(options, args);
}

}  // namespace

void addExportCommand(CLI::App& app, Options& options) {
    static ExportArgs args;
    CLI::App* c = app.add_subcommand(
        "export",
        "Writes every table of every store (or of one) to DIR/<store>/<Table>.csv or .ndjson: "
        "every row, columns as stored, one read snapshot per store; ndjson records also name "
        "the machine, host, store and table, with _version and _deleted for a fleet database "
        "(with --mark, only what changed since the last export)");
    addLocationOptions(*c, options);
    addJsonOption(*c, options, {"csv", "ndjson"});
    addWaitOption(*c, options);
    CLI::Option* out = c->add_option("--out", args.out, "Folder to write into (made when missing)");
    out->type_name("DIR");
    addStoreOption(*c, args.store, "Exports only this store");
    CLI::Option* mark = c->add_option(
        "--mark", args.mark,
        "Incremental (ndjson): only rows new or changed since the export that wrote FILE, and "
        "a tombstone for each row gone; FILE is (re)written when every table's file is complete");
    mark->type_name("FILE");
    c->add_option("--machine", args.machine,
                  "The machine's identity in the records (default: /etc/machine-id, else the "
                  "host name)")
        ->type_name("ID");
    c->add_option("--schema", args.schema,
                  "Prints the fleet database's DDL (one table per store table) instead of "
                  "exporting")
        ->type_name("KIND")
        ->check(CLI::IsMember({"clickhouse"}))
        ->excludes(out)
        ->excludes(mark);
    c->footer(
        "Example: datastore export --out /tmp/export -o ndjson\n"
        "Example: datastore export --out /var/spool/fleet -o ndjson --mark "
        "/var/lib/datastore/export.mark\n"
        "Example: datastore export --schema clickhouse | clickhouse-client --multiquery\n"
        "Tables whose rows are known by their rowid (Alerts, GenericLog, ...) get it as the "
        "first column \"rowid\". CSV: a header row, RFC 4180 quoting, CRLF line ends.\n"
        "ndjson records lead with machine, host, store, table, _version (higher on every "
        "export of the machine: the latest record of a row wins) and _deleted (1: a tombstone "
        "carrying only the row's key).\n"
        "Each file is written under a temporary name and renamed when complete; a table that "
        "cannot "
        "be read is named on standard error and the others are still written.\n"
        "Exit codes: 0 success, 1 usage error, 2 store error or a file that cannot be written, "
        "3 a damaged store (some tables not exported).");
    c->callback([&options] { runExport(options, args); });
}

}  // namespace datastore
