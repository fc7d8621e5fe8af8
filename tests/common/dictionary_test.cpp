// The dictionary: which facts hold for a topic, and what mistakes in its files cost.
#include "common/dictionary/dictionary.h"
#include "common/text/text.h"
#include "common/values/number_type.h"
#include "testing/file_text.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace kp::tool;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

DictionaryFile parsed(std::string_view text)
{
    return parse_dictionary_file(text, "t.toml");
}

std::shared_ptr<const DictionaryFile> file(std::string_view text,
                                           const std::string &name = "t.toml")
{
    return std::make_shared<const DictionaryFile>(parse_dictionary_file(text, name));
}

std::vector<std::string> problem_lines(const DictionaryFile &read)
{
    std::vector<std::string> lines;
    for (const DictionaryProblem &problem : read.problems)
        lines.push_back(place_text(problem.place) + ": " + problem.text);
    return lines;
}

TEST(DictionaryFile, HoldsEveryFactOfAnEntry)
{
    const DictionaryFile read = parsed(R"(["plant/oven/+/temperature"]
type = "double"
unit = "°C"
description = "Air in the chamber"
range = [0, 320]
limits = { low = 20, high = 250, highhigh = 280 }
stale = 5
record = { deadband = 0.2, at-least = 600, keep = true }
)");

    ASSERT_THAT(problem_lines(read), IsEmpty());
    ASSERT_EQ(read.entries.size(), 1u);
    const DictionaryEntry &entry = read.entries[0];
    EXPECT_EQ(entry.pattern, "plant/oven/+/temperature");
    EXPECT_EQ(entry.type->value, uint32_t{KP_TYPE_DOUBLE});
    EXPECT_EQ(entry.unit->value, "°C");
    EXPECT_EQ(entry.description->value, "Air in the chamber");
    EXPECT_EQ(entry.range->value.most, 320);
    EXPECT_EQ(entry.limits->value.low, 20);
    EXPECT_EQ(entry.limits->value.lowlow, std::nullopt);
    EXPECT_EQ(entry.limits->value.highhigh, 280);
    EXPECT_EQ(entry.stale_s->value, 5);
    EXPECT_EQ(entry.record->value.deadband, 0.2);
    EXPECT_EQ(entry.record->value.at_least_s, 600);
    EXPECT_TRUE(entry.record->value.keeps_last);
    EXPECT_EQ(place_text(entry.unit->place), "t.toml:3:1");
}

TEST(DictionaryFile, TakesTheExampleThatIsInstalled)
{
    const std::string example = kptest::file_text(KP_DICTIONARY_EXAMPLE);

    const DictionaryFile read = parsed(example);

    EXPECT_THAT(problem_lines(read), IsEmpty());
    EXPECT_EQ(read.entries.size(), 3u);
}

TEST(DictionaryFile, NamesValuesOfBooleansAndWholeNumbers)
{
    const DictionaryFile read =
        parsed("[a]\ntype = \"int8\"\nnames = { 0 = \"off\", 1 = \"heating\", -1 = \"fault\" }\n");

    ASSERT_THAT(problem_lines(read), IsEmpty());
    EXPECT_THAT(read.entries[0].names->value,
                ElementsAre(std::pair(-1, "fault"), std::pair(0, "off"), std::pair(1, "heating")));
}

struct Mistake {
    const char *name;
    const char *text;
    const char *problem;
};

void PrintTo(const Mistake &mistake, std::ostream *out)
{
    *out << mistake.name;
}

class DictionaryMistake : public testing::TestWithParam<Mistake> {};

