// The consistent read against a writer that is played store by store, in every order in which its
// stores can fall between the steps of the read, and against a writer of this build.
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"
#include "value/consistent.h"
#include "value/doubt.h"
#include "value/plain.h"

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace kptest;

namespace {

struct Version {
    uint64_t ts;
    std::string bytes;
    uint8_t quality;
};

// A writer that stores two versions over a first one. Each step is one store.
class PlayedWriter {
  public:
    static constexpr int kStepsPerWrite = 7;
    static constexpr int kSteps = 2 * kStepsPerWrite;

    PlayedWriter(kp::Segment &segment, const std::array<Version, 3> &versions)
        : segment_(segment), versions_(versions)
    {
        segment_.state.flags = kp::kValid;
        for (int step = 0; step < kStepsPerWrite; ++step)
            store(versions_[0], step);
    }

    void go_on_to(int step)
    {
        for (; done_ < step; ++done_)
            store(versions_[static_cast<std::size_t>(1 + done_ / kStepsPerWrite)],
                  done_ % kStepsPerWrite);
    }

  private:
    void store(const Version &version, int step)
    {
        const std::size_t half = version.bytes.size() / 2;
        switch (step) {
        case 0:
            segment_.last_write_ts = version.ts;
            return;
        case 1:
            segment_.state.writing = 1;
            return;
        case 2:
            segment_.quality = version.quality;
            segment_.source_ts = version.quality;
            return;
        case 3:
            std::memcpy(segment_.value, version.bytes.data(), half);
            return;
        case 4:
            std::memcpy(segment_.value + half, version.bytes.data() + half, half);
            return;
        case 5:
            segment_.written_value_size = static_cast<uint32_t>(version.bytes.size());
            segment_.state.flags = kp::kValid | kp::kHasValue;
            return;
        default:
            segment_.state.writing = 0;
        }
    }

    kp::Segment &segment_;
    const std::array<Version, 3> &versions_;
    int done_ = 0;
};

// Says how far the writer has come at each of the places where a read can be overtaken.
using Schedule = std::array<int, 9>;

// Says whether the writer stood between the first two stores of a write when the read first looked
// at the mark.
bool has_just_stored_a_timestamp(const Schedule &schedule)
{
    return schedule[1] % PlayedWriter::kStepsPerWrite == 1;
}

// Goes on to the next schedule, none of whose numbers falls. False after the last one.
bool advance(Schedule &schedule)
{
    for (std::size_t place = schedule.size(); place-- > 0;) {
        if (schedule[place] == PlayedWriter::kSteps)
            continue;
        const int next = schedule[place] + 1;
        for (std::size_t later = place; later < schedule.size(); ++later)
            schedule[later] = next;
        return true;
    }
    return false;
}

// Lets the writer go on between the steps of a read, and copies and compares in two halves.
class OvertakenAccess {
  public:
    OvertakenAccess(PlayedWriter &writer, const Schedule &schedule)
        : writer_(&writer), next_(schedule.begin())
    {
        between_steps();
    }

    void between_steps()
    {
        writer_->go_on_to(*next_++);
    }
    void copy(uint8_t *to, const uint8_t *from, uint32_t size)
    {
        std::memcpy(to, from, size / 2);
        between_steps();
        std::memcpy(to + size / 2, from + size / 2, size - size / 2);
        between_steps();
    }
    bool is_equal(const uint8_t *copy, const uint8_t *from, uint32_t size)
    {
        const bool first = std::memcmp(copy, from, size / 2) == 0;
        between_steps();
        const bool second = std::memcmp(copy + size / 2, from + size / 2, size - size / 2) == 0;
        between_steps();
        return first && second;
    }

