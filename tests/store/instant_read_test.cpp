// Reading a topic by its name alone.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/log_level.h"
#include "testing/mounts.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

using namespace kptest;

namespace {

// All that an instant read gives. It is preset to what no test writes, and frees the value.
struct ReadValue {
    ReadValue() = default;
    ReadValue(const ReadValue &) = delete;
    ReadValue &operator=(const ReadValue &) = delete;
    ~ReadValue()
    {
        if (value != &unset)
            std::free(value);
    }

    int32_t read(const char *topic)
    {
        return kp_shm_instant_read(topic, &value, &value_type, &size, &timestamp, &quality,
                                   &source_ts, &extra_info);
    }
    std::string text() const
    {
        return {static_cast<const char *>(value), size};
    }

    char unset = 0;
    void *value = &unset;
    uint32_t value_type = 91;
    uint32_t size = 92;
    uint64_t timestamp = 93;
    uint8_t quality = 94;
    uint64_t source_ts = 95;
    uint32_t extra_info = 96;
};

void expect_untouched(const ReadValue &value)
{
    EXPECT_EQ(value.value, &value.unset);
    EXPECT_EQ(value.value_type, 91U);
    EXPECT_EQ(value.size, 92U);
    EXPECT_EQ(value.timestamp, 93U);
    EXPECT_EQ(value.quality, 94U);
    EXPECT_EQ(value.source_ts, 95U);
    EXPECT_EQ(value.extra_info, 96U);
}

// Leaves a topic with every field set.
void write_hello()
{
    const DeclaredSegment shm("kept", KP_TYPE_STRING, 100, 77);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 11, 12, 13), 5);
    std::filesystem::copy_file(segment_file_path("kept"), segment_file_path("a"));
}

class InstantReadFault : public LeavesNothingBehind {
  protected:
    InstantReadFault()
    {
        write_hello();
    }
};

TEST(InstantRead, GivesTheValueAndAllThatBelongsToIt)
{
    write_hello();
    ReadValue value;

    EXPECT_EQ(value.read("a"), 0);
    EXPECT_EQ(value.text(), "hello");
    EXPECT_EQ(value.value_type, 11U);
    EXPECT_EQ(value.timestamp, 11U);
    EXPECT_EQ(value.quality, 12);
    EXPECT_EQ(value.source_ts, 13U);
    EXPECT_EQ(value.extra_info, 77U);
}

TEST(InstantRead, TakesNullForItsOptionalOutputs)
{
    write_hello();
    ReadValue value;

    EXPECT_EQ(kp_shm_instant_read("a", &value.value, &value.value_type, &value.size, nullptr,
                                  nullptr, nullptr, nullptr),
              0);
    EXPECT_EQ(value.text(), "hello");
}

TEST(InstantRead, NeedsItsOtherOutputs)
{
    write_hello();
    ReadValue value;
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_read("a", nullptr, &value.value_type, &value.size, nullptr, nullptr,
                                  nullptr, nullptr),
              -1);
    EXPECT_EQ(kp_shm_instant_read("a", &value.value, nullptr, &value.size, nullptr, nullptr,
                                  nullptr, nullptr),
              -1);
    EXPECT_EQ(kp_shm_instant_read("a", &value.value, &value.value_type, nullptr, nullptr, nullptr,
                                  nullptr, nullptr),
              -1);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_shm_instant_read: value is null",
                                  "ERROR: kp_shm_instant_read: value type is null",
                                  "ERROR: kp_shm_instant_read: value size is null"}));
    expect_untouched(value);
}

