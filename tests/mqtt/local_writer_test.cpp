#include "store/local_writer.h"

#include "testing/capture.h"
#include "testing/process.h"
#include "testing/store_provider.h"

#include <array>
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using namespace kptest;

namespace {

WriteRequest text_message(const std::string &text)
{
    WriteRequest request;
    request.sample.type = KP_TYPE_STRING;
    request.sample.max_size = 100;
    request.sample.source_ts = 17;
    request.sample.value = text;
    request.messages = 1;
    return request;
}

std::string value_of(const std::string &tag)
{
    Sample sample;
    const bool read = StoreReader{}.read(tag, sample) == ReadOutcome::read;
    return read && sample.has_value ? sample.value : "none";
}

class Writing : public testing::Test {
  protected:
    ~Writing() override
    {
        writer_.reset();
    }
    // Returns once it stands in the store.
    void put_and_wait(const std::string &name, const std::string &text, const std::string &tag)
    {
        writer_->put(name, text_message(text));
        EXPECT_TRUE(wait_until([&] { return value_of(tag) == text; })) << name;
    }
    void finish()
    {
        EXPECT_TRUE(writer_->stop(std::chrono::seconds(20)));
    }

    kp::tool::NoticeMarks marks_;
    Counters counters_;
    std::unique_ptr<LocalWriter> writer_ = LocalWriter::start("writing", marks_, counters_);
};

// An application on the device that counts the notices it gets, as far as they say something.
class Listener {
  public:
    Listener() : handle_(kp_new("listener", hear))
    {
        (void)kp_set_user_data(handle_, this);
    }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    ~Listener()
    {
        (void)kp_destroy(handle_);
    }
    bool has_heard_of(const std::string &tag) const
    {
        return heard_[kp_hash(tag.c_str())];
    }
    int empty_notices() const
    {
        return empty_;
    }

  private:
    static int hear(kp_t *, const kp_write_info *notice, void *self)
    {
        auto *listener = static_cast<Listener *>(self);
        if (!listener)
            return 0;
        bool is_empty = true;
        for (unsigned bucket = 0; bucket < KP_BUCKET_COUNT; ++bucket)
            if (notice->bitmap[bucket / 8] >> (bucket % 8) & 1) {
                listener->heard_[bucket] = true;
                is_empty = false;
            }
        listener->empty_ += is_empty;
        return 0;
    }

    std::array<std::atomic<bool>, KP_BUCKET_COUNT> heard_{};
    std::atomic<int> empty_ = 0;
    kp_t *handle_;
};

} // namespace

// Notices of one sender arrive in their order, so an empty one would come before the last.
TEST_F(Writing, SendsNoEmptyNoticeAfterInstantWrites)
{
    const Listener listener;
    const StoreProvider declared("w/declared");
    WriteRequest instant = text_message("instant");
    instant.is_declared = true;

    EXPECT_TRUE(wait_until([&] { // the writer may not have accepted the listener yet
        writer_->put("w/declared", instant);
        return listener.has_heard_of("w/declared");
    }));
    put_and_wait("w/own", "provided", "w/own");
    EXPECT_TRUE(wait_until([&] { return listener.has_heard_of("w/own"); }));

    EXPECT_EQ(listener.empty_notices(), 0);
    EXPECT_EQ(value_of("w/declared"), "instant");
}

TEST_F(Writing, MovesItsOwnTagBesideOneThatComesBelowItsName)
{
    put_and_wait("w/a", "parent", "w/a");

    put_and_wait("w/a/b", "child", "w/a/b");
    finish();

    EXPECT_EQ(value_of("w/a/_"), "parent");
    EXPECT_EQ(value_of("w/a/b"), "child");
    EXPECT_EQ(counters_.in, 2u);
    EXPECT_EQ(counters_.refused, 0u);
}

TEST_F(Writing, KeepsTypeSourceTimeAndExtraInformationOfWhatItMoves)
{
    WriteRequest number = text_message(bytes_of(21.5));
    number.sample.type = KP_TYPE_DOUBLE;
    number.sample.quality = 3;
    number.sample.extra_info = 77;
    writer_->put("w/a", number);
    ASSERT_TRUE(wait_until([] { return value_of("w/a") == bytes_of(21.5); }));

    put_and_wait("w/a/b", "child", "w/a/b");
    finish();

    Sample sample;
    ASSERT_EQ(StoreReader{}.read("w/a/_", sample), ReadOutcome::read);
    EXPECT_EQ(sample.type, KP_TYPE_DOUBLE);
    EXPECT_EQ(sample.quality, 3);
    EXPECT_EQ(sample.source_ts, 17u);
    EXPECT_EQ(sample.extra_info, 77u);
}

