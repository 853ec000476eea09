// Runs a fuzz target's body over files and folders of inputs without libFuzzer: every build
// replays the committed corpora (and so every reproducer a fuzzing run ever found) through
// ctest. A finding aborts, as under libFuzzer.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzCheck.h"

namespace {

std::vector<std::filesystem::path> inputsOf(std::filesystem::path const& path) {
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(path)) {
        for (auto const& entry : std::filesystem::recursive_directory_iterator(path))
            if (entry.is_regular_file()) files.push_back(entry.path());
    } else {
        files.push_back(path);
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (auto const& file : inputsOf(argv[i])) {
            std::ifstream in(file, std::ios::binary);
            std::string const bytes((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
            // Named first, so that the input that aborts is the last one in the output.
            std::fprintf(stderr, "replay %s\n", file.c_str());
            LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()),
                                   bytes.size());
            ++replayed;
        }
    }
    std::printf("%zu inputs replayed\n", replayed);
    // An empty corpus replays nothing, which would hide a wrong path.
    return replayed > 0 ? 0 : 1;
}
