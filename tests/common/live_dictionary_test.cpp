// The dictionary of a directory: which files count, and how it follows their changes.
#include "common/dictionary/live_dictionary.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using namespace kp::tool;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LiveDictionaryTest : public testing::Test {
  protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "tagsXXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
    }
    void TearDown() override
    {
        std::filesystem::remove_all(folder_);
    }

    // Replaces the file, as editors do, so that it is another inode each time.
    void put(const std::string &name, const std::string &text) const
    {
        std::ofstream(folder_ + "/new") << text;
        std::filesystem::rename(folder_ + "/new", folder_ + "/" + name);
    }

    static std::string unit(const LiveDictionary &live, const std::string &topic)
    {
        const Facts facts = live.current()->facts_of(topic);
        return facts.unit ? facts.unit->value : "none";
    }

    static std::vector<std::string> texts(const std::vector<DictionaryProblem> &problems)
    {
        std::vector<std::string> lines;
        for (const DictionaryProblem &problem : problems)
            lines.push_back(place_text(problem.place) + ": " + problem.text);
        return lines;
    }

    std::string folder_;
};

TEST_F(LiveDictionaryTest, ReadsTheTomlFilesInTheOrderOfTheirNames)
{
    put("20.toml", "[a]\nunit = \"second\"\n");
    put("10.toml", "[a]\nunit = \"first\"\n[b]\nunit = \"m\"\n");
    put("30.toml.bak", "[a]\nunit = \"third\"\n");
    put(".40.toml", "[a]\nunit = \"fourth\"\n");

    LiveDictionary live({folder_, true});

    EXPECT_EQ(unit(live, "a"), "second");
    EXPECT_EQ(unit(live, "b"), "m");
    EXPECT_THAT(live.take_problems(), IsEmpty());
}

TEST_F(LiveDictionaryTest, FollowsChangesAndRemovals)
{
    put("1.toml", "[a]\nunit = \"m\"\n");
    LiveDictionary live({folder_, true});
    EXPECT_FALSE(live.refresh());

    put("1.toml", "[a]\nunit = \"mm\"\n");
    EXPECT_TRUE(live.refresh());
    EXPECT_EQ(unit(live, "a"), "mm");

    std::filesystem::remove(folder_ + "/1.toml");
    EXPECT_TRUE(live.refresh());
    EXPECT_EQ(unit(live, "a"), "none");
}

TEST_F(LiveDictionaryTest, KeepsTheOldFileWhileTheNewHasMistakes)
{
    put("1.toml", "[a]\nunit = \"m\"\n");
    LiveDictionary live({folder_, true});

    put("1.toml", "[a]\nunit = \"mm\"\nunits = 3\n");

    EXPECT_FALSE(live.refresh());
    EXPECT_EQ(unit(live, "a"), "m");
    EXPECT_THAT(texts(live.take_problems()), ElementsAre(HasSubstr("1.toml:3:1: \"units\"")));
    EXPECT_FALSE(live.refresh());
    EXPECT_THAT(live.take_problems(), IsEmpty());
}

TEST_F(LiveDictionaryTest, TakesWhatIsSoundOfAFileThatItReadsFirst)
{
    put("1.toml", "[a]\nunit = \"m\"\nunits = 3\n");

    LiveDictionary live({folder_, true});

    EXPECT_EQ(unit(live, "a"), "m");
    EXPECT_EQ(live.take_problems().size(), 1u);
}

TEST_F(LiveDictionaryTest, KnowsWhetherItIsWhole)
{
    LiveDictionary missing({folder_ + "/none", true});
    LiveDictionary live({folder_, true});

    EXPECT_FALSE(missing.is_whole());
    EXPECT_TRUE(live.is_whole());
    put("1.toml", "[a]\nunits = 3\n");
    (void)live.refresh();
    EXPECT_FALSE(live.is_whole());
    (void)live.refresh();
    EXPECT_FALSE(live.is_whole());
    put("1.toml", "[a]\nunit = \"m\"\n");
    (void)live.refresh();
    EXPECT_TRUE(live.is_whole());
}

TEST_F(LiveDictionaryTest, HandsOutADictionaryThatOutlivesAChange)
{
    put("1.toml", "[a]\nunit = \"m\"\n");
    LiveDictionary live({folder_, true});
    const auto before = live.current();
    const Facts facts = before->facts_of("a");

    put("1.toml", "[a]\nunit = \"mm\"\n");
    ASSERT_TRUE(live.refresh());

    EXPECT_EQ(facts.unit->value, "m");
}

TEST_F(LiveDictionaryTest, MissesADirectoryOnlyWhenItWasNamed)
{
    LiveDictionary by_default({folder_ + "/none", false});
    LiveDictionary named({folder_ + "/none", true});

    EXPECT_THAT(by_default.take_problems(), IsEmpty());
    EXPECT_THAT(texts(named.take_problems()), ElementsAre(HasSubstr("No such file")));
    EXPECT_TRUE(named.current()->is_empty());
}

TEST_F(LiveDictionaryTest, IsEmptyWhenItsDirectoryIsRemoved)
{
    put("1.toml", "[a]\nunit = \"m\"\n");
    LiveDictionary live({folder_, false});

    std::filesystem::remove_all(folder_);

    EXPECT_TRUE(live.refresh());
    EXPECT_EQ(unit(live, "a"), "none");
    EXPECT_THAT(live.take_problems(), IsEmpty());
}

TEST_F(LiveDictionaryTest, DoesNotHangOnAFifoNorReadADirectory)
{
    ASSERT_EQ(mkfifo((folder_ + "/1.toml").c_str(), 0600), 0);
    std::filesystem::create_directory(folder_ + "/2.toml");

    LiveDictionary live({folder_, true});

    EXPECT_THAT(texts(live.take_problems()),
                ElementsAre(HasSubstr("is no file"), HasSubstr("is no file")));
}

TEST(DictionaryPlace, IsTheOptionThenTheEnvironmentThenTheDefault)
{
    ASSERT_EQ(setenv("KP_DICTIONARY", "/from/environment", 1), 0);
    const DictionaryPlace option = dictionary_place("/from/option");
    const DictionaryPlace environment = dictionary_place("");
    ASSERT_EQ(unsetenv("KP_DICTIONARY"), 0);
    const DictionaryPlace plain = dictionary_place("");

    EXPECT_EQ(option.directory, "/from/option");
    EXPECT_EQ(environment.directory, "/from/environment");
    EXPECT_TRUE(environment.was_named);
    EXPECT_EQ(plain.directory, "/etc/zu-kp/tags.d");
    EXPECT_FALSE(plain.was_named);
}

} // namespace
