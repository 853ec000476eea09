#include <gtest/gtest.h>
#include <libCommon/SprintfFormat.h>
#include <libCommon/String.h>
#include <libCommon/ZRNValue.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

TEST(StringTest, SizeAndSubStringCountCharactersNotBytes) {
    String const text("Grüße, 世界!");
    EXPECT_EQ(text.size(), 10u);
    EXPECT_EQ(text.byteSize(), 16u);
    EXPECT_EQ(text.subString(2, 3).str(), "üße");
    EXPECT_EQ(text.subString(7, 100).str(), "世界!");
    EXPECT_EQ(text.subString(50, 2).str(), "");
    EXPECT_EQ(String("😀x").size(), 2u);  // four-byte sequence
    // A stray continuation byte or a truncated sequence counts as one character of its own
    // and is never split or merged with its neighbours.
    String const broken(std::string("a\x80") + "b\xE4");
    EXPECT_EQ(broken.size(), 4u);
    EXPECT_EQ(broken.subString(1, 2).str(),
              "\x80"
              "b");
}

TEST(StringTest, RepeatPadsWithCharacters) {
    EXPECT_EQ(String::repeat(' ', 3).str(), "   ");
    EXPECT_EQ(String::repeat('-', 0).str(), "");
}

TEST(StringTest, ReplaceDoublesQuotesAndHandlesEdges) {
    EXPECT_EQ(String("O'Brien's").replace("'", "''").str(), "O''Brien''s");
    EXPECT_EQ(String("''").replace("'", "''").str(), "''''");
    EXPECT_EQ(String("aaa").replace("aa", "b").str(), "ba");
    EXPECT_EQ(String("abc").replace("", "x").str(), "abc");
    EXPECT_EQ(String("añoaño").replace("ñ", "n").str(), "anoano");
}

TEST(StringTest, EqualNoCaseFoldsLettersOfSeveralScripts) {
    EXPECT_TRUE(String("normal").equalNoCase("NORMAL"));
    EXPECT_TRUE(String("Ärger").equalNoCase("äRGER"));
    EXPECT_TRUE(String("ПРИВЕТ").equalNoCase("привет"));
    EXPECT_TRUE(String("ΣΟΦΙΑ").equalNoCase("σοφια"));
    EXPECT_FALSE(String("OFF").equalNoCase("OF"));
    EXPECT_FALSE(String("FULL").equalNoCase("FULL "));
    EXPECT_FALSE(String("×").equalNoCase("÷"));  // not a letter pair
    EXPECT_TRUE(String("ЁЖЏ").equalNoCase("ёжџ"));
    // Three- and four-byte characters compare whole; a cut sequence is bytes of its own.
    EXPECT_TRUE(String("€uro 😀x").equalNoCase("€URO 😀X"));
    EXPECT_FALSE(String("€").equalNoCase("₭"));
    EXPECT_FALSE(String("😀").equalNoCase("🙀"));  // four bytes, differing in the third
    EXPECT_FALSE(String("😀").equalNoCase("😁"));
    EXPECT_FALSE(String("\xE2\x82").equalNoCase("\xE2\x83"));
    EXPECT_TRUE(String("\xE2\x82").equalNoCase("\xE2\x82"));
    EXPECT_FALSE(String("\xC3").equalNoCase("\xC4"));
    EXPECT_FALSE(String("2").equalNoCase("FULL"));
}

TEST(StringTest, ComparisonsAreExactAndByBytes) {
    EXPECT_TRUE(String("group") == "group");
    EXPECT_FALSE(String("Group") == "group");
    EXPECT_TRUE("a" == String("a"));
    EXPECT_TRUE(String("a") < String("b"));
    EXPECT_TRUE(String("") == String::EMPTY());
    EXPECT_TRUE(String(static_cast<char const*>(nullptr)).empty());
    std::ostringstream out;
    out << String("ü") + "x" + String("y");
    EXPECT_EQ(out.str(), "üxy");
}

