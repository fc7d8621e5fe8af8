// Closing a segment: what becomes of its counts, its file and its handle.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <gtest/gtest.h>

using namespace kptest;

namespace {

TEST(ClosingASegment, LeavesTheFileWhileAnotherHandleIsOpen)
{
    OpenedSegment provider("a/b");
    const OpenedSegment consumer("a/b", KP_ROLE_CONSUMER);

    provider.close();

    EXPECT_EQ(SegmentFile("a/b").u8(at::provider_refs), 0);
    EXPECT_EQ(SegmentFile("a/b").u8(at::consumer_refs), 1);
}

TEST(ClosingASegment, RemovesTheFileOfTheLastHandleButNotItsDirectories)
{
    OpenedSegment provider("a/b");
    OpenedSegment consumer("a/b", KP_ROLE_CONSUMER);

    provider.close();
    consumer.close();

    EXPECT_FALSE(SegmentFile("a/b").exists());
    EXPECT_TRUE(exists("/dev/shm/zu-kp/a"));
}

TEST(ClosingASegment, UnmapsItAndFreesTheHandle)
{
    const long blocks = live_blocks();
    OpenedSegment shm("a");

    shm.close();

    EXPECT_EQ(mapping_count(), 0);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(ClosingASegment, UnderAnUncountedRoleChangesNoCount)
{
    const OpenedSegment provider("a");
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    kp_shm_t *uncounted = kp_shm_new("a", 3);

    EXPECT_EQ(kp_shm_destroy(uncounted, "a", 3), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 1);
}

TEST(ClosingASegment, UnderAnUncountedRoleRemovesAFileWithoutCounts)
{
    kp_shm_t *uncounted = kp_shm_new("a", 3);

    EXPECT_EQ(kp_shm_destroy(uncounted, "a", 3), 0);

    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(ClosingASegment, OnceTooOftenWrapsTheCountTo255AndKeepsTheFile)
{
    kp_shm_t *uncounted = kp_shm_new("a", 3);

    EXPECT_EQ(kp_shm_destroy(uncounted, "a", KP_ROLE_PROVIDER), 0);

    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 255);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 0);
}

TEST(ClosingASegment, AddsTheCountsUpWithoutWrapping)
{
    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);
    SegmentFile("a").put_u8(at::provider_refs, 2);
    SegmentFile("a").put_u8(at::consumer_refs, 255);

    EXPECT_EQ(kp_shm_destroy(shm, "a", KP_ROLE_PROVIDER), 0);

    EXPECT_TRUE(SegmentFile("a").exists());
}

TEST(ClosingASegment, LetsTheNextOpenBeginANewOne)
{
    DeclaredSegment first("a");
    first.close();

    const OpenedSegment second("a", KP_ROLE_CONSUMER);

    EXPECT_EQ(SegmentFile("a").u8(at::flags), 0);
}

TEST(ClosingASegment, ReportsANullTopicAndClosesNothing)
{
    const OpenedSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_destroy(shm, nullptr, KP_ROLE_PROVIDER), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_destroy: topic is null"});
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
    EXPECT_EQ(mapping_count(), 1);
}

TEST(ClosingASegment, ReportsAnEmptyTopicAndClosesNothing)
{
    const OpenedSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_destroy(shm, "", KP_ROLE_PROVIDER), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_destroy: topic length is 0"});
    EXPECT_EQ(SegmentFile("a").u8(at::provider_refs), 1);
    EXPECT_EQ(mapping_count(), 1);
}

TEST(ClosingASegment, ReportsANullHandleAndSucceeds)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_destroy(nullptr, "a", KP_ROLE_PROVIDER), 0);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_destroy: shm is null"});
}

TEST(ClosingASegment, LooksAtTheTopicBeforeTheHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_destroy(nullptr, nullptr, KP_ROLE_PROVIDER), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_destroy: topic is null"});
}

} // namespace
