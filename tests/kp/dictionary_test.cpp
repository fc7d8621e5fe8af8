// What kp makes of a dictionary: units, names and states beside values, describe, check and init.
#include "kp_run.h"

#include "testing/child.h"
#include "testing/segment_file.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace kptest;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char *kOven = R"(["plant/oven/+/temperature"]
type = "double"
unit = "°C"
description = "Air in the chamber"
range = [0, 320]
limits = { low = 20, high = 250, highhigh = 280 }
["plant/oven/+/state"]
type = "uint8"
names = { 0 = "off", 1 = "heating" }
)";

class KpDictionary : public testing::Test {
  protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "tagsXXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        ASSERT_EQ(chmod(name.c_str(), 0755), 0);
        folder_ = name;
        write("oven.toml", kOven);
    }
    void TearDown() override
    {
        std::filesystem::remove_all(folder_);
    }

    void write(const std::string &name, const std::string &text) const
    {
        std::ofstream(folder_ + "/" + name) << text;
    }

    // Runs `kp` with this dictionary.
    Ran meant(const std::vector<std::string> &arguments, const std::string &input = "") const
    {
        return kp(arguments, {.input = input, .environment = {"KP_DICTIONARY=" + folder_}});
    }

    // Writes a topic of one byte.
    static void put_byte(const std::string &topic, char value)
    {
        put(topic, KP_TYPE_UINT8, std::string(1, value));
    }

    std::string file() const
    {
        return folder_ + "/oven.toml";
    }

    std::string folder_;
};

} // namespace