TEST(InstantRead, NeedsATopic)
{
    ReadValue value;
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(value.read(nullptr), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_read: topic is null"});
    EXPECT_EQ(output.text(), "");
    expect_untouched(value);
}

TEST(InstantRead, OfATopicWithoutAFilePrintsOnStandardOutputAndLogsNothing)
{
    const LogLevel everything(KP_LEVEL_ALL);
    ReadValue value;
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(output.text(), "access failed\n");
    EXPECT_EQ(log.text(), "");
    expect_untouched(value);
}

TEST(InstantRead, OfATopicWithoutAFilePrintsWhateverTheLogLevel)
{
    const LogLevel off(KP_LEVEL_OFF);
    ReadValue value;
    StdoutCapture output;

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(output.text(), "access failed\n");
}

TEST(InstantRead, MakesNoFile)
{
    ReadValue value;
    StdoutCapture output;

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_FALSE(exists("/dev/shm/zu-kp"));
}

TEST(InstantRead, OfAnUndeclaredTopicFailsWithADebugLine)
{
    const OpenedSegment shm("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    ReadValue value;
    StderrCapture log;

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[92mDEBUG: kp_shm_instant_read: " + kUndeclared + "\n\033[0m");
    expect_untouched(value);
}

TEST(InstantRead, OfAFixedSizeGivesZerosBeforeTheFirstWrite)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);
    ReadValue value;

    EXPECT_EQ(value.read("a"), 0);
    EXPECT_EQ(value.text(), std::string(4, '\0'));
}

TEST(InstantRead, OfAVariableSizeGivesAnEmptyBufferBeforeTheFirstWrite)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    ReadValue value;

    EXPECT_EQ(value.read("a"), 0);
    EXPECT_EQ(value.size, 0U);
    EXPECT_NE(value.value, &value.unset);
}

TEST(InstantRead, DoesNotWaitForAWriter)
{
    write_hello();
    SegmentFile("a").put_u8(at::writing, 1);
    const CountCalls pauses(Call::usleep);
    ReadValue value;

    EXPECT_EQ(value.read("a"), 0);
    EXPECT_EQ(value.text(), "hello");
    EXPECT_EQ(pauses.count(), 0);
}

TEST(InstantRead, ChangesNothingInTheSegment)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 100);
    const std::string before = SegmentFile("a").all();
    ReadValue value;

    EXPECT_EQ(value.read("a"), 0);
    EXPECT_EQ(SegmentFile("a").all(), before);
}

TEST(InstantRead, KeepsNeitherDescriptorNorMapping)
{
    write_hello();
    const auto descriptors = open_descriptors();
    ReadValue value;

    EXPECT_EQ(value.read("a"), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(mapping_count(), 0);
}

TEST(InstantRead, HandsItsBufferToTheCallerAndNothingElse)
{
    write_hello();
    const long blocks = live_blocks();
    ReadValue value;

    EXPECT_EQ(value.read("a"), 0);
    EXPECT_EQ(live_blocks(), blocks + 1);
}

TEST_F(InstantReadFault, OfTheFileIsReportedWithThePath)
{
    ReadValue value;
    StderrCapture log;
    FailNext fault{Call::syscall, EMFILE};

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: kp_shm_instant_read: "
                                               "fd '/dev/shm/zu-kp/a' create fail\n\033[0m");
    expect_untouched(value);
}

TEST_F(InstantReadFault, OfAFileWithoutAPageIsNoFatalSignalOnAFullFileSystem)
{
    const TinyTmpfs store("/dev/shm/zu-kp", 4);
    SegmentFile("a").create();
    store.fill();
    const LogLevel debug(KP_LEVEL_DEBUG);
    ReadValue value;
    StderrCapture log;

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(log.lines(), Lines{"DEBUG: kp_shm_instant_read: " + kUndeclared});
}

TEST_F(InstantReadFault, OfAFileThatVanishesBeforeItIsOpenedIsThatOfAMissingOne)
{
    ReadValue value;
    StderrCapture log;
    StdoutCapture output;
    Before opening{Call::syscall, [] { SegmentFile("a").remove(); }};

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(output.text(), "access failed\n");
}

TEST_F(InstantReadFault, OfTheMappingIsReported)
{
    ReadValue value;
    StderrCapture log;
    FailNext fault{Call::mmap, ENOMEM};

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_instant_read: "
              "instant read mmap: Cannot allocate memory\n\033[0m");
    expect_untouched(value);
}

TEST_F(InstantReadFault, OfTheMappingIsReportedWithItsOwnErrorWhenTheClosingFailsToo)
{
    ReadValue value;
    StderrCapture log;
    FailNext mapping{Call::mmap, ENOMEM};
    FailNext closing{Call::close, EIO};

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_shm_instant_read: instant read mmap: Cannot allocate memory"});
}

TEST_F(InstantReadFault, OfTheBufferLeavesNullForItAndTheOutputsBeforeItFilled)
{
    ReadValue value;
    StderrCapture log;
    FailNext fault{Call::malloc, ENOMEM};

    EXPECT_EQ(value.read("a"), -1);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_instant_read: malloc: Cannot allocate memory\n\033[0m");
    EXPECT_EQ(value.value, nullptr);
    EXPECT_EQ(value.size, 5U);
    EXPECT_EQ(value.timestamp, 11U);
    EXPECT_EQ(value.value_type, 11U);
    EXPECT_EQ(value.extra_info, 77U);
    EXPECT_EQ(value.quality, 94);
    EXPECT_EQ(value.source_ts, 95U);
}

TEST_F(InstantReadFault, OfTheUnmappingIsReportedAndTheResultKept)
{
    ReadValue value;
    StderrCapture log;
    FailNext fault{Call::munmap, EINVAL};

    EXPECT_EQ(value.read("a"), 0);
    expect_a_kept_block();
    EXPECT_EQ(value.text(), "hello");
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_instant_read: munmap: Invalid argument\n\033[0m");
}

} // namespace
