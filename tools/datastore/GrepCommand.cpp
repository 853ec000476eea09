// datastore grep: one pattern searched in every text cell of every table of every store, as
// grep searches files. Each matching cell is printed with where it is (store, table, row,
// column), its row's time and the command that shows the row.

#include <libCommon/FileSystem.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#include <utf8proc.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Output.h"

namespace datastore {

namespace {

struct GrepArgs {
    std::string pattern;
    std::string store;
    bool ignoreCase = false;
    bool caseSensitive = false;
    bool fixed = false;
    bool extended = false;
    bool word = false;
    bool count = false;
};

// grep's convention: 1 says that nothing matched (quietly: the message is empty).
constexpr ExitCode NOTHING_MATCHED = static_cast<ExitCode>(1);

using Range = std::pair<std::size_t, std::size_t>;  // bytes [first, second) of a text

std::string pcre2Message(int code) {
    PCRE2_UCHAR text[256];
    if (pcre2_get_error_message(code, text, sizeof text) < 0)
        return "error " + std::to_string(code);
    return reinterpret_cast<char const*>(text);
}

// -F: every ASCII character but letters and digits escaped; a backslash before one of them
// always means the character itself, whatever follows.
std::string literalPattern(std::string const& text) {
    std::string pattern;
    for (char c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && !std::isalnum(byte)) pattern += '\\';
        pattern += c;
    }
    return pattern;
}

// Smart case: an upper-case letter (in any script) makes the search case-sensitive. In a
// regular expression the letter after a backslash is an escape (\S, \D), not text.
bool hasUpperCase(std::string const& pattern, bool fixed) {
    auto const* bytes = reinterpret_cast<utf8proc_uint8_t const*>(pattern.data());
    bool escapedNext = false;
    for (std::size_t at = 0; at < pattern.size();) {
        utf8proc_int32_t c = 0;
        utf8proc_ssize_t const length =
            utf8proc_iterate(bytes + at, static_cast<utf8proc_ssize_t>(pattern.size() - at), &c);
        at += length > 0 ? static_cast<std::size_t>(length) : 1;
        bool const escape = escapedNext;
        escapedNext = !fixed && !escape && c == '\\';
        if (length <= 0 || escape) continue;
        auto const category = utf8proc_category(c);
        if (category == UTF8PROC_CATEGORY_LU || category == UTF8PROC_CATEGORY_LT) return true;
    }
    return false;
}

// The pattern compiled once: PCRE2 in UTF-8 mode with Unicode properties (\w, \b and case
// folding beyond ASCII); cells holding invalid UTF-8 are still searched, their bad bytes
// matching nothing.
class Pattern {
public:
    explicit Pattern(GrepArgs const& args) {
        bool const caseless =
            args.ignoreCase || (!args.caseSensitive && !hasUpperCase(args.pattern, args.fixed));
        uint32_t const flags =
            PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF | (caseless ? PCRE2_CASELESS : 0u);
        std::unique_ptr<pcre2_compile_context, decltype(&pcre2_compile_context_free)> context(
            pcre2_compile_context_create(nullptr), pcre2_compile_context_free);
        if (args.word) pcre2_set_compile_extra_options(context.get(), PCRE2_EXTRA_MATCH_WORD);
        std::string const text = args.fixed ? literalPattern(args.pattern) : args.pattern;
        int error = 0;
        PCRE2_SIZE offset = 0;
        m_code.reset(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), flags,
                                   &error, &offset, context.get()));
        if (!m_code) {
            throw ToolError(USAGE, "bad pattern '" + args.pattern + "': " + pcre2Message(error) +
                                       " at offset " + std::to_string(offset));
        }
        m_data.reset(pcre2_match_data_create_from_pattern(m_code.get(), nullptr));
    }

    // The first match in `text` at or after byte `from`.
    std::optional<Range> find(std::string const& text, std::size_t from = 0) const {
        int const found = pcre2_match(m_code.get(), reinterpret_cast<PCRE2_SPTR>(text.data()),
                                      text.size(), from, 0, m_data.get(), nullptr);
        if (found == PCRE2_ERROR_NOMATCH) return std::nullopt;
        if (found < 0) throw ToolError(USAGE, "pattern: " + pcre2Message(found));
        PCRE2_SIZE const* const offsets = pcre2_get_ovector_pointer(m_data.get());
        return Range(offsets[0], std::max(offsets[0], offsets[1]));
    }

    // `text` with every match wrapped in grep's colour (bold red).
    std::string highlighted(std::string const& text) const {
        std::string result;
        std::size_t done = 0;
        for (std::size_t from = 0; from <= text.size();) {
            std::optional<Range> const match = find(text, from);
            if (!match) break;
            if (match->second > match->first) {
                result += text.substr(done, match->first - done) + "\x1b[1;31m" +
                          text.substr(match->first, match->second - match->first) + "\x1b[0m";
                done = match->second;
                from = match->second;
                continue;
            }
            // An empty match: go on from the next character.
            from = match->first + 1;
            while (from < text.size() && (static_cast<unsigned char>(text[from]) & 0xC0) == 0x80)
                ++from;
        }
        return result + text.substr(done);
    }

