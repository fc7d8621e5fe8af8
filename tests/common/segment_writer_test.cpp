#include "common/store/segment_reader.h"
#include "common/store/segment_writer.h"
#include "common/system/file_lock.h"

#include "kp.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

using namespace kp::tool;
using namespace kptest;

namespace {

const Declaration kText{KP_TYPE_STRING, 100, 7};

StoredValue text_value(std::string_view bytes)
{
    return {bytes, KP_TYPE_STRING, 7, 1000, 900, 1};
}

} // namespace

TEST(SegmentWriter, MakesATopicThatTheLibraryReads)
{
    TopicOpener opener;
    Problem problem;

    ASSERT_TRUE(store_segment(opener, "new/topic", kText, text_value("value"), problem));

    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;
    uint64_t ts = 0;
    uint8_t quality = 0;
    uint64_t source_ts = 0;
    uint32_t extra = 0;
    ASSERT_EQ(
        kp_shm_instant_read("new/topic", &value, &type, &size, &ts, &quality, &source_ts, &extra),
        0);
    EXPECT_EQ(std::string(static_cast<char *>(value), size), "value");
    EXPECT_EQ(type, static_cast<uint32_t>(KP_TYPE_STRING));
    EXPECT_EQ(ts, 1000U);
    EXPECT_EQ(quality, 1);
    EXPECT_EQ(source_ts, 900U);
    EXPECT_EQ(extra, 7U);
    EXPECT_EQ(SegmentFile("new/topic").u32(at::max_value_size), 100U);
    EXPECT_EQ(SegmentFile("new/topic").u16(at::provider_refs), 0);
    std::free(value);
}

TEST(SegmentWriter, KeepsCountsAndMaximumOfATopicThatExists)
{
    TopicOpener opener;
    Problem problem;
    ASSERT_TRUE(store_segment(opener, "a", kText, text_value("one"), problem));
    SegmentFile("a").put_u8(at::provider_refs, 2);

    ASSERT_TRUE(store_segment(opener, "a", std::nullopt, text_value("two"), problem));

    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 2);
    EXPECT_EQ(SegmentFile("a").u32(at::max_value_size), 100U);
    EXPECT_EQ(read_topic(opener, "a", problem)->bytes, "two");
}

TEST(SegmentWriter, DeclaresWithoutAValue)
{
    TopicOpener opener;
    Problem problem;
    ASSERT_TRUE(store_segment(opener, "a", kText, text_value("one"), problem));

    ASSERT_TRUE(store_segment(opener, "a", kText, std::nullopt, problem));

    EXPECT_EQ(read_topic(opener, "a", problem)->condition, Condition::empty);
}

TEST(SegmentWriter, KeepsNothingMappedOrOpen)
{
    const int mapped = mapping_count();
    const auto opened = open_descriptors();

    for (int index = 0; index < 20; ++index) {
        TopicOpener opener;
        Problem problem;
        EXPECT_TRUE(
            store_segment(opener, "t" + std::to_string(index), kText, text_value("x"), problem));
    }

    EXPECT_EQ(mapping_count(), mapped);
    EXPECT_EQ(open_descriptors(), opened);
}

TEST(SegmentWriter, FollowsNoLinkInTheStore)
{
    std::filesystem::create_directories("/run/elsewhere");
    std::filesystem::create_directories("/dev/shm/zu-kp");
    std::filesystem::create_directory_symlink("/run/elsewhere", "/dev/shm/zu-kp/link");
    std::filesystem::create_symlink("/run/elsewhere/file", "/dev/shm/zu-kp/file");
    TopicOpener opener;
    Problem directory;
    Problem file;

    EXPECT_FALSE(store_segment(opener, "link/a", kText, text_value("x"), directory));
    EXPECT_FALSE(store_segment(opener, "file", kText, text_value("x"), file));

    EXPECT_EQ(directory.kind, kInvalid);
    EXPECT_EQ(file.kind, kInvalid);
    EXPECT_TRUE(std::filesystem::is_empty("/run/elsewhere"));
    std::filesystem::remove_all("/run/elsewhere");
}

TEST(SegmentWriter, RefusesWhatIsNoSegmentAndLeavesItAlone)
{
    SegmentFile("short").create(76);
    TopicOpener opener;
    Problem problem;

    EXPECT_FALSE(store_segment(opener, "short", kText, text_value("x"), problem));

    EXPECT_EQ(problem.kind, kInvalid);
    EXPECT_EQ(std::filesystem::file_size("/dev/shm/zu-kp/short"), 76U);
}

TEST(FileLock, ExcludesASecondDescriptorUntilItIsGivenBack)
{
    SegmentFile("a").create();
    const kp::UniqueFd one(open("/dev/shm/zu-kp/a", O_RDONLY | O_CLOEXEC));
    const kp::UniqueFd other(open("/dev/shm/zu-kp/a", O_RDONLY | O_CLOEXEC));

    {
        const FileLock first(one);
        EXPECT_TRUE(first.is_held());
        EXPECT_FALSE(FileLock(other).is_held());
    }

    EXPECT_TRUE(FileLock(other).is_held());
}
