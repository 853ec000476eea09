#pragma once

// What every subcommand shares: where the stores are, the common options, and the errors that
// end the program with a given exit code.

#include <libCommon/Exception.h>
#include <libDataStore/ReadOnly.h>
#include <libDataStore/StoreReader.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace datastore {

// Documented in --help and the README: 0 success, 1 usage error, 2 store error (cannot open or
// read), 3 a damaged store (check), 4 no such record.
enum ExitCode { OK = 0, USAGE = 1, STORE = 2, DAMAGED = 3, NOT_FOUND = 4 };

// Ends the program with one line on standard error and the given exit code.
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, std::string const& message)
        : std::runtime_error(message), m_code(code) {}
    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

// The four stores, as the library names them.
using Store = zrn::StoreKind;

struct Options {
    std::string dir;    // the folder of all stores; empty: the default folder
    std::string file;   // one store file, overriding dir for the store a command uses
    bool json = false;  // a machine format was chosen (-o other than table, --json)
    long limit = 0;     // 0: no limit; at most INT_MAX, what the readers take
    std::string since;  // as given; parsed by timeRange()
    std::string until;
    double wait = 5;  // --wait: seconds an inspection waits for a program writing the store
};

// How inspections open a store: read-only, waiting at most --wait for a writer.
zrn::ReadOnly readOnly(Options const& options);

// The file name of a store ("event.db", ...).
char const* fileNameOf(Store store);
// Its name without ".db" ("event", ...), as --store takes it and exports name folders.
std::string storeNameOf(Store store);
// Adds --store NAME (one of the four names) to `command`; `chosen` stays empty without it.
void addStoreOption(CLI::App& command, std::string& chosen, char const* description);
// The stores a command works on: the one --store named; else with --file the one of `all`
// that file is (ToolError(STORE) when none); else `all`.
std::vector<Store> storesChosen(Options const& options, std::string const& chosen,
                                std::vector<Store> const& all);

// The folder of the stores when no --dir is given: $DATASTORE_DIR, else the user's data
// folder ($XDG_DATA_HOME/datastore, ~/.local/share/datastore). The library's own default
// (next to the executable) would put an installed tool's stores into <prefix>/bin.
std::string defaultFolder(Store store);
// Where the folder in use comes from: "--dir", "--file", "DATASTORE_DIR", "XDG_DATA_HOME" or
// "HOME".
std::string folderSource(Options const& options);

// The path of a store's file: --file when given, else --dir + name, else the default folder.
// A --file that is a directory: ToolError(USAGE).
std::string storePath(Options const& options, Store store);

// The path, after checking that the file exists and is a database holding the store's tables:
// inspection never creates a store, nor the tables of one in a file of another kind.
// Otherwise: ToolError(STORE).
std::string existingStorePath(Options const& options, Store store);

// Empty when the existing database at `path` holds the store's main table, else why it is not
// that store ("not an event store (it has no ApplicationRuns table)"). Reads the file only,
// opened as the stores' read-only constructors open it.
// @throw zrn::Exception when the file cannot be read as a database, or stays locked by a
// writer for longer than `options.wait`.
std::string notThisStore(std::string const& path, Store store,
                         zrn::ReadOnly const& options = zrn::ReadOnly{});

// For the commands that record: the path, after creating the folder it lives in (with its
// parents) when missing; the stores never create their folder themselves. An existing file
// must be that store (as for existingStorePath). The check holds the store family's named
// mutex, which every store opening holds throughout: a file another recording process is just
// creating is seen either not at all or with its whole schema, never half made.
std::string recordingStorePath(Options const& options, Store store);

// Runs `read` (reading through a zrn::StoreReader) and turns a failure to read into a
// ToolError(STORE) whose message names the file; a writer holding the file past --wait says so.
[[noreturn]] void readFailure(zrn::StoreReadError const& e);
template <class Read>
auto readOrFail(Read&& read) -> decltype(read()) {
    try {
        return std::forward<Read>(read)();
    } catch (zrn::StoreReadError const& e) {
        readFailure(e);
    }
}

// --since / --until as Unix seconds, 0 for a bound not given. Accepts ISO 8601 dates
// ("2026-11-23": local midnight for --since, the day's last second for --until), date-times
// with or without an offset, now, today, yesterday, relative times (-30m, -12h, -7d, -2w),
// journalctl's forms ("10:00", "yesterday 14:00", "3 days ago") and
// Unix seconds (9 or more digits, or any number after '@'). Bad text, impossible dates or
// offsets, or --since after --until: ToolError(USAGE).
struct TimeRange {
    long long since = 0;
    long long until = 0;
};
TimeRange timeRange(Options const& options);
long long parseTime(std::string const& text, char const* option, bool endOfDay);
// Local midnight `daysBack` days before the local day of `seconds` (Unix seconds).
long long midnightBefore(long long seconds, int daysBack);

// Adds the options a subcommand understands.
void addLocationOptions(CLI::App& command, Options& options);  // --dir, --file
void addDirOption(CLI::App& command, Options& options);        // --dir only
// -o/--output, --json, --utc, --wide, --no-pager. `accepted`: the only format names -o takes
// (its --help lists them); empty: every format.
void addJsonOption(CLI::App& command, Options& options,
                   std::vector<std::string> const& accepted = {});
// The options every command takes, given before the command ("datastore --dir D alerts").
void addCommonOptions(CLI::App& app, Options& options);
void addLimitOption(CLI::App& command, Options& options);
void addRangeOptions(CLI::App& command, Options& options);
void addWaitOption(CLI::App& command, Options& options);  // --wait

// A new subcommand of `parent` with the options every inspection shares: --dir, --file,
// the output options, --wait, and unless told otherwise --since/--until and --limit. `example`
// ends its --help.
CLI::App* addInspection(CLI::App& parent, Options& options, char const* name,
                        std::string const& description, std::string const& example,
                        bool withRange = true, bool withLimit = true);

// Keeps the library's log off the terminal (unless ZRN_LOG_LEVEL or ZRN_LOG_FILE ask for it)
// and remembers the first error the library logged, so a failure can say why in one line.
class QuietLog {
public:
    QuietLog();
    ~QuietLog();
    QuietLog(QuietLog const&) = delete;
    QuietLog& operator=(QuietLog const&) = delete;

    // The first message logged at priority 4 since the last call, or "".
    static std::string takeFirstError();
};

// Throws ToolError(STORE) naming the file and the cause; the cause is `what` followed by the
// first error the library logged, when there is one.
[[noreturn]] void storeFailure(std::string const& path, std::string const& what);

// ToolError(STORE) for a library failure: "locked by another program" when a writer held the
// file past the wait, else storeFailure(path, what + the exception's message).
[[noreturn]] void libraryFailure(std::string const& path, std::string const& what,
                                 zrn::Exception const& e);

// Runs `open` (a store constructor, usually) and turns a library exception into a
// ToolError naming the file.
template <class Open>
auto openOrFail(std::string const& path, Open&& open) -> decltype(open()) {
    try {
        return std::forward<Open>(open)();
    } catch (zrn::Exception const& e) {
        libraryFailure(path, "cannot open: ", e);
    }
}

}  // namespace datastore