TEST_P(DictionaryMistake, IsNamedWithItsPlaceAndTheRestHolds)
{
    const std::string text = std::string(GetParam().text) +
                             "\n[\"sound\"]\nunit = \"m\"\n[\"sound too\"]\nunit = \"s\"\n";

    const DictionaryFile read = parsed(text);

    EXPECT_THAT(problem_lines(read), ElementsAre(HasSubstr(GetParam().problem)));
    std::size_t sound = 0;
    for (const DictionaryEntry &entry : read.entries)
        sound += entry.pattern.starts_with("sound") && entry.unit;
    EXPECT_EQ(sound, 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Each, DictionaryMistake,
    testing::Values(
        Mistake{"UnknownKey", "[\"a\"]\nunits = \"m\"", "t.toml:2:1: \"units\" is not known"},
        Mistake{"WrongType", "[\"a\"]\ntype = \"real\"",
                "t.toml:2:8: type: must be one of boolean"},
        Mistake{"TextForNumber", "[\"a\"]\nstale = \"5\"", "t.toml:2:9: stale: must be a number"},
        Mistake{"RangeTheWrongWayRound", "[\"a\"]\nrange = [3, 1]",
                "t.toml:2:9: range: is the wrong way round"},
        Mistake{"RangeOfOne", "[\"a\"]\nrange = [3]", "t.toml:2:9: range: must be two numbers"},
        Mistake{"RangeOfNaN", "[\"a\"]\nrange = [nan, 1]", "range: must be two numbers"},
        Mistake{"LimitOutsideTheRange", "[\"a\"]\nrange = [0, 9]\nlimits = { high = 10 }",
                "t.toml:3:1: limits: one lies outside the range"},
        Mistake{"LimitsThatFall", "[\"a\"]\nlimits = { low = 10, high = 5 }",
                "t.toml:2:10: limits: high is below the limit before it"},
        Mistake{"UnknownLimit", "[\"a\"]\nlimits = { max = 10 }",
                "t.toml:2:10: limits: has no \"max\""},
        Mistake{"LimitsOfAString", "[\"a\"]\ntype = \"string\"\nlimits = { low = 1 }",
                "t.toml:3:1: limits: a string has none"},
        Mistake{"NamesOfADouble", "[\"a\"]\ntype = \"double\"\nnames = { 0 = \"off\" }",
                "t.toml:3:1: names: a double has none"},
        Mistake{"OneNameForTwo", "[\"a\"]\nnames = { 0 = \"off\", 1 = \"off\" }",
                "names: \"off\" names two values"},
        Mistake{"NameThatIsANumber", "[\"a\"]\nnames = { 0 = \"1\", 1 = \"on\" }",
                "t.toml:2:9: names: the name of 0 is a number"},
        Mistake{"LevelThatNoTopicHas", "[\"a/../b\"]\nunit = \"m\"",
                "t.toml:1:2: the pattern can't match: \"a/../b\" is not a topic"},
        Mistake{"SizeOfAnInteger", "[\"a\"]\ntype = \"int8\"\nsize = 4",
                "t.toml:3:1: size: a int8 always has the same"},
        Mistake{"SizeBeyondTheMost", "[\"a\"]\nsize = 4001", "t.toml:2:8: size: must be a whole"},
        Mistake{"PatternThatCannotMatch", "[\"a/#/b\"]\nunit = \"m\"",
                "t.toml:1:2: the pattern can't match"},
        Mistake{"EmptyPattern", "[\"/\"]\nunit = \"m\"", "t.toml:1:2: the pattern is empty"},
        Mistake{"PatternTwice", "[\"a//b\"]\nunit = \"m\"\n[\"a/b\"]\nunit = \"s\"",
                "the same pattern as in line"},
        Mistake{"PatternTwiceToTheLetter", "[\"a/b\"]\nunit = \"m\"\n[\"a/b\"]\nunit = \"s\"",
                "t.toml:3:"},
        Mistake{"SyntaxOfALine", "[\"a\"]\nunit = \"m\nstale = 5", "t.toml:2:"},
        Mistake{"KeyOutsideATable", "unit = \"m\"", "t.toml:1:1: \"unit\" stands outside a table"},
        Mistake{"LetterBeyondAsciiOutsideQuotes", "[\"a\"]\nrange = [0, \u0420]",
                "t.toml:2:13: a letter beyond ASCII must stand in quotation marks"},
        Mistake{"ControlCharacters", "[\"a\"]\nunit = \"\\u001b[31m\"",
                "unit: holds characters that cannot be shown"},
        Mistake{"ControlCharactersBesideABackslash", "[\"a\"]\nunit = \"\\u001b[31m\\\\\"",
                "unit: holds characters that cannot be shown"}),
    [](const auto &test) { return test.param.name; });

TEST(DictionaryFile, TakesEveryUnitOnATerminalOf8BitsToo)
{
    escape_for_8_bits(true);

    const DictionaryFile read = parsed("[a]\nunit = \"°C\"\n");
    escape_for_8_bits(false);

    EXPECT_THAT(problem_lines(read), IsEmpty());
    EXPECT_EQ(read.entries[0].unit->value, "°C");
}

// Each would take hours, or all of the stack, if the time grew with the square or the depth.
TEST(DictionaryFile, EndsSoonOnHugePatternsNamesAndBrokenTables)
{
    std::string deep;
    std::string names;
    std::string broken;
    for (int level = 0; level < 2'000'000; ++level)
        deep += "a/";
    for (int name = 0; name < 200'000; ++name)
        names += (names.empty() ? "" : ", ") + std::to_string(name) + " = \"n" +
                 std::to_string(name) + "\"";
    for (int table = 0; table < 400'000; ++table)
        broken += "[\"" + std::to_string(table) + "\"]\n=\n";

    EXPECT_THAT(problem_lines(parsed("[\"" + deep + "\"]\n")),
                ElementsAre(HasSubstr("it is longer than any topic")));
    EXPECT_THAT(problem_lines(parsed("[a]\nnames = { " + names + " }\n")),
                ElementsAre(HasSubstr("names: has more than 1000 of them")));
    EXPECT_LE(problem_lines(parsed(broken)).size(), 10u);
    std::replace(deep.begin(), deep.end(), '/', '.');
    EXPECT_THAT(problem_lines(parsed("[" + deep + "a]\nunit = \"m\"\n")),
                ElementsAre("t.toml:1:103: more than 50 dots outside quotation marks in a line"));
}

TEST(DictionaryFile, CutsAMessageThatAFileMakesLong)
{
    const DictionaryFile read = parsed("[a]\n" + std::string(100'000, 'k') + " = 1\n");

    ASSERT_EQ(read.problems.size(), 1u);
    EXPECT_LE(read.problems[0].text.size(), 310u);
}

TEST(DictionaryFile, EndsWithProblemsOnWhatIsNoToml)
{
    std::string noise;
    for (int line = 0; line < 200; ++line)
        noise += "[" + std::string(static_cast<std::size_t>(line % 7), '=') + "\n";

    const DictionaryFile read = parsed(noise);

    EXPECT_THAT(read.entries, IsEmpty());
    EXPECT_GE(read.problems.size(), 1u);
    EXPECT_LE(read.problems.size(), 50u);
}

// Behind a number the parser takes quotation marks for a part of it, and looks at the letter.
TEST(DictionaryFile, RefusesAStringInTheMiddleOfANumber)
{
    const DictionaryFile read = parsed("[\"a\"]\nunit = 0\"\xC2\xB0"
                                       "C\"\n");

    EXPECT_THAT(read.entries, IsEmpty());
    EXPECT_EQ(read.problems.size(), 1u);
}

TEST(Dictionary, TakesEachFactFromTheMostExactPattern)
{
    const Dictionary dictionary({file(R"(["#"]
stale = 60
unit = "?"
["a/#"]
description = "below a"
["a/+"]
unit = "m"
["a/b"]
type = "double"
)")});

    const Facts facts = dictionary.facts_of("a/b");

    EXPECT_TRUE(facts.is_known);
    EXPECT_EQ(facts.type->value, uint32_t{KP_TYPE_DOUBLE});
    EXPECT_EQ(facts.unit->value, "m");
    EXPECT_EQ(facts.description->value, "below a");
    EXPECT_EQ(facts.stale_s->value, 60);
    EXPECT_EQ(facts.range, nullptr);
    EXPECT_EQ(place_text(facts.unit->place), "t.toml:7:1");
}

TEST(Dictionary, ComparesPatternsFromTheLeft)
{
    const Dictionary dictionary({file(R"(["+/b/c"]
unit = "second"
["a/+/+"]
unit = "first"
["a/#"]
unit = "third"
)")});

    EXPECT_EQ(dictionary.facts_of("a/b/c").unit->value, "first");
    EXPECT_EQ(dictionary.facts_of("x/b/c").unit->value, "second");
    EXPECT_EQ(dictionary.facts_of("a/b").unit->value, "third");
}

TEST(Dictionary, CoversAsThePatternsOfTagsDo)
{
    const Dictionary dictionary({file("[\"a/#\"]\nunit = \"m\"\n")});

    EXPECT_FALSE(dictionary.facts_of("a").is_known);
    EXPECT_TRUE(dictionary.facts_of("a/b/c").is_known);
    EXPECT_TRUE(dictionary.facts_of("/a//b/").is_known);
    EXPECT_FALSE(dictionary.facts_of("b/a").is_known);
}

TEST(Dictionary, LetsALaterFileOverrideFactByFact)
{
    const Dictionary dictionary({file("[\"a\"]\nunit = \"m\"\nstale = 5\n", "10.toml"),
                                 file("[\"a\"]\nunit = \"mm\"\n", "20.toml")});

    const Facts facts = dictionary.facts_of("a");

    EXPECT_EQ(facts.unit->value, "mm");
    EXPECT_EQ(*facts.unit->place.file, "20.toml");
    EXPECT_EQ(*facts.stale_s->place.file, "10.toml");
}

TEST(Dictionary, KnowsNothingWhenItIsEmpty)
{
    const Dictionary dictionary;

    EXPECT_TRUE(dictionary.is_empty());
    EXPECT_FALSE(dictionary.facts_of("a/b").is_known);
}

class DictionaryState : public testing::Test {
  protected:
    ValueState state(double value, uint8_t quality = KP_QUALITY_GOOD, uint64_t age_us = 0) const
    {
        const std::string bytes = to_bytes(value);
        return state_of(dictionary_.facts_of("a"),
                        {KP_TYPE_DOUBLE, bytes, quality, 100'000'000, 100'000'000 + age_us});
    }

    Dictionary dictionary_{{file("[\"a\"]\nstale = 2\nrange = [0, 100]\n"
                                 "limits = { lowlow = 5, low = 10, high = 90, highhigh = 95 }\n")}};
};

TEST_F(DictionaryState, FollowsTheLimits)
{
    EXPECT_EQ(state(50), ValueState::ok);
    EXPECT_EQ(state(10.5), ValueState::ok);
    EXPECT_EQ(state(10), ValueState::low);
    EXPECT_EQ(state(5), ValueState::lowlow);
    EXPECT_EQ(state(90), ValueState::high);
    EXPECT_EQ(state(95), ValueState::highhigh);
    EXPECT_EQ(state(std::numeric_limits<double>::quiet_NaN()), ValueState::lowlow);
}

TEST_F(DictionaryState, TellsTheGravestFirst)
{
    EXPECT_EQ(state(99, KP_QUALITY_NONE, 9'000'000), ValueState::bad_quality);
    EXPECT_EQ(state(99, KP_QUALITY_GOOD, 2'000'001), ValueState::stale);
    EXPECT_EQ(state(99, KP_QUALITY_GOOD, 2'000'000), ValueState::highhigh);
}

TEST_F(DictionaryState, TakesAValueFromTheFutureForFresh)
{
    const std::string bytes = to_bytes(50.0);

    EXPECT_EQ(state_of(dictionary_.facts_of("a"),
                       {KP_TYPE_DOUBLE, bytes, KP_QUALITY_GOOD, 2'000'000, 1'000'000}),
              ValueState::ok);
}

TEST_F(DictionaryState, KnowsTheRange)
{
    const Facts facts = dictionary_.facts_of("a");

    EXPECT_TRUE(is_in_range(facts, KP_TYPE_DOUBLE, to_bytes(100.0)));
    EXPECT_FALSE(is_in_range(facts, KP_TYPE_DOUBLE, to_bytes(100.5)));
    EXPECT_FALSE(is_in_range(facts, KP_TYPE_INT8, to_bytes(int8_t{-1})));
    EXPECT_TRUE(is_in_range(facts, KP_TYPE_STRING, "anything"));
    EXPECT_EQ(range_text(facts), "0..100");
}

TEST(DictionaryNames, StandForValues)
{
    const Dictionary dictionary({file("[\"a\"]\nnames = { 0 = \"off\", 1 = \"heating\" }\n")});
    const Facts facts = dictionary.facts_of("a");

    ASSERT_NE(name_of(facts, KP_TYPE_UINT8, to_bytes(uint8_t{1})), nullptr);
    EXPECT_EQ(*name_of(facts, KP_TYPE_UINT8, to_bytes(uint8_t{1})), "heating");
    EXPECT_EQ(name_of(facts, KP_TYPE_UINT8, to_bytes(uint8_t{2})), nullptr);
    EXPECT_EQ(name_of(facts, KP_TYPE_UINT64, to_bytes(UINT64_MAX)), nullptr);
    EXPECT_EQ(name_of(facts, KP_TYPE_DOUBLE, to_bytes(1.0)), nullptr);
    EXPECT_EQ(named_value(facts, "off"), "0");
    EXPECT_EQ(named_value(facts, "of"), std::nullopt);
}

} // namespace
