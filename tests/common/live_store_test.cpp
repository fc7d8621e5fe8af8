#include "common/store/fault_guard.h"
#include "common/store/live_store.h"

#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/store_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>

using namespace kp::tool;
using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A live store of everything, and what each look at it finds.
class Watched {
  public:
    explicit Watched(const LiveStore::Limits &limits = LiveStore::system_limits())
        : store_(everything_, limits)
    {
        catch_bus_errors();
    }
    std::vector<std::string> look()
    {
        std::vector<std::string> changed;
        store_.refresh();
        store_.for_each_change([&changed](const LiveTopic &live, bool is_new) {
            changed.push_back((is_new ? "new " : "") + live.topic);
        });
        return changed;
    }
    LiveStore &store()
    {
        return store_;
    }

  private:
    Selection everything_;
    LiveStore store_;
};

} // namespace

TEST(LiveStore, FindsTopicsAndTheirWrites)
{
    StoreProvider a("a");
    StoreProvider b("dir/b");
    a.write("1", 1);
    b.write("1", 1);
    Watched watched;

    EXPECT_THAT(watched.look(), ElementsAre("new a", "new dir/b"));
    EXPECT_THAT(watched.look(), IsEmpty());
    b.write("2", 2);
    EXPECT_THAT(watched.look(), ElementsAre("dir/b"));
}

TEST(LiveStore, FindsWhatComesAndForgetsWhatGoes)
{
    Watched watched;
    EXPECT_THAT(watched.look(), IsEmpty());
    StoreProvider provider("dir/a");
    EXPECT_THAT(watched.look(), ElementsAre("new dir/a"));

    provider.leave();

    EXPECT_TRUE(
        wait_until([&] { return watched.look().empty() && watched.store().topics().empty(); }));
    EXPECT_THAT(watched.store().take_problems(), IsEmpty());
}

TEST(LiveStore, FollowsATopicThatWasMadeAnew)
{
    Watched watched;
    StoreProvider old("a");
    old.write("old", 1);
    EXPECT_THAT(watched.look(), ElementsAre("new a"));
    ASSERT_EQ(unlink(segment_file_path("a").c_str()), 0);
    StoreProvider anew("a");
    anew.write("anew", 1);

    EXPECT_THAT(watched.look(), ElementsAre("new a"));

    EXPECT_EQ(watched.store().topics().at("a").reader.read()->bytes, "anew");
}

TEST(LiveStore, ReportsAWriteThatDoesNotEndOnce)
{
    StoreProvider provider("a");
    provider.write("value");
    SegmentFile("a").put_u8(at::writing, 1);
    Watched watched;

    for (int look = 0; look < 4; ++look)
        EXPECT_THAT(watched.look(), IsEmpty());

    const auto problems = watched.store().take_problems();
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].text, "a: a write has begun and does not end (its writer may have died)");
}

TEST(LiveStore, DropsAFileThatIsCutShortAndReportsIt)
{
    const SegmentFile file("a");
    file.create();
    Watched watched;
    EXPECT_THAT(watched.look(), ElementsAre("new a"));
    ASSERT_EQ(truncate(segment_file_path("a").c_str(), 0), 0);

    EXPECT_THAT(watched.look(), IsEmpty());

    EXPECT_THAT(watched.store().topics(), IsEmpty());
    EXPECT_EQ(watched.store().refused_count(), 1u);
}

TEST(LiveStore, FollowsMoreTopicsThanItMayMapOrKeepOpen)
{
    std::vector<std::unique_ptr<StoreProvider>> topics;
    for (const char *name : {"a", "b", "c", "d", "e", "f"}) {
        topics.push_back(std::make_unique<StoreProvider>(name));
        topics.back()->write("1", 1);
    }
    const int mapped = mapping_count();
    const std::size_t opened = open_descriptors().size();
    Watched watched({.mappings = 2, .descriptors = 2});

    EXPECT_EQ(watched.look().size(), 6U);
    EXPECT_EQ(mapping_count() - mapped, 2);
    EXPECT_LE(open_descriptors().size(), opened + 3); // two topics and a directory
    for (const auto &topic : topics)
        topic->write("2", 2);
    EXPECT_THAT(watched.look(), ElementsAre("a", "b", "c", "d", "e", "f"));
    topics.pop_back();
    EXPECT_THAT(watched.look(), IsEmpty());
    EXPECT_EQ(watched.store().topics().size(), 5U);
}

TEST(LiveStore, BringsNoWriteAgainThatWasReadAfterALook)
{
    StoreProvider a("a");
    a.write("1", 1);
    Selection everything;
    LiveStore store(everything);
    catch_bus_errors();
    std::vector<std::string> read;
    const auto look = [&] {
        store.refresh();
        store.for_each_change([&](LiveTopic &live, bool) {
            if (read.size() == 1)
                a.write("3", 3); // between the look and the reading
            read.push_back(live.read()->bytes);
        });
    };

    look();
    a.write("2", 2);
    look();
    look();

    EXPECT_THAT(read, ElementsAre("1", "3"));
}
