#pragma once

#include <locale.h>

namespace zrn {

// Switches the calling thread to the "C" locale for as long as it lives, so that the C
// library's number formatting and parsing (printf, strtod) write and read a decimal point
// whatever locale the host program set with setlocale(): SQL text, stored values and logs
// must not change with the user's language. Only this thread is affected (uselocale), and the
// previous locale comes back even when the guarded code throws.
class CLocaleScope {
public:
    CLocaleScope() : m_previous(cLocale() ? uselocale(cLocale()) : nullptr) {}
    ~CLocaleScope() {
        if (m_previous) uselocale(m_previous);
    }
    CLocaleScope(CLocaleScope const&) = delete;
    CLocaleScope& operator=(CLocaleScope const&) = delete;

private:
    // Made once and kept for the life of the process; null only when memory ran out, and then
    // the thread's own locale is used as it is.
    static locale_t cLocale() {
        static locale_t const instance = newlocale(LC_ALL_MASK, "C", locale_t(nullptr));
        return instance;
    }

    locale_t m_previous;
};

}  // namespace zrn
