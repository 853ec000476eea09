// Where the stores are and which store a file is.

#include "Context.h"

#include <libCommon/DateTime.h>
#include <libCommon/FileSystem.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/Logger.h>
#include <libCommon/Resource.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <optional>
#include <regex>
#include <system_error>

#include "Output.h"
#include "TimeForms.h"

namespace datastore {

// ---- Store locations

char const* fileNameOf(Store store) { return zrn::factsOf(store).fileName; }

std::string storeNameOf(Store store) {
    std::string const name = fileNameOf(store);
    return name.substr(0, name.size() - 3);
}

void addStoreOption(CLI::App& command, std::string& chosen, char const* description) {
    command.add_option("--store", chosen, description)
        ->check(CLI::IsMember({"appstate", "genstore", "event", "softwarediagevent"}));
}

std::vector<Store> storesChosen(Options const& options, std::string const& chosen,
                                std::vector<Store> const& all) {
    if (chosen.empty() && !options.file.empty()) {
        std::string const path = storePath(options, all.front());
        if (!zrn::FileSystem::exists(path)) existingStorePath(options, all.front());
        for (Store store : all) {
            if (openOrFail(path, [&] {
                    return notThisStore(path, store, readOnly(options));
                }).empty())
                return {store};
        }
        throw ToolError(STORE, path + ": not a store this command works on");
    }
    if (chosen.empty()) return all;
    for (Store store : {Store::AppState, Store::General, Store::Event, Store::SoftwareDiag}) {
        if (storeNameOf(store) == chosen) return {store};
    }
    throw ToolError(USAGE, "--store: no store named '" + chosen + "'");
}

namespace {

// The folder the stores live in by default, and where that came from.
std::pair<std::string, char const*> defaultFolderAndSource() {
    if (char const* dir = std::getenv("DATASTORE_DIR"); dir && *dir) return {dir, "DATASTORE_DIR"};
    if (char const* data = std::getenv("XDG_DATA_HOME"); data && *data && data[0] == '/')
        return {std::string(data) + "/datastore", "XDG_DATA_HOME"};
    char const* home = std::getenv("HOME");
    return {std::string(home && *home ? home : ".") + "/.local/share/datastore", "HOME"};
}

}  // namespace

std::string defaultFolder(Store) { return defaultFolderAndSource().first; }

std::string folderSource(Options const& options) {
    if (!options.file.empty()) return "--file";
    if (!options.dir.empty()) return "--dir";
    return defaultFolderAndSource().second;
}

std::string storePath(Options const& options, Store store) {
    if (!options.file.empty()) {
        std::error_code error;
        if (std::filesystem::is_directory(options.file, error)) {
            throw ToolError(USAGE, options.file +
                                       ": is a directory, not a store file (give a folder "
                                       "with --dir)");
        }
        return options.file;
    }
    std::string const folder = options.dir.empty() ? defaultFolder(store) : options.dir;
    return zrn::FileSystem::getAbsolutePath(folder, fileNameOf(store), true).str();
}

zrn::ReadOnly readOnly(Options const& options) {
    zrn::ReadOnly result;
    // Anything beyond a day is as good as forever.
    result.wait =
        std::chrono::milliseconds(static_cast<long long>(std::min(options.wait, 86400.0) * 1000));
    return result;
}

std::string notThisStore(std::string const& path, Store store, zrn::ReadOnly const& options) {
    // The table every file of the store has; a database without it belongs to something else.
    zrn::StoreFacts const& facts = zrn::factsOf(store);
    if (zrn::StoreReader(path, options).hasTable(facts.markerTable)) return "";
    return std::string("not ") + facts.description + " (it has no " + facts.markerTable + " table)";
}

std::string existingStorePath(Options const& options, Store store) {
    std::string const path = storePath(options, store);
    if (!zrn::FileSystem::exists(path)) {
        throw ToolError(STORE, path +
                                   ": no such store (nothing was created; record with "
                                   "'datastore demo' or give --dir/--file)");
    }
    // The store's read-only opening would refuse such a file too, but by a missing table
    // rather than by what the file is.
    std::string const mismatch =
        openOrFail(path, [&] { return notThisStore(path, store, readOnly(options)); });
    if (!mismatch.empty()) throw ToolError(STORE, path + ": " + mismatch);
    return path;
}

namespace {

// The named mutex every opening of the store family holds.
zrn::String familyMutexName(Store store) {
    switch (store) {
        case Store::AppState:
            return "appstate_store";
        case Store::General:
            return "general_store";
        case Store::Event:
            return "event_store";
        case Store::SoftwareDiag:
            return "softwarediag_store";
    }
    return "";
}

}  // namespace

std::string recordingStorePath(Options const& options, Store store) {
    std::string const path = storePath(options, store);
    std::filesystem::path const folder = std::filesystem::path(path).parent_path();
    std::error_code error;
    if (!folder.empty() && !std::filesystem::is_directory(folder, error)) {
        std::filesystem::create_directories(folder, error);
        if (error)
            throw ToolError(STORE,
                            folder.string() + ": cannot create the folder: " + error.message());
    }
    // Without the mutex, a recording process checking a file that another one has just
    // created, but not yet filled with tables, took it for a database of another kind.
    zrn::GlobalMutex family(familyMutexName(store));
    zrn::AutoGlobalMutex lock(family);
    if (zrn::FileSystem::exists(path)) {
        std::string const mismatch = openOrFail(path, [&] { return notThisStore(path, store); });
        if (!mismatch.empty()) throw ToolError(STORE, path + ": " + mismatch);
    }
    return path;
}

}  // namespace datastore
