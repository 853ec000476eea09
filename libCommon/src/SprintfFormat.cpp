#include <libCommon/SprintfFormat.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "CLocale.h"

namespace zrn {

namespace {

// Rewrites the Windows length modifier I64 as ll, leaving everything else as it is.
std::string portableFormat(char const* format) {
    std::string result;
    for (char const* p = format; *p; ++p) {
        result.push_back(*p);
        if (*p != '%') continue;
        ++p;
        if (*p == '%') {
            result.push_back('%');
            continue;
        }
        // Flags, width and precision pass through unchanged.
        while (*p && std::string("-+ #0123456789.*").find(*p) != std::string::npos) {
            result.push_back(*p++);
        }
        if (p[0] == 'I' && p[1] == '6' && p[2] == '4') {
            result.append("ll");
            p += 3;
        }
        if (!*p) break;
        result.push_back(*p);
    }
    return result;
}

}  // namespace

String SprintfFormat(char const* format, ...) {
    std::string const portable = portableFormat(format ? format : "");
    CLocaleScope const c;  // the text is SQL and log text: numbers never follow the user's locale
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    char small[256];
    int const length = std::vsnprintf(small, sizeof small, portable.c_str(), args);
    va_end(args);
    if (length < 0) {
        va_end(again);
        return String();
    }
    if (static_cast<std::size_t>(length) < sizeof small) {
        va_end(again);
        return String(small, static_cast<std::size_t>(length));
    }
    std::vector<char> large(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(large.data(), large.size(), portable.c_str(), again);
    va_end(again);
    return String(large.data(), static_cast<std::size_t>(length));
}

}  // namespace zrn
