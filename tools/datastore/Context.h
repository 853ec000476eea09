#pragma once

// What every subcommand shares: where the stores are, the common options, and the errors that
// end the program with a given exit code.

#include <CLI/CLI.hpp>

#include <stdexcept>
#include <string>

namespace datastore {

enum ExitCode { OK = 0, USAGE = 1, STORE = 2 };

// Ends the program with one line on standard error and the given exit code.
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, std::string const& message) : std::runtime_error(message), m_code(code) {}
    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

enum class Store { AppState, General, Event, SoftwareDiag };

struct Options {
    std::string dir;   // the folder of all stores; empty: the library's default
    std::string file;  // one store file, overriding dir for the store a command uses
    bool json = false;
    long limit = 0;     // 0: no limit
    std::string since;  // as given; parsed by sinceSeconds()
    std::string until;
};

// The file name of a store ("event.db", ...).
char const* fileNameOf(Store store);

// The path of a store's file: --file when given, else --dir + name, else the library's default.
std::string storePath(Options const& options, Store store);

// The path, after checking that the file exists: inspection never creates a store.
std::string existingStorePath(Options const& options, Store store);

// --since / --until as Unix seconds; 0 when not given. Accepts ISO 8601 dates ("2026-11-23",
// local midnight), date-times with or without an offset, and plain Unix seconds.
// Bad text: ToolError(USAGE). An --until date without a time means the end of that day.
long long sinceSeconds(Options const& options);
long long untilSeconds(Options const& options);
long long parseTime(std::string const& text, char const* option, bool endOfDay);

// Adds the options a subcommand understands.
void addLocationOptions(CLI::App& command, Options& options);
void addJsonOption(CLI::App& command, Options& options);
void addLimitOption(CLI::App& command, Options& options);
void addRangeOptions(CLI::App& command, Options& options);

}  // namespace datastore

namespace datastore {

// Keeps the library's log off the terminal (unless ZRN_LOG_LEVEL or ZRN_LOG_FILE ask for it)
// and remembers the last error the library logged, so a failure can say why in one line.
class QuietLog {
public:
    QuietLog();
    ~QuietLog();
    QuietLog(QuietLog const&) = delete;
    QuietLog& operator=(QuietLog const&) = delete;

    // The last message logged at priority 4 since the last call, or "".
    static std::string takeLastError();
};

// Throws ToolError(STORE) naming the file and the cause; the cause is `what` followed by the
// last error the library logged, when there is one.
[[noreturn]] void storeFailure(std::string const& path, std::string const& what);

}  // namespace datastore
