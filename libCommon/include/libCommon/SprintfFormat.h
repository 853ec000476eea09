#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

namespace zrn {

// Formats as C's printf. Besides the standard directives it accepts the Windows form %I64i
// (and %I64d, %I64u, %I64x, %I64X) for a 64-bit integer. Pass text as `char const*`
// (String::c_str()).
ZRN_COMMON_API String SprintfFormat(char const* format, ...);

}  // namespace zrn
