// The walk of the tags that a change notice flags.
#include "core/mesh.h"

#include <climits>

using namespace kptest;
using testing::IsEmpty;

namespace {

constexpr uint32_t kShared = 64; // the bucket of "Aa" as well as of "BB"

// A consumer tag on a topic that somebody else writes.
struct Followed {
    Followed(kp_t *handle, const char *topic)
        : writer(topic), tag(kp_tag_consumer_new(handle, topic))
    {
    }

    Writer writer;
    kp_tag_t *tag;
};

// Collects what the walk gives from `iter` on.
kp_tag_t *next(kp_t *handle, const std::string &notice, kp_tag_iter_t &iter)
{
    return kp_get_next_updated_tag(handle, as_write_info(notice), &iter);
}

TEST(Walk, GivesATagOfAFlaggedBucketThatNeedsARead)
{
    const Handle handle;
    Followed followed(handle, "a");
    followed.writer.write(1);
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, write_notice({97}), iter), followed.tag);
    EXPECT_EQ(iter.bucket, 98);
    EXPECT_EQ(iter.entry, nullptr);
}

TEST(Walk, GivesEveryUnreadTagOfABucketWhicheverOfThemWasWritten)
{
    const Handle handle;
    Followed older(handle, "Aa");
    Followed newer(handle, "BB");
    older.writer.write(1);
    newer.writer.write(1);
    const std::string notice = write_notice({kp_hash("Aa")});
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, notice, iter), newer.tag);
    EXPECT_EQ(next(handle, notice, iter), older.tag);
    EXPECT_EQ(next(handle, notice, iter), nullptr);
    EXPECT_EQ(iter.bucket, 1024);
}

TEST(Walk, EndsItsChainWithANullAndGoesOnWithTheNextBucket)
{
    const Handle handle;
    Followed read(handle, "Aa");
    Followed unread(handle, "BB"); // comes first in the chain
    Followed later(handle, "a");
    unread.writer.write(1);
    later.writer.write(1);
    const std::string notice = write_notice({kShared, 97});
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, notice, iter), unread.tag);
    EXPECT_EQ(next(handle, notice, iter), nullptr);
    EXPECT_EQ(iter.bucket, 65);
    EXPECT_EQ(next(handle, notice, iter), later.tag);
    EXPECT_EQ(next(handle, notice, iter), nullptr);
    EXPECT_EQ(iter.bucket, 1024);
}

TEST(Walk, PassesOverBucketsWhoseTagsHaveAllBeenRead)
{
    const Handle handle;
    Followed read(handle, "Aa");
    Followed unread(handle, "a");
    unread.writer.write(1);
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, write_notice({kShared, 97}), iter), unread.tag);
}

TEST(Walk, LeavesOutBucketsThatAreNotFlagged)
{
    const Handle handle;
    Followed followed(handle, "a");
    followed.writer.write(1);
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, write_notice({96, 98}), iter), nullptr);
}

TEST(Walk, OfAnEmptyBitmapEndsAtOnce)
{
    const Handle handle;
    Followed followed(handle, "a");
    followed.writer.write(1);
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, write_notice({}), iter), nullptr);
    EXPECT_EQ(iter.bucket, 1024);
}

TEST(Walk, CountsTheBitsOfAByteFromTheLeastSignificant)
{
    const Handle handle;
    Followed first(handle, "aA");   // bucket 0
    Followed seventh(handle, "aH"); // bucket 7
    Followed eighth(handle, "aI");  // bucket 8
    Followed last(handle, "a@");    // bucket 1023
    first.writer.write(1);
    seventh.writer.write(1);
    eighth.writer.write(1);
    last.writer.write(1);
    std::string notice(129, '\0');
    notice[0] = 1;
    notice[1] = '\x81';
    notice[2] = '\x01';
    notice[128] = '\x80';
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, notice, iter), first.tag);
    EXPECT_EQ(next(handle, notice, iter), seventh.tag);
    EXPECT_EQ(next(handle, notice, iter), eighth.tag);
    EXPECT_EQ(next(handle, notice, iter), last.tag);
    EXPECT_EQ(iter.bucket, 1024);
}

