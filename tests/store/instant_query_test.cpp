// The questions about a topic by its name alone, and what all instant readers have in common.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/log_level.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <map>
#include <string>

using namespace kptest;

namespace {

// Leaves a topic that nobody has open, with every field set.
void leave_hello()
{
    ASSERT_EQ(kp_shm_instant_write("a", "hello", KP_TYPE_STRING, 5, 11, 12, 13, 77), 0);
    SegmentFile("a").put_u32(at::max_value_size, 100);
}

class InstantQueryFault : public LeavesNothingBehind {
  protected:
    InstantQueryFault()
    {
        leave_hello();
    }
};

TEST(InstantValueInfo, GivesTypeSizeAndExtraInformation)
{
    leave_hello();
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t extra = 0;

    EXPECT_EQ(kp_shm_instant_get_value_info("a", &type, &size, &extra), 0);
    EXPECT_EQ(type, 11U);
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(extra, 77U);
}

TEST(InstantValueInfo, TakesNullForEveryOutput)
{
    leave_hello();

    EXPECT_EQ(kp_shm_instant_get_value_info("a", nullptr, nullptr, nullptr), 0);
}

TEST(InstantMaxValueSize, IsTheDeclaredOne)
{
    leave_hello();
    uint32_t size = 0;

    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", &size), 0);
    EXPECT_EQ(size, 100U);
}

TEST(InstantMaxValueSize, TakesNullForItsOutput)
{
    leave_hello();

    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), 0);
}

TEST(ReferenceCount, CountsOpenHandlesOfEachRole)
{
    const DeclaredSegment provider("a");
    const OpenedSegment first("a", KP_ROLE_CONSUMER);
    const OpenedSegment second("a", KP_ROLE_CONSUMER);
    uint32_t providers = 0;
    uint32_t consumers = 0;

    EXPECT_EQ(kp_shm_get_reference_count("a", &providers, &consumers), 0);
    EXPECT_EQ(providers, 1U);
    EXPECT_EQ(consumers, 2U);
}

TEST(ReferenceCount, IsNotChangedByInstantCalls)
{
    const DeclaredSegment provider("a");
    uint32_t providers = 0;
    uint32_t consumers = 9;

    ASSERT_EQ(kp_shm_instant_write("a", "abcd", KP_TYPE_UINT32, 4, 1, 1, 1, 1), 0);
    ASSERT_EQ(kp_shm_instant_get_value_info("a", nullptr, nullptr, nullptr), 0);

    EXPECT_EQ(kp_shm_get_reference_count("a", &providers, &consumers), 0);
    EXPECT_EQ(providers, 1U);
    EXPECT_EQ(consumers, 0U);
}

TEST(ReferenceCount, TakesNullForEveryOutput)
{
    const DeclaredSegment provider("a");

    EXPECT_EQ(kp_shm_get_reference_count("a", nullptr, nullptr), 0);
}

TEST(ReferenceCount, OfAnUndeclaredTopicLogsAfterItIsUnmapped)
{
    const OpenedSegment provider("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    std::string logged_before_unmapping = "?";
    StderrCapture log;
    Before unmapping{Call::munmap, [&] { logged_before_unmapping = log.text(); }};

    EXPECT_EQ(kp_shm_get_reference_count("a", nullptr, nullptr), -1);
    EXPECT_EQ(logged_before_unmapping, "");
    EXPECT_EQ(log.lines(), Lines{"DEBUG: kp_shm_get_reference_count: " + kUndeclared});
}

TEST(InstantReaders, OfAnUndeclaredTopicLogBeforeItIsUnmapped)
{
    const OpenedSegment provider("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    Lines logged_before_unmapping;
    StderrCapture log;
    Before unmapping{Call::munmap, [&] { logged_before_unmapping = log.lines(); }};

    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_EQ(logged_before_unmapping,
              Lines{"DEBUG: kp_shm_instant_get_max_value_size: " + kUndeclared});
}

TEST(InstantReaders, OfAnUndeclaredTopicFailWithADebugLineEach)
{
    const OpenedSegment shm("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    uint32_t number = 9;
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_get_value_info("a", &number, &number, &number), -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", &number), -1);
    EXPECT_EQ(kp_shm_get_reference_count("a", &number, &number), -1);
    EXPECT_EQ(log.lines(), (Lines{"DEBUG: kp_shm_instant_get_value_info: " + kUndeclared,
                                  "DEBUG: kp_shm_instant_get_max_value_size: " + kUndeclared,
                                  "DEBUG: kp_shm_get_reference_count: " + kUndeclared}));
    EXPECT_EQ(number, 9U);
}

TEST(InstantReaders, OfATopicWithoutAFilePrintOnStandardOutput)
{
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(kp_shm_instant_get_value_info("a", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_EQ(kp_shm_get_reference_count("a", nullptr, nullptr), -1);
    EXPECT_EQ(output.text(), "access failed\naccess failed\naccess failed\n");
    EXPECT_EQ(log.text(), "");
}

TEST(InstantReaders, NeedATopic)
{
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_get_value_info(nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size(nullptr, nullptr), -1);
    EXPECT_EQ(kp_shm_get_reference_count(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_instant_get_value_info: topic is null",
                                  "ERROR: kp_shm_instant_get_max_value_size: topic is null",
                                  "ERROR: kp_shm_get_reference_count: topic is null"}));
}

TEST(InstantReaders, OfAnEmptyTopicMeetTheStoresDirectory)
{
    const OpenedSegment shm("a");
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_get_max_value_size("", nullptr), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_get_max_value_size: "
                                 "fd '/dev/shm/zu-kp/' create fail"});
}

TEST_F(InstantQueryFault, OfTheMappingIsReportedUnderTheirNames)
{
    StderrCapture log;
    FailFrom fault{Call::mmap, 1, ENOMEM};

    EXPECT_EQ(kp_shm_instant_get_value_info("a", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_EQ(kp_shm_get_reference_count("a", nullptr, nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_instant_get_value_info: "
                                  "instant read mmap: Cannot allocate memory",
                                  "ERROR: kp_shm_instant_get_max_value_size: "
                                  "instant read mmap: Cannot allocate memory",
                                  "ERROR: kp_shm_get_reference_count: "
                                  "instant read mmap: Cannot allocate memory"}));
}

TEST_F(InstantQueryFault, OfTheUnmappingIsReportedAndTheResultKept)
{
    StderrCapture log;
    FailFrom fault{Call::munmap, 1, EINVAL};

    EXPECT_EQ(kp_shm_instant_get_value_info("a", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), 0);
    EXPECT_EQ(kp_shm_get_reference_count("a", nullptr, nullptr), 0);
    EXPECT_EQ(log.lines(),
              (Lines{"ERROR: kp_shm_instant_get_value_info: munmap: Invalid argument",
                     "ERROR: kp_shm_instant_get_max_value_size: munmap: Invalid argument",
                     "ERROR: kp_shm_get_reference_count: munmap: Invalid argument"}));
}

} // namespace
