#pragma once

#include <libCommon/Export.h>

namespace zrn {

// Reports "Assertion failed: <expression> (<source>, line <line>)" at error priority through
// the logger "libCommon.Assert" (on standard error when that logger drops errors) and aborts.
// Internal invariants of the containers use it; they stay checked in release builds.
[[noreturn]] ZRN_COMMON_API void assertionFailed(char const* expression, char const* source,
                                                 int line);
// The same without a line, for callers built against the earlier form.
[[noreturn]] ZRN_COMMON_API void assertionFailed(char const* expression, char const* source);

}  // namespace zrn

#define ZRN_ASSERT(expression, source) \
    ((expression) ? static_cast<void>(0) : ::zrn::assertionFailed(#expression, source, __LINE__))
