#pragma once

#include <libCommon/Export.h>

namespace zrn {

// Writes "Assertion failed: <expression> (<source>)" to standard error and aborts. Internal
// invariants of the containers use it; they stay checked in release builds.
[[noreturn]] ZRN_COMMON_API void assertionFailed(char const* expression, char const* source);

}  // namespace zrn

#define ZRN_ASSERT(expression, source) \
    ((expression) ? static_cast<void>(0) : ::zrn::assertionFailed(#expression, source))
