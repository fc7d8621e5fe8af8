#include "support/path.h"

#include <gtest/gtest.h>
#include <string>

using kp::format_text;

namespace {

TEST(FormattedText, FitsWithItsTerminator)
{
    std::array<char, 4> text{};

    EXPECT_TRUE(format_text(text, "%s", "abc"));
    EXPECT_STREQ(text.data(), "abc");
}

TEST(FormattedText, ThatIsTooLongIsCut)
{
    std::array<char, 4> text{};

    EXPECT_FALSE(format_text(text, "%s", "abcd"));
    EXPECT_STREQ(text.data(), "abc");
}

TEST(FormattedText, MayBeEmpty)
{
    std::array<char, 4> text{'x'};

    EXPECT_TRUE(format_text(text, "%s", ""));
    EXPECT_STREQ(text.data(), "");
}

} // namespace
