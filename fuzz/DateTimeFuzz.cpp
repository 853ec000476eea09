// DateTime from any text: no crash, and whatever text is read gives a value whose toString()
// reads back to the same instant and the same text, in the local kind and in UTC, in zones
// with daylight saving and with half-hour offsets.

#include <libCommon/DateTime.h>

#include <cstdlib>
#include <string>

#include "FuzzCheck.h"

namespace {

void checkRoundTrip(zrn::DateTime const& value, std::string const& input) {
    std::string const text = value.toString().str();
    zrn::DateTime const back{zrn::String(text)};
    FUZZ_CHECK(back.isInitialized() && back == value,
               "'" + input + "' gives '" + text + "', which does not read back");
    FUZZ_CHECK(
        back.toString().str() == text,
        "'" + input + "' gives '" + text + "', read back as '" + back.toString().str() + "'");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static char const* const zones[] = {"UTC", "Europe/Berlin", "Australia/Lord_Howe"};
    std::string const input(reinterpret_cast<char const*>(data), size);
    for (char const* zone : zones) {
        setenv("TZ", zone, 1);
        zrn::DateTime const value{zrn::String(input)};
        if (!value.isInitialized()) {
            FUZZ_CHECK(value.toString().empty(), "an unread value has a text");
            continue;
        }
        checkRoundTrip(value, input);
        checkRoundTrip(value.toUTCTime(), input);
        checkRoundTrip(value.toLocalTime(), input);
        // The fields of a value are those its own text shows.
        char fields[32];
        std::snprintf(fields, sizeof fields, "%04d-%02d-%02dT%02d:%02d:%02d", value.getYear(),
                      value.getMonth(), value.getDay(), value.getHour(), value.getMinute(),
                      value.getSecond());
        FUZZ_CHECK(value.toString().str().compare(0, 19, fields) == 0,
                   "'" + input + "': fields " + fields + " but text " + value.toString().str());
    }
    return 0;
}
