#include <libCommon/String.h>

#include <climits>
#include <cstdlib>
#include <ostream>

#include "CLocale.h"

namespace zrn {

namespace {

// Length in bytes of the UTF-8 sequence that starts at `text[pos]`, or 1 when the bytes there
// are not a valid sequence (such a byte then counts as one character of its own).
std::size_t sequenceLength(std::string const& text, std::size_t pos) {
    unsigned char const lead = static_cast<unsigned char>(text[pos]);
    std::size_t length;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
    } else {
        return 1;
    }
    if (pos + length > text.size()) return 1;
    for (std::size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[pos + i]) & 0xC0) != 0x80) return 1;
    }
    return length;
}

// Decodes the character at `pos` and advances `pos` past it. Invalid bytes decode as
// themselves (0x80-0xFF), which never equal a valid decoded letter of the same byte.
char32_t decode(std::string const& text, std::size_t& pos) {
    std::size_t const length = sequenceLength(text, pos);
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[pos + i]); };
    char32_t c;
    switch (length) {
        case 2:
            c = ((byte(0) & 0x1Fu) << 6) | (byte(1) & 0x3Fu);
            break;
        case 3:
            c = ((byte(0) & 0x0Fu) << 12) | ((byte(1) & 0x3Fu) << 6) | (byte(2) & 0x3Fu);
            break;
        case 4:
            c = ((byte(0) & 0x07u) << 18) | ((byte(1) & 0x3Fu) << 12) | ((byte(2) & 0x3Fu) << 6) |
                (byte(3) & 0x3Fu);
            break;
        default:
            c = byte(0) < 0x80 ? byte(0) : 0x110000u + byte(0);  // keep invalid bytes distinct
    }
    pos += length;
    return c;
}

// Simple case folding for the scripts the suite's texts use: ASCII, Latin-1, Greek, Cyrillic.
char32_t foldCase(char32_t c) {
    if (c >= U'A' && c <= U'Z') return c + 32;
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 32;     // À-Þ except ×
    if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return c + 32;  // Greek capitals
    if (c >= 0x410 && c <= 0x42F) return c + 32;                // Cyrillic А-Я
    if (c >= 0x400 && c <= 0x40F) return c + 80;                // Cyrillic Ѐ-Џ
    return c;
}

}  // namespace

String const& String::EMPTY() {
    static String const empty;
    return empty;
}

std::size_t String::size() const {
    std::size_t count = 0;
    for (std::size_t pos = 0; pos < m_text.size(); pos += sequenceLength(m_text, pos)) ++count;
    return count;
}

String& String::append(char const* text) {
    if (text) m_text.append(text);
    return *this;
}

String& String::append(String const& text) {
    m_text.append(text.m_text);
    return *this;
}

bool String::equalNoCase(String const& other) const {
    std::size_t a = 0;
    std::size_t b = 0;
    while (a < m_text.size() && b < other.m_text.size()) {
        if (foldCase(decode(m_text, a)) != foldCase(decode(other.m_text, b))) return false;
    }
    return a == m_text.size() && b == other.m_text.size();
}

String String::replace(String const& what, String const& with) const {
    if (what.m_text.empty()) return *this;
    std::string result;
    result.reserve(m_text.size());
    std::size_t from = 0;
    for (std::size_t at = m_text.find(what.m_text); at != std::string::npos;
         at = m_text.find(what.m_text, from)) {
        result.append(m_text, from, at - from);
        result.append(with.m_text);
        from = at + what.m_text.size();
    }
    result.append(m_text, from, std::string::npos);
    return String(std::move(result));
}

String String::subString(unsigned int start, unsigned int length) const {
    std::size_t pos = 0;
    for (unsigned int i = 0; i < start && pos < m_text.size(); ++i) {
        pos += sequenceLength(m_text, pos);
    }
    std::size_t end = pos;
    for (unsigned int i = 0; i < length && end < m_text.size(); ++i) {
        end += sequenceLength(m_text, end);
    }
    return String(m_text.substr(pos, end - pos));
}

String String::repeat(char c, unsigned int count) { return String(std::string(count, c)); }

