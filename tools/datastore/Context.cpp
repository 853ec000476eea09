#include "Context.h"

#include <libCommon/DateTime.h>
#include <libCommon/FileSystem.h>
#include <libCommon/GlobalMutex.h>
#include <libCommon/Logger.h>
#include <libCommon/Resource.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SQLite3Database.h>
#include <libDataStore/DataStoreSettings.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace datastore {

// ---- Store locations

char const* fileNameOf(Store store) {
    switch (store) {
        case Store::AppState:
            return "appstate.db";
        case Store::General:
            return "genstore.db";
        case Store::Event:
            return "event.db";
        case Store::SoftwareDiag:
            return "softwarediagevent.db";
    }
    return "";
}

std::string defaultFolder(Store store) {
    std::string folder;
    switch (store) {
        case Store::AppState:
            folder = zrn::DataStoreSettings::appStateDataStorePath().str();
            break;
        case Store::General:
            folder = zrn::DataStoreSettings::generalDataStorePath().str();
            break;
        case Store::Event:
            folder = zrn::DataStoreSettings::eventDataStorePath().str();
            break;
        case Store::SoftwareDiag:
            folder = zrn::DataStoreSettings::softwareDiagEventDataStorePath().str();
            break;
    }
    std::error_code error;
    if (std::filesystem::exists(folder, error) && !std::filesystem::is_directory(folder, error)) {
        return folder + ".d";
    }
    return folder;
}

std::string storePath(Options const& options, Store store) {
    if (!options.file.empty()) return options.file;
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
    char const* table = "";
    char const* kind = "";
    switch (store) {
        case Store::AppState:
            table = "AppState", kind = "an application-state store";
            break;
        case Store::General:
            table = "GenericLog", kind = "a general store";
            break;
        case Store::Event:
            table = "ApplicationRuns", kind = "an event store";
            break;
        case Store::SoftwareDiag:
            table = "Sessions", kind = "a software-diagnostics store";
            break;
    }
    auto const database = openReadOnly(path, options);
    zrn::ResultSet rows;
    database->execute(zrn::String(std::string("SELECT count(*) FROM `sqlite_master` WHERE `type` = "
                                              "'table' AND `name` = '") +
                                  table + "'"),
                      &rows);
    if (rows.rowCount() > 0 && rows.row(0).columnValue(0) != "0") return "";
    return std::string("not ") + kind + " (it has no " + table + " table)";
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

std::unique_ptr<zrn::SQLite3Database> openReadOnly(std::string const& path,
                                                   zrn::ReadOnly const& options) {
    return openOrFail(path, [&] {
        zrn::SQLite3Database::ReaderOptions reader;
        reader.busyTimeoutMs =
            static_cast<int>(std::clamp<long long>(options.wait.count(), 0, INT_MAX));
        reader.immutable = options.immutable;
        return std::make_unique<zrn::SQLite3Database>(zrn::String(path), reader);
    });
}

// ---- Times

long long parseTime(std::string const& text, char const* option, bool endOfDay) {
    if (text.empty()) return 0;
    bool const allDigits = std::all_of(text.begin(), text.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c));
    });
    if (allDigits && text.size() <= 18) return std::stoll(text);

    // A bare date as an upper bound means the whole day; asking for its last second lets
    // DateTime settle a daylight-saving change on that day.
    bool const dateOnly = text.size() == 10 && text[4] == '-' && text[7] == '-';
    zrn::DateTime const parsed{zrn::String(dateOnly && endOfDay ? text + "T23:59:59" : text)};
    if (!parsed.isInitialized() || parsed.unixTimeStamp() <= 0) {
        throw ToolError(USAGE,
                        std::string(option) + ": cannot read '" + text +
                            "' as a date (2026-11-23), a date-time (2026-11-23T14:05:00, "
                            "optionally with an offset such as +01:00 or Z) or Unix seconds");
    }
    return parsed.unixTimeStamp();
}

