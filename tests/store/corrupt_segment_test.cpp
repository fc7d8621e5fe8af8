// Segments that hold, or come to hold, what no provider would write: nothing outside the value area
// and the caller's buffer is ever touched or told of.
#include "layout/segment.h"
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/log_level.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <array>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace kptest;

namespace {

constexpr uint32_t kValueArea = 4004;

// A buffer whose end lies before a page that cannot be touched.
class GuardedBuffer {
  public:
    explicit GuardedBuffer(std::size_t size) : size_(size)
    {
        memory_ = static_cast<char *>(
            mmap(nullptr, 2 * kRoom, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_EQ(mprotect(memory_ + kRoom, kRoom, PROT_NONE), 0);
    }
    GuardedBuffer(const GuardedBuffer &) = delete;
    GuardedBuffer &operator=(const GuardedBuffer &) = delete;
    ~GuardedBuffer()
    {
        (void)munmap(memory_, 2 * kRoom);
    }

    char *data() const
    {
        return memory_ + kRoom - size_;
    }

  private:
    static constexpr std::size_t kRoom = 65'536;

    std::size_t size_;
    char *memory_;
};

struct FreeValue {
    void operator()(void *value) const
    {
        std::free(value);
    }
};

// The result of an instant read that gives value and size.
struct InstantRead {
    int32_t result = 0;
    uint32_t size = 0;
    std::unique_ptr<void, FreeValue> value;
};

InstantRead read_instantly(const std::string &topic)
{
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;
    const int32_t result = kp_shm_instant_read(topic.c_str(), &value, &type, &size, nullptr,
                                               nullptr, nullptr, nullptr);
    return {result, size, std::unique_ptr<void, FreeValue>(value)};
}

void write_sizes(const SegmentFile &file, const std::vector<uint32_t> &sizes, int rounds)
{
    for (int round = 0; round < rounds; ++round)
        for (const uint32_t size : sizes)
            file.put_u32(at::written_value_size, size);
}

// Reads again and again; the largest result, or more than the buffer when a read told of more.
int32_t largest_read(kp_shm_t *shm, const GuardedBuffer &buffer, uint32_t size, int rounds)
{
    int32_t largest = 0;
    for (int round = 0; round < rounds; ++round)
        largest =
            std::max(largest, kp_shm_read(shm, buffer.data(), size, nullptr, nullptr, nullptr));
    return largest;
}

TEST(ACorruptSize, IsReadAsNoMoreThanTheValueArea)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    SegmentFile("a").put_u32(at::written_value_size, UINT32_MAX);
    const GuardedBuffer buffer(kValueArea);

    EXPECT_EQ(kp_shm_read(shm, buffer.data(), UINT32_MAX, nullptr, nullptr, nullptr), 4004);
}

TEST(ACorruptSize, IsRefusedForASmallerBuffer)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    SegmentFile("a").put_u32(at::written_value_size, 5000);
    const GuardedBuffer buffer(4999);
    StderrCapture log;

    EXPECT_EQ(kp_shm_read(shm, buffer.data(), 4999, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(log.lines(),
              Lines{"WARN: kp_shm_read: value_buffer_size(4999) < written_value_size(5000)"});
}

TEST(ACorruptSize, IsReadInstantlyAsNoMoreThanTheValueArea)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    SegmentFile("a").put_u32(at::written_value_size, UINT32_MAX);

    const InstantRead read = read_instantly("a");

    EXPECT_EQ(read.result, 0);
    EXPECT_EQ(read.size, kValueArea);
    EXPECT_NE(read.value, nullptr);
}

TEST(ASizeThatGrowsDuringTheRead, IsCutToTheBuffer)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), 5);
    const SegmentFile file("a");
    file.put_u8(at::writing, 1);
    const GuardedBuffer buffer(5);
    Before growing{Call::usleep, [&file] {
                       file.put_u32(at::written_value_size, 4000);
                       file.put_u8(at::writing, 0);
                   }};

    EXPECT_EQ(kp_shm_read(shm, buffer.data(), 5, nullptr, nullptr, nullptr), 5);
    EXPECT_EQ(std::string(buffer.data(), 5), "hello");
}

