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

// ---- Times

namespace {

bool leapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int daysInMonth(int year, int month) {
    static int const days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leapYear(year) ? 29 : days[month - 1];
}

// Local midnight of the day `daysBack` days before today.
long long localMidnight(int daysBack) {
    std::time_t const now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    parts.tm_mday -= daysBack;
    parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
    parts.tm_isdst = -1;
    return static_cast<long long>(std::mktime(&parts));
}

// The local time of a calendar date and clock time; mktime settles daylight-saving changes.
long long localTimeOf(int year, int month, int day, int hour, int minute, int second) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    return static_cast<long long>(std::mktime(&parts));
}

}  // namespace

namespace {

ToolError badTime(char const* option, std::string const& text, std::string const& why) {
    return ToolError(USAGE, std::string(option) + ": '" + text + "' " + why);
}

// Unix seconds ("1763900000", "@1763900000"); none when `text` is not all digits. Unix seconds
// need 9 digits (from 1973 on) or an '@': "20261122" is a mistyped date far more often than a
// second of 1970. Read without a regex: std::regex recurses once per character of an unbounded
// run, and a long run of digits overflowed the stack.
std::optional<long long> unixSecondsOf(std::string const& text, char const* option) {
    bool const at = text[0] == '@';
    std::string const digits = text.substr(at ? 1 : 0);
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), [](char c) {
            return std::isdigit(static_cast<unsigned char>(c));
        }))
        return std::nullopt;
    if (!at && digits.size() < 9) {
        throw badTime(
            option, text,
            "is neither a date (2026-11-22) nor Unix seconds (9 or more digits, or @" + text + ")");
    }
    if (digits.size() > 12) throw badTime(option, text, "is too large for Unix seconds");
    return std::stoll(digits);
}

// The seconds east of UTC of a matched offset ("+01:00", "-0330"); 0 for "Z".
int offsetOf(std::smatch const& m, char const* option, std::string const& text) {
    if (!m[8].matched) return 0;
    int const offsetHours = std::stoi(m[9]), offsetMinutes = std::stoi(m[10]);
    // Offsets in use run from -12:00 to +14:00.
    if (offsetMinutes > 59 || offsetHours > 14 || (m[8] == "-" && offsetHours > 12) ||
        (offsetHours == 14 && offsetMinutes > 0)) {
        throw badTime(option, text, "has an impossible offset (from -12:00 to +14:00)");
    }
    return (m[8] == "-" ? -1 : 1) * (offsetHours * 3600 + offsetMinutes * 60);
}

// A date or date-time, local unless it carries an offset.
long long dateTimeOf(std::string const& text, char const* option, bool endOfDay) {
    static std::regex const iso(
        "([0-9]{4})-([0-9]{2})-([0-9]{2})"
        "(?:[T ]([0-9]{2}):([0-9]{2})(?::([0-9]{2}))?(Z|([+-])([0-9]{2}):?([0-9]{2}))?)?");
    std::smatch m;
    if (!std::regex_match(text, m, iso)) {
        throw badTime(option, text,
                      "is not a time: give a date (2026-11-23), a date-time (2026-11-23T14:05:00, "
                      "optionally with an offset such as +01:00 or Z), now, today, yesterday, "
                      "-30m, -12h, -7d, -2w or Unix seconds");
    }
    int const year = std::stoi(m[1]), month = std::stoi(m[2]), dayOfMonth = std::stoi(m[3]);
    if (year < 1970) throw badTime(option, text, "is before 1970");
    if (month < 1 || month > 12) throw badTime(option, text, "has no month " + m[2].str());
    if (dayOfMonth < 1 || dayOfMonth > daysInMonth(year, month)) {
        throw badTime(option, text,
                      "is not a date: " + m[1].str() + "-" + m[2].str() + " has " +
                          std::to_string(daysInMonth(year, month)) + " days");
    }
    if (!m[4].matched) {
        return endOfDay ? localTimeOf(year, month, dayOfMonth, 23, 59, 59)
                        : localTimeOf(year, month, dayOfMonth, 0, 0, 0);
    }
    int const hour = std::stoi(m[4]), minute = std::stoi(m[5]);
    int const second = m[6].matched ? std::stoi(m[6]) : 0;
    if (hour > 23 || minute > 59 || second > 59)
        throw badTime(option, text, "has no such time of day");
    if (!m[7].matched) return localTimeOf(year, month, dayOfMonth, hour, minute, second);
    int const offset = offsetOf(m, option, text);
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = dayOfMonth;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    return static_cast<long long>(timegm(&parts)) - offset;
}

}  // namespace

