// String over arbitrary bytes: counting, cutting, padding and replacing never split a
// character, never read outside the text, and agree with one another.

#include <libCommon/String.h>

#include <string>
#include <vector>

#include "FuzzCheck.h"

namespace {

// Length in bytes of the well-formed sequence at `at` (lead byte C2-F4 and its continuation
// bytes), or 0 when none starts there: such a byte is a character of its own.
std::size_t sequenceAt(std::string const& text, std::size_t at) {
    auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char const lead = byte(at);
    if (lead < 0x80) return 1;
    std::size_t const length = lead > 0xF4    ? 0
                               : lead >= 0xF0 ? 4
                               : lead >= 0xE0 ? 3
                               : lead >= 0xC2 ? 2
                                              : 0;
    if (length == 0 || at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
    return length;
}

// Where each character of `text` starts, as String counts them (an invalid byte is one).
std::vector<std::size_t> characterStarts(std::string const& text) {
    std::vector<std::size_t> starts;
    for (std::size_t at = 0; at < text.size();) {
        starts.push_back(at);
        std::size_t const length = sequenceAt(text, at);
        at += length == 0 ? 1 : length;
    }
    return starts;
}

void checkSubStrings(zrn::String const& text, std::vector<std::size_t> const& starts,
                     unsigned start, unsigned length) {
    std::string const& bytes = text.str();
    zrn::String const part = text.subString(start, length);
    if (start >= starts.size()) {
        FUZZ_CHECK(part.empty(), "a start past the end gives text");
        return;
    }
    std::size_t const from = starts[start];
    std::size_t const end = static_cast<std::size_t>(start) + length;
    std::size_t const to = end >= starts.size() ? bytes.size() : starts[end];
    FUZZ_CHECK(part.str() == bytes.substr(from, to - from),
               "subString(" + std::to_string(start) + ", " + std::to_string(length) +
                   ") does not cut at character boundaries");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    // Three texts: the subject, what to replace and what to put instead.
    auto const parts = fuzz::split(data, size, '\x01', 3);
    zrn::String const text(parts[0]);
    std::vector<std::size_t> const starts = characterStarts(parts[0]);
    FUZZ_CHECK(text.size() == starts.size(), "size() counts characters differently");
    FUZZ_CHECK(text.byteSize() == parts[0].size(), "byteSize() is not the byte count");

    unsigned const n = static_cast<unsigned>(starts.size());
    for (unsigned start : {0u, 1u, n / 2, n > 0 ? n - 1 : 0u, n, n + 1, ~0u})
        for (unsigned length : {0u, 1u, 2u, n / 3 + 1, n, ~0u - start, ~0u})
            checkSubStrings(text, starts, start, length);

    zrn::String const padded = text + zrn::String::repeat(' ', n % 7);
    FUZZ_CHECK(padded.size() == text.size() + n % 7, "padding changes the character count");

    if (parts.size() == 3) {
        zrn::String const what(parts[1]);
        zrn::String const with(parts[2]);
        zrn::String const replaced = text.replace(what, with);
        if (what.empty()) FUZZ_CHECK(replaced == text, "an empty pattern changed the text");
        // Nothing of `what` is left where it was replaced, unless `with` brings it back.
        if (text.str().find(what.str()) == std::string::npos)
            FUZZ_CHECK(replaced == text, "replace() changed a text without the pattern");
        (void)replaced.size();
    }
    (void)text.equalNoCase(zrn::String(parts.back()));
    (void)zrn::String::strToInt64(text, 0);
    (void)zrn::String::strToUInt64(text, 16);
    (void)zrn::String::strToReal64(text);
    return 0;
}
