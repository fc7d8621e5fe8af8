#include "common/store/fault_guard.h"
#include "common/store/segment_reader.h"

#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/store_provider.h"

#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

using namespace kp::tool;
using namespace kptest;

namespace {

std::optional<Snapshot> snapshot_of(const std::string &topic)
{
    TopicOpener opener;
    Problem problem;
    return read_topic(opener, topic, problem);
}

Condition condition_of(const std::string &topic)
{
    return snapshot_of(topic).value().condition;
}

Problem problem_of(const std::string &topic)
{
    TopicOpener opener;
    Problem problem;
    EXPECT_FALSE(read_topic(opener, topic, problem));
    return problem;
}

SegmentReader reader_of(const std::string &topic, Means means)
{
    catch_bus_errors();
    TopicOpener opener;
    Problem problem;
    return SegmentReader::open(opener, topic, problem, means).value();
}

// A topic as an array of bytes, for values that the library itself does not write.
class RawSegment {
  public:
    explicit RawSegment(const std::string &topic, uint32_t max)
    {
        const SegmentFile file(topic);
        file.create();
        file.put_u8(at::flags, kValidFlag | kHasValueFlag);
        file.put_u32(at::value_type, KP_TYPE_RAW);
        file.put_u32(at::max_value_size, max);
    }
};

// Writes 4000 bytes of one letter as fast as it can, until it ends; by turns two letters under one
// timestamp, or every letter with a timestamp of its own.
class EagerWriter {
  public:
    enum class Stamps { rising, all_the_same };

    EagerWriter(StoreProvider &provider, Stamps stamps)
        : thread_([this, &provider, stamps] {
              for (uint64_t number = 1; !stop_; ++number)
                  write(provider, stamps, number);
          })
    {
    }
    EagerWriter(const EagerWriter &) = delete;
    EagerWriter &operator=(const EagerWriter &) = delete;
    ~EagerWriter()
    {
        stop_ = true;
        thread_.join();
    }

