// One topic in several processes: what one does is what the others see.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <array>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

using namespace kptest;

namespace {

constexpr int kProcesses = 4;
constexpr int kHandlesEach = 25; // of each role

// Opens many handles of both roles at the same moment as its siblings, and closes them when told.
int open_many(Channel &parent)
{
    std::vector<kp_shm_t *> handles;
    if (!parent.hear())
        return 1;
    for (int count = 0; count < kHandlesEach; ++count) {
        handles.push_back(kp_shm_new("a/b", KP_ROLE_PROVIDER));
        handles.push_back(kp_shm_new("a/b", KP_ROLE_CONSUMER));
    }
    if (!parent.tell("open") || !parent.hear())
        return 2;
    int failures = 0;
    for (std::size_t index = 0; index < handles.size(); ++index) {
        const uint32_t role = index % 2 == 0 ? KP_ROLE_PROVIDER : KP_ROLE_CONSUMER;
        failures += kp_shm_destroy(handles[index], "a/b", role) != 0;
    }
    return failures == 0 ? 0 : 3;
}

using Family = std::vector<std::unique_ptr<ChildProcess>>;

Family start_many()
{
    Family family;
    for (int count = 0; count < kProcesses; ++count)
        family.push_back(std::make_unique<ChildProcess>(open_many));
    return family;
}

void tell_all(const Family &family, const std::string &line)
{
    for (const auto &child : family)
        EXPECT_TRUE(child->tell(line));
}

void hear_all(const Family &family, const std::string &line)
{
    for (const auto &child : family)
        EXPECT_EQ(child->hear(), line);
}

void expect_all_end_well(const Family &family)
{
    for (const auto &child : family)
        EXPECT_EQ(child->wait(), 0);
}

// Reads the topic whenever told, and tells what it found, until the parent is gone.
int read_when_told(Channel &parent)
{
    kp_shm_t *shm = kp_shm_new("a/b", KP_ROLE_CONSUMER);
    while (parent.hear()) {
        char buffer[100]{};
        uint64_t timestamp = 0;
        uint8_t quality = 0;
        uint64_t source_ts = 0;
        const int32_t seen = kp_shm_has_read(shm);
        const int32_t size =
            kp_shm_read(shm, buffer, sizeof(buffer), &timestamp, &quality, &source_ts);
        (void)parent.tell(std::to_string(seen) + " " + std::to_string(size) + " " + buffer + " " +
                          std::to_string(timestamp) + " " + std::to_string(quality) + " " +
                          std::to_string(source_ts));
    }
    return kp_shm_destroy(shm, "a/b", KP_ROLE_CONSUMER);
}

int write_once(Channel &)
{
    kp_shm_t *shm = kp_shm_new("a/b", KP_ROLE_PROVIDER);
    const bool written = kp_shm_init_source_params(shm) == 0 &&
                         kp_shm_set_provider_info(shm, KP_TYPE_STRING, 100, 5) == 0 &&
                         kp_shm_write(shm, "hello", 5, 1'000'000, 3, 7) == 5;
    return written ? 0 : 1; // without closing, as a process that dies
}

constexpr unsigned char kLastByte = 200;
constexpr uint32_t kLastSize = 3001;

// Writes ever larger values, each of one repeated byte, as fast as it can.
int write_many_values(Channel &parent)
{
    kp_shm_t *shm = kp_shm_new("a/b", KP_ROLE_PROVIDER);
    if (kp_shm_set_provider_info(shm, KP_TYPE_RAW, 4000, 0) != 0 || !parent.tell("declared"))
        return 1;
    for (unsigned char byte = 0; byte <= kLastByte; ++byte) {
        const std::string value(byte * 15U + 1, static_cast<char>(byte));
        (void)kp_shm_write(shm, value.data(), static_cast<uint32_t>(value.size()), 1, 1, 1);
    }
    return 0;
}

TEST(SeveralProcesses, AreCountedExactlyWhileTheyOpenAtOnce)
{
    const Family family = start_many();

    tell_all(family, "open");
    hear_all(family, "open");

    EXPECT_EQ(SegmentFile("a/b").u8(at::provider_refs), kProcesses * kHandlesEach);
    EXPECT_EQ(SegmentFile("a/b").u8(at::consumer_refs), kProcesses * kHandlesEach);
}

TEST(SeveralProcesses, LeaveNoFileWhenAllHaveClosed)
{
    const Family family = start_many();
    tell_all(family, "open");
    hear_all(family, "open");

    tell_all(family, "close");

    expect_all_end_well(family);
    EXPECT_FALSE(SegmentFile("a/b").exists());
}

TEST(SeveralProcesses, AreCountedByTheReferenceCounts)
{
    const DeclaredSegment provider("a/b");
    const OpenedSegment consumer("a/b", KP_ROLE_CONSUMER);
    ChildProcess reader(read_when_told);
    ASSERT_TRUE(reader.tell("read"));
    ASSERT_TRUE(reader.hear());
    uint32_t providers = 0;
    uint32_t consumers = 0;

    EXPECT_EQ(kp_shm_get_reference_count("a/b", &providers, &consumers), 0);
    EXPECT_EQ(providers, 1U);
    EXPECT_EQ(consumers, 2U);
}

TEST(AnotherProcess, ReadsWhatThisOneWrites)
{
    const DeclaredSegment shm("a/b", KP_TYPE_STRING, 100);
    ChildProcess reader(read_when_told);
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, 11, 12, 13), 5);

    ASSERT_TRUE(reader.tell("read"));

    EXPECT_EQ(reader.hear(), "1 5 hello 11 12 13"); // opened at a later time than 11
}

