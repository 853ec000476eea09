#include <libCommon/String.h>

#include <gtest/gtest.h>

namespace zrn {
namespace {

TEST(StringTest, SizeAndSubStringCountCharactersNotBytes) {
    String const text("Grüße, 世界!");
    EXPECT_EQ(text.size(), 10u);
    EXPECT_EQ(text.byteSize(), 16u);
    EXPECT_EQ(text.subString(2, 3).str(), "üße");
    EXPECT_EQ(text.subString(7, 100).str(), "世界!");
    EXPECT_EQ(text.subString(50, 2).str(), "");
}

}  // namespace
}  // namespace zrn
