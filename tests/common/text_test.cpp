#include "common/text/text.h"

#include <clocale>
#include <gtest/gtest.h>

using namespace kp::tool;

TEST(Utf8, IsToldFromOtherBytes)
{
    EXPECT_TRUE(is_utf8("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_TRUE(is_utf8(""));
    EXPECT_FALSE(is_utf8("\xc0\x80"));
    EXPECT_FALSE(is_utf8("\xed\xa0\x80"));
    EXPECT_FALSE(is_utf8("\xf4\x90\x80\x80"));
    EXPECT_FALSE(is_utf8("\xe2\x82"));
    EXPECT_FALSE(is_utf8("\x80"));
}

TEST(Escaped, LeavesWhatIsSafeToShow)
{
    EXPECT_EQ(escaped("a/b c \xc3\xa4 \xf0\x9f\x98\x80"), "a/b c \xc3\xa4 \xf0\x9f\x98\x80");
}

TEST(Escaped, NamesControlCharactersAndTheBackslash)
{
    EXPECT_EQ(escaped("a\nb\tc\rd\\e"), "a\\nb\\tc\\rd\\\\e");
    EXPECT_EQ(escaped("\x1b[2J\x7f"), "\\x1b[2J\\x7f");
    EXPECT_EQ(escaped(std::string_view("\0", 1)), "\\x00");
    EXPECT_EQ(escaped("\xc2\x9b"), "\\u009b");
}

TEST(Escaped, NamesMarksThatChangeTheDirectionOfText)
{
    EXPECT_EQ(escaped("a\xe2\x80\xae"
                      "b"),
              "a\\u202eb");
    EXPECT_EQ(escaped("\xe2\x80\x8f\xd8\x9c\xe2\x81\xa6"), "\\u200f\\u061c\\u2066");
    EXPECT_EQ(escaped("\xe2\x80\xa8"), "\\u2028");
}

TEST(Escaped, NamesWhatNobodySees)
{
    EXPECT_EQ(escaped("\xef\xbb\xbf"
                      "a\xe2\x80\x8b"),
              "\\ufeffa\\u200b");
    EXPECT_EQ(escaped("\xc2\xad\xe1\xa0\x8e\xe2\x81\xa0\xef\xbf\xb9"),
              "\\u00ad\\u180e\\u2060\\ufff9");
    EXPECT_EQ(escaped("\xf3\xa0\x81\x81"), "\\U000e0041");
}

TEST(Escaped, KeepsTheJoinersThatScriptsNeed)
{
    EXPECT_EQ(escaped("\xe2\x80\x8c\xe2\x80\x8d"), "\xe2\x80\x8c\xe2\x80\x8d");
}

TEST(Escaped, NamesBytesThatAreNoText)
{
    EXPECT_EQ(escaped("\xff"
                      "a\xc3"),
              "\\xffa\\xc3");
}

TEST(ShellWord, StandsForJustTheseBytes)
{
    EXPECT_EQ(shell_word("a b"), "'a b'");
    EXPECT_EQ(shell_word("it's"), "'it'\\''s'");
    EXPECT_EQ(shell_word("a\nb"), "$'a\\nb'");
    EXPECT_EQ(shell_word("'\x1b"), "$'\\'\\x1b'");
    EXPECT_EQ(shell_word("\xf3\xa0\x81\x81"
                         "1"),
              "$'\\U000e00411'");
}

TEST(DisplayWidth, CountsColumns)
{
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);

    EXPECT_EQ(display_width("abc"), 3u);
    EXPECT_EQ(display_width("\xc3\xa4"), 1u);
    EXPECT_EQ(display_width("\xe6\x97\xa5"), 2u);
}

TEST(Shortened, EndsWithAMarkWhereSomethingIsMissing)
{
    EXPECT_EQ(shortened("abc", 3), "abc");
    EXPECT_EQ(shortened("abcd", 3).substr(0, 2), "ab");
    EXPECT_NE(shortened("abcd", 3), "abcd");
}

TEST(Padded, FillsToTheColumns)
{
    EXPECT_EQ(padded("ab", 4), "ab  ");
    EXPECT_EQ(padded_left("ab", 4), "  ab");
    EXPECT_EQ(padded("abcd", 2), "abcd");
}
