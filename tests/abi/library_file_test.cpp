// What the built library file exports, needs and protects, read off the file itself.
#include "testing/file_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

namespace {

using Names = std::set<std::string>;
using testing::HasSubstr;
using testing::Not;

std::string output_of(const std::string &command)
{
    std::string text;
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return text;
    char piece[4096];
    while (std::fgets(piece, sizeof(piece), pipe))
        text += piece;
    EXPECT_EQ(pclose(pipe), 0) << command;
    return text;
}

Names matches(const std::string &text, const std::string &expression)
{
    Names names;
    const std::regex pattern(expression);
    for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end; ++match)
        names.insert((*match)[1]);
    return names;
}

std::string readelf(const std::string &options)
{
    return output_of(KP_READELF " -W " + options + " '" KP_LIBRARY "'");
}

Names exported()
{
    return matches(output_of(KP_NM " -D --defined-only '" KP_LIBRARY "'"), " [TDBRW] (\\w+)");
}

std::string wanted_of_others()
{
    return output_of(KP_NM " -D --undefined-only '" KP_LIBRARY "'");
}

Names listed()
{
    return matches(kptest::file_text(KP_SOURCE_DIR "/src/exports.map"), "\n    (\\w+);");
}

} // namespace

TEST(LibraryFile, ExportsExactlyTheNamesOfTheKeptList)
{
    EXPECT_EQ(exported(), listed());
}

TEST(LibraryFile, ExportsEveryFunctionThatTheHeaderDeclares)
{
    const Names declared =
        matches(kptest::file_text(KP_SOURCE_DIR "/include/kp.h"), "\nKP_API [^;(]*?(kp\\w+)\\(");

    ASSERT_GT(declared.size(), 90U);
    EXPECT_THAT(exported(), testing::IsSupersetOf(declared));
}

TEST(LibraryFile, HasTheSonameOfVersionThree)
{
    EXPECT_THAT(readelf("-d"), HasSubstr("Library soname: [libzu-kp.so.3]"));
}

TEST(LibraryFile, NeedsTheCLibraryAlone)
{
    Names needed = matches(readelf("-d"), "\\(NEEDED\\)\\s+Shared library: \\[([^\\]]+)\\]");

    needed.erase(
        "ld-linux-aarch64.so.1"); // its loader, which keeps the stack protector's value there

    EXPECT_EQ(needed, Names{"libc.so.6"});
}

TEST(LibraryFile, ResolvesEverythingAtStartAndThenLocksItsTables)
{
    EXPECT_THAT(readelf("-d"), HasSubstr("BIND_NOW"));
    EXPECT_THAT(readelf("-l"), HasSubstr("GNU_RELRO"));
}

TEST(LibraryFile, HasNoTextRelocation)
{
    EXPECT_THAT(readelf("-d"), Not(HasSubstr("TEXTREL")));
}

TEST(LibraryFile, HasNoExecutableStack)
{
    EXPECT_EQ(matches(readelf("-l"), "GNU_STACK[^\n]* (RW|RWE) "), Names{"RW"});
}

TEST(LibraryFile, ChecksItsStackFrames)
{
    EXPECT_THAT(wanted_of_others(), HasSubstr("__stack_chk_fail"));
}

TEST(LibraryFile, ChecksTheBoundsOfItsFormattedTexts)
{
    EXPECT_THAT(wanted_of_others(), HasSubstr("__vsnprintf_chk"));
}

TEST(LibraryFile, IsAtMostAHundredKibibytesWhenStripped)
{
    std::string folder = testing::TempDir() + "strippedXXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string stripped = folder + "/libzu-kp.so";

    output_of(KP_STRIP " -o " + stripped + " '" KP_LIBRARY "'");

    EXPECT_LE(std::filesystem::file_size(stripped), 100U * 1024);
    std::filesystem::remove_all(folder);
}
