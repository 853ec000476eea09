// The tool's command line as any words: the options every inspection shares (--since and
// --until in all their forms, --limit, -o, --wait, --dir, --file) and an id, parsed by the
// tool's own option code. A parse error or the tool's usage error is fine; anything else, or
// a parsed value out of its range, is a finding.

#include <climits>
#include <ctime>
#include <string>
#include <vector>

#include "Context.h"
#include "FuzzCheck.h"
#include "Output.h"

namespace {

using namespace datastore;

// parseTime on one word, alone: what it returns for the forms that name an exact second.
void checkTime(std::string const& text, bool endOfDay) {
    long long value = 0;
    try {
        value = parseTime(text, "--since", endOfDay);
    } catch (ToolError const& e) {
        FUZZ_CHECK(e.code() == USAGE, "a time gave exit code " + std::to_string(e.code()));
        FUZZ_CHECK(std::string(e.what()).rfind("--since: '", 0) == 0,
                   std::string("a time error does not name the option: ") + e.what());
        return;
    }
    if (text.empty()) FUZZ_CHECK(value == 0, "an empty time is not 0");
    if (text.size() > 1 && text[0] == '@')
        FUZZ_CHECK(value == std::stoll(text.substr(1)), "'" + text + "' is not its seconds");
    if (text.size() > 1 && text[0] == '-')
        FUZZ_CHECK(value <= static_cast<long long>(std::time(nullptr)),
                   "'" + text + "' lies in the future");
}

void parseWords(std::vector<std::string> words) {
    CLI::App app("datastore");
    Options options;
    addCommonOptions(app, options);
    CLI::App* alerts = addInspection(app, options, "alerts", "Alerts", "datastore alerts");
    long long id = -1;
    alerts->add_option("alert-id", id, "One alert");
    outputStyle() = OutputStyle();
    std::vector<std::string> reversed(words.rbegin(), words.rend());  // CLI11 takes them so
    try {
        app.parse(reversed);
        TimeRange const range = timeRange(options);
        FUZZ_CHECK(range.since == 0 || range.until == 0 || range.since <= range.until,
                   "--since after --until accepted");
    } catch (CLI::ParseError const&) {
        return;
    } catch (ToolError const& e) {
        FUZZ_CHECK(e.code() == USAGE, "an argument gave exit code " + std::to_string(e.code()));
        return;
    }
    FUZZ_CHECK(options.limit >= 0 && options.limit <= INT_MAX, "--limit out of range");
    FUZZ_CHECK(options.wait >= 0, "--wait below zero");
    FUZZ_CHECK(options.json == (outputStyle().format != Format::Table),
               "the format and the machine-format flag disagree");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static bool const once = (setenv("TZ", "Europe/Berlin", 1), true);
    (void)once;
    std::vector<std::string> const words = fuzz::split(data, size, '\0', 24);
    for (auto const& word : words) {
        checkTime(word, false);
        checkTime(word, true);
        Format format;
        formatNamed(word, format);
    }
    parseWords(words);
    return 0;
}