  private:
    static void write(StoreProvider &provider, Stamps stamps, uint64_t number)
    {
        const bool is_flipping = stamps == Stamps::all_the_same;
        const auto letter = static_cast<char>('a' + number % (is_flipping ? 2 : 26));
        provider.write(std::string(4000, letter), is_flipping ? 1 : number);
    }

    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

struct Reads {
    int whole = 0;
    int torn = 0;
    int none = 0;
};

void count(const std::optional<Snapshot> &snapshot, Reads &reads)
{
    if (!snapshot || !snapshot->has_value())
        ++reads.none;
    else if (snapshot->bytes == std::string(4000, snapshot->bytes[0]))
        ++reads.whole;
    else
        ++reads.torn;
}

Reads read_beside(EagerWriter::Stamps stamps, Means means)
{
    StoreProvider provider("a", KP_TYPE_RAW);
    provider.write(std::string(4000, 'a'));
    const SegmentReader reader = reader_of("a", means);
    const EagerWriter writer(provider, stamps);
    Reads reads;
    (void)wait_until(
        [&] {
            for (int look = 0; look < 100; ++look)
                count(reader.read(), reads);
            return reads.whole >= 2000;
        },
        std::chrono::seconds(5));
    return reads;
}

class EachMeans : public testing::TestWithParam<Means> {};

INSTANTIATE_TEST_SUITE_P(By, EachMeans, testing::Values(Means::mapping, Means::descriptor),
                         [](const auto &means) {
                             return means.param == Means::mapping ? "Mapping" : "Descriptor";
                         });

} // namespace

TEST(ReadTopic, GivesEverythingAboutIt)
{
    StoreProvider provider("a/b", KP_TYPE_DOUBLE);
    provider.write(bytes_of(21.5), 1000, 3, 900);

    const auto snapshot = snapshot_of("a/b");

    Snapshot expected;
    expected.condition = Condition::value;
    expected.last_write_ts = 1000;
    expected.source_ts = 900;
    expected.type = KP_TYPE_DOUBLE;
    expected.max = 8;
    expected.extra = 7;
    expected.size = 8;
    expected.quality = 3;
    expected.flags = kValidFlag | kHasValueFlag;
    expected.providers = 1;
    expected.bytes = bytes_of(21.5);
    expected.inode = snapshot->inode;
    EXPECT_EQ(snapshot, expected);
    EXPECT_NE(snapshot->inode, 0u);
    EXPECT_STREQ(snapshot->type_name(), "double");
}

TEST(ReadTopic, LeavesNoTrace)
{
    StoreProvider provider("a/b");
    provider.write("value");
    const std::string before = SegmentFile("a/b").all();
    const auto descriptors = open_descriptors();

    EXPECT_TRUE(snapshot_of("a/b")->has_value());

    EXPECT_EQ(SegmentFile("a/b").all(), before);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(ReadTopic, TakesEveryByteThatAValueCanHave)
{
    const RawSegment segment("a", 4004);
    SegmentFile("a").put_bytes(at::value, std::string(4004, 'x'));
    SegmentFile("a").put_u32(at::written_value_size, 4004);

    EXPECT_EQ(snapshot_of("a")->bytes, std::string(4004, 'x'));
}

TEST(ReadTopic, TellsWhyThereIsNoValue)
{
    const SegmentFile waiting("waiting");
    waiting.create();
    StoreProvider declared("declared");
    StoreProvider stuck("stuck");
    stuck.write("value");
    SegmentFile("stuck").put_u8(at::writing, 1);

    EXPECT_EQ(condition_of("waiting"), Condition::undeclared);
    EXPECT_EQ(condition_of("declared"), Condition::empty);
    EXPECT_EQ(condition_of("stuck"), Condition::busy);
    EXPECT_EQ(snapshot_of("waiting")->type_name(), nullptr);
}

TEST(ReadTopic, FindsFieldsThatContradictEachOther)
{
    const RawSegment type("type", 8);
    SegmentFile("type").put_u32(at::value_type, 14);
    const RawSegment size("size", 8);
    SegmentFile("size").put_u32(at::written_value_size, 4005);
    const RawSegment max("max", 4005);
    const RawSegment fixed("fixed", 8);
    SegmentFile("fixed").put_u32(at::value_type, KP_TYPE_INT32);
    SegmentFile("fixed").put_u32(at::written_value_size, 3);

    EXPECT_EQ(condition_of("type"), Condition::corrupt);
    EXPECT_EQ(condition_of("size"), Condition::corrupt);
    EXPECT_EQ(condition_of("max"), Condition::corrupt);
    EXPECT_EQ(condition_of("fixed"), Condition::corrupt);
}

TEST(ReadTopic, NamesWhatIsNoSegment)
{
    const SegmentFile shorter("shorter");
    shorter.create(4079);
    const SegmentFile longer("longer");
    longer.create(4081);
    ASSERT_EQ(mkfifo("/dev/shm/zu-kp/pipe", 0600), 0);

    EXPECT_EQ(problem_of("shorter").text, "shorter: not a segment (4079 bytes instead of 4080)");
    EXPECT_EQ(problem_of("longer").text, "longer: not a segment (4081 bytes instead of 4080)");
    EXPECT_EQ(problem_of("pipe").text, "pipe: not a segment (not a regular file)");
    EXPECT_EQ(problem_of("none").text, "none: no such topic");
    EXPECT_EQ(problem_of("none").kind, kNothing);
    EXPECT_EQ(problem_of("longer").kind, kInvalid);
}

TEST_P(EachMeans, SeesEveryWrite)
{
    StoreProvider provider("a");
    provider.write("one", 1);
    const SegmentReader reader = reader_of("a", GetParam());
    const auto stamp = reader.stamp();
    provider.write("two", 2);

    EXPECT_EQ(reader.means(), GetParam());
    EXPECT_EQ(reader.read()->bytes, "two");
    EXPECT_EQ(reader.stamp()->last_write_ts, 2u);
    EXPECT_FALSE(reader.stamp()->same_write(*stamp));
    EXPECT_EQ(reader.inode(), snapshot_of("a")->inode);
}

TEST_P(EachMeans, SurvivesAFileThatIsCutShort)
{
    const RawSegment segment("a", 8);
    const SegmentReader reader = reader_of("a", GetParam());

    ASSERT_EQ(truncate(SegmentFile("a").path().c_str(), 0), 0);

    EXPECT_FALSE(reader.read());
    EXPECT_FALSE(reader.stamp());
}

TEST_P(EachMeans, HoldsNothingAfterItsEnd)
{
    StoreProvider provider("a");
    const auto descriptors = open_descriptors();
    const int mappings = mapping_count();
    {
        SegmentReader reader = reader_of("a", GetParam());
        SegmentReader other = reader_of("a", GetParam());
        other = std::move(reader);
        EXPECT_TRUE(other.read());
    }

    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(mapping_count(), mappings);
}

TEST_P(EachMeans, NeverSeesATornValue)
{
    const Reads reads = read_beside(EagerWriter::Stamps::rising, GetParam());

    EXPECT_EQ(reads.torn, 0);
    EXPECT_GE(reads.whole, 2000);
}

TEST_P(EachMeans, NeverSeesATornValueUnderOneTimestamp)
{
    const Reads reads = read_beside(EagerWriter::Stamps::all_the_same, GetParam());

    EXPECT_EQ(reads.torn, 0);
    EXPECT_GE(reads.whole, 2000);
}

TEST(ValueProblem, SaysWhyThereIsNothingToShow)
{
    Snapshot snapshot;
    EXPECT_EQ(value_problem("a", snapshot).text, "a: no provider has declared it yet");
    snapshot.condition = Condition::empty;
    EXPECT_EQ(value_problem("a", snapshot).text, "a: no value has been written yet");
    snapshot.condition = Condition::busy;
    EXPECT_EQ(value_problem("a\n", snapshot).text,
              "a\\n: a write has begun and does not end (its writer may have died)");
    snapshot.condition = Condition::corrupt;
    snapshot.type = 99;
    EXPECT_EQ(value_problem("a", snapshot).text,
              "a: the segment is corrupt (type 99, size 0, maximum 0)");
}

TEST(SegmentReader, TellsAWriterThatWritesOnFromOneThatDied)
{
    SegmentFile("a").create();
    SegmentFile("a").put_u8(at::flags, 3);
    SegmentFile("a").put_u8(at::writing, 1);
    TopicOpener opener;
    Problem problem;
    const auto dead = read_topic(opener, "a", problem);
    std::atomic<bool> stop = false;
    std::thread writer([&stop] {
        for (uint64_t ts = 1; !stop; ++ts)
            SegmentFile("a").put_u64(at::last_write_ts, ts);
    });

    // A writer that gets no processor for as long as the reader waits looks like a dead one.
    EXPECT_TRUE(wait_until([&] {
        const auto alive = read_topic(opener, "a", problem);
        return value_problem("a", *alive).text ==
               "a: is written without a pause in which it could be read";
    }));
    stop = true;
    writer.join();
    EXPECT_EQ(value_problem("a", *dead).text,
              "a: a write has begun and does not end (its writer may have died)");
}