TEST(Walk, FindsNothingNewOnceTheTagsWereRead)
{
    const Handle handle;
    Followed followed(handle, "a");
    followed.writer.write(5);
    const std::string notice = write_notice({97});
    kp_tag_iter_t first{0, nullptr};
    int32_t value = 0;
    ASSERT_EQ(kp_tag_read(next(handle, notice, first), &value, sizeof(value)), 4);
    kp_tag_iter_t second{0, nullptr};

    EXPECT_EQ(next(handle, notice, second), nullptr);
    EXPECT_EQ(second.bucket, 1024);
}

TEST(Walk, NeverGivesATagOfQualityZero)
{
    const Handle handle;
    Followed followed(handle, "a");
    followed.writer.write(1, KP_QUALITY_NONE);
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, write_notice({97}), iter), nullptr);
}

TEST(Walk, PassesOverAnEntryWithoutATag)
{
    const Handle handle;
    Followed behind(handle, "Aa");
    Followed hidden(handle, "BB");
    behind.writer.write(1);
    hidden.writer.write(1);
    kp_lookup_head(handle, kShared)->tag = nullptr;
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(next(handle, write_notice({kShared}), iter), behind.tag);

    kp_lookup_head(handle, kShared)->tag = hidden.tag;
}

TEST(Walk, StartsAtBucketZeroForANegativeBucket)
{
    const Handle handle;
    Followed followed(handle, "aA");
    followed.writer.write(1);
    const std::string notice = write_notice({0});
    kp_tag_iter_t below{-1, nullptr};
    kp_tag_iter_t lowest{INT_MIN, nullptr};

    EXPECT_EQ(next(handle, notice, below), followed.tag);
    EXPECT_EQ(next(handle, notice, lowest), followed.tag);
    EXPECT_EQ(lowest.bucket, 1);
}

TEST(Walk, FromABucketAboveTheLastEndsAtOnce)
{
    const Handle handle;
    Followed followed(handle, "a@");
    followed.writer.write(1);
    const std::string notice = write_notice({1023});
    kp_tag_iter_t behind_the_last{1024, nullptr};
    kp_tag_iter_t highest{INT_MAX, nullptr};

    EXPECT_EQ(next(handle, notice, behind_the_last), nullptr);
    EXPECT_EQ(behind_the_last.bucket, 1024);
    EXPECT_EQ(next(handle, notice, highest), nullptr);
    EXPECT_EQ(highest.bucket, INT_MAX);
}

TEST(Walk, TakesNoOtherNotice)
{
    const Handle handle;
    Followed followed(handle, "a");
    followed.writer.write(1);
    std::string notice = write_notice({97});
    notice[0] = 2;
    kp_tag_iter_t iter{3, nullptr};
    StderrCapture log;

    EXPECT_EQ(next(handle, notice, iter), nullptr);
    EXPECT_EQ(iter.bucket, 3);
    EXPECT_EQ(log.text(), "");
}

TEST(Walk, IsSafeWithoutANoticeOrAnIterator)
{
    const Handle handle;
    const std::string notice = write_notice({97});
    kp_tag_iter_t iter{0, nullptr};

    EXPECT_EQ(kp_get_next_updated_tag(handle, nullptr, &iter), nullptr);
    EXPECT_EQ(kp_get_next_updated_tag(handle, as_write_info(notice), nullptr), nullptr);
}

TEST(Walk, ReportsANullHandleForEachFlaggedBucket)
{
    kp_tag_iter_t iter{0, nullptr};
    StderrCapture log;

    EXPECT_EQ(next(nullptr, write_notice({4, 900}), iter), nullptr);

    EXPECT_EQ(log.lines(),
              (Lines{"ERROR: kp_lookup_head: kp is null", "ERROR: kp_lookup_head: kp is null"}));
}

TEST(Walk, WorksInsideTheChangeCallback)
{
    const Peer peer;
    CallbackRecorder recorder;
    const Handle handle;
    const UnixSocket sender = peer.accept();
    Followed followed(handle, "a");
    followed.writer.write(11);
    std::atomic<int32_t> value = 0;
    recorder.on_call([&value](kp_t *self, const kp_write_info *notice) {
        kp_tag_iter_t iter{0, nullptr};
        int32_t read = 0;
        (void)kp_tag_read(kp_get_next_updated_tag(self, notice, &iter), &read, sizeof(read));
        value = read;
    });

    ASSERT_TRUE(sender.send(write_notice({97})));

    EXPECT_TRUE(wait_until([&value] { return value == 11; }));
}

} // namespace