TEST(StringTest, NumberParsersFollowTheirBase) {
    struct Case {
        char const* text;
        int base;
        long long expected;
    };
    Case const cases[] = {
        {"42", 10, 42}, {"-17", 10, -17}, {"0x1F", 0, 31},
        {"017", 0, 15}, {"17", 0, 17},    {"101", 2, 5},
        {"17", 8, 15},  {"  9", 10, 9},   {"12abc", 10, 12},
        {"abc", 10, 0}, {"", 10, 0},      {"9223372036854775807", 10, 9223372036854775807LL},
    };
    for (auto const& c : cases) {
        EXPECT_EQ(String::strToInt64(c.text, c.base), c.expected) << c.text << " base " << c.base;
    }
    EXPECT_EQ(String::strToUInt64("18446744073709551615", 10), 18446744073709551615ULL);
    EXPECT_EQ(String::strToUInt("16777215", 10), 16777215u);
    EXPECT_EQ(String::strToInt("-5", 10), -5);
    EXPECT_DOUBLE_EQ(String::strToReal64("2.5e3"), 2500.0);
}

TEST(StringTest, NumberParsersGiveWhatTheCLibraryGivesForEveryShapeOfText) {
    // Plain decimals take a shortcut; everything around its edges must read as strtoll & co.
    std::vector<std::string> const texts = test::split(
        "0|-0|7|-7|123456789012345678|-123456789012345678|1234567890123456789|9223372036854775807|"
        "9223372036854775808|-9223372036854775808|18446744073709551615|99999999999999999999|"
        "4294967296|-4294967297|2147483648|-||+5| 5|5 |5x|--5|1.5|0x10|007");
    for (std::string const& t : texts) {
        char const* const text = t.c_str();
        EXPECT_EQ(String::strToInt64(text, 10), std::strtoll(text, nullptr, 10)) << text;
        EXPECT_EQ(String::strToUInt64(text, 10), std::strtoull(text, nullptr, 10)) << text;
        EXPECT_EQ(String::strToInt(text, 10), static_cast<int>(std::strtol(text, nullptr, 10)))
            << text;
        EXPECT_EQ(String::strToUInt(text, 10),
                  static_cast<unsigned int>(std::strtoul(text, nullptr, 10)))
            << text;
    }
    std::vector<std::string> const reals = test::split(
        "0|-0|71.5|-71.5|.5|-.5|1.|.|0.1|0.3|2.675|1e3|12.|1.2.3|123456789012345|1234567890123456|"
        "0.1234567890123456789012|3.14159265358979|9007199254740993|nan|-inf|12,5| 1.5|-||-.");
    for (std::string const& t : reals) {
        char const* const text = t.c_str();
        double const expected = std::strtod(text, nullptr);
        double const got = String::strToReal64(text);
        if (std::isnan(expected)) {
            EXPECT_TRUE(std::isnan(got)) << text;
        } else {
            // Bit for bit, sign of zero included.
            EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << text << " " << got;
        }
    }
}

TEST(SprintfFormatTest, AcceptsTheDirectivesTheStoresUse) {
    EXPECT_EQ(SprintfFormat("%I64i|%lli|%i|%u", -9000000000LL, 9000000000LL, -3, 7u).str(),
              "-9000000000|9000000000|-3|7");
    EXPECT_EQ(SprintfFormat("%04u/%02u/%02u", 2021u, 11u, 4u).str(), "2021/11/04");
    EXPECT_EQ(SprintfFormat("%08X", 0xBEEFu).str(), "0000BEEF");
    EXPECT_EQ(SprintfFormat("'%s-%s' 100%%", "AppState", "key").str(), "'AppState-key' 100%");
    std::string const longText(1000, 'x');
    EXPECT_EQ(SprintfFormat("<%s>", longText.c_str()).str(), "<" + longText + ">");
}

TEST(ZRNValueTest, FormatsPlainDecimal) {
    EXPECT_EQ(ZRNValue(-12).toString(ZRNValue::nilValue()).str(), "-12");
    EXPECT_EQ(ZRNValue(4294967295u).toString(ZRNValue::nilValue()).str(), "4294967295");
    EXPECT_EQ(ZRNValue(-9223372036854775807LL - 1).toString(ZRNValue::nilValue()).str(),
              "-9223372036854775808");
    EXPECT_EQ(ZRNValue(18446744073709551615ULL).toString(ZRNValue::nilValue()).str(),
              "18446744073709551615");
    EXPECT_EQ(ZRNValue(0.1).toString(ZRNValue::nilValue()).str(), "0.1");
    EXPECT_EQ(ZRNValue(2.0).toString(ZRNValue::nilValue()).str(), "2");
}

}  // namespace
}  // namespace zrn
