// Opening a segment, as the bytes of the file and the handle tell it.
#include "store/opened_segment.h"
#include "store/segment_file.h"
#include "testing/capture.h"
#include "testing/log_level.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

using namespace kptest;

namespace {

const std::string kZeros(4080, '\0');

mode_t mode_of(const std::string &path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

// The process's umask for as long as the object lives.
class Umask {
  public:
    explicit Umask(mode_t mask) : before_(umask(mask))
    {
    }
    Umask(const Umask &) = delete;
    Umask &operator=(const Umask &) = delete;
    ~Umask()
    {
        (void)umask(before_);
    }

  private:
    mode_t before_;
};

TEST(OpeningASegment, CreatesAFileOf4080BytesWithAllItsDirectories)
{
    const OpenedSegment shm("a/b/c");

    EXPECT_TRUE(std::filesystem::is_directory("/dev/shm/zu-kp/a/b"));
    EXPECT_TRUE(std::filesystem::is_regular_file("/dev/shm/zu-kp/a/b/c"));
    EXPECT_EQ(SegmentFile("a/b/c").size(), 4080);
}

TEST(OpeningASegment, AsAConsumerCreatesTheFileToo)
{
    const OpenedSegment shm("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(SegmentFile("a").size(), 4080);
}

TEST(OpeningASegment, LeavesANewOneZeroButForSemaphoreTimeAndCount)
{
    const OpenedSegment shm("a");
    const SegmentFile file("a");

    EXPECT_EQ(file.u8(at::provider_refs), 1);
    EXPECT_EQ(file.u8(at::consumer_refs), 0);
    EXPECT_EQ(file.bytes(at::writing, 4080 - at::writing), kZeros.substr(at::writing));
}

TEST(OpeningASegment, MakesTheCreationTimeTheLastWriteOfANewOne)
{
    const uint64_t before = kp_shm_get_timestamp_us();
    const OpenedSegment shm("a");
    const uint64_t after = kp_shm_get_timestamp_us();

    const uint64_t created = SegmentFile("a").u64(at::last_write_ts);
    EXPECT_GE(created, before);
    EXPECT_LE(created, after);
    EXPECT_EQ(static_cast<kp_shm_t *>(shm)->last_update_ts, created);
}

TEST(OpeningASegment, MakesTheTimeTheLastWriteOfOneThatNobodyHasOpen)
{
    const SegmentFile file("a");
    file.create();
    file.put_u64(at::last_write_ts, 5);

    const OpenedSegment shm("a");

    EXPECT_EQ(file.u64(at::last_write_ts), static_cast<kp_shm_t *>(shm)->last_update_ts);
}

TEST(OpeningASegment, LeavesTheLastWriteOfOneThatAProviderHasOpen)
{
    const OpenedSegment provider("a");
    const SegmentFile file("a");
    file.put_u64(at::last_write_ts, 5);

    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(file.u64(at::last_write_ts), 5U);
}

TEST(OpeningASegment, LeavesTheLastWriteOfOneThatAConsumerHasOpen)
{
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    const SegmentFile file("a");
    file.put_u64(at::last_write_ts, 5);

    const OpenedSegment provider("a");

    EXPECT_EQ(file.u64(at::last_write_ts), 5U);
}

TEST(OpeningASegment, KeepsTheContentsOfAnExistingOne)
{
    const DeclaredSegment provider("a", KP_TYPE_STRING, 100, 77);
    ASSERT_EQ(kp_shm_write(provider, "hello", 5, 6, 7, 8), 5);
    const SegmentFile file("a");
    const std::string contents = file.bytes(at::writing, 4080 - at::writing);

    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(file.bytes(at::writing, 4080 - at::writing), contents);
}

TEST(OpeningASegment, CountsEachRoleByItself)
{
    const OpenedSegment provider("a", KP_ROLE_PROVIDER);
    const OpenedSegment first_consumer("a", KP_ROLE_CONSUMER);
    const OpenedSegment second_consumer("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 2);
}

TEST(OpeningASegment, CountsNoOtherRole)
{
    const OpenedSegment shm("a", 3);

    EXPECT_EQ(SegmentFile("a").u16(at::provider_refs), 0);
}

TEST(OpeningASegment, WrapsACountOf255ToZero)
{
    const OpenedSegment first("a");
    SegmentFile("a").put_u8(at::provider_refs, 255);

    const OpenedSegment second("a");

    EXPECT_EQ(SegmentFile("a").u16(at::provider_refs), 0);
    SegmentFile("a").put_u8(at::provider_refs, 2);
}

TEST(OpeningASegment, CutsALongerFileTo4080Bytes)
{
    SegmentFile("a").create(10'000);

    const OpenedSegment shm("a");

    EXPECT_EQ(SegmentFile("a").size(), 4080);
}

TEST(OpeningASegment, LengthensAShorterFileTo4080Bytes)
{
    SegmentFile("a").create(1);

    const OpenedSegment shm("a");

    EXPECT_EQ(SegmentFile("a").size(), 4080);
}

TEST(OpeningASegment, ReservesItsPage)
{
    const OpenedSegment shm("a");
    struct stat status {};

    ASSERT_EQ(stat("/dev/shm/zu-kp/a", &status), 0);

    EXPECT_GT(status.st_blocks, 0);
}

TEST(OpeningASegment, KeepsAMappingAndNoDescriptor)
{
    const auto descriptors = open_descriptors();

    const OpenedSegment shm("a");

    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(mapping_count(), 1);
}

TEST(OpeningASegment, MakesFileAndDirectoriesForAllUnderTheUmask)
{
    const Umask none(0);

    const OpenedSegment shm("a/b");

    EXPECT_EQ(mode_of("/dev/shm/zu-kp"), 0777U);
    EXPECT_EQ(mode_of("/dev/shm/zu-kp/a"), 0777U);
    EXPECT_EQ(mode_of("/dev/shm/zu-kp/a/b"), 0666U);
}

TEST(OpeningASegment, ObeysTheUmask)
{
    const Umask strict(027);

    const OpenedSegment shm("a/b");

    EXPECT_EQ(mode_of("/dev/shm/zu-kp/a"), 0750U);
    EXPECT_EQ(mode_of("/dev/shm/zu-kp/a/b"), 0640U);
}

TEST(OpeningASegment, DropsEmptyLevelsOfTheTopic)
{
    const OpenedSegment shm("/a//b");

    EXPECT_EQ(SegmentFile("a/b").u8(at::provider_refs), 1);
}

TEST(OpeningASegment, IsSilentWhenItSucceeds)
{
    const LogLevel everything(KP_LEVEL_ALL);
    StderrCapture log;

    const OpenedSegment shm("a/b");

    EXPECT_EQ(log.text(), "");
}

TEST(OpeningASegment, ReportsANullTopic)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_new(nullptr, KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: kp_shm_new: topic is null\n\033[0m");
}

TEST(OpeningASegment, ReportsAnEmptyTopic)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_new: topic length is 0\n\033[0m");
    EXPECT_FALSE(exists("/dev/shm/zu-kp"));
}

} // namespace
