// A file that an open has created and cannot make a segment of is not left behind as a topic.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/mounts.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <gtest/gtest.h>

using namespace kptest;

namespace {

int32_t write_instantly(const char *topic)
{
    return kp_shm_instant_write(topic, "v", KP_TYPE_STRING, 1, 1, 1, 1, 1);
}

class AFailedOpen : public LeavesNothingBehind {
  protected:
    StderrCapture log_;
};

TEST_F(AFailedOpen, OnAFullFileSystemLeavesNoTopic)
{
    const TinyTmpfs store("/dev/shm/zu-kp", 4);
    store.fill();

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(write_instantly("b"), -1);

    EXPECT_FALSE(SegmentFile("a").exists());
    EXPECT_FALSE(SegmentFile("b").exists());
    EXPECT_EQ(log_.lines(),
              (Lines{"ERROR: kp_new_shm: ftruncate: No space left on device",
                     "ERROR: kp_shm_instant_write: ftruncate: No space left on device"}));
}

TEST_F(AFailedOpen, ForItsSizeLeavesNoTopic)
{
    FailNth handle{Call::ftruncate, 1};
    FailNth instant{Call::ftruncate, 2};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(write_instantly("b"), -1);

    EXPECT_FALSE(SegmentFile("a").exists());
    EXPECT_FALSE(SegmentFile("b").exists());
}

TEST_F(AFailedOpen, LeavesAFileThatWasThereBefore)
{
    SegmentFile("a").create();
    FailFrom fault{Call::fallocate, 1};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(write_instantly("a"), -1);

    EXPECT_TRUE(SegmentFile("a").exists());
}

TEST_F(AFailedOpen, LeavesAFileThatSomebodyElseHasOpenedMeanwhile)
{
    FailNext fault{Call::fallocate};
    Before reserving{Call::fallocate, [] { SegmentFile("a").put_u8(at::consumer_refs, 1); }};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);

    EXPECT_TRUE(SegmentFile("a").exists());
}

TEST_F(AFailedOpen, LeavesAFileThatSomebodyElseHasWrittenMeanwhile)
{
    FailNext fault{Call::fallocate};
    Before reserving{Call::fallocate, [] { SegmentFile("a").put_u8(at::flags, kValidFlag); }};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);

    EXPECT_TRUE(SegmentFile("a").exists());
}

TEST_F(AFailedOpen, LeavesAnotherFileThatHasTakenThePlace)
{
    FailNext fault{Call::fallocate};
    Before reserving{Call::fallocate, [] {
                         SegmentFile("a").remove();
                         SegmentFile("a").create(7);
                     }};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);

    EXPECT_EQ(SegmentFile("a").size(), 7);
}

TEST_F(AFailedOpen, OfTheMappingLeavesTheFile)
{
    FailNext fault{Call::mmap};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);

    EXPECT_TRUE(SegmentFile("a").exists());
}

} // namespace
