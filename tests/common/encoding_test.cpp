#include "common/text/encoding.h"

#include <gtest/gtest.h>

using namespace kp::tool;

TEST(Hex, ComesBackAsItWent)
{
    const std::string bytes("\x00\xff\x10\x80", 4);

    EXPECT_EQ(to_hex(bytes), "00ff1080");
    EXPECT_EQ(from_hex("00ff1080"), bytes);
}

TEST(Hex, AllowsAPrefixAndSeparatorsBetweenBytes)
{
    EXPECT_EQ(from_hex("0xABcd"), "\xab\xcd");
    EXPECT_EQ(from_hex("ab cd"), "\xab\xcd");
    EXPECT_EQ(from_hex("ab:cd"), "\xab\xcd");
    EXPECT_EQ(from_hex(""), "");
}

TEST(Hex, IsRefusedWhenMalformed)
{
    EXPECT_FALSE(from_hex("abc"));
    EXPECT_FALSE(from_hex("a bcd"));
    EXPECT_FALSE(from_hex("0g"));
}

TEST(Escape, IsAPercentSignAndTwoDigits)
{
    EXPECT_EQ(escaped_byte("%2Fa"), '/');
    EXPECT_EQ(escaped_byte("%ff"), '\xff');
    EXPECT_EQ(escaped_byte("%00"), '\0');
    EXPECT_FALSE(escaped_byte("2F"));
    EXPECT_FALSE(escaped_byte("%2"));
    EXPECT_FALSE(escaped_byte("%2g"));
    EXPECT_FALSE(escaped_byte(""));
}

TEST(Base64, ComesBackAsItWent)
{
    EXPECT_EQ(to_base64(""), "");
    EXPECT_EQ(to_base64("f"), "Zg==");
    EXPECT_EQ(to_base64("fo"), "Zm8=");
    EXPECT_EQ(to_base64("foo"), "Zm9v");
    EXPECT_EQ(from_base64("Zg=="), "f");
    EXPECT_EQ(from_base64("Zm8="), "fo");
    EXPECT_EQ(from_base64(to_base64("\x01\xff\x10\x80")), "\x01\xff\x10\x80");
}

TEST(Base64, IsRefusedWhenMalformed)
{
    EXPECT_FALSE(from_base64("Zg="));
    EXPECT_FALSE(from_base64("Z==="));
    EXPECT_FALSE(from_base64("Z!=="));
    EXPECT_FALSE(from_base64("Zg==Zg=="));
}