private:
    std::unique_ptr<pcre2_code, decltype(&pcre2_code_free)> m_code{nullptr, pcre2_code_free};
    std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> m_data{
        nullptr, pcre2_match_data_free};
};

// ---- What a match says of its row

// A long cell (a script's XML, a serialized diff) is shown around its first match: some text
// before it, then up to the shown length, with "..." where it was cut.
constexpr std::size_t BEFORE_MATCH = 30;
constexpr std::size_t SHOWN = 120;

// `at` moved back to the start of the character it is within.
std::size_t characterStart(std::string const& text, std::size_t at) {
    while (at > 0 && at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80)
        --at;
    return at;
}

std::string around(std::string const& text, Range const& match) {
    if (text.size() <= SHOWN) return text;
    std::size_t from = match.first > BEFORE_MATCH ? match.first - BEFORE_MATCH : 0;
    from = characterStart(text, std::min(from, text.size() - SHOWN));
    std::size_t const to = characterStart(text, from + SHOWN);
    return (from > 0 ? "..." : "") + text.substr(from, to - from) + (to < text.size() ? "..." : "");
}

// The columns a row's time is taken from, in order of preference: when it happened, began or
// was written.
char const* const TIME_COLUMNS[] = {"dateTime",       "timeStamp",      "startTime",
                                    "startTimeStamp", "spanMiddleTime", "creationTimeStamp",
                                    "updateTimeStamp"};

std::string timeColumnOf(zrn::StoreTable const& table) {
    for (char const* name : TIME_COLUMNS) {
        for (zrn::StoreColumn const& column : table.columns)
            if (column.name == name) return name;
    }
    return "";
}

// Unix seconds of a time cell: a number, digits as text or an ISO 8601 text; 0 when none.
long long secondsIn(zrn::StoreCell const& cell) {
    if (cell.type == zrn::StoreCell::Type::Integer) return cell.integer;
    if (cell.type == zrn::StoreCell::Type::Real) return static_cast<long long>(cell.real);
    if (cell.type != zrn::StoreCell::Type::Text || cell.text.empty()) return 0;
    bool const digits =
        cell.text.size() < 19 && std::all_of(cell.text.begin(), cell.text.end(),
                                             [](unsigned char c) { return std::isdigit(c) != 0; });
    if (digits) return std::stoll(cell.text);
    try {
        return parseTime(cell.text, "time", false);
    } catch (ToolError const&) {
        return 0;
    }
}

// The command that shows a table's rows, and the column whose value picks the row ("" when
// the command lists them all, "rowid" for the row key).
struct Shown {
    Store store;
    char const* table;
    char const* command;
    char const* idColumn;
};

Shown const SHOWN_BY[] = {
    {Store::Event, "ApplicationRuns", "apps", ""},
    {Store::Event, "ScriptRuns", "scripts", ""},
    {Store::Event, "ScriptSpecs", "scripts", ""},
    {Store::Event, "TestRuns", "tests", "scriptId"},
    {Store::Event, "TestRunEvents", "events --test", "testId"},
    {Store::Event, "TestRunTips", "tips --test", "testId"},
    {Store::Event, "ScriptletRuns", "scriptlets", ""},
    {Store::Event, "Alerts", "alerts", "rowid"},
    {Store::Event, "AlertKeyValues", "alerts", "alertId"},
    {Store::Event, "AlertTips", "alerts", "alertId"},
    {Store::Event, "ProfilerDiffs", "diffs", ""},
    {Store::Event, "Measurements", "measurements", ""},
    {Store::General, "GenericLog", "logs", ""},
    {Store::General, "KeyValues", "logs", ""},
    {Store::AppState, "AppState", "state get", "key"},
    {Store::SoftwareDiag, "Sessions", "session", "sessionId"},
    {Store::SoftwareDiag, "RunTransactions", "session", "sessionId"},
    {Store::SoftwareDiag, "FixTransactions", "session", "sessionId"},
    {Store::SoftwareDiag, "SoftwareDiagnostics", "session", "sessionId"},
    {Store::SoftwareDiag, "Issues", "session", "sessionId"},
    {Store::SoftwareDiag, "FixActions", "session", "sessionId"},
};