  private:
    PlayedWriter *writer_;
    Schedule::const_iterator next_;
};

struct Outcomes {
    int refused = 0;
    int whole = 0;
    int early_timestamp = 0; // whole, with the timestamp that the writer stored last
    int torn = 0;
};

bool is_version(const Version &version, const kp::ValueHeader &header, const uint8_t *bytes)
{
    return header.written_value_size == version.bytes.size() &&
           std::memcmp(bytes, version.bytes.data(), version.bytes.size()) == 0 &&
           header.quality == version.quality && header.source_ts == version.quality;
}

// Gives the outcome of a read whose writer comes as far as the schedule says.
void read_once(const std::array<Version, 3> &versions, const Schedule &schedule, Outcomes &outcomes)
{
    kp::Segment segment{};
    std::array<uint8_t, 16> buffer{};
    PlayedWriter writer(segment, versions);
    kp::ValueHeader header{};
    if (!kp::try_consistent_read(segment, buffer.data(), buffer.size(), header,
                                 OvertakenAccess(writer, schedule))) {
        ++outcomes.refused;
        return;
    }
    bool is_whole = false;
    bool belongs = false;
    for (const Version &version : versions) {
        const bool same = is_version(version, header, buffer.data());
        is_whole |= same;
        belongs |= same && version.ts == header.last_write_ts;
    }
    if (belongs)
        ++outcomes.whole;
    else if (is_whole && has_just_stored_a_timestamp(schedule))
        ++outcomes.early_timestamp;
    else
        ++outcomes.torn;
}

// Gives all outcomes of a read that two writes overtake in every possible way.
Outcomes read_in_every_order(const std::array<Version, 3> &versions)
{
    Outcomes outcomes;
    Schedule schedule{};
    do
        read_once(versions, schedule, outcomes);
    while (advance(schedule));
    return outcomes;
}

struct MissedWrites {
    int missed = 0;         // marked as seen, with the value before it
    int reported_again = 0; // not marked, with its own value
    int given_before = 0;   // the value before, not marked
};

// Reads when the writer of the second version has come to each of its steps, lets it end, and looks
// whether its write still counts as unseen.
MissedWrites read_at_every_step(const std::array<Version, 3> &versions)
{
    MissedWrites found;
    for (int step = 0; step <= PlayedWriter::kStepsPerWrite; ++step) {
        kp::Segment segment{};
        PlayedWriter writer(segment, versions);
        kp_shm_t shm{};
        shm.mem = &segment;
        std::array<char, 4> value{};
        writer.go_on_to(step);
        const int32_t size =
            kp::read_consistent(&shm, value.data(), value.size(), nullptr, nullptr, nullptr);
        writer.go_on_to(PlayedWriter::kStepsPerWrite);
        if (size != 4)
            continue;
        const bool is_before = std::memcmp(value.data(), versions[0].bytes.data(), 4) == 0;
        const bool is_seen = kp_shm_has_read(&shm) == 1;
        found.missed += is_before && is_seen;
        found.given_before += is_before && !is_seen;
        found.reported_again += !is_before && !is_seen;
    }
    return found;
}

// An open topic of 1000 raw bytes, and a second handle on it.
class ConsistentRead : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(provider_ && consumer_);
        ASSERT_EQ(kp_shm_set_provider_info(provider_, KP_TYPE_RAW, kSize, 0), 0);
    }
    void TearDown() override
    {
        (void)kp_shm_destroy(consumer_, "a/b", KP_ROLE_CONSUMER);
        (void)kp_shm_destroy(provider_, "a/b", KP_ROLE_PROVIDER);
    }

    static constexpr uint32_t kSize = 1000;
    kp_shm_t *provider_ = kp_shm_new("a/b", KP_ROLE_PROVIDER);
    kp_shm_t *consumer_ = kp_shm_new("a/b", KP_ROLE_CONSUMER);
    SegmentFile file_{"a/b"};
};

// Says whether the value is one that write_filled() has written, whole and with what belongs to it.
bool is_filled(const std::vector<uint8_t> &value, uint8_t quality, uint64_t source_ts)
{
    return std::ranges::count(value, value[0]) == std::ssize(value) && quality == value[0] % 200 &&
           source_ts == value[0];
}

void write_filled(kp_shm_t *shm, uint8_t fill)
{
    const std::vector<uint8_t> value(1000, fill);
    (void)kp_shm_write(shm, value.data(), 1000, kp_shm_get_timestamp_us(),
                       static_cast<uint8_t>(fill % 200), fill);
}

struct Reads {
    int whole = 0;
    int failed = 0;
    int torn = 0;
};

