#pragma once

#include <libCommon/Export.h>

#include <cstddef>
#include <iosfwd>
#include <string>

namespace zrn {

class String;

// A narrow, zero-terminated byte string handed out by a few operations.
class ZRN_COMMON_API CString {
public:
    CString() = default;
    explicit CString(std::string bytes) : m_bytes(std::move(bytes)) {}

    char const* c_str() const { return m_bytes.c_str(); }
    std::size_t size() const { return m_bytes.size(); }
    std::string const& str() const { return m_bytes; }

private:
    std::string m_bytes;
};

// A value-type text string holding UTF-8.
//
// Lengths and positions (size(), subString(), repeat()) count characters (code points), never
// bytes, and never split a character. Invalid UTF-8 is kept as it is; each byte that does not
// start a valid sequence counts as one character. Comparisons (==, <) are by bytes.
//
// Converts implicitly from `char const*` and `std::string`: every store passes literals where a
// String is expected.
class ZRN_COMMON_API String {
public:
    String() = default;
    String(char const* text) : m_text(text ? text : "") {}  // NOLINT: implicit by design
    String(char const* text, std::size_t bytes) : m_text(text, bytes) {}
    String(std::string text) : m_text(std::move(text)) {}  // NOLINT: implicit by design
    String(CString const& text) : m_text(text.str()) {}    // NOLINT: implicit by design

    String& operator=(char const* text) {
        m_text = text ? text : "";
        return *this;
    }

    // A shared empty instance, for functions that return a reference to "nothing".
    static String const& EMPTY();

    // Number of characters (code points).
    std::size_t size() const;
    // Number of bytes of the UTF-8 text.
    std::size_t byteSize() const { return m_text.size(); }
    bool empty() const { return m_text.empty(); }

    std::string const& str() const { return m_text; }
    char const* c_str() const { return m_text.c_str(); }

    // Replaces the text with `bytes` bytes at `text`, keeping the storage already held.
    String& assign(char const* text, std::size_t bytes) {
        m_text.assign(text, bytes);
        return *this;
    }
    void clear() { m_text.clear(); }

    String& append(char const* text);
    String& append(String const& text);
    String& operator+=(char const* text) { return append(text); }
    String& operator+=(String const& text) { return append(text); }

    bool operator==(String const& other) const { return m_text == other.m_text; }
    bool operator==(char const* other) const { return m_text == (other ? other : ""); }
    bool operator!=(String const& other) const { return m_text != other.m_text; }
    bool operator!=(char const* other) const { return !(*this == other); }
    bool operator<(String const& other) const { return m_text < other.m_text; }

    // Case-insensitive equality. Folds ASCII, Latin-1, Greek and Cyrillic letters; other
    // characters must match exactly.
    bool equalNoCase(String const& other) const;

    // A new string with every occurrence of `what` replaced by `with`; an empty `what`
    // changes nothing.
    String replace(String const& what, String const& with) const;

    // Up to `length` characters starting at character `start`; a start past the end gives an
    // empty string.
    String subString(unsigned int start, unsigned int length) const;

    // `count` copies of `c` (used with a blank to pad text to a width).
    static String repeat(char c, unsigned int count);

    // The text as a narrow byte string (the UTF-8 bytes themselves).
    CString getLowerByteString() const { return CString(m_text); }

    // Number parsing as by C's strtoll/strtoull: base 0 takes the base from the prefix
    // ("0x" hex, "0" octal), bases 2 to 36 read plain digits. Leading blanks are skipped,
    // parsing stops at the first character that is not a digit, and text that holds no number
    // gives 0. No error is reported: callers rely on that.
    static long long strToInt64(String const& text, int base);
    static unsigned long long strToUInt64(String const& text, int base);
    static int strToInt(String const& text, int base);
    static unsigned int strToUInt(String const& text, int base);
    static double strToReal64(String const& text);

private:
    std::string m_text;
};

ZRN_COMMON_API String operator+(String const& left, String const& right);
ZRN_COMMON_API String operator+(String const& left, char const* right);
ZRN_COMMON_API String operator+(char const* left, String const& right);
inline bool operator==(char const* left, String const& right) { return right == left; }
inline bool operator!=(char const* left, String const& right) { return right != left; }

ZRN_COMMON_API std::ostream& operator<<(std::ostream& out, String const& text);

}  // namespace zrn

template <>
struct std::hash<zrn::String> {
    std::size_t operator()(zrn::String const& text) const noexcept {
        return std::hash<std::string>()(text.str());
    }
};