TEST_F(KpDictionary, ListShowsUnitNameAndState)
{
    put_byte("plant/oven/1/state", 1);
    put_double("plant/oven/1/temperature", 281.5);
    put_double("plant/other", 7);

    const Ran ran = meant({"list", "-l"});

    EXPECT_EQ(
        ran.out,
        R"(TOPIC                     TYPE    VALUE        STATE     QUALITY     AGE  PROVIDERS  CONSUMERS
plant/other               double  7            -               1  future          0          0
plant/oven/1/state        uint8   heating (1)  ok              1  future          0          0
plant/oven/1/temperature  double  281.5 °C     highhigh        1  future          0          0
)");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST_F(KpDictionary, ColoursTheStatesWhereColoursAreWanted)
{
    put_double("plant/oven/1/temperature", 281.5);
    put_double("plant/oven/2/temperature", 251);
    put_double("plant/oven/3/temperature", 100);

    const Ran coloured = meant({"--color", "always", "watch", "--initial-only", "#"});
    const Ran plain = meant({"watch", "--initial-only", "#"});

    EXPECT_EQ(coloured.out, "\x1b[31mplant/oven/1/temperature\t281.5 °C\thighhigh\x1b[0m\n"
                            "\x1b[33mplant/oven/2/temperature\t251 °C\thigh\x1b[0m\n"
                            "plant/oven/3/temperature\t100 °C\tok\n");
    EXPECT_THAT(plain.out, Not(HasSubstr("\x1b")));
}

TEST_F(KpDictionary, GetShowsItOnlyWhenAskedForMore)
{
    put_double("plant/oven/1/temperature", 182.4);

    EXPECT_EQ(meant({"get", "plant/oven/1/temperature"}).out, "182.4\n");
    EXPECT_THAT(meant({"get", "-v", "plant/oven/1/temperature"}).out,
                AllOf(StartsWith("plant/oven/1/temperature\t182.4 °C\tdouble\tquality 1"),
                      HasSubstr("\tstate ok\n")));
    EXPECT_EQ(meant({"get", "-F", "%v %u %S", "#"}).out, "182.4 °C ok\n");
    EXPECT_EQ(meant({"watch", "-T1", "#"}).out, "182.4\n");
}

TEST_F(KpDictionary, JsonHasUnitNameStateAndDescriptionBehindTheOtherKeys)
{
    put_byte("plant/oven/1/state", 0);
    put_double("plant/oven/1/temperature", 10);

    const Ran ran = meant({"list", "-j"});

    EXPECT_EQ(filtered(ran.out, {"jq", "-c", "[keys_unsorted[-4:], .unit, .name, .state]"}),
              "[[\"providers\",\"consumers\",\"name\",\"state\"],null,\"off\",\"ok\"]\n"
              "[[\"consumers\",\"unit\",\"state\",\"description\"],\"°C\",null,\"low\"]\n");
}

TEST_F(KpDictionary, ChangesNoByteOfTheOutputForATopicOfWhichItSaysNothing)
{
    put_double("unknown", 1);
    const std::vector<std::vector<std::string>> commands = {{"list", "-j"},
                                                            {"get", "-j", "unknown"},
                                                            {"list", "--format", "csv"},
                                                            {"get", "-v", "--utc", "unknown"},
                                                            {"dump"}};

    for (const auto &command : commands)
        EXPECT_EQ(meant(command).out, kp(command).out) << command[0];
    std::filesystem::remove(file());
    EXPECT_EQ(meant({"list", "-l"}).out, kp({"list", "-l"}).out);
}

TEST_F(KpDictionary, InfoNamesFileAndLineOfEachFact)
{
    put_double("plant/oven/1/temperature", 182.4);
    write("site.toml", "[\"plant/oven/1/temperature\"]\nrange = [0, 300]\n");

    const Ran ran = meant({"info", "plant/oven/1/temperature"});

    EXPECT_THAT(ran.out,
                AllOf(HasSubstr("\nvalue       182.4 °C\nstate       ok\n"),
                      HasSubstr("\ndictionary  unit °C  [" + file() + ":3:1]\n"),
                      HasSubstr("\ndictionary  range 0..300  [" + folder_ + "/site.toml:2:1]\n")));
    EXPECT_EQ(filtered(meant({"info", "-j", "plant/oven/1/temperature"}).out,
                       {"jq", "-c", ".dictionary | [.unit.value, .unit.line, .limits.value.high]"}),
              "[\"°C\",3,250]\n");
}

TEST_F(KpDictionary, SetRefusesAValueOutsideTheRangeUnlessForced)
{
    put_double("plant/oven/1/temperature", 20);

    const Ran refused = meant({"set", "plant/oven/1/temperature", "321"});
    const Ran no_number = meant({"set", "plant/oven/1/temperature", "nan"});
    const Ran unchanged = meant({"get", "plant/oven/1/temperature"});
    const Ran forced = meant({"set", "--force", "plant/oven/1/temperature", "321"});

    EXPECT_EQ(refused.err, "kp: plant/oven/1/temperature: 321 is outside 0..320 °C (--force sets "
                           "it)\n");
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(no_number.code, 2);
    EXPECT_EQ(unchanged.out, "20\n");
    EXPECT_EQ(forced.out, "plant/oven/1/temperature\t20 °C → 321 °C\n");
    EXPECT_EQ(forced.code, 0);
}

TEST_F(KpDictionary, SetRefusesItInABatchTooAndGoesOn)
{
    put_double("plant/oven/1/temperature", 20);
    put_byte("plant/oven/1/state", 0);

    const Ran ran = meant({"set", "--batch"}, R"({"topic":"plant/oven/1/temperature","value":-1}
{"topic":"plant/oven/1/state","value":"heating"}
)");

    EXPECT_EQ(ran.err, "kp: line 1: plant/oven/1/temperature: -1 is outside 0..320 °C (--force "
                       "sets it)\n");
    EXPECT_EQ(ran.out, "plant/oven/1/state\toff (0) → heating (1)\n");
    EXPECT_EQ(ran.code, 2);
}

TEST_F(KpDictionary, SetTakesTheNameOfAValue)
{
    put_byte("plant/oven/1/state", 0);
    put("relay", KP_TYPE_BOOLEAN, std::string(1, '\0'));
    write("relay.toml", "[relay]\nnames = { 0 = \"on\", 1 = \"off\" }\n");

    const Ran state = meant({"set", "plant/oven/1/state", "heating"});
    const Ran relay = meant({"set", "relay", "off"});

    EXPECT_EQ(state.out, "plant/oven/1/state\toff (0) → heating (1)\n");
    EXPECT_EQ(relay.out, "relay\ton (false) → off (true)\n");
    EXPECT_EQ(meant({"set", "plant/oven/1/state", "cooling"}).code, 2);
}

TEST_F(KpDictionary, SetDeclaresANewTopicAsItSays)
{
    write("name.toml", "[\"plant/name\"]\ntype = \"string\"\nsize = 32\n");

    EXPECT_EQ(meant({"set", "plant/name", "north"}).out, "plant/name\t- → north\n");
    EXPECT_EQ(filtered(kp({"get", "-j", "plant/name"}).out, {"jq", "-c", "[.type, .max]"}),
              "[\"string\",32]\n");
    EXPECT_EQ(meant({"set", "other", "1"}).code, 2);
}

TEST_F(KpDictionary, DescribeNamesEachFactAndItsPlace)
{
    const Ran one = meant({"describe", "plant/oven/7/state"});
    const Ran unknown = meant({"describe", "nothing"});

    EXPECT_EQ(one.out, "plant/oven/7/state\n"
                       "  type         uint8  [" +
                           file() +
                           ":8:1]\n"
                           "  names        0 off, 1 heating  [" +
                           file() + ":9:1]\n");
    EXPECT_EQ(one.code, 0);
    EXPECT_EQ(unknown.out, "nothing\n  the dictionary says nothing of it\n");
    EXPECT_EQ(unknown.code, 1);
}

TEST_F(KpDictionary, DescribeCoversTheStoreAndTheTopicsThatItNames)
{
    put_double("plant/oven/1/temperature", 1);
    write("site.toml", "[\"plant/oven/2/temperature\"]\nunit = \"K\"\n");

    const Ran ran = meant({"describe", "-j", "plant/#"});

    EXPECT_EQ(filtered(ran.out, {"jq", "-c", "[.topic, .facts.unit.value, .facts.range.value]"}),
              "[\"plant/oven/1/temperature\",\"°C\",[0,320]]\n"
              "[\"plant/oven/2/temperature\",\"K\",[0,320]]\n");
}

TEST_F(KpDictionary, CheckIsContentWithAStoreThatIsAsItSays)
{
    put_double("plant/oven/1/temperature", 20.5);
    put_byte("plant/oven/1/state", 0);

    const Ran ran = meant({"check"});

    EXPECT_EQ(ran.out, "all 2 topics are as the dictionary says\n");
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(meant({"check", "-j"}).out, "");
}

TEST_F(KpDictionary, CheckFindsEachWayToDiffer)
{
    put("bad", KP_TYPE_UINT8, std::string(1, '\0'));
    SegmentFile("bad").put_u8(at::quality, 3);
    put_double("old", 1);
    SegmentFile("old").put_u64(at::last_write_ts, 1'000'000);
    put_double("plant/oven/1/temperature", 321);
    put_double("plant/oven/1/state", 1);
    put_double("unknown", 1);
    write("more.toml", "[bad]\n[old]\nstale = 5\n[gone]\nunit = \"m\"\n");

    const Ran ran = meant({"check", "-j"});

    EXPECT_EQ(filtered(ran.out, {"jq", "-c", "[.check, .topic, .line]"}),
              "[\"quality\",\"bad\",null]\n"
              "[\"stale\",\"old\",3]\n"
              "[\"type\",\"plant/oven/1/state\",8]\n"
              "[\"range\",\"plant/oven/1/temperature\",5]\n"
              "[\"unknown\",\"unknown\",null]\n"
              "[\"missing\",\"gone\",4]\n");
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(meant({"check", "plant/#"}).out,
                HasSubstr("\nrange: plant/oven/1/temperature: 321 is outside 0..320 °C  [" +
                          file() + ":5:1]\n"));
}

TEST_F(KpDictionary, CheckTellsOfLimitsWhenAsked)
{
    put_double("plant/oven/1/temperature", 250);

    EXPECT_EQ(meant({"check"}).code, 0);
    EXPECT_EQ(meant({"check", "--limits"}).out,
              "limit: plant/oven/1/temperature: 250 °C is high  [" + file() + ":6:1]\n");
}

TEST_F(KpDictionary, CheckFindsAWrongMaximum)
{
    kp_shm_t *provider = kp_shm_new("name", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(provider, KP_TYPE_STRING, 16, 0);
    write("name.toml", "[name]\ntype = \"string\"\nsize = 32\n");

    EXPECT_EQ(meant({"check", "name"}).out,
              "size: name: has room for 16 bytes and not 32  [" + folder_ + "/name.toml:3:1]\n");
    (void)kp_shm_destroy(provider, "name", KP_ROLE_PROVIDER);
}

TEST_F(KpDictionary, CheckNeedsADictionary)
{
    const Ran none = kp({"check"}, {.environment = {"KP_DICTIONARY=" + folder_ + "/none"}});
    std::filesystem::remove(file());
    const Ran empty = meant({"check"});

    EXPECT_EQ(none.err, "kp: " + folder_ + "/none: No such file or directory\n" + "kp: " + folder_ +
                            "/none: no dictionary to hold the store against\n");
    EXPECT_EQ(none.code, 2);
    EXPECT_EQ(empty.err, "kp: " + folder_ + ": no dictionary to hold the store against\n");
    EXPECT_EQ(empty.code, 2);
}

TEST_F(KpDictionary, CheckFindsTheDictionarysOwnMistakes)
{
    write("site.toml", "[a]\nunits = \"m\"\n");

    const Ran ran = meant({"check", "nothing/#"});

    EXPECT_EQ(ran.out, "dictionary: \"units\" is not known  [" + folder_ + "/site.toml:2:1]\n");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 1);
}

TEST_F(KpDictionary, CheckHoldsLimitsOfOneEntryAgainstTheRangeOfAnother)
{
    write("site.toml", "[\"plant/oven/9/temperature\"]\nrange = [0, 260]\n");
    put_double("plant/oven/1/temperature", 100);
    put_double("plant/oven/9/temperature", 100);

    const Ran ran = meant({"check"});

    EXPECT_EQ(ran.out,
              "dictionary: plant/oven/9/temperature: limits: one lies outside 0..260 °C  [" +
                  file() + ":6:1]\n");
    EXPECT_EQ(ran.code, 1);
}

TEST_F(KpDictionary, InitWritesWhatItReadsBack)
{
    put_double("plant/\"odd\"\\\x1b[2J/\u202e", 1);
    put_double("plant/\U000E0041", 1);
    put_text("name", "x");
    put_byte("byte", 1);

    const Ran made = meant({"dictionary", "init"});
    write("oven.toml", made.out);

    EXPECT_THAT(made.out, StartsWith("[\"byte\"]\ntype = \"uint8\"\nunit = \"\"\n"
                                     "description = \"\"\n\n[\"name\"]\ntype = \"string\"\n"));
    EXPECT_THAT(made.out, Not(HasSubstr("\x1b")));
    EXPECT_EQ(made.err, "");
    EXPECT_EQ(meant({"check"}).out, "all 4 topics are as the dictionary says\n");
    EXPECT_EQ(meant({"dictionary", "init", "--unknown"}).code, 1);
}

TEST_F(KpDictionary, InitSaysWhichNamesCannotStandInIt)
{
    put_double("plant/\xFF", 1);
    put_double("+x", 1);

    const Ran ran = meant({"dictionary", "init"});

    EXPECT_EQ(ran.out, "");
    EXPECT_THAT(ran.err, AllOf(HasSubstr("kp: +x: such a name cannot"),
                               HasSubstr("kp: plant/\\xff: such a name cannot")));
    EXPECT_EQ(ran.code, 4);
}

TEST_F(KpDictionary, MistakesAreToldWithTheirPlaceAndTheRestHolds)
{
    put_double("plant/oven/1/temperature", 1);
    write("site.toml", "[a]\nunits = \"m\"\n");

    const Ran ran = meant({"watch", "-1", "#"});

    EXPECT_EQ(ran.out, "plant/oven/1/temperature\t1 °C\tlow\n");
    EXPECT_EQ(ran.err, "kp: " + folder_ + "/site.toml:2:1: \"units\" is not known\n");
    EXPECT_EQ(ran.code, 0);
}

TEST_F(KpDictionary, OnlyTheFirstOfManyMistakesAreTold)
{
    put_double("a", 1);
    std::string text = "[a]\n";
    for (int index = 0; index < 40; ++index)
        text += "key" + std::to_string(index) + " = 1\n";
    write("site.toml", text);

    const Ran ran = meant({"list", "-l"});

    EXPECT_EQ(std::count(ran.err.begin(), ran.err.end(), '\n'), 6);
    EXPECT_THAT(ran.err, HasSubstr(": 35 mistakes more (kp doctor shows them)\n"));
}

TEST_F(KpDictionary, DoctorTellsOfEachMistake)
{
    write("site.toml", "[a]\nunits = \"m\"\nstale = -1\n");

    const Ran ran = meant({"doctor", "-j"});

    EXPECT_EQ(filtered(ran.out, {"jq", "-r",
                                 "select(.check == \"dictionary\") | .level + \" \" + .subject"}),
              "warning " + folder_ + "/site.toml:2:1\nwarning " + folder_ + "/site.toml:3:9\n");
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 1);
}