TEST(ASizeThatGrowsDuringTheRead, NeverMakesItTouchMoreThanTheBuffer)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    ASSERT_EQ(kp_shm_write(shm, "h", 1, 1, 1, 1), 1);
    const SegmentFile file("a");
    const GuardedBuffer buffer(100);

    // The last size that is written can be read, so some reads succeed in any order of the threads.
    std::thread writer(write_sizes, std::cref(file), std::vector<uint32_t>{UINT32_MAX, 1}, 20'000);
    const int32_t largest = largest_read(shm, buffer, 100, 20'000);
    writer.join();

    EXPECT_GE(largest, 1);
    EXPECT_LE(largest, 100);
    EXPECT_EQ(kp_shm_read(shm, buffer.data(), 100, nullptr, nullptr, nullptr), 1);
}

TEST(ASizeThatShrinksDuringTheRead, IsReadAsItIsThen)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), 5);
    const SegmentFile file("a");
    file.put_u8(at::writing, 1);
    std::string buffer = ".....";
    Before shrinking{Call::usleep, [&file] {
                         file.put_u32(at::written_value_size, 2);
                         file.put_u8(at::writing, 0);
                     }};

    EXPECT_EQ(kp_shm_read(shm, buffer.data(), 5, nullptr, nullptr, nullptr), 2);
    EXPECT_EQ(buffer, "he...");
}

TEST(ASizeThatGrowsDuringAnInstantRead, DoesNotOutgrowTheBuffer)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 1, 1, 1), 5);
    Before growing{Call::malloc, [] { SegmentFile("a").put_u32(at::written_value_size, 4000); }};

    const InstantRead read = read_instantly("a");

    EXPECT_EQ(read.size, 5U);
    EXPECT_EQ(std::string(static_cast<char *>(read.value.get()), 5), "hello");
}

TEST(ACorruptMaximum, LetsNoWriteOutOfTheValueArea)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 4000);
    SegmentFile("a").put_u32(at::max_value_size, UINT32_MAX);
    const std::string value(5000, 'x');
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, value.data(), 4005, 1, 1, 1), -1);
    EXPECT_EQ(kp_shm_write(shm, value.data(), 4004, 1, 1, 1), 4004);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(4005) > max_value_size(4004)"});
}

TEST(ACorruptMaximum, OfAFixedSizeLetsNoWriteOutOfTheValueAreaEither)
{
    const DeclaredSegment shm("a", KP_TYPE_UINT32, 4);
    SegmentFile("a").put_u32(at::max_value_size, 5000);
    const std::string value(5000, 'x');
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, value.data(), 5000, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(5000) > max_value_size(4004)"});
}

TEST(ACorruptType, IsTakenForAFixedSize)
{
    const DeclaredSegment shm("a", KP_TYPE_STRING, 4);
    SegmentFile("a").put_u32(at::value_type, UINT32_MAX);
    StderrCapture log;

    EXPECT_EQ(kp_shm_write(shm, "abcd", 4, 1, 1, 1), 4);
    EXPECT_EQ(kp_shm_write(shm, "abc", 3, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"WARN: kp_shm_check_written_value_size: "
                                 "written_value_size(3) != max_value_size(4)"});
}