TEST_F(Writing, LetsAMovedValueBeSentAgainSinceItsTopicMayHaveBeenCleared)
{
    put_and_wait("w/a", "parent", "w/a");

    put_and_wait("w/a/b", "child", "w/a/b");
    finish();

    Sample moved;
    Sample written;
    ASSERT_EQ(StoreReader{}.read("w/a/_", moved), ReadOutcome::read);
    ASSERT_EQ(StoreReader{}.read("w/a/b", written), ReadOutcome::read);
    EXPECT_FALSE(writer_->key_of("w/a/_", moved));
    EXPECT_TRUE(writer_->key_of("w/a/b", written));
}

TEST_F(Writing, PutsAValueBesideWhatIsBelowItsName)
{
    put_and_wait("w/a/b", "child", "w/a/b");

    put_and_wait("w/a", "parent", "w/a/_");
    finish();

    EXPECT_EQ(value_of("w/a/b"), "child");
    EXPECT_EQ(counters_.in, 2u);
}

TEST_F(Writing, GoesOnAtThePlaceWhereATagWasMoved)
{
    put_and_wait("w/a", "parent", "w/a");
    put_and_wait("w/a/b", "child", "w/a/b");

    put_and_wait("w/a", "newer", "w/a/_");
    writer_->drop("w/a");
    finish();

    EXPECT_EQ(value_of("w/a/_"), "none");
    EXPECT_EQ(value_of("w/a/b"), "child");
}

TEST_F(Writing, KnowsATagThatItHasYetToDrop)
{
    put_and_wait("w/a", "value", "w/a");

    writer_->drop("w/a");
    const bool was_dropping = writer_->is_dropping("w/a") || value_of("w/a") == "none";

    EXPECT_TRUE(was_dropping);
    EXPECT_TRUE(wait_until([this] { return !writer_->is_dropping("w/a"); }));
    EXPECT_EQ(value_of("w/a"), "none");
}

TEST_F(Writing, BringsBothOfARoundWhicheverIsFirst)
{
    for (const char *name : {"w/a", "w/a/b/c", "w/a/b", "w/z/b", "w/z", "w/z/b/c"})
        writer_->put(name, text_message(name));
    finish();

    EXPECT_EQ(value_of("w/a/_"), "w/a");
    EXPECT_EQ(value_of("w/a/b/_"), "w/a/b");
    EXPECT_EQ(value_of("w/a/b/c"), "w/a/b/c");
    EXPECT_EQ(value_of("w/z/_"), "w/z");
    EXPECT_EQ(value_of("w/z/b/_"), "w/z/b");
    EXPECT_EQ(value_of("w/z/b/c"), "w/z/b/c");
    EXPECT_EQ(counters_.in, 6u);
}

TEST_F(Writing, LeavesItsTagWhereOthersHaveItOpen)
{
    StderrCapture log;
    put_and_wait("w/a", "parent", "w/a");
    kp_shm_t *consumer = kp_shm_new("w/a", KP_ROLE_CONSUMER);

    writer_->put("w/a/b", text_message("child"));
    finish();
    (void)kp_shm_destroy(consumer, "w/a", KP_ROLE_CONSUMER);

    EXPECT_EQ(value_of("w/a"), "parent");
    EXPECT_EQ(counters_.in, 1u);
    EXPECT_EQ(counters_.refused, 1u);
    EXPECT_THAT(log.text(),
                testing::HasSubstr("the tag w/a/b cannot be written: a part of its name is a tag "
                                   "with a value that others use"));
}

TEST_F(Writing, CountsEachMessageOfARoundOnce)
{
    for (const char *text : {"1", "2", "3", "4", "5"})
        writer_->put("w/same", text_message(text));
    finish();

    EXPECT_EQ(value_of("w/same"), "5");
    EXPECT_EQ(counters_.in, 5u);
}

TEST_F(Writing, GivesItsValueAnotherQualityAndNothingElse)
{
    put_and_wait("w/a", "text", "w/a");
    Sample before;
    ASSERT_EQ(StoreReader{}.read("w/a", before), ReadOutcome::read);

    writer_->set_quality("w/a", 9);
    finish();

    Sample after;
    ASSERT_EQ(StoreReader{}.read("w/a", after), ReadOutcome::read);
    EXPECT_EQ(after.quality, 9);
    EXPECT_EQ(after.value, "text");
    EXPECT_EQ(after.source_ts, before.source_ts);
    EXPECT_EQ(counters_.in, 1u);
    EXPECT_TRUE(writer_->key_of("w/a", after));
}

TEST_F(Writing, GivesAValueOfSomebodyElseNoOtherQuality)
{
    put_and_wait("w/a", "text", "w/a");
    StoreProvider other("w/a");
    other.write("text");

    writer_->set_quality("w/a", 9);
    writer_->set_quality("w/none", 9);
    finish();

    Sample after;
    ASSERT_EQ(StoreReader{}.read("w/a", after), ReadOutcome::read);
    EXPECT_NE(after.quality, 9);
}