Reads read_while(kp_shm_t *shm, const std::atomic<bool> &running, int least)
{
    Reads reads;
    std::vector<uint8_t> value(1000);
    while (running || reads.whole < least) {
        uint8_t quality = 0;
        uint64_t source_ts = 0;
        if (kp::read_consistent(shm, value.data(), 1000, nullptr, &quality, &source_ts) == -1)
            ++reads.failed;
        else if (is_filled(value, quality, source_ts))
            ++reads.whole;
        else
            ++reads.torn;
    }
    return reads;
}

} // namespace

TEST(ConsistentAttempt, IsNeverTornByWritesOfDifferentTimestamps)
{
    const Outcomes outcomes =
        read_in_every_order({{{10, "aaaa", 1}, {11, "bbbb", 2}, {12, "aaaa", 1}}});

    EXPECT_EQ(outcomes.torn, 0);
    EXPECT_GT(outcomes.whole, 0);
    EXPECT_GT(outcomes.refused, 0);
}

TEST(ConsistentAttempt, IsNeverTornByWritesOfOneTimestampAndDifferentBytes)
{
    const Outcomes outcomes =
        read_in_every_order({{{10, "aaaa", 1}, {10, "bbbb", 2}, {10, "cccc", 3}}});

    EXPECT_EQ(outcomes.torn, 0);
    EXPECT_GT(outcomes.whole, 0);
    EXPECT_GT(outcomes.refused, 0);
}

TEST(ConsistentAttempt, IsNeverTornByWritesOfDifferentSizes)
{
    const Outcomes outcomes =
        read_in_every_order({{{10, "aaaa", 1}, {10, "bbbbbbbb", 1}, {10, "cc", 1}}});

    EXPECT_EQ(outcomes.torn, 0);
    EXPECT_GT(outcomes.whole, 0);
    EXPECT_GT(outcomes.refused, 0);
}

TEST(ConsistentAttempt, GivesTheNextTimestampOnlyBetweenTheFirstTwoStores)
{
    const Outcomes outcomes =
        read_in_every_order({{{10, "aaaa", 1}, {11, "bbbb", 2}, {12, "cccc", 3}}});

    EXPECT_GT(outcomes.early_timestamp, 0);
    EXPECT_EQ(outcomes.torn, 0);
}

TEST(ConsistentAttempt, RefusesAValueThatAProviderIsJustClearing)
{
    kp::Segment segment{};
    segment.state.flags = kp::kValid;
    segment.written_value_size = 4;
    std::memcpy(segment.value, "\0\0xy", 4);
    std::array<uint8_t, 4> buffer{};

    kp::ValueHeader header{};

    const bool result = kp::try_consistent_read(segment, buffer.data(), buffer.size(), header);

    EXPECT_FALSE(result);
}

// Plays a writer that changes one field between the copy and the comparison.
struct ChangeBeforeComparison {
    std::function<void()> change;

    void copy(uint8_t *to, const uint8_t *from, uint32_t size) const
    {
        std::memcpy(to, from, size);
        change();
    }
    static bool is_equal(const uint8_t *copy, const uint8_t *from, uint32_t size)
    {
        return kp::are_equal(copy, from, size);
    }
    static void between_steps()
    {
    }
};

namespace {

// Whether an attempt takes a value of so many bytes whose segment changes after the copy.
bool takes_a_value(uint32_t size, const std::function<void(kp::Segment &)> &change)
{
    kp::Segment segment{};
    segment.state.flags = kp::kValid | kp::kHasValue;
    segment.last_write_ts = 20;
    segment.source_ts = 10;
    segment.quality = 5;
    segment.written_value_size = size;
    std::memset(segment.value, 'a', size);
    std::array<uint8_t, 16> buffer{};
    kp::ValueHeader header{};
    const ChangeBeforeComparison access{[&] { change(segment); }};
    return kp::try_consistent_read(segment, buffer.data(), buffer.size(), header, access);
}

} // namespace

