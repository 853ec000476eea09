#include <libCommon/ZRNValue.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "CLocale.h"

namespace zrn {

ZRNValue::ZRNValue(int value) : m_type(SIGNED), m_signed(value) {}
ZRNValue::ZRNValue(unsigned int value) : m_type(UNSIGNED), m_unsigned(value) {}
ZRNValue::ZRNValue(long value) : m_type(SIGNED), m_signed(value) {}
ZRNValue::ZRNValue(unsigned long value) : m_type(UNSIGNED), m_unsigned(value) {}
ZRNValue::ZRNValue(long long value) : m_type(SIGNED), m_signed(value) {}
ZRNValue::ZRNValue(unsigned long long value) : m_type(UNSIGNED), m_unsigned(value) {}
ZRNValue::ZRNValue(double value) : m_type(REAL), m_real(value) {}

String ZRNValue::toString(unsigned int /*format*/) const {
    // Only the plain format exists; every format gives the same text.
    switch (m_type) {
        case SIGNED:
            return String(std::to_string(m_signed));
        case UNSIGNED:
            return String(std::to_string(m_unsigned));
        case REAL:
            break;
    }
    CLocaleScope const c;  // a decimal point, never the locale's comma
    char text[32];
    for (int precision = 15; precision <= 17; ++precision) {
        std::snprintf(text, sizeof text, "%.*g", precision, m_real);
        if (std::strtod(text, nullptr) == m_real) break;
    }
    return String(text);
}

}  // namespace zrn
