#pragma once

// Printing records: aligned columns with a header for people (fitted to the terminal, control
// characters escaped), and ndjson, json, csv or tsv for programs.

#include <libDataStore/StoreReader.h>

#include <cstddef>
#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace datastore {

using Json = nlohmann::ordered_json;

struct Field {
    std::string key;     // the JSON member
    std::string header;  // the column header
    // When a terminal is too narrow, the columns with the highest `drop` go first; 0: never
    // dropped.
    int drop = 0;
    // Identifiers (GUIDs, keys) are never cut: a cut one cannot be pasted into the next command.
    bool id = false;
    // Colours parts of a cell as a terminal table shows it (escaped, fitted to its column):
    // returns the text with escape codes added. Called only when colour is on.
    std::function<std::string(std::string const&)> mark = nullptr;
};

// A record of the members given as key, value, key, value...: the same object as
// Json{{key, value}, ...} with unique keys, built in place (no intermediate arrays, one
// allocation for the members), for listings that make a record per row.
inline void addMembers(Json::object_t&) {}
template <class Value, class... Rest>
void addMembers(Json::object_t& members, char const* key, Value&& value, Rest&&... rest) {
    members.emplace_back(key, std::forward<Value>(value));
    addMembers(members, std::forward<Rest>(rest)...);
}
template <class... Members>
Json objectOf(Members&&... members) {
    static_assert(sizeof...(Members) % 2 == 0, "keys and values in pairs");
    Json object(Json::value_t::object);
    auto& all = object.get_ref<Json::object_t&>();
    all.reserve(sizeof...(Members) / 2);
    addMembers(all, std::forward<Members>(members)...);
    return object;
}

enum class Format { Table, Ndjson, Json, JsonPretty, Csv, Tsv };

// How everything is printed, set once from the command line.
struct OutputStyle {
    Format format = Format::Table;
    bool utc = false;   // tables show times in UTC
    bool wide = false;  // tables show every column in full
};
OutputStyle& outputStyle();

// "table", "ndjson", ... to a Format; false for an unknown name.
bool formatNamed(std::string const& name, Format& format);
std::string formatName(Format format);  // "table", ...
char const* formatNames();              // "table, ndjson, json, json-pretty, csv, tsv"

class RecordPrinter {
public:
    // `json`: a machine format (the one chosen with -o; ndjson when none was), else a table.
    RecordPrinter(std::vector<Field> fields, bool json);

    // From now on, the line formats (csv, tsv, ndjson) write each record to `out` as it is
    // added, so that a listing holds no more than one record however long it is, and the json
    // formats take it straight into their one array; print() then writes only what is left
    // (the header of an empty csv or tsv listing). A csv or tsv header is written with the
    // first record: its columns are the fields' members and the other members of that first
    // record, so every record must have the same members. Tables still collect: their widths
    // need every row.
    void stream(std::ostream& out);

    // One record; its members are looked up by the fields' keys (missing ones print empty).
    void add(Json record);
    std::size_t count() const { return m_count; }

    // Writes everything. Tables fit the terminal (when there is one and --wide was not given)
    // by dropping low-priority columns, then cutting free text with "...". The json formats
    // collect the records into the one array finishOutput() writes.
    void print(std::ostream& out) const;

private:
    void printTable(std::ostream& out) const;
    void printSeparated(std::ostream& out, char separator) const;
    // The columns of csv or tsv: the fields' members, then the records' other members.
    std::vector<std::string> separatedKeys() const;
    void writeSeparated(std::ostream& out, std::vector<std::string> const& keys, Json const& record,
                        char separator, bool terminal) const;
    void writeHeader(std::ostream& out, std::vector<std::string> const& keys, char separator,
                     bool terminal) const;
    void streamRecord(Json record);

    std::vector<Field> m_fields;
    bool m_json;
    std::vector<Json> m_records;
    std::size_t m_count = 0;
    std::ostream* m_stream = nullptr;  // set by stream() for a machine format
    std::vector<std::string> m_keys;   // the streamed csv or tsv columns, once known
    bool m_terminal = false;           // standard output is a terminal (cells escaped)
};

// Writes what the json formats collected ("[]" when a listing found nothing).
void finishOutput(std::ostream& out);

// Display text of a JSON value: strings as they are, integers in decimal, other numbers with
// two decimals, Booleans as yes/no, null as "".
std::string displayText(Json const& value);

// `text` as valid UTF-8: each invalid byte becomes U+FFFD.
std::string validUtf8(std::string const& text);
// `text` safe for a terminal: valid UTF-8, control characters written as \e, \a, \r, \xNN
// (C1 controls as \u0080...), newlines and tabs as spaces.
std::string escaped(std::string const& text);
// Columns `text` takes on a terminal (wide characters 2, combining characters 0).
std::size_t displayWidth(std::string const& text);

// Width of the terminal on standard output, or 0 when it is not a terminal (no cutting then);
// $COLUMNS wins when set and standard output is a terminal.
std::size_t terminalWidth();

// Fits `text` into `width` columns, ending a cut text with "...".
std::string fit(std::string const& text, std::size_t width);

// Unix seconds as local time (UTC with --utc), "2026-11-23 00:49:29"; "" for 0 or less.
std::string localTime(long long unixSeconds);
// Unix seconds as ISO 8601 with offset, local time; null for 0 or less.
Json isoTime(long long unixSeconds);
// A time cell: isoTime for JSON, localTime for people.
Json timeCell(bool json, long long unixSeconds);

// A cell as stored: integers and reals as numbers, text as a string, NULL as null, a blob as
// hexadecimal text.
Json jsonOf(zrn::StoreCell const& cell);

// The machine's host name, for records that leave it.
std::string hostName();

// `record` led by the member "record": `kind`, for output that mixes kinds of records.
Json tagged(char const* kind, Json record);

// Writes the title of one section of a record made of several tables (a session, an
// alert); machine output has no titles, each object names its kind in "record" instead
// (csv and tsv separate the sections' tables with an empty line).
void printSection(std::ostream& out, bool json, char const* title, RecordPrinter const& printer);

// Long output on a terminal goes through a pager: everything written to std::cout is held
// until finish(), then shown through $DATASTORE_PAGER, $PAGER or "less -FRSX" when it is
// longer than the terminal. Does nothing when standard output is not a terminal or when
// `enabled` is false.
class Pager {
public:
    explicit Pager(bool enabled);
    ~Pager();
    Pager(Pager const&) = delete;
    Pager& operator=(Pager const&) = delete;
    void finish();

private:
    struct Held;
    Held* m_held = nullptr;
};

// Colour is used on a terminal unless NO_COLOR is set (to anything but "").
bool useColour();

}  // namespace datastore