namespace {

// Cells read back from the stores are almost always plain decimal integers written by the
// library itself; switching the thread's locale for strtoll costs more than the parsing. Text
// of an optional '-' and 1 to 18 digits, nothing else, cannot overflow and reads the same in
// every locale, so it is parsed here. Anything else (blanks, '+', other bases, longer numbers,
// trailing text) goes to the C library as before, so every result stays what strtoll gives.
bool plainDecimal(std::string const& text, bool& negative, unsigned long long& magnitude) {
    std::size_t i = 0;
    negative = !text.empty() && text[0] == '-';
    if (negative) i = 1;
    std::size_t const digits = text.size() - i;
    if (digits == 0 || digits > 18) return false;
    unsigned long long value = 0;
    for (; i < text.size(); ++i) {
        unsigned const d = static_cast<unsigned char>(text[i]) - unsigned('0');
        if (d > 9) return false;
        value = value * 10 + d;
    }
    magnitude = value;
    return true;
}

// A decimal with at most 15 significant digits and at most 22 after the point: both the digits
// and the power of ten are exact doubles, so one division rounds correctly, as strtod does.
bool plainReal(std::string const& text, double& out) {
    std::size_t i = 0;
    bool const negative = !text.empty() && text[0] == '-';
    if (negative) i = 1;
    unsigned long long mantissa = 0;
    int digits = 0;
    int fraction = -1;  // digits after the point; -1 while no point was seen
    for (; i < text.size(); ++i) {
        char const c = text[i];
        if (c == '.' && fraction < 0) {
            fraction = 0;
            continue;
        }
        unsigned const d = static_cast<unsigned char>(c) - unsigned('0');
        if (d > 9) return false;
        if (++digits > 15) return false;
        mantissa = mantissa * 10 + d;
        if (fraction >= 0) ++fraction;
    }
    if (digits == 0 || fraction == 0 || fraction > 22) return false;
    static double const powers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                    1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                    1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    double const value = static_cast<double>(mantissa) / powers[fraction < 0 ? 0 : fraction];
    out = negative ? -value : value;
    return true;
}

}  // namespace

long long String::strToInt64(String const& text, int base) {
    bool negative;
    unsigned long long magnitude;
    if (base == 10 && plainDecimal(text.m_text, negative, magnitude)) {
        auto const value = static_cast<long long>(magnitude);
        return negative ? -value : value;
    }
    CLocaleScope const c;
    return std::strtoll(text.c_str(), nullptr, base);
}

unsigned long long String::strToUInt64(String const& text, int base) {
    bool negative;
    unsigned long long magnitude;
    // strtoull negates a '-' number in unsigned arithmetic; so does this.
    if (base == 10 && plainDecimal(text.m_text, negative, magnitude))
        return negative ? 0ULL - magnitude : magnitude;
    CLocaleScope const c;
    return std::strtoull(text.c_str(), nullptr, base);
}

int String::strToInt(String const& text, int base) {
    bool negative;
    unsigned long long magnitude;
    if (base == 10 && plainDecimal(text.m_text, negative, magnitude) && magnitude <= LONG_MAX) {
        auto const value = static_cast<long>(magnitude);
        return static_cast<int>(negative ? -value : value);
    }
    CLocaleScope const c;
    return static_cast<int>(std::strtol(text.c_str(), nullptr, base));
}

unsigned int String::strToUInt(String const& text, int base) {
    bool negative;
    unsigned long long magnitude;
    if (base == 10 && plainDecimal(text.m_text, negative, magnitude) && magnitude <= ULONG_MAX) {
        auto const value = static_cast<unsigned long>(magnitude);
        return static_cast<unsigned int>(negative ? 0UL - value : value);
    }
    CLocaleScope const c;
    return static_cast<unsigned int>(std::strtoul(text.c_str(), nullptr, base));
}

double String::strToReal64(String const& text) {
    double value;
    if (plainReal(text.m_text, value)) return value;
    CLocaleScope const c;  // "71.5" is 71.5 in every locale
    return std::strtod(text.c_str(), nullptr);
}

String operator+(String const& left, String const& right) {
    std::string result;
    result.reserve(left.byteSize() + right.byteSize());
    result.append(left.str()).append(right.str());
    return String(std::move(result));
}

String operator+(String const& left, char const* right) {
    std::string result(left.str());
    if (right) result.append(right);
    return String(std::move(result));
}

String operator+(char const* left, String const& right) {
    std::string result(left ? left : "");
    result.append(right.str());
    return String(std::move(result));
}

std::ostream& operator<<(std::ostream& out, String const& text) { return out << text.str(); }

}  // namespace zrn