TimeRange timeRange(Options const& options) {
    TimeRange range;
    range.since = parseTime(options.since, "--since", false);
    range.until = parseTime(options.until, "--until", true);
    if (range.since > 0 && range.until > 0 && range.since > range.until) {
        throw ToolError(USAGE,
                        "--since '" + options.since + "' is after --until '" + options.until + "'");
    }
    return range;
}

// ---- Options

void addDirOption(CLI::App& command, Options& options) {
    command.add_option("--dir", options.dir,
                       "Folder of all stores (default: " + defaultFolder(Store::Event) + ")");
}

void addLocationOptions(CLI::App& command, Options& options) {
    addDirOption(command, options);
    command.add_option("--file", options.file, "This store file instead of the one in --dir");
}

void addJsonOption(CLI::App& command, Options& options) {
    command.add_flag("--json", options.json, "One JSON object per record, one per line");
}

void addLimitOption(CLI::App& command, Options& options) {
    command.add_option("--limit", options.limit, "At most N records (0: all)")
        ->check(CLI::NonNegativeNumber);
}

void addRangeOptions(CLI::App& command, Options& options) {
    command.add_option("--since", options.since, "From this date, date-time or Unix second");
    command.add_option("--until", options.until,
                       "Up to this date (whole day), date-time or Unix second");
}

void addWaitOption(CLI::App& command, Options& options) {
    command
        .add_option("--wait", options.wait,
                    "Wait at most SECONDS for a program writing the store (default 5)")
        ->option_text("SECONDS")
        ->check(CLI::NonNegativeNumber);
}

CLI::App* addInspection(CLI::App& parent, Options& options, char const* name,
                        std::string const& description, std::string const& example, bool withRange,
                        bool withLimit) {
    CLI::App* command = parent.add_subcommand(name, description);
    addLocationOptions(*command, options);
    addJsonOption(*command, options);
    addWaitOption(*command, options);
    if (withRange) addRangeOptions(*command, options);
    if (withLimit) addLimitOption(*command, options);
    command->footer("Example: " + example);
    return command;
}

// ---- Library log

namespace {

class LastErrorSink : public zrn::LogSink {
public:
    void write(zrn::String const& loggerName, zrn::LoggerPriority::LOGGER_PRIORITY priority,
               zrn::String const& message) override {
        if (priority < zrn::LoggerPriority::ERROR) return;
        std::lock_guard<std::mutex> guard(m_mutex);
        // The first error is the cause; what fails after it is usually a consequence.
        if (m_first.empty()) m_first = loggerName.str() + ": " + message.str();
    }
    std::string take() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return std::exchange(m_first, std::string());
    }

private:
    std::mutex m_mutex;
    std::string m_first;
};

LastErrorSink g_sink;
bool g_quiet = false;

bool logConfigured() {
    if (std::getenv("ZRN_LOG_LEVEL") || std::getenv("ZRN_LOG_FILE")) return true;
    zrn::String file;
    return zrn::Resource::getSetting("log", "file", file, zrn::ZRNLocale::getGlobalLocale());
}

}  // namespace

QuietLog::QuietLog() {
    // Somebody who configured logging wants to see it.
    if (logConfigured()) return;
    g_quiet = true;
    zrn::LogFactory::setPriority(zrn::LoggerPriority::ERROR);
    zrn::LogFactory::setSink(&g_sink);
}

QuietLog::~QuietLog() {
    if (g_quiet) zrn::LogFactory::setSink(nullptr);
}

std::string QuietLog::takeFirstError() { return g_sink.take(); }

void libraryFailure(std::string const& path, std::string const& what, zrn::Exception const& e) {
    std::string const message = e.getMessage().str();
    if (message.find("locked by another program") != std::string::npos) {
        QuietLog::takeFirstError();
        throw ToolError(STORE, path +
                                   ": locked by another program (gave up waiting; --wait "
                                   "SECONDS waits longer)");
    }
    storeFailure(path, what + message);
}

void storeFailure(std::string const& path, std::string const& what) {
    std::string const cause = QuietLog::takeFirstError();
    throw ToolError(STORE, path + ": " + what + (cause.empty() ? "" : " (" + cause + ")"));
}

}  // namespace datastore