TEST(AnInstantWriteBeyondTheValueArea, IsRefused)
{
    const std::string value(5000, 'x');
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_write("a", value.data(), KP_TYPE_RAW, 4005, 1, 1, 1, 1), -1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_write: value size is invalid"});
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST(AnInstantWriteOfTheWholeValueArea, IsTaken)
{
    const std::string value(4004, 'x');

    EXPECT_EQ(kp_shm_instant_write("a", value.data(), KP_TYPE_RAW, 4004, 1, 1, 1, 1), 0);
    EXPECT_EQ(SegmentFile("a").bytes(at::value, 4004), value);
}

// A file that is no whole segment yet, for all four functions that read instantly.
void expect_not_yet_valid(const std::string &topic)
{
    const LogLevel debug(KP_LEVEL_DEBUG);
    const auto descriptors = open_descriptors();
    void *value = nullptr;
    uint32_t number = 9;
    StderrCapture log;
    StdoutCapture output;

    EXPECT_EQ(kp_shm_instant_read(topic.c_str(), &value, &number, &number, nullptr, nullptr,
                                  nullptr, nullptr),
              -1);
    EXPECT_EQ(kp_shm_instant_get_value_info(topic.c_str(), &number, &number, &number), -1);
    EXPECT_EQ(kp_shm_instant_get_max_value_size(topic.c_str(), &number), -1);
    EXPECT_EQ(kp_shm_get_reference_count(topic.c_str(), &number, &number), -1);
    EXPECT_EQ(log.lines(), (Lines{"DEBUG: kp_shm_instant_read: " + kUndeclared,
                                  "DEBUG: kp_shm_instant_get_value_info: " + kUndeclared,
                                  "DEBUG: kp_shm_instant_get_max_value_size: " + kUndeclared,
                                  "DEBUG: kp_shm_get_reference_count: " + kUndeclared}));
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(number, 9U);
    log.clear();
    EXPECT_EQ(mapping_count(), 0);
    EXPECT_EQ(open_descriptors().size(), descriptors.size() + 4); // those of the two captures
}

TEST(AnEmptyFile, IsNotYetValidForInstantReads)
{
    SegmentFile("a").create(0);

    expect_not_yet_valid("a");
}

TEST(AFileShorterThanASegment, IsNotYetValidForInstantReads)
{
    SegmentFile("a").create(4079);
    SegmentFile("a").put_u8(at::flags, kValidFlag);

    expect_not_yet_valid("a");
}

TEST(AFileWithoutAPage, IsNotYetValidForInstantReads)
{
    SegmentFile("a").create(4080);

    expect_not_yet_valid("a");
}

// The look at the file itself is the last one: a system without openat2 has the levels above it
// looked at before.
TEST(AFileWhoseStatusCannotBeRead, IsNotYetValidForInstantReads)
{
    const DeclaredSegment shm("a");
    const LogLevel debug(KP_LEVEL_DEBUG);
    CountCalls looks{Call::fstat};
    ASSERT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), 0);
    ASSERT_GE(looks.count(), 1);
    FailNth fault{Call::fstat, looks.count()};
    StderrCapture log;

    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);
    EXPECT_TRUE(fault.fired());
    EXPECT_EQ(log.lines(), Lines{"DEBUG: kp_shm_instant_get_max_value_size: " + kUndeclared});
}

TEST(AFileLongerThanASegment, IsReadAsOne)
{
    SegmentFile("a").create(10'000);
    SegmentFile("a").put_u8(at::flags, kValidFlag);
    SegmentFile("a").put_u32(at::max_value_size, 7);
    uint32_t size = 0;

    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", &size), 0);
    EXPECT_EQ(size, 7U);
}

TEST(ASegmentOfRandomBytes, IsReadWithoutHarm)
{
    SegmentFile("a").create();
    SegmentFile("a").put_bytes(0, std::string(4080, '\xff'));
    const GuardedBuffer buffer(4004);
    const OpenedSegment consumer("a", KP_ROLE_CONSUMER);
    uint32_t providers = 0;
    uint32_t consumers = 0;

    EXPECT_EQ(read_instantly("a").size, kValueArea);
    EXPECT_EQ(kp_shm_get_reference_count("a", &providers, &consumers), 0);
    EXPECT_EQ(providers, 255U);
    EXPECT_EQ(consumers, 0U); // 255 and the one that the consumer adds
    EXPECT_EQ(kp_shm_read(consumer, buffer.data(), UINT32_MAX, nullptr, nullptr, nullptr), 4004);
}

} // namespace
