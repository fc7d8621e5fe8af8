#include "providers/left_handles.h"
#include "store/local_writer.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

using namespace kp::mqtt;

namespace {

using Names = std::set<std::string>;

const std::string kPath = "/run/handles";
constexpr uint32_t kUncounted = 3;

Names left()
{
    HandleRecord record(kPath);
    EXPECT_EQ(record.load(), "");
    return record.left();
}

std::string contents()
{
    std::ostringstream text;
    text << std::ifstream(kPath).rdbuf();
    return text.str();
}

Sample read(const std::string &tag)
{
    Sample sample;
    EXPECT_EQ(StoreReader{}.read(tag, sample), ReadOutcome::read) << tag;
    return sample;
}

// What a process that is killed leaves behind: a value, and a count that nobody gives back.
void leave_behind(const std::string &tag)
{
    kp_shm_t *segment = kp_shm_new(tag.c_str(), KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(segment, KP_TYPE_STRING, 100, 0);
    (void)kp_shm_write(segment, "old", 3, kp_get_timestamp_us(), 1, 1);
    (void)kp_shm_destroy(segment, tag.c_str(), kUncounted);
}

class HandleRecords : public testing::Test {
  protected:
    HandleRecords()
    {
        std::filesystem::remove(kPath);
        std::filesystem::remove_all("/dev/shm/zu-kp");
    }
    // The record of a run that was killed while it provided the tag.
    static void note(const std::string &tag)
    {
        HandleRecord record(kPath);
        EXPECT_EQ(record.load(), "");
        record.add(tag);
    }
};

} // namespace

TEST_F(HandleRecords, NameWhatAKilledRunHadOpen)
{
    {
        HandleRecord record(kPath);
        ASSERT_EQ(record.load(), "");
        record.add("a/x");
        record.add("a/y");
        record.remove("a/x");
    }
    EXPECT_EQ(left(), Names{"a/y"});
    EXPECT_EQ(left(), Names{"a/y"}); // until it is given back
}

TEST_F(HandleRecords, NameWhatIsLeftAlsoWhenItIsOpenedAndClosedAgain)
{
    note("a/x");
    {
        HandleRecord record(kPath);
        ASSERT_EQ(record.load(), "");
        record.add("a/x");
        record.remove("a/x");
    }
    EXPECT_EQ(left(), Names{"a/x"});
}

TEST_F(HandleRecords, NameNothingAfterARunThatLeftInOrder)
{
    {
        kp::tool::NoticeMarks marks;
        Counters counters;
        HandleRecord record(kPath);
        ASSERT_EQ(record.load(), "");
        const auto writer = LocalWriter::join("writer", marks, counters, &record);
        WriteRequest request;
        request.sample.type = KP_TYPE_STRING;
        request.sample.max_size = 100;
        request.sample.value = "text";
        writer->put("a/x", request);
        writer->work_off();
        EXPECT_EQ(contents(), "+a/x\n"); // as long as it runs
    }
    EXPECT_EQ(left(), Names{});
}

TEST_F(HandleRecords, AreGivenBackWithTheTagThatNobodyElseHas)
{
    leave_behind("a/x");
    note("a/x");
    HandleRecord record(kPath);
    ASSERT_EQ(record.load(), "");

    give_back_left_handles(record, true);

    Sample sample;
    EXPECT_EQ(StoreReader{}.read("a/x", sample), ReadOutcome::missing);
    EXPECT_EQ(record.left(), Names{});
    EXPECT_EQ(left(), Names{});
}

TEST_F(HandleRecords, LeaveTheTagToAProgramThatHasItOpen)
{
    leave_behind("a/x");
    note("a/x");
    kp_shm_t *program = kp_shm_new("a/x", KP_ROLE_CONSUMER);
    HandleRecord record(kPath);
    ASSERT_EQ(record.load(), "");

    give_back_left_handles(record, true);

    EXPECT_EQ(read("a/x").providers, 0u);
    EXPECT_EQ(read("a/x").value, "old");
    EXPECT_EQ(record.left(), Names{});
    (void)kp_shm_destroy(program, "a/x", KP_ROLE_CONSUMER);
}

TEST_F(HandleRecords, TakeNoCountOfAProviderThatLives)
{
    note("a/x"); // killed before it was counted
    kp_shm_t *program = kp_shm_new("a/x", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(program, KP_TYPE_STRING, 100, 0);
    HandleRecord record(kPath);
    ASSERT_EQ(record.load(), "");

    give_back_left_handles(record, true);

    EXPECT_EQ(read("a/x").providers, 1u);
    EXPECT_EQ(record.left(), Names{});
    (void)kp_shm_destroy(program, "a/x", KP_ROLE_PROVIDER);
}

TEST_F(HandleRecords, MakeNoTagThatIsGone)
{
    note("a/x");
    HandleRecord record(kPath);
    ASSERT_EQ(record.load(), "");

    give_back_left_handles(record, true);

    EXPECT_FALSE(std::filesystem::exists("/dev/shm/zu-kp/a/x"));
    EXPECT_EQ(record.left(), Names{});
}

// Where no look at the processes says whether the count is that of a program.
TEST_F(HandleRecords, LetAValueGoThatOnlyAKilledRunIsCountedFor)
{
    leave_behind("a/x");
    note("a/x");
    HandleRecord record(kPath);
    ASSERT_EQ(record.load(), "");
    kp::tool::NoticeMarks marks;
    Counters counters;
    const auto writer = LocalWriter::join("writer", marks, counters, &record);
    WriteRequest request;
    request.sample.type = KP_TYPE_STRING;
    request.sample.value = "new";
    request.sample.quality = 1;
    request.is_declared = true;
    writer->put("a/x", request);
    writer->work_off();
    ASSERT_EQ(read("a/x").value, "new");
    EXPECT_TRUE(writer->is_left("a/x"));

    writer->drop("a/x");
    writer->work_off();

    EXPECT_FALSE(read("a/x").has_value);
}
