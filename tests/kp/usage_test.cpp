// What kp says of words that it does not know, and of streams that it does not have.
#include "kp_run.h"

#include "testing/segment_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(KpUsage, NamesTheCommandThatWasMeant)
{
    EXPECT_EQ(kp({"lsit"}).err, "kp: unknown command lsit, did you mean list?\n");
    EXPECT_EQ(kp({"--color", "never", "wacth", "a"}).err,
              "kp: unknown command wacth, did you mean watch?\n");
    EXPECT_EQ(kp({"help", "docto"}).err, "kp: unknown command docto, did you mean doctor?\n");
    EXPECT_EQ(kp({"xyzzy"}).err, "kp: unknown command xyzzy (see kp help)\n");
    EXPECT_EQ(kp({"lsit"}).code, 2);
}

TEST(KpUsage, NamesTheFormatsThatThereAre)
{
    put_double("a", 1);

    const Ran ran = kp({"list", "--format", "xml"});

    EXPECT_EQ(ran.err, "kp: --format: xml is not one of plain, json, csv, tsv, raw or hex (--help "
                       "tells more)\n");
    EXPECT_EQ(ran.code, 2);
    EXPECT_EQ(kp({"list", "--format", "2"}).code, 2);
    EXPECT_EQ(kp({"--color", "1", "list"}).code, 2);
    EXPECT_EQ(kp({"list", "--format", "csv"}).code, 0);
}

TEST(KpUsage, EscapesWhatTheUserTyped)
{
    for (const Ran &ran :
         {kp({"get", "a", "\x1b[2J"}), kp({"get", "--\x1b[2J"}), kp({"\x1b[2J"}),
          kp({"list", "--format", "\x1b[2J"}), kp({"list", "-x", "\x1b[2J", "-t\x1b"})})
        EXPECT_THAT(ran.err, AllOf(StartsWith("kp: "), Not(HasSubstr("\x1b")))) << ran.err;
}

TEST(KpUsage, EndsEachSentenceOfItsHelpOnItsLine)
{
    const Ran ran = kp({"help"});

    EXPECT_THAT(ran.out,
                HasSubstr("Patterns (quote them; unlike in MQTT, a/# does not match a itself):\n"
                          "  +  any one level\n"
                          "  #  one or more remaining levels\n"));
}

TEST(KpStreams, ThatAreClosedAreToldAndNothingElseIsWrittenTo)
{
    put_double("a", 1);
    const std::string before = store_picture();
    const std::string program = KP_PROGRAM;

    const Ran no_output = run_program({"bash", "-c", "'" + program + "' get a >&-"});
    const Ran no_input = run_program({"bash", "-c", "'" + program + "' set --batch <&-"});
    const Ran none = run_program({"bash", "-c", "'" + program + "' get a b <&- >&- 2>&-"});

    EXPECT_EQ(no_output.err, "kp: standard output: Bad file descriptor\n");
    EXPECT_EQ(no_output.code, 5);
    EXPECT_EQ(no_input.err, "kp: standard input: Bad file descriptor\n");
    EXPECT_EQ(none.code, 5);
    EXPECT_EQ(store_picture(), before);
}

TEST(KpColors, AreNotForcedByZero)
{
    put_double("a", 1);

    EXPECT_THAT(kp({"list", "-l"}, {.environment = {"CLICOLOR_FORCE=1"}}).out, HasSubstr("\x1b["));
    EXPECT_THAT(kp({"list", "-l"}, {.environment = {"CLICOLOR_FORCE=0"}}).out,
                Not(HasSubstr("\x1b[")));
}

// For a terminal of 8 bits the second byte of U+00DB in UTF-8 begins a control sequence.
TEST(KpText, BringsNoControlByteToATerminalOf8Bits)
{
    put_double("a\xC3\x9B"
               "2J",
               1);

    const Ran ran = run_program({"script", "-qec", "LC_ALL=C '" KP_PROGRAM "' list", "/dev/null"});

    EXPECT_THAT(ran.out, AllOf(HasSubstr("a\\u00db2J"), Not(HasSubstr("\x9B"))));
    EXPECT_EQ(kp({"list"}).out, "a\xC3\x9B"
                                "2J\n");
}

TEST(KpList, EndsWithFourForACorruptSegmentAndSaysSo)
{
    put_double("broken", 1);
    SegmentFile("broken").put_u32(at::value_type, 99);
    put_double("good", 1);

    const Ran json = kp({"list", "-j"});
    const Ran table = kp({"list", "-l"});

    EXPECT_EQ(json.code, 4);
    EXPECT_EQ(table.code, 4);
    EXPECT_EQ(filtered(json.out, {"jq", "-c", "[.topic, (.problem // \"none\" | .[0:31])]"}),
              "[\"broken\",\"broken: the segment is corrupt \"]\n[\"good\",\"none\"]\n");
    EXPECT_THAT(table.out, HasSubstr("(corrupt)"));
}

TEST(KpBench, GivesNullForWhatWasNotMeasured)
{
    const Ran ran = kp({"bench", "-t", "0.5", "-j"});

    EXPECT_EQ(
        filtered(ran.out, {"jq", "-c", "select(.name==\"read 8 bytes\") | [.p99_us, .max_us]"}),
        "[null,null]\n");
}

TEST(KpUsage, TakesWordsAsTheyAre)
{
    put_double("x", 1);
    put_double("[x]", 2);
    put_double("\x01y", 3);
    put_double("a/b", 4);
    put_text("text", "old");

    EXPECT_EQ(kp({"list", "++"}).out, "\\x01y\n[x]\ntext\nx\n");
    EXPECT_EQ(kp({"list", "++", "-x", "[x]"}).out, "\\x01y\ntext\nx\n");
    EXPECT_EQ(kp({"list", "++", "-x[x]"}).out, "\\x01y\ntext\nx\n");
    EXPECT_EQ(kp({"list", "++", "--exclude=[x]"}).out, "\\x01y\ntext\nx\n");
    EXPECT_EQ(kp({"get", "\x01y"}).out, "3\n");
    EXPECT_EQ(kp({"set", "text", "++", "--peer-wait", "0"}).out, "text\told → ++\n");
    EXPECT_EQ(kp({"rm", "[x]"}).code, 0);
    EXPECT_EQ(kp({"list"}).out, "\\x01y\na/b\ntext\nx\n");
    EXPECT_EQ(kp({"peers", "++"}).err,
              "kp: The following argument was not expected: ++ (--help tells more)\n");
}

TEST(KpUsage, TakesNegativeNumbersBehindOptionsOfTheProgram)
{
    put_double("d", 1);

    EXPECT_EQ(kp({"-d", "set", "d", "-inf", "--peer-wait", "0"}).code, 0);
    EXPECT_EQ(kp({"get", "d"}).out, "-inf\n");
    EXPECT_EQ(kp({"--color", "never", "set", "d", "-.5", "--peer-wait", "0"}).code, 0);
    EXPECT_EQ(kp({"--color=never", "wait", "d", "==", "-.5", "-t", "20"}).code, 0);
    EXPECT_EQ(kp({"wait", "d", ">", "-inf", "-t", "20"}).code, 0);
}