TEST(AnotherProcess, HasNotSeenAWriteAfterItsOpenUntilItReads)
{
    const DeclaredSegment shm("a/b", KP_TYPE_STRING, 100);
    ChildProcess reader(read_when_told);
    ASSERT_TRUE(reader.tell("open"));
    ASSERT_TRUE(reader.hear());
    const uint64_t future = kp_shm_get_timestamp_us() + 1'000'000;
    ASSERT_EQ(kp_shm_write(shm, "hello", 5, future, 1, 1), 5);

    ASSERT_TRUE(reader.tell("read"));
    EXPECT_EQ(reader.hear(), "0 5 hello " + std::to_string(future) + " 1 1");
    ASSERT_TRUE(reader.tell("read"));
    EXPECT_EQ(reader.hear(), "1 5 hello " + std::to_string(future) + " 1 1");
}

TEST(AnotherProcess, ThatDiesLeavesItsValueFileAndCount)
{
    const OpenedSegment consumer("a/b", KP_ROLE_CONSUMER);
    ChildProcess provider(write_once);
    ASSERT_EQ(provider.wait(), 0);
    char buffer[100]{};

    EXPECT_EQ(kp_shm_read(consumer, buffer, sizeof(buffer), nullptr, nullptr, nullptr), 5);
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(SegmentFile("a/b").u8(at::provider_refs), 1);
}

TEST(AnotherProcess, ThatDiesKeepsTheFileFromBeingRemoved)
{
    OpenedSegment consumer("a/b", KP_ROLE_CONSUMER);
    ChildProcess provider(write_once);
    ASSERT_EQ(provider.wait(), 0);

    consumer.close();

    EXPECT_TRUE(SegmentFile("a/b").exists());
}

TEST(AnotherProcess, ThatWritesIsReadToItsLastValueAndNeverBeyondTheBuffer)
{
    const OpenedSegment consumer("a/b", KP_ROLE_CONSUMER);
    ChildProcess writer(write_many_values);
    ASSERT_EQ(writer.hear(), "declared");
    std::array<unsigned char, kLastSize + 1> buffer;
    buffer.fill(0xEE);

    const bool saw_the_last_value = wait_until([&consumer, &buffer] {
        return kp_shm_read(consumer, buffer.data(), kLastSize, nullptr, nullptr, nullptr) ==
                   kLastSize &&
               buffer[0] == kLastByte && buffer[kLastSize - 1] == kLastByte;
    });

    EXPECT_TRUE(saw_the_last_value);
    EXPECT_EQ(buffer[kLastSize], 0xEE);
    EXPECT_EQ(writer.wait(), 0);
}

} // namespace