TEST(ConsistentAttempt, ComparesEachFieldByItself)
{
    EXPECT_TRUE(takes_a_value(4, [](kp::Segment &) {}));
    EXPECT_FALSE(takes_a_value(4, [](kp::Segment &segment) { segment.last_write_ts = 21; }));
    EXPECT_FALSE(takes_a_value(4, [](kp::Segment &segment) { segment.source_ts = 11; }));
    EXPECT_FALSE(takes_a_value(4, [](kp::Segment &segment) { segment.quality = 6; }));
    EXPECT_FALSE(takes_a_value(4, [](kp::Segment &segment) { segment.written_value_size = 3; }));
    EXPECT_FALSE(takes_a_value(4, [](kp::Segment &segment) { segment.state.writing = 1; }));
    EXPECT_FALSE(takes_a_value(4, [](kp::Segment &segment) { segment.state.flags = kp::kValid; }));
}

TEST(ConsistentAttempt, ComparesTheLastByteOfEachSize)
{
    EXPECT_FALSE(takes_a_value(1, [](kp::Segment &segment) { segment.value[0] = 'b'; }));
    EXPECT_FALSE(takes_a_value(2, [](kp::Segment &segment) { segment.value[1] = 'b'; }));
    EXPECT_FALSE(takes_a_value(4, [](kp::Segment &segment) { segment.value[3] = 'b'; }));
    EXPECT_FALSE(takes_a_value(8, [](kp::Segment &segment) { segment.value[7] = 'b'; }));
    EXPECT_FALSE(takes_a_value(9, [](kp::Segment &segment) { segment.value[8] = 'b'; }));
    EXPECT_TRUE(takes_a_value(1, [](kp::Segment &segment) { segment.value[1] = 'b'; }));
    EXPECT_TRUE(takes_a_value(2, [](kp::Segment &segment) { segment.value[2] = 'b'; }));
    EXPECT_TRUE(takes_a_value(8, [](kp::Segment &segment) { segment.value[8] = 'b'; }));
    EXPECT_TRUE(takes_a_value(9, [](kp::Segment &segment) { segment.value[9] = 'b'; }));
}

TEST(ConsistentAttempt, RefusesAValueThatIsBeingWrittenAndCopiesNothing)
{
    kp::Segment segment{};
    segment.state.flags = kp::kValid | kp::kHasValue;
    segment.state.writing = 1;
    segment.written_value_size = 4;
    bool is_copied = false;
    std::array<uint8_t, 16> buffer{};
    kp::ValueHeader header{};

    const bool result = kp::try_consistent_read(segment, buffer.data(), buffer.size(), header,
                                                ChangeBeforeComparison{[&] {
                                                    is_copied = true;
                                                    segment.state.writing = 0;
                                                }});

    EXPECT_FALSE(result);
    EXPECT_FALSE(is_copied);
}

TEST_F(ConsistentRead, GivesTheValueWithAllThatBelongsToIt)
{
    const std::string written(kSize, 'x');
    ASSERT_EQ(kp_shm_write(provider_, written.data(), kSize, 123, 77, 99), 1000);
    std::string value(kSize, '\0');
    uint64_t timestamp = 0;
    uint8_t quality = 0;
    uint64_t source_ts = 0;

    const int32_t result =
        kp::read_consistent(consumer_, value.data(), kSize, &timestamp, &quality, &source_ts);

    EXPECT_EQ(result, 1000);
    EXPECT_EQ(value, written);
    EXPECT_EQ(timestamp, 123U);
    EXPECT_EQ(quality, 77);
    EXPECT_EQ(source_ts, 99U);
}

// Small values are copied and compared without the C library.
TEST_F(ConsistentRead, GivesValuesOfEverySize)
{
    const std::string bytes = "123456789";
    for (uint32_t size = 1; size <= bytes.size(); ++size) {
        ASSERT_EQ(kp_shm_write(provider_, bytes.data(), size, size, 1, 1), int32_t(size));
        std::string value(bytes.size(), '-');

        EXPECT_EQ(kp::read_consistent(consumer_, value.data(), size, nullptr, nullptr, nullptr),
                  int32_t(size));

        EXPECT_EQ(value, bytes.substr(0, size) + std::string(bytes.size() - size, '-'));
        EXPECT_EQ(kp_shm_read(consumer_, value.data(), size, nullptr, nullptr, nullptr),
                  int32_t(size));
        EXPECT_EQ(kp_shm_has_read(consumer_), 1);
    }
}

