#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

namespace zrn {

class ZRN_COMMON_API FileSystem {
public:
    // The platform's path separator.
    static CString slash();
    // The absolute path of `name` inside `directory`. A relative directory is taken from the
    // current working directory; an absolute `name` is returned as it is. With `normalize`,
    // "." and ".." segments and repeated separators are removed (lexically; links are not
    // resolved).
    static String getAbsolutePath(String const& directory, String const& name, bool normalize);
    // Whether something exists at `path`.
    static bool exists(String const& path);
};

}  // namespace zrn
