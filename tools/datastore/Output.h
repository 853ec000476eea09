#pragma once

// Printing records: aligned columns with a header for people, one JSON object per line for
// programs.

#include <cstddef>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace datastore {

using Json = nlohmann::ordered_json;

struct Field {
    std::string key;     // the JSON member
    std::string header;  // the column header
};

class RecordPrinter {
public:
    RecordPrinter(std::vector<Field> fields, bool json);

    // One record; its members are looked up by the fields' keys (missing ones print empty).
    void add(Json record);
    std::size_t count() const { return m_records.size(); }

    // Writes everything. Human output fits the terminal width (when there is one) by cutting
    // the widest texts with "...".
    void print(std::ostream& out) const;

private:
    std::vector<Field> m_fields;
    bool m_json;
    std::vector<Json> m_records;
};

// Display text of a JSON value: strings as they are, integers in decimal, other numbers with
// two decimals, Booleans as yes/no, null as "".
std::string displayText(Json const& value);

// Width of the terminal on standard output, or 0 when it is not a terminal (no cutting then);
// $COLUMNS wins when set.
std::size_t terminalWidth();

// Fits `text` into `width` characters, ending a cut text with "...".
std::string fit(std::string const& text, std::size_t width);

// Unix seconds as local time, "2026-11-23 00:49:29"; "" for 0 or less.
std::string localTime(long long unixSeconds);
// Unix seconds as ISO 8601 with offset, local time; null for 0 or less.
Json isoTime(long long unixSeconds);
// A time cell: isoTime for JSON, localTime for people.
Json timeCell(bool json, long long unixSeconds);

// `record` led by the member "record": `kind`, for output that mixes kinds of records.
Json tagged(char const* kind, Json record);

// Writes the title of one section of a record made of several tables (a session, an
// alert); JSON output has no titles, each object names its kind in "record" instead.
void printSection(std::ostream& out, bool json, char const* title, RecordPrinter const& printer);

}  // namespace datastore
