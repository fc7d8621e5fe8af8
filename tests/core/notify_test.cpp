// What goes out to the peers, by the bytes that arrive on a socket.
#include "core/mesh.h"

using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::chrono::milliseconds kNow{0};
constexpr int32_t kValue = 1;

class Notify : public testing::Test {
  protected:
    ~Notify() override
    {
        SegmentFile("a").remove(); // what instant writes leave
    }

    kp_tag_t *new_number(const char *topic)
    {
        return kp_tag_provider_new(handle_, topic, KP_TYPE_INT32, 0, 0);
    }

    const Handle handle_;
    const UnixSocket reader_ = listen_to(handle_);
};

TEST_F(Notify, SendsTheMarksOfAllWritesSinceTheLastNoticeInOneMessage)
{
    ASSERT_EQ(kp_tag_write(handle_, new_number("a"), &kValue, 4), 4);
    ASSERT_EQ(kp_tag_write_with_timestamp(handle_, new_number("aA"), &kValue, 4, 1), 4);
    ASSERT_EQ(kp_tag_write_with_source_params(handle_, new_number("a@"), &kValue, 4, 1, 1), 4);

    EXPECT_EQ(kp_tag_notify(handle_), 0);

    EXPECT_EQ(reader_.recv(129), write_notice({0, 97, 1023}));
    EXPECT_FALSE(reader_.is_readable(kNow)); // so no write had sent anything
}

TEST_F(Notify, ClearsTheMarks)
{
    ASSERT_EQ(kp_tag_write(handle_, new_number("a"), &kValue, 4), 4);

    ASSERT_EQ(kp_tag_notify(handle_), 0);

    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Notify, SendsANoticeWithoutAMarkToo)
{
    EXPECT_EQ(kp_tag_notify(handle_), 0);

    EXPECT_EQ(reader_.recv(129), write_notice({}));
}

TEST_F(Notify, SetsTheTypeByteAgain)
{
    handle_->write_info.type = 9;

    EXPECT_EQ(kp_tag_notify(handle_), 0);

    EXPECT_EQ(reader_.recv(129), write_notice({}));
}

TEST_F(Notify, OfANewTagSetsTheTypeByteAgain)
{
    ASSERT_EQ(kp_set_new_tag_notify(handle_, 1), 0);
    handle_->new_tag_info.type = 9;

    EXPECT_NE(new_number("a"), nullptr);

    EXPECT_EQ(reader_.recv(387), new_tag_notice("a"));
}

TEST_F(Notify, SetsASingleBitForTwoTopicsOfOneHash)
{
    ASSERT_EQ(kp_tag_write(handle_, new_number("Aa"), &kValue, 4), 4);
    ASSERT_EQ(kp_tag_write(handle_, new_number("BB"), &kValue, 4), 4);

    ASSERT_EQ(kp_tag_notify(handle_), 0);

    EXPECT_EQ(reader_.recv(129), write_notice({64}));
}

TEST_F(Notify, SendsNoMarkOfAFailedWrite)
{
    StderrCapture log;
    ASSERT_EQ(kp_tag_write_with_timestamp(handle_, new_number("a"), &kValue, 3, 1), -1);

    ASSERT_EQ(kp_tag_notify(handle_), 0);

    EXPECT_EQ(reader_.recv(129), write_notice({}));
}

TEST_F(Notify, NeedsAHandle)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_notify(nullptr), -1);

    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: kp_tag_notify: kp is null\n\033[0m");
}

TEST_F(Notify, SucceedsWhateverBecomesOfAPeersCopy)
{
    ASSERT_EQ(kp_tag_write(handle_, new_number("a"), &kValue, 4), 4);
    StderrCapture log;
    const FailNext sending(Call::send);

    EXPECT_EQ(kp_tag_notify(handle_), 0);

    EXPECT_THAT(log.text_without_line_numbers(),
                testing::ContainsRegex("ERROR: kp_notify_send: send failed: 1 \\([0-9]+\\), "
                                       "errno=32\n"));
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Notify, IsDoneByAWriteByTopic)
{
    EXPECT_EQ(kp_tag_instant_write(handle_, "a", &kValue, KP_TYPE_INT32, 4, 1, 1, 0), 0);

    EXPECT_EQ(reader_.recv(129), write_notice({97}));
    EXPECT_FALSE(reader_.is_readable(kNow));
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

TEST_F(Notify, ByAWriteByTopicTakesEarlierMarksAlong)
{
    ASSERT_EQ(kp_tag_write(handle_, new_number("aA"), &kValue, 4), 4);

    ASSERT_EQ(kp_tag_instant_write(handle_, "a", &kValue, KP_TYPE_INT32, 4, 1, 1, 0), 0);

    EXPECT_EQ(reader_.recv(129), write_notice({0, 97}));
}

TEST_F(Notify, IsNotDoneByAWriteByTopicThatFails)
{
    StderrCapture log;

    EXPECT_EQ(kp_tag_instant_write(handle_, "../a", &kValue, KP_TYPE_INT32, 4, 1, 1, 0), -1);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_instant_write: topic is invalid"});
    EXPECT_FALSE(reader_.is_readable(kNow));
    EXPECT_THAT(marks_of(handle_), IsEmpty());
}

} // namespace