TEST_F(ConsistentRead, GivesZerosForAFixedSizeThatNobodyHasWritten)
{
    ASSERT_EQ(kp_shm_set_provider_info(provider_, KP_TYPE_UINT32, 4, 0), 0);
    uint32_t value = 1;

    const int32_t result = kp::read_consistent(consumer_, &value, 4, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, 4);
    EXPECT_EQ(value, 0U);
}

TEST_F(ConsistentRead, MarksTheValueAsSeen)
{
    const std::string written(kSize, 'x');
    ASSERT_EQ(kp_shm_write(provider_, written.data(), kSize, 123, 77, 123), 1000);
    kp_shm_set_last_update_ts(consumer_, 0);

    const int32_t result =
        kp::read_consistent(consumer_, nullptr, kSize, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, 1000);
    EXPECT_EQ(kp_shm_has_read(consumer_), 1);
}

TEST_F(ConsistentRead, MarksAValueOfAnotherSourceTimeUntilSomethingElseStandsThere)
{
    const std::string written(kSize, 'x');
    ASSERT_EQ(kp_shm_write(provider_, written.data(), kSize, 123, 77, 99), 1000);

    EXPECT_EQ(kp::read_consistent(consumer_, nullptr, kSize, nullptr, nullptr, nullptr), 1000);
    EXPECT_EQ(kp_shm_has_read(consumer_), 1);
    EXPECT_FALSE(kp::has_changed(*consumer_));
    file_.put_u8(at::value + 999, 'y');
    EXPECT_EQ(kp_shm_has_read(consumer_), 0);
    EXPECT_TRUE(kp::has_changed(*consumer_));
}

namespace {

// Counts the bytes of a value whose change alone ends the doubt about a read of the whole.
int bytes_that_end_the_doubt(kp_shm_t *provider, kp_shm_t *consumer, const SegmentFile &file,
                             uint32_t size)
{
    int count = 0;
    for (uint32_t place = 0; place < size; ++place) {
        const std::string written(size, 'x');
        EXPECT_EQ(kp_shm_write(provider, written.data(), size, 123, 77, 99), int32_t(size));
        EXPECT_EQ(kp::read_consistent(consumer, nullptr, size, nullptr, nullptr, nullptr),
                  int32_t(size));
        EXPECT_EQ(kp_shm_has_read(consumer), 1);
        file.put_u8(at::value + place, 'y');
        count += kp_shm_has_read(consumer) == 0 && kp::has_changed(*consumer);
    }
    return count;
}

} // namespace

TEST_F(ConsistentRead, IsInDoubtUntilAnyByteChanges)
{
    // Sizes that leave every rest of the words that are looked at together.
    EXPECT_EQ(bytes_that_end_the_doubt(provider_, consumer_, file_, 1), 1);
    EXPECT_EQ(bytes_that_end_the_doubt(provider_, consumer_, file_, 8), 8);
    EXPECT_EQ(bytes_that_end_the_doubt(provider_, consumer_, file_, 32), 32);
    EXPECT_EQ(bytes_that_end_the_doubt(provider_, consumer_, file_, 79), 79);
}

TEST_F(ConsistentRead, IsInDoubtUntilWhatBelongsToTheValueChanges)
{
    ASSERT_EQ(kp_shm_write(provider_, "abcdefgh", 8, 123, 77, 99), 8);
    ASSERT_EQ(kp::read_consistent(consumer_, nullptr, 8, nullptr, nullptr, nullptr), 8);
    ASSERT_EQ(kp_shm_has_read(consumer_), 1);

    file_.put_u8(at::quality, 78);
    EXPECT_EQ(kp_shm_has_read(consumer_), 0);
    file_.put_u8(at::quality, 77);
    file_.put_u64(at::source_ts, 98);
    EXPECT_EQ(kp_shm_has_read(consumer_), 0);
    file_.put_u64(at::source_ts, 99);
    file_.put_u32(at::written_value_size, 7);
    EXPECT_EQ(kp_shm_has_read(consumer_), 0);
    file_.put_u32(at::written_value_size, 8);
    EXPECT_EQ(kp_shm_has_read(consumer_), 1);
}

