#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

namespace zrn {

class ZRN_COMMON_API System {
public:
    // The directory of the running executable.
    static String getApplicationDirectory();
};

}  // namespace zrn