long long parseTime(std::string const& text, char const* option, bool endOfDay) {
    if (text.empty()) return 0;
    long long const now = static_cast<long long>(std::time(nullptr));
    // A day as an upper bound means the whole day: its last second.
    auto day = [&](long long midnight, int daysBack) {
        return endOfDay ? localMidnight(daysBack - 1) - 1 : midnight;
    };
    if (text == "now") return now;
    if (text == "today") return day(localMidnight(0), 0);
    if (text == "yesterday") return day(localMidnight(1), 1);
    if (auto const spoken = spokenTime(text, now)) return *spoken;

    std::smatch m;
    static std::regex const relative("-([0-9]{1,9})([smhdw])");
    if (std::regex_match(text, m, relative)) {
        static std::string const units = "smhdw";
        static long long const seconds[] = {1, 60, 3600, 86400, 7 * 86400};
        return now - std::stoll(m[1]) * seconds[units.find(m[2].str()[0])];
    }
    if (auto const epoch = unixSecondsOf(text, option)) return *epoch;
    return dateTimeOf(text, option, endOfDay);
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
    // The help names the rule, not the folder it gives here: the manual page is made from it
    // on the build machine.
    command.add_option("--dir", options.dir,
                       "Folder of all stores (default: $DATASTORE_DIR, else "
                       "$XDG_DATA_HOME/datastore, else ~/.local/share/datastore)");
}

void addLocationOptions(CLI::App& command, Options& options) {
    addDirOption(command, options);
    command.add_option("--file", options.file, "This store file instead of the one in --dir");
}

void addJsonOption(CLI::App& command, Options& options, std::vector<std::string> const& accepted) {
    std::string names = formatNames();
    if (!accepted.empty()) {
        names.clear();
        for (std::string const& name : accepted) names += (names.empty() ? "" : ", ") + name;
    }
    std::string const commandName = command.get_name();
    command
        .add_option_function<std::string>(
            "-o,--output",
            [&options, accepted, names, commandName](std::string const& name) {
                Format format = Format::Table;
                bool const taken = accepted.empty() || std::find(accepted.begin(), accepted.end(),
                                                                 name) != accepted.end();
                if (!formatNamed(name, format)) {
                    throw ToolError(USAGE,
                                    "-o: unknown format '" + name + "' (use one of " + names + ")");
                }
                if (!taken) {
                    throw ToolError(USAGE, "-o: " + commandName + " does not write " + name +
                                               " (use one of " + names + ")");
                }
                outputStyle().format = format;
                options.json = format != Format::Table;
            },
            accepted.empty() ? "Output format (default table)" : "Output format")
        // The braces list the formats where the shell completions look for an option's words.
        ->type_name([names] {
            std::string list = names;
            list.erase(std::remove(list.begin(), list.end(), ' '), list.end());
            return "FORMAT:{" + list + "}";
        }());
    command.add_flag_callback(
        "--json",
        [&options] {
            outputStyle().format = Format::Ndjson;
            options.json = true;
        },
        "One JSON object per record, one per line (-o ndjson)");
    command.add_flag_callback(
        "--utc", [] { outputStyle().utc = true; }, "Times in tables in UTC, not local time");
    command.add_flag_callback(
        "--wide", [] { outputStyle().wide = true; }, "Every column in full, whatever the terminal");
    // Read before the command runs (main), declared here for --help and the parser.
    command.add_flag("--no-pager", "Never page long output on a terminal");
}

void addCommonOptions(CLI::App& app, Options& options) {
    addLocationOptions(app, options);
    addJsonOption(app, options);
}

void addLimitOption(CLI::App& command, Options& options) {
    command
        .add_option_function<std::string>(
            "--limit",
            [&options](std::string const& text) {
                // The readers take an int: anything beyond would wrap into another limit.
                bool const digits = !text.empty() && text.size() <= 10 &&
                                    std::all_of(text.begin(), text.end(), [](char c) {
                                        return std::isdigit(static_cast<unsigned char>(c));
                                    });
                if (!digits || std::stoll(text) > INT_MAX) {
                    throw ToolError(USAGE, "--limit: '" + text + "' is not a number from 0 to " +
                                               std::to_string(INT_MAX));
                }
                options.limit = static_cast<long>(std::stoll(text));
            },
            "At most N records (0: all)")
        ->type_name("N");
}

void addRangeOptions(CLI::App& command, Options& options) {
    command.add_option("--since", options.since,
                       "From this time: 2026-11-23, 2026-11-23T14:05[:00][+01:00|Z], now, "
                       "today, yesterday, -30m, -12h, -7d, -2w, 10:00, \"yesterday 14:00\", "
                       "\"3 days ago\", Unix seconds (9+ digits or @N)");
    command.add_option("--until", options.until,
                       "Up to this time (a date: the whole day); the forms of --since");
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
        // The logger's name is the library's business, not the reader's.
        (void)loggerName;
        if (m_first.empty()) m_first = message.str();
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

void readFailure(zrn::StoreReadError const& e) {
    QuietLog::takeFirstError();
    std::string message = e.getMessage().str();
    if (e.cause() == zrn::StoreReadError::Cause::Locked)
        message += " (gave up waiting; --wait SECONDS waits longer)";
    throw ToolError(STORE, message);
}

void storeFailure(std::string const& path, std::string const& what) {
    std::string const cause = QuietLog::takeFirstError();
    throw ToolError(STORE, path + ": " + what + (cause.empty() ? "" : " (" + cause + ")"));
}

}  // namespace datastore