Shown const* shownBy(Store store, std::string const& table) {
    for (Shown const& shown : SHOWN_BY)
        if (shown.store == store && table == shown.table) return &shown;
    return nullptr;
}

// `text` as one word for a shell: as it is when it holds nothing a shell reads specially.
std::string shellWord(std::string const& text) {
    bool const plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string("._-:/").find(c) != std::string::npos;
    });
    if (plain) return text;
    std::string word = "'";
    for (char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return word + "'";
}

Json showCommand(Shown const* shown, zrn::StoreRow const& row) {
    if (!shown) return nullptr;
    std::string command = shown->command;
    std::string const column = shown->idColumn;
    if (column == "rowid") return command + " " + std::to_string(row.key);
    if (!column.empty()) {
        zrn::StoreCell const& id = row[column];
        if (id.isNull()) return nullptr;
        command += " " + (id.type == zrn::StoreCell::Type::Text ? shellWord(id.text) : id.asText());
    }
    return command;
}

// ---- The search

std::vector<Field> matchFields(Pattern const& pattern) {
    Field text{"text", "TEXT", 0, false};
    text.mark = [&pattern](std::string const& cell) { return pattern.highlighted(cell); };
    // A narrow terminal keeps the time, the command and the text: the command names the
    // record, the table and row only say where it is stored.
    return {{"store", "STORE", 5, true},
            {"table", "TABLE", 4, true},
            {"row", "ROW", 2, true},
            {"column", "COLUMN", 3, true},
            {"time", "TIME", 1, false},
            {"show", "SHOWN BY", 0, true},
            std::move(text)};
}

std::vector<Field> countFields() {
    return {{"store", "STORE", 0, true},
            {"table", "TABLE", 0, true},
            {"column", "COLUMN", 0, true},
            {"cells", "CELLS", 0, false}};
}

struct Search {
    Options const& options;
    GrepArgs const& args;
    Pattern const pattern;
    TimeRange const range;
    RecordPrinter printer;
    std::size_t matched = 0;  // cells

    Search(Options const& o, GrepArgs const& a)
        : options(o),
          args(a),
          pattern(a),
          range(timeRange(o)),
          printer(a.count ? countFields() : matchFields(pattern), o.json) {}
    bool full() const {
        return !args.count && options.limit > 0 &&
               matched >= static_cast<std::size_t>(options.limit);
    }
    // Rows without a time are left out as soon as a bound is given: nothing says they are in.
    bool inRange(long long time) const {
        if (range.since <= 0 && range.until <= 0) return true;
        return time > 0 && (range.since <= 0 || time >= range.since) &&
               (range.until <= 0 || time <= range.until);
    }
};

struct Place {
    Store store;
    zrn::StoreTable const& table;
    std::string const& timeColumn;
    Shown const* shown;
};

void addMatch(Search& search, Place const& place, zrn::StoreRow const& row, std::size_t column,
              Range const& match) {
    std::string const& text = row.cells[column].text;
    bool const json = search.options.json;
    long long const time = place.timeColumn.empty() ? 0 : secondsIn(row[place.timeColumn]);
    std::string const matchText =
        text.substr(match.first, std::min(match.second - match.first, SHOWN));
    search.printer.add(objectOf("store", storeNameOf(place.store), "table", place.table.name, "row",
                                row.key, "column", row.columns[column], "time",
                                timeCell(json, time), "show", showCommand(place.shown, row), "text",
                                validUtf8(around(text, match)), "match", validUtf8(matchText)));
}

