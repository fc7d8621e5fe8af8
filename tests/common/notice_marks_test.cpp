#include "common/device/notice_marks.h"

#include "testing/readable.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace kp::tool;
using kptest::is_readable;

namespace {

kp_write_info notice_of(uint32_t bucket)
{
    kp_write_info notice{KP_MSG_WRITE_INFO, {}};
    notice.bitmap[bucket / 8] = static_cast<uint8_t>(1U << bucket % 8);
    return notice;
}

} // namespace

TEST(NoticeMarks, GatherTheBucketsOfSeveralNotices)
{
    NoticeMarks marks;
    marks.add(notice_of(3));
    marks.add(notice_of(1023));

    const Buckets buckets = marks.take();

    EXPECT_EQ(buckets.count(), 2u);
    EXPECT_TRUE(buckets[3]);
    EXPECT_TRUE(buckets[1023]);
}

TEST(NoticeMarks, AreReadableOnlyWhileThereIsSomethingToTake)
{
    NoticeMarks marks;
    EXPECT_FALSE(is_readable(marks.fd()));

    marks.add(notice_of(1));
    marks.add(notice_of(2));
    EXPECT_TRUE(is_readable(marks.fd()));

    (void)marks.take();
    EXPECT_FALSE(is_readable(marks.fd()));
    EXPECT_TRUE(marks.take().none());
}

TEST(NoticeMarks, LoseNoneThatComesWhileOthersAreTaken)
{
    constexpr uint32_t count = 20'000;
    NoticeMarks marks;
    std::atomic<bool> done = false;
    std::thread sender([&] {
        for (uint32_t number = 0; number < count; ++number)
            marks.add(notice_of(number % KP_BUCKET_COUNT));
        done = true;
    });
    Buckets seen;
    while (!done)
        seen |= marks.take();
    sender.join();

    seen |= marks.take();

    EXPECT_TRUE(seen.all());
}
