#pragma once

// What every fuzz target shares: the entry point libFuzzer calls, a check that stops the run
// with a message (an abort is what both libFuzzer and the corpus replay report as a finding),
// and a reader that cuts one input into several texts.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace fuzz {

[[noreturn]] inline void fail(char const* file, int line, std::string const& what) {
    std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", file, line, what.c_str());
    std::abort();
}

// The input as texts separated by `separator`; at most `count` parts (the last keeps the
// rest), fewer when the input has fewer.
inline std::vector<std::string> split(std::uint8_t const* data, std::size_t size, char separator,
                                      std::size_t count) {
    std::vector<std::string> parts(1);
    for (std::size_t i = 0; i < size; ++i) {
        char const c = static_cast<char>(data[i]);
        if (c == separator && parts.size() < count)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

}  // namespace fuzz

#define FUZZ_CHECK(condition, what) \
    ((condition) ? static_cast<void>(0) : ::fuzz::fail(__FILE__, __LINE__, (what)))
