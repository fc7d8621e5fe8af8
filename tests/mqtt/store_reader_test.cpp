#include "store/store_reader.h"

#include "testing/capture.h"
#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/store_provider.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

using namespace kp::mqtt;
using namespace kptest;
using testing::UnorderedElementsAre;

namespace {

ReadOutcome outcome_of(const std::string &topic)
{
    Sample sample;
    return StoreReader{}.read(topic, sample);
}

std::vector<std::string> all_topics()
{
    std::vector<std::string> topics;
    (void)StoreReader{}.for_each_topic(
        [&topics](const std::string &topic) { topics.push_back(topic); });
    return topics;
}

} // namespace

TEST(StoreReader, ReadsEverythingAboutATopic)
{
    StoreProvider provider("a/b", KP_TYPE_DOUBLE);
    provider.write(bytes_of(21.5), 1000, 3, 900);
    Sample sample;

    ASSERT_EQ(StoreReader{}.read("a/b", sample), ReadOutcome::read);

    Sample expected;
    expected.type = KP_TYPE_DOUBLE;
    expected.max_size = 8;
    expected.extra_info = 7;
    expected.quality = 3;
    expected.providers = 1;
    expected.has_value = true;
    expected.ts = 1000;
    expected.source_ts = 900;
    expected.value = bytes_of(21.5);
    expected.file = sample.file;
    EXPECT_EQ(sample, expected);
    EXPECT_NE(sample.file, 0u);
}

TEST(StoreReader, LeavesNoTrace)
{
    StoreProvider provider("a/b");
    provider.write("value");
    const std::string before = SegmentFile("a/b").all();
    const auto descriptors = open_descriptors();

    EXPECT_EQ(outcome_of("a/b"), ReadOutcome::read);

    EXPECT_EQ(SegmentFile("a/b").all(), before);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(StoreReader, DoesNotKeepATopicAlive)
{
    StoreProvider provider("a/b");
    EXPECT_EQ(outcome_of("a/b"), ReadOutcome::read);
    provider.leave();

    EXPECT_EQ(outcome_of("a/b"), ReadOutcome::missing);
}

TEST(StoreReader, TellsWhyThereIsNoValue)
{
    const SegmentFile waiting("waiting");
    waiting.create();
    const SegmentFile shorter("shorter");
    shorter.create(4079);
    const SegmentFile longer("longer");
    longer.create(4081);
    ASSERT_EQ(mkfifo("/dev/shm/zu-kp/pipe", 0600), 0);

    EXPECT_EQ(outcome_of("waiting"), ReadOutcome::undeclared);
    EXPECT_EQ(outcome_of("none"), ReadOutcome::missing);
    EXPECT_EQ(outcome_of("waiting/below"), ReadOutcome::missing);
    EXPECT_EQ(outcome_of("shorter"), ReadOutcome::refused);
    EXPECT_EQ(outcome_of("longer"), ReadOutcome::refused);
    EXPECT_EQ(outcome_of("pipe"), ReadOutcome::refused);
}

TEST(StoreReader, RefusesCorruptFields)
{
    StoreProvider type("type");
    SegmentFile("type").put_u32(at::value_type, 99);
    StoreProvider size("size");
    size.write("x");
    SegmentFile("size").put_u32(at::written_value_size, 0xffffffff);
    StoreProvider fixed("fixed", KP_TYPE_INT32);
    fixed.write(bytes_of<int32_t>(1));
    SegmentFile("fixed").put_u32(at::written_value_size, 3);

    EXPECT_EQ(outcome_of("type"), ReadOutcome::refused);
    EXPECT_EQ(outcome_of("size"), ReadOutcome::refused);
    EXPECT_EQ(outcome_of("fixed"), ReadOutcome::refused);
}

TEST(StoreReader, ReportsAWriteThatDoesNotEnd)
{
    StoreProvider provider("a");
    provider.write("value");
    SegmentFile("a").put_u8(at::writing, 1);

    EXPECT_EQ(outcome_of("a"), ReadOutcome::busy);
}

TEST(StoreReader, SaysOfAWriteThatDoesNotEndAsWhatTheTagIsDeclared)
{
    StoreProvider provider("a", KP_TYPE_INT32);
    provider.write(bytes_of<int32_t>(1));
    SegmentFile("a").put_u8(at::writing, 1);
    Sample sample;

    ASSERT_EQ(StoreReader{}.read("a", sample), ReadOutcome::busy);

    EXPECT_EQ(sample.type, uint32_t{KP_TYPE_INT32});
    EXPECT_EQ(sample.max_size, 4u);
    EXPECT_EQ(sample.providers, 1u);
    EXPECT_FALSE(sample.has_value);
}

// Each look in vain takes three milliseconds of waiting.
TEST(StoreReader, WaitsOnceForAWriteThatDoesNotEnd)
{
    StoreProvider provider("a");
    provider.write("value");
    SegmentFile("a").put_u8(at::writing, 1);
    const StoreReader reader;
    Sample sample;
    const auto start = std::chrono::steady_clock::now();

    for (int look = 0; look < 3000; ++look)
        (void)reader.read("a", sample);

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

TEST(StoreReader, ReadsATagWhoseWriteHasEndedAfterAll)
{
    StoreProvider provider("a");
    provider.write("value");
    const StoreReader reader;
    Sample sample;
    SegmentFile("a").put_u8(at::writing, 1);
    ASSERT_EQ(reader.read("a", sample), ReadOutcome::busy);

    SegmentFile("a").put_u8(at::writing, 0);

    EXPECT_EQ(reader.read("a", sample), ReadOutcome::read);
    EXPECT_EQ(sample.value, "value");
}

TEST(StoreReader, ListsTopicsAtAnyDepthAndFollowsNoLink)
{
    const SegmentFile shallow("x");
    shallow.create();
    const SegmentFile deep("a/b/c/d/e");
    deep.create();
    std::filesystem::create_symlink("/dev/shm/zu-kp/x", "/dev/shm/zu-kp/link");
    std::filesystem::create_directory_symlink("/dev/shm/zu-kp/a", "/dev/shm/zu-kp/folder");

    EXPECT_THAT(all_topics(), UnorderedElementsAre("x", "a/b/c/d/e"));
}
