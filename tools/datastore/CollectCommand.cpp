// datastore collect: a support bundle. Consistent copies of the stores made with SQLite's
// online backup API while the suite may be recording, with a manifest, in one .tar.gz.

#include <archive.h>
#include <archive_entry.h>
#include <libCommon/FileSystem.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "Commands.h"
#include "Output.h"
#include "RawStore.h"

namespace datastore {

namespace {

struct CollectArgs {
    std::string out;
};

// A folder of its own under $TMPDIR, removed with everything in it when the object goes.
class ScratchFolder {
public:
    ScratchFolder() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "datastore-collect-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw ToolError(STORE, pattern + ": cannot create: " + std::strerror(errno));
        m_path = pattern;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchFolder(ScratchFolder const&) = delete;
    ScratchFolder& operator=(ScratchFolder const&) = delete;
    std::string file(std::string const& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Copies the store at `source` to `target` through the online backup API, all pages in one
// step: the copy is one committed state of the file, never a transaction half written. A
// writer holding the file makes the step busy; it is retried until `waitMs` has passed.
void backup(RawStore& source, std::string const& target, int waitMs) {
    sqlite3* copy = nullptr;
    if (sqlite3_open_v2(target.c_str(), &copy, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                        nullptr) != SQLITE_OK) {
        std::string const why = copy ? sqlite3_errmsg(copy) : "out of memory";
        sqlite3_close_v2(copy);
        throw ToolError(STORE, target + ": cannot create: " + why);
    }
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> const closer(copy, sqlite3_close_v2);
    sqlite3_backup* job = sqlite3_backup_init(copy, "main", source.handle(), "main");
    if (!job) throw ToolError(STORE, source.path() + ": cannot copy: " + sqlite3_errmsg(copy));
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    int rc;
    while ((rc = sqlite3_backup_step(job, -1)) == SQLITE_BUSY || rc == SQLITE_LOCKED) {
        if (std::chrono::steady_clock::now() > deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    sqlite3_backup_finish(job);
    if (rc == SQLITE_BUSY || rc == SQLITE_LOCKED)
        throw ToolError(STORE, source.path() + ": locked by another program (see --wait)");
    if (rc != SQLITE_DONE)
        throw ToolError(STORE, source.path() + ": cannot copy: " + sqlite3_errstr(rc));
}

std::string sha256Of(std::string const& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr))
        throw ToolError(STORE, "cannot compute a sha256");
    static char const digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += digits[digest[i] >> 4];
        hex += digits[digest[i] & 15];
    }
    return hex;
}

std::string readAll(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// What the manifest says of one copy: its tables' rows and the schema version it keeps
// (null for a store that keeps none, the application state).
Json describe(std::string const& copyPath) {
    RawStore copy(copyPath, 0);
    Json rows = Json::object();
    Json version;
    for (std::string const& table : copy.tables()) {
        rows[table] = copy.number("SELECT COUNT(*) FROM `" + table + "`");
        if (table == "Versioning" || table == "Version")
            version = copy.number("SELECT `version` FROM `" + table + "` LIMIT 1");
    }
    return Json{{"schemaVersion", version}, {"rows", rows}};
}

class ArchiveWriter {
public:
    explicit ArchiveWriter(std::string const& path) : m_path(path), m_archive(archive_write_new()) {
        // pax: long names and exact sizes; gzip: what a support ticket takes.
        if (archive_write_set_format_pax_restricted(m_archive) != ARCHIVE_OK ||
            archive_write_add_filter_gzip(m_archive) != ARCHIVE_OK ||
            archive_write_open_filename(m_archive, path.c_str()) != ARCHIVE_OK)
            fail("cannot write: ");
    }
    ~ArchiveWriter() { archive_write_free(m_archive); }
    ArchiveWriter(ArchiveWriter const&) = delete;
    ArchiveWriter& operator=(ArchiveWriter const&) = delete;

    void add(std::string const& name, std::string const& bytes, std::time_t time) {
        std::unique_ptr<archive_entry, void (*)(archive_entry*)> const entry(archive_entry_new(),
                                                                             archive_entry_free);
        archive_entry_set_pathname(entry.get(), name.c_str());
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(bytes.size()));
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        archive_entry_set_mtime(entry.get(), time, 0);
        if (archive_write_header(m_archive, entry.get()) != ARCHIVE_OK) fail("cannot write: ");
        if (archive_write_data(m_archive, bytes.data(), bytes.size()) !=
            static_cast<la_ssize_t>(bytes.size()))
            fail("cannot write: ");
    }
    void close() {
        if (archive_write_close(m_archive) != ARCHIVE_OK) fail("cannot write: ");
    }

private:
    [[noreturn]] void fail(std::string const& what) {
        char const* why = archive_error_string(m_archive);
        throw ToolError(STORE, m_path + ": " + what + (why ? why : "unknown error"));
    }

    std::string m_path;
    struct archive* m_archive;
};

void collect(Options const& options, CollectArgs const& args) {
    int const waitMs = static_cast<int>(readOnly(options).wait.count());
    ScratchFolder scratch;
    std::time_t const now = std::time(nullptr);
    Json files = Json::array();
    RecordPrinter printer({{"name", "FILE"}, {"size", "BYTES"}, {"sha256", "SHA256", 0, true}},
                          options.json);
    std::vector<std::pair<std::string, std::string>> contents;
    for (Store store : {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag}) {
        std::string const path = storePath(options, store);
        if (!zrn::FileSystem::exists(path)) continue;
        existingStorePath(options, store);
        std::string const name = fileNameOf(store);
        std::string const copyPath = scratch.file(name);
        {
            RawStore source(path, waitMs);
            backup(source, copyPath, waitMs);
        }
        std::string bytes = readAll(copyPath);
        Json file{{"name", name}, {"size", bytes.size()}, {"sha256", sha256Of(bytes)}};
        file.update(describe(copyPath));
        printer.add(Json{{"name", name}, {"size", file["size"]}, {"sha256", file["sha256"]}});
        files.push_back(std::move(file));
        contents.emplace_back(name, std::move(bytes));
    }
    if (contents.empty()) existingStorePath(options, Store::Event);  // says why: none there
    Json const manifest{{"tool", "datastore"},
                        {"toolVersion", DATASTORE_VERSION},
                        {"host", hostName()},
                        {"collected", isoTime(now)},
                        {"files", files}};
    // Written beside the target and renamed: a bundle that exists is always a whole one.
    std::string const partial = args.out + ".partial";
    try {
        ArchiveWriter archive(partial);
        for (auto const& [name, bytes] : contents) archive.add(name, bytes, now);
        archive.add("manifest.json", manifest.dump(2) + "\n", now);
        archive.close();
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        throw;
    }
    std::error_code error;
    std::filesystem::rename(partial, args.out, error);
    if (error) throw ToolError(STORE, args.out + ": cannot write: " + error.message());
    printer.print(std::cout);
}

}  // namespace

void addCollectCommand(CLI::App& app, Options& options) {
    static CollectArgs args;
    CLI::App* c = app.add_subcommand(
        "collect",
        "Writes a support bundle: consistent copies of the stores (SQLite's online backup, "
        "safe while the suite records) and manifest.json (each file's size, sha256, schema "
        "version and rows per table, the tool's version, host and time) in one .tar.gz");
    addDirOption(*c, options);
    addJsonOption(*c, options);
    addWaitOption(*c, options);
    c->add_option("--out", args.out, "The bundle to write (replaced when it exists)")->required();
    c->footer(
        "Example: datastore collect --out /tmp/support-$(hostname).tar.gz\n"
        "Exit codes: 0 success, 1 usage error, 2 store error or a bundle that cannot be "
        "written (no bundle is left then).");
    c->callback([&options] { collect(options, args); });
}

}  // namespace datastore