TEST_F(ConsistentRead, SeesALaterWriteOfTheSameValue)
{
    const std::string written(kSize, 'x');
    ASSERT_EQ(kp_shm_write(provider_, written.data(), kSize, 123, 77, 99), 1000);
    ASSERT_EQ(kp::read_consistent(consumer_, nullptr, kSize, nullptr, nullptr, nullptr), 1000);

    ASSERT_EQ(kp_shm_write(provider_, written.data(), kSize, 124, 77, 99), 1000);

    EXPECT_EQ(kp_shm_has_read(consumer_), 0);
}

TEST_F(ConsistentRead, LeavesAValueMarkedThatAPlainReadHasMarked)
{
    const std::string written(kSize, 'x');
    ASSERT_EQ(kp_shm_write(provider_, written.data(), kSize, 123, 77, 99), 1000);
    ASSERT_EQ(kp_shm_read(consumer_, nullptr, kSize, nullptr, nullptr, nullptr), 1000);

    EXPECT_EQ(kp::read_consistent(consumer_, nullptr, kSize, nullptr, nullptr, nullptr), 1000);

    EXPECT_EQ(kp_shm_has_read(consumer_), 1);
}

TEST_F(ConsistentRead, LeavesTheWritersOwnValueMarked)
{
    const std::string written(kSize, 'x');
    ASSERT_EQ(kp_shm_write(provider_, written.data(), kSize, 123, 77, 99), 1000);

    EXPECT_EQ(kp::read_consistent(provider_, nullptr, kSize, nullptr, nullptr, nullptr), 1000);

    EXPECT_EQ(kp_shm_has_read(provider_), 1);
}

TEST(ConsistentReadOfAPausedWriter, NeverMarksAWriteAsSeenWithTheValueBefore)
{
    const MissedWrites plain = read_at_every_step({{{10, "aaaa", 10}, {20, "bbbb", 20}, {}}});
    const MissedWrites own_source = read_at_every_step({{{10, "aaaa", 1}, {20, "bbbb", 2}, {}}});
    const MissedWrites same_source = read_at_every_step({{{10, "aaaa", 5}, {20, "bbbb", 5}, {}}});

    EXPECT_EQ(plain.missed + own_source.missed + same_source.missed, 0);
    EXPECT_EQ(plain.reported_again + own_source.reported_again + same_source.reported_again, 0);
    EXPECT_GT(plain.given_before, 0);
    EXPECT_GT(same_source.given_before, 0);
}

TEST_F(ConsistentRead, GivesUpInBoundedTimeAndMarksNothingWhenAWriterDied)
{
    write_filled(provider_, 5);
    kp_shm_set_last_update_ts(consumer_, 0);
    file_.put_u8(at::writing, 1);
    std::vector<uint8_t> value(kSize);
    kp_xlog_set_user_level(KP_LEVEL_INFO);
    StderrCapture log;
    const CountCalls pauses(Call::usleep);

    const int32_t result =
        kp::read_consistent(consumer_, value.data(), kSize, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(pauses.count(), kp::kWriterTries);
    EXPECT_EQ(kp_shm_has_read(consumer_), 0);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].ends_with("shm read fail")) << log.lines()[0];
}

TEST_F(ConsistentRead, BoundsASizeThatAnotherProcessHasSpoilt)
{
    write_filled(provider_, 5);
    file_.put_u32(at::written_value_size, 0xFFFFFFFF);
    std::vector<uint8_t> value(kp::kValueAreaSize);

    const int32_t result =
        kp::read_consistent(consumer_, value.data(), 0xFFFFFFFF, nullptr, nullptr, nullptr);

    EXPECT_EQ(result, static_cast<int32_t>(kp::kValueAreaSize));
}

TEST_F(ConsistentRead, IsNeverTornByAWriterAtFullSpeed)
{
    write_filled(provider_, 0);
    std::atomic<bool> running = true;
    Reads reads;

    std::thread reader([&] { reads = read_while(consumer_, running, 1); });
    for (int count = 0; count < 200'000; ++count)
        write_filled(provider_, static_cast<uint8_t>(count));
    running = false;
    reader.join();

    EXPECT_EQ(reads.torn, 0);
    EXPECT_GT(reads.whole, 0);
}
