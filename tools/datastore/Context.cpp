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
