// A dictionary whose files are caught while somebody saves them.
#include "outbound/settled_dictionary.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

using namespace kp::mqtt;

namespace {

constexpr const char *kFolder = "/run/settled-dictionary";

// In place, as an editor or a shell does that writes over the file.
void save(const std::string &text)
{
    std::filesystem::create_directories(kFolder);
    std::ofstream(std::string(kFolder) + "/1.toml") << text;
}

std::string unit(const SettledDictionary &dictionary)
{
    const auto facts = dictionary.current()->facts_of("a");
    return facts.unit ? std::string(facts.unit->value) : "none";
}

} // namespace

TEST(SettledDictionary, TellsOfAChangeWhenTheNextLookFindsNoOther)
{
    save("[a]\nunit = \"m\"\n");
    SettledDictionary dictionary({kFolder, true});
    EXPECT_FALSE(dictionary.look());

    save("[a]\nunit = \"millimetre\"\n");

    EXPECT_FALSE(dictionary.look());
    EXPECT_TRUE(dictionary.look());
    EXPECT_EQ(unit(dictionary), "millimetre");
    EXPECT_FALSE(dictionary.look());
}

TEST(SettledDictionary, PassesOverAFileThatIsJustBeingSaved)
{
    save("[a]\nunit = \"m\"\n");
    SettledDictionary dictionary({kFolder, true});

    save("");
    EXPECT_FALSE(dictionary.look());
    save("[a]\nunit = \"millimetre\"\n");

    EXPECT_FALSE(dictionary.look());
    EXPECT_TRUE(dictionary.look());
    EXPECT_EQ(unit(dictionary), "millimetre");
}

TEST(SettledDictionary, TellsAtOnceWhereSomebodySaysThatAllIsSaved)
{
    save("[a]\nunit = \"m\"\n");
    SettledDictionary dictionary({kFolder, true});

    save("[a]\nunit = \"millimetre\"\n");

    EXPECT_TRUE(dictionary.look_now());
    EXPECT_FALSE(dictionary.look());
}