void searchTable(zrn::StoreReader& reader, Store store, zrn::StoreTable const& table,
                 Search& search) {
    std::string const timeColumn = timeColumnOf(table);
    Place const place{store, table, timeColumn, shownBy(store, table.name)};
    std::vector<std::size_t> cells(table.readColumns().size());
    reader.forEachRow(table.name, [&](zrn::StoreRow const& row) {
        if (search.full()) return;
        if (!search.inRange(timeColumn.empty() ? 0 : secondsIn(row[timeColumn]))) return;
        for (std::size_t c = 0; c < row.cells.size() && !search.full(); ++c) {
            if (row.cells[c].type != zrn::StoreCell::Type::Text) continue;
            std::optional<Range> const match = search.pattern.find(row.cells[c].text);
            if (!match) continue;
            ++search.matched;
            ++cells[c];
            if (!search.args.count) addMatch(search, place, row, c, *match);
        }
    });
    if (!search.args.count) return;
    std::vector<std::string> const columns = table.readColumns();
    for (std::size_t c = 0; c < cells.size(); ++c) {
        if (cells[c] == 0) continue;
        search.printer.add(objectOf("store", storeNameOf(store), "table", table.name, "column",
                                    columns[c], "cells", static_cast<long long>(cells[c])));
    }
}

void searchStore(Search& search, Store store) {
    std::string const path = existingStorePath(search.options, store);
    readOrFail([&] {
        zrn::StoreReader reader(path, readOnly(search.options));
        zrn::StoreReader::Snapshot const snapshot(reader);
        for (zrn::StoreTable const& table : reader.tables())
            searchTable(reader, store, table, search);
    });
}

void runGrep(Options const& options, GrepArgs const& args) {
    Search search(options, args);
    std::vector<Store> const all{Store::AppState, Store::General, Store::Event,
                                 Store::SoftwareDiag};
    bool any = false;
    search.printer.stream(std::cout);
    for (Store store : storesChosen(options, args.store, all)) {
        // Every store there is; a store named with --store or --file must be there.
        bool const named = !args.store.empty() || !options.file.empty();
        if (!named && !zrn::FileSystem::exists(storePath(options, store))) continue;
        any = true;
        searchStore(search, store);
    }
    if (!any) existingStorePath(options, Store::Event);
    // As grep, nothing at all on a terminal when nothing matched; a machine format still
    // writes its empty document.
    if (search.matched > 0 || outputStyle().format != Format::Table)
        search.printer.print(std::cout);
    if (search.matched == 0) throw ToolError(NOTHING_MATCHED, "");
}

}  // namespace

void addGrepCommand(CLI::App& app, Options& options) {
    static GrepArgs args;
    CLI::App* c = addInspection(
        app, options, "grep",
        "Searches every text cell of every store for a pattern (PCRE2, UTF-8): each matching "
        "cell with its store, table, row, column, time and the command that shows the row",
        "datastore grep DSK-0112");
    c->add_option("pattern", args.pattern,
                  "Perl-compatible regular expression; case-insensitive unless it has an "
                  "upper-case letter")
        ->required();
    c->add_flag("-i,--ignore-case", args.ignoreCase, "Ignore case, whatever the pattern");
    c->add_flag("-s,--case-sensitive", args.caseSensitive,
                "Match case, whatever the pattern (unless -i is given)");
    c->add_flag("-F,--fixed-strings", args.fixed, "The pattern is text, not an expression");
    c->add_flag("-E,--extended-regexp", args.extended,
                "The pattern is a regular expression (the default, unless -F is given)");
    c->add_flag("-w,--word-regexp", args.word, "Only matches that are whole words");
    c->add_flag("-c,--count", args.count, "Matching cells per store, table and column");
    addStoreOption(*c, args.store, "Searches only this store");
    c->footer(
        "Example: datastore grep DSK-0112\n"
        "Example: datastore grep -iw 'wi-fi' --since -7d -o ndjson\n"
        "Cells are shown around their first match (matches highlighted on a terminal unless "
        "NO_COLOR is set); --since/--until keep rows whose time is in the range, leaving out "
        "rows without a time; --limit counts matching cells.\n"
        "Exit codes (grep's): 0 something matched, 1 nothing matched, 2 an error: a usage "
        "error, a bad pattern (with PCRE2's message and offset) or a store that cannot be "
        "read.");
    c->callback([&options] { runGrep(options, args); });
}

}  // namespace datastore