TEST_F(KpDictionary, TheOptionComesBeforeTheEnvironment)
{
    put_double("plant/oven/1/temperature", 1);

    const Ran before = kp({"--dictionary", folder_, "watch", "-1", "#"},
                          {.environment = {"KP_DICTIONARY=/nowhere"}});
    const Ran behind = kp({"watch", "-1", "#", "--dictionary", folder_});

    EXPECT_EQ(before.out, "plant/oven/1/temperature\t1 °C\tlow\n");
    EXPECT_EQ(before.err, "");
    EXPECT_EQ(behind.out, before.out);
}

TEST_F(KpDictionary, IsNotReadByACommandThatNeedsNone)
{
    put_double("a", 1);
    const RunOptions missing{.environment = {"KP_DICTIONARY=/nowhere"}};

    EXPECT_EQ(kp({"get", "a"}, missing).err, "");
    EXPECT_EQ(kp({"list"}, missing).err, "");
    EXPECT_EQ(kp({"dump"}, missing).err, "");
    EXPECT_THAT(kp({"list", "-l"}, missing).err, HasSubstr("/nowhere: No such file"));
}

TEST_F(KpDictionary, WatchFollowsItsChangesAndKeepsTheOldOneDespiteMistakes)
{
    const auto replace = [this](const std::string &text) {
        write("new", text);
        std::filesystem::rename(folder_ + "/new", file());
    };
    put_double("a", 1);
    ChildProcess watch(std::vector<std::string>{
        "sh", "-c", "exec '" KP_PROGRAM "' --dictionary " + folder_ + " watch --rate 20 '#' 2>&1"});
    ASSERT_EQ(watch.hear(), "a\t1");

    // Each look prints a line, so that the first one by the new dictionary is among them. No value
    // and no stamp comes twice, since kp would say nothing of the second.
    double value = 1;
    const auto hear_until = [&watch, &value](const std::string &wanted) {
        while (true) {
            ++value;
            put_double("a", value);
            SegmentFile("a").put_u64(at::last_write_ts, static_cast<uint64_t>(value));
            const auto line = watch.hear();
            if (!line || line->find(wanted) != std::string::npos)
                return line.value_or("nothing");
        }
    };
    replace("[a]\nunit = \"m\"\n");
    EXPECT_THAT(hear_until(" m"), HasSubstr(" m\tok"));
    replace("[a]\nunit = \"s\"\nunits = 1\n");
    EXPECT_EQ(hear_until("kp: "), "kp: " + file() + ":3:1: \"units\" is not known");
    EXPECT_THAT(hear_until(" m"), HasSubstr(" m\tok"));
    replace("[a]\nunit = \"km\"\n");
    EXPECT_THAT(hear_until(" km"), HasSubstr(" km\tok"));
}
