#include <libCommon/Assert.h>

#include <cstdio>
#include <cstdlib>

namespace zrn {

void assertionFailed(char const* expression, char const* source) {
    std::fprintf(stderr, "Assertion failed: %s (%s)\n", expression, source);
    std::fflush(stderr);
    std::abort();
}

}  // namespace zrn
