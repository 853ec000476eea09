// The tool's output layer with hostile cell text: tables never let a control character reach
// the terminal, ndjson/json parse back to the cells, csv and tsv read back as their rows and
// columns, and the HTML report's escaping leaves no markup.

#include <utf8proc.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "Html.h"
#include "Output.h"

namespace {

using namespace datastore;

bool isValidUtf8(std::string const& text) {
    auto const* bytes = reinterpret_cast<utf8proc_uint8_t const*>(text.data());
    auto const size = static_cast<utf8proc_ssize_t>(text.size());
    for (utf8proc_ssize_t i = 0; i < size;) {
        utf8proc_int32_t c = 0;
        utf8proc_ssize_t const length = utf8proc_iterate(bytes + i, size - i, &c);
        if (length <= 0) return false;
        i += length;
    }
    return true;
}

// Nothing a terminal would act on: no C0 control but the line ends, no DEL, no C1 control.
void checkTerminalSafe(std::string const& text, char const* what) {
    FUZZ_CHECK(isValidUtf8(text), std::string(what) + ": invalid UTF-8 to the terminal");
    auto const* bytes = reinterpret_cast<utf8proc_uint8_t const*>(text.data());
    auto const size = static_cast<utf8proc_ssize_t>(text.size());
    for (utf8proc_ssize_t i = 0; i < size;) {
        utf8proc_int32_t c = 0;
        i += utf8proc_iterate(bytes + i, size - i, &c);
        bool const control = (c < 0x20 && c != '\n') || (c >= 0x7F && c < 0xA0);
        FUZZ_CHECK(!control, std::string(what) + ": control character " + std::to_string(c));
    }
}

// RFC 4180 records: quoted fields may hold anything, a doubled quote is one quote.
std::vector<std::vector<std::string>> readSeparated(std::string const& text, char separator) {
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> row(1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        char const c = text[i];
        if (c == '"' && row.back().empty()) {
            std::size_t j = i + 1;
            for (; j < text.size(); ++j) {
                if (text[j] != '"') {
                    row.back() += text[j];
                } else if (j + 1 < text.size() && text[j + 1] == '"') {
                    row.back() += '"';
                    ++j;
                } else {
                    break;
                }
            }
            FUZZ_CHECK(j < text.size(), "an unterminated quoted field");
            i = j;
            FUZZ_CHECK(i + 1 >= text.size() || text[i + 1] == separator || text[i + 1] == '\r',
                       "text after a closing quote");
        } else if (c == separator) {
            row.emplace_back();
        } else if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
            rows.push_back(row);
            row.assign(1, "");
            ++i;
        } else {
            FUZZ_CHECK(c != '"' && c != '\r' && c != '\n', "a bare quote or line end in a field");
            row.back() += c;
        }
    }
    FUZZ_CHECK(row.size() == 1 && row[0].empty(), "the last row has no line end");
    return rows;
}

std::string printed(Format format, std::vector<Field> const& fields, Json const& record) {
    outputStyle().format = format;
    RecordPrinter printer(fields, format != Format::Table);
    printer.add(record);
    printer.add(Json{{"id", 7}});
    std::ostringstream out;
    printer.print(out);
    finishOutput(out);
    return out.str();
}

void checkFormats(std::vector<std::string> const& cells, Json const& record) {
    std::vector<Field> const fields = {
        {"id", "ID", 0, true}, {"name", "NAME", 1}, {"text", "TEXT", 2}};
    checkTerminalSafe(printed(Format::Table, fields, record), "table");

    std::istringstream lines(printed(Format::Ndjson, fields, record));
    std::string line;
    std::getline(lines, line);
    Json const back = Json::parse(line, nullptr, false);
    FUZZ_CHECK(back.is_object(), "an ndjson line that is not an object: " + line);
    if (isValidUtf8(cells[1])) FUZZ_CHECK(back["name"] == cells[1], "ndjson changed a cell");
    FUZZ_CHECK(Json::parse(printed(Format::Json, fields, record), nullptr, false).size() == 2,
               "json output is not the two records");

    for (char separator : {',', '\t'}) {
        auto const rows = readSeparated(
            printed(separator == ',' ? Format::Csv : Format::Tsv, fields, record), separator);
        FUZZ_CHECK(rows.size() == 3,
                   "separated output of " + std::to_string(rows.size()) + " rows");
        FUZZ_CHECK(rows[0].size() == rows[1].size() && rows[1].size() == rows[2].size(),
                   "separated rows of different widths");
        if (isValidUtf8(cells[1])) FUZZ_CHECK(rows[1][1] == cells[1], "csv changed a cell");
    }
}

// The five entities html() writes, turned back.
std::string unescapedHtml(std::string const& text) {
    static std::pair<char const*, char> const entities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&#39;", '\''}};
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool matched = false;
        for (auto const& [entity, c] : entities) {
            if (text.compare(i, std::strlen(entity), entity) == 0) {
                out += c;
                i += std::strlen(entity) - 1;
                matched = true;
                break;
            }
        }
        FUZZ_CHECK(matched || text[i] != '&', "a bare '&' in HTML");
        if (!matched) out += text[i];
    }
    return out;
}

void checkHtml(std::string const& cell, Json const& record) {
    std::string const text = html(cell);
    FUZZ_CHECK(text.find_first_of("<>\"'") == std::string::npos, "markup left in: " + text);
    FUZZ_CHECK(unescapedHtml(text) == validUtf8(cell), "html() changed the text");
    std::string const script = scriptJson(record);
    FUZZ_CHECK(script.find_first_of("<>&") == std::string::npos, "script JSON can end the element");
    FUZZ_CHECK(Json::parse(script, nullptr, false).is_object(), "script JSON does not parse");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::vector<std::string> cells = fuzz::split(data, size, '\x01', 4);
    cells.resize(4);
    Json record = {{"id", cells[0]}, {"name", cells[1]}, {"text", cells[2]}};
    record["x" + cells[3]] = cells[0];  // a member named by hostile text
    checkFormats(cells, record);
    for (auto const& cell : cells) {
        std::string const shown = escaped(cell);
        checkTerminalSafe(shown, "escaped()");
        for (std::size_t width : {0, 1, 3, 4, 8, 20}) {
            std::string const cut = fit(shown, width);
            FUZZ_CHECK(isValidUtf8(cut), "fit() split a character");
            FUZZ_CHECK(displayWidth(cut) <= width || displayWidth(shown) <= width,
                       "fit() overflows its width");
        }
        checkHtml(cell, record);
    }
    return 0;
}
