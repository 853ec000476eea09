// datastore collect: a support bundle. Consistent copies of the stores made with SQLite's
// online backup API while the suite may be recording, with a manifest, in one .tar.gz.

#include <archive.h>
#include <archive_entry.h>
#include <libCommon/FileSystem.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include "AtomicFile.h"
#include "Commands.h"
#include "Output.h"

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

// What the manifest says of one copy: its integrity ("ok" or SQLite's findings), its tables'
// rows and the schema version it keeps (null for a store that keeps none, the application
// state). A copy too damaged to read says so in "problem".
Json describe(std::string const& copyPath) {
    Json rows = Json::object();
    Json version;
    Json integrity = "ok";
    try {
        zrn::StoreReader copy(copyPath, zrn::ReadOnly{});
        std::vector<std::string> const findings = copy.integrityCheck(20);
        if (!findings.empty()) integrity = findings;
        int const kept = copy.identify().version;
        if (kept >= 0) version = kept;
        for (std::string const& table : copy.tableNames()) {
            try {
                rows[table] = copy.table(table).rows;
            } catch (zrn::StoreReadError const&) {
                rows[table] = nullptr;  // unreadable: the integrity findings say why
            }
        }
    } catch (zrn::StoreReadError const& e) {
        if (integrity == "ok")
            integrity = Json::array({e.getMessage().str().substr(copyPath.size() + 2)});
    }
    return Json{{"integrity", integrity}, {"schemaVersion", version}, {"rows", rows}};
}

// Copies the store at `path` into `target`: through SQLite's online backup, one committed
// state even while the suite records; a file the backup cannot read is copied byte for byte,
// as it is, which is what a support engineer needs of a damaged store. Returns how.
std::string copyStore(std::string const& path, std::string const& target,
                      zrn::ReadOnly const& options) {
    try {
        zrn::StoreReader(path, options).backupTo(target);
        return "backup";
    } catch (zrn::StoreReadError const& e) {
        if (e.cause() == zrn::StoreReadError::Cause::Locked) readFailure(e);
    }
    std::error_code error;
    std::filesystem::copy_file(path, target, std::filesystem::copy_options::overwrite_existing,
                               error);
    if (error) throw ToolError(STORE, path + ": cannot copy: " + error.message());
    return "bytes";
}

// The archive a bundle's name asks for.
enum class Bundle { TarGz, Tar, Zip };

bool endsWith(std::string const& text, char const* end) {
    std::string const tail = end;
    return text.size() > tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// A name that asks for something else is refused before anything is copied.
Bundle bundleOf(std::string const& name) {
    if (endsWith(name, ".tar.gz") || endsWith(name, ".tgz")) return Bundle::TarGz;
    if (endsWith(name, ".tar")) return Bundle::Tar;
    if (endsWith(name, ".zip")) return Bundle::Zip;
    throw ToolError(USAGE, "--out " + name + ": a bundle is a .tar.gz, .tgz, .tar or .zip");
}

class ArchiveWriter {
public:
    ArchiveWriter(std::string const& path, Bundle kind)
        : m_path(path), m_archive(archive_write_new()) {
        // pax: long names and exact sizes; gzip: what a support ticket takes.
        bool const ready = kind == Bundle::Zip
                               ? archive_write_set_format_zip(m_archive) == ARCHIVE_OK
                               : archive_write_set_format_pax_restricted(m_archive) == ARCHIVE_OK &&
                                     (kind == Bundle::Tar ||
                                      archive_write_add_filter_gzip(m_archive) == ARCHIVE_OK);
        if (!ready || archive_write_open_filename(m_archive, path.c_str()) != ARCHIVE_OK)
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

struct Collected {
    Json files = Json::array();
    std::vector<std::pair<std::string, std::string>> contents;
    std::vector<std::string> damaged;
};

// Copies one store into the scratch folder and describes the copy in `collected`.
void collectStore(Options const& options, Store store, ScratchFolder const& scratch,
                  Collected& collected) {
    std::string const path = storePath(options, store);
    std::string const name = fileNameOf(store);
    std::string const copyPath = scratch.file(name);
    std::string const how = copyStore(path, copyPath, readOnly(options));
    std::string bytes = readAll(copyPath);
    Json file{{"name", name}, {"size", bytes.size()}, {"sha256", sha256Of(bytes)}, {"copy", how}};
    file.update(describe(copyPath));
    if (file["integrity"] != "ok") collected.damaged.push_back(path);
    collected.files.push_back(std::move(file));
    collected.contents.emplace_back(name, std::move(bytes));
}

void collect(Options const& options, CollectArgs const& args) {
    Bundle const kind = bundleOf(args.out);
    ScratchFolder scratch;
    std::time_t const now = std::time(nullptr);
    Collected collected;
    for (Store store : {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag}) {
        if (zrn::FileSystem::exists(storePath(options, store)))
            collectStore(options, store, scratch, collected);
    }
    if (collected.contents.empty()) existingStorePath(options, Store::Event);  // says why
    Json const& files = collected.files;
    auto const& contents = collected.contents;
    RecordPrinter printer({{"name", "FILE"},
                           {"size", "BYTES"},
                           {"integrity", "INTEGRITY"},
                           {"sha256", "SHA256", 0, true}},
                          options.json);
    for (Json const& file : files) {
        printer.add(Json{{"name", file["name"]},
                         {"size", file["size"]},
                         {"integrity", file["integrity"] == "ok" ? "ok" : "damaged"},
                         {"sha256", file["sha256"]}});
    }
    Json const manifest{{"tool", "datastore"},
                        {"toolVersion", DATASTORE_VERSION},
                        {"host", hostName()},
                        {"collected", isoTime(now)},
                        {"files", files}};
    // A bundle that exists is always a whole one.
    writeAtomically(args.out, [&](std::string const& partial) {
        ArchiveWriter archive(partial, kind);
        for (auto const& [name, bytes] : contents) archive.add(name, bytes, now);
        archive.add("manifest.json", manifest.dump(2) + "\n", now);
        archive.close();
    });
    printer.print(std::cout);
    if (collected.damaged.empty()) return;
    std::cout.flush();
    for (std::size_t i = 0; i + 1 < collected.damaged.size(); ++i)
        std::cerr << "datastore: " << collected.damaged[i] << ": damaged (collected as it is)\n";
    throw ToolError(DAMAGED, collected.damaged.back() + ": damaged (collected as it is)");
}

}  // namespace

void addCollectCommand(CLI::App& app, Options& options) {
    static CollectArgs args;
    CLI::App* c = app.add_subcommand(
        "collect",
        "Writes a support bundle: consistent copies of the stores (SQLite's online backup, "
        "safe while the suite records; a damaged file as it is) and manifest.json (each "
        "file's size, sha256, integrity, schema version and rows per table, the tool's "
        "version, host and time) in one .tar.gz (or .tgz, .tar, .zip, as --out's name asks)");
    addDirOption(*c, options);
    addJsonOption(*c, options);
    addWaitOption(*c, options);
    c->add_option("--out", args.out, "The bundle to write (replaced when it exists)")->required();
    c->footer(
        "Example: datastore collect --out /tmp/support-$(hostname).tar.gz\n"
        "Exit codes: 0 success, 1 usage error, 2 store error or a bundle that cannot be "
        "written (no bundle is left then), 3 a damaged store (the bundle is written, the "
        "manifest names the damage).");
    c->callback([&options] { collect(options, args); });
}

}  // namespace datastore
