#include "Context.h"

#include <libDataStore/DataStoreSettings.h>

#include <libCommon/DateTime.h>
#include <libCommon/FileSystem.h>

#include <algorithm>
#include <cctype>

namespace datastore {

char const* fileNameOf(Store store) {
    switch (store) {
        case Store::AppState: return "appstate.db";
        case Store::General: return "genstore.db";
        case Store::Event: return "event.db";
        case Store::SoftwareDiag: return "softwarediagevent.db";
    }
    return "";
}

std::string storePath(Options const& options, Store store) {
    if (!options.file.empty()) return options.file;
    if (!options.dir.empty()) {
        return zrn::FileSystem::getAbsolutePath(options.dir, fileNameOf(store), true).str();
    }
    switch (store) {
        case Store::AppState: return zrn::DataStoreSettings::appStateDataStoreFilePath().str();
        case Store::General: return zrn::DataStoreSettings::generalDataStoreFilePath().str();
        case Store::Event: return zrn::DataStoreSettings::eventDataStoreFilePath().str();
        case Store::SoftwareDiag:
            return zrn::DataStoreSettings::softwareDiagEventDataStoreFilePath().str();
    }
    return "";
}

std::string existingStorePath(Options const& options, Store store) {
    std::string const path = storePath(options, store);
    if (!zrn::FileSystem::exists(path)) {
        throw ToolError(STORE, path + ": no such store (run 'datastore demo' or give --dir/--file)");
    }
    return path;
}

long long parseTime(std::string const& text, char const* option, bool endOfDay) {
    if (text.empty()) return 0;
    bool const allDigits = std::all_of(text.begin(), text.end(),
                                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
    if (allDigits && text.size() <= 18) return std::stoll(text);
    zrn::DateTime const parsed{zrn::String(text)};
    if (!parsed.isInitialized()) {
        throw ToolError(USAGE, std::string(option) + ": cannot read '" + text +
                                   "' as a date (2026-11-23), a date-time (2026-11-23T14:05:00, "
                                   "optionally with an offset) or Unix seconds");
    }
    bool const dateOnly = text.size() == 10;
    return parsed.unixTimeStamp() + (dateOnly && endOfDay ? 86399 : 0);
}

long long sinceSeconds(Options const& options) { return parseTime(options.since, "--since", false); }

long long untilSeconds(Options const& options) { return parseTime(options.until, "--until", true); }

void addLocationOptions(CLI::App& command, Options& options) {
    command.add_option("--dir", options.dir, "Folder of all stores (default: the library's own)");
    command.add_option("--file", options.file, "One store file, instead of the one in --dir");
}

void addJsonOption(CLI::App& command, Options& options) {
    command.add_flag("--json", options.json, "One JSON object per record, one per line");
}

void addLimitOption(CLI::App& command, Options& options) {
    command.add_option("--limit", options.limit, "At most N records (0: all)")->check(CLI::NonNegativeNumber);
}

void addRangeOptions(CLI::App& command, Options& options) {
    command.add_option("--since", options.since, "From this date, date-time or Unix second");
    command.add_option("--until", options.until, "Up to this date (whole day), date-time or Unix second");
}

}  // namespace datastore

#include <libCommon/Logger.h>

#include <cstdlib>
#include <mutex>

namespace datastore {

namespace {

class LastErrorSink : public zrn::LogSink {
public:
    void write(zrn::String const& loggerName, zrn::LoggerPriority::LOGGER_PRIORITY priority,
               zrn::String const& message) override {
        if (priority < zrn::LoggerPriority::ERROR) return;
        std::lock_guard<std::mutex> guard(m_mutex);
        m_last = loggerName.str() + ": " + message.str();
    }
    std::string take() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return std::exchange(m_last, std::string());
    }

private:
    std::mutex m_mutex;
    std::string m_last;
};

LastErrorSink g_sink;
bool g_quiet = false;

}  // namespace

QuietLog::QuietLog() {
    // Somebody who configured logging wants to see it.
    if (std::getenv("ZRN_LOG_LEVEL") || std::getenv("ZRN_LOG_FILE")) return;
    g_quiet = true;
    zrn::LogFactory::setPriority(zrn::LoggerPriority::ERROR);
    zrn::LogFactory::setSink(&g_sink);
}

QuietLog::~QuietLog() {
    if (g_quiet) zrn::LogFactory::setSink(nullptr);
}

std::string QuietLog::takeLastError() { return g_sink.take(); }

void storeFailure(std::string const& path, std::string const& what) {
    std::string const cause = QuietLog::takeLastError();
    throw ToolError(STORE, path + ": " + what + (cause.empty() ? "" : " (" + cause + ")"));
}

}  // namespace datastore
