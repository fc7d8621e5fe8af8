// From when on a value counts as not yet read. The time is the process's first subscription, so
// this is the only test of its binary.
#include "core/mesh.h"
#include "store/segment_file.h"

using namespace kptest;

namespace {

uint64_t time_that_passes()
{
    const uint64_t before = kp_get_timestamp_us();
    EXPECT_TRUE(wait_until([before] { return kp_get_timestamp_us() > before + 1; }));
    return kp_get_timestamp_us();
}

TEST(FirstSubscription, OfTheProcessTellsUnreadValuesFromReadOnes)
{
    const Handle handle;
    Writer before("before");
    Writer after("after");
    before.write(1);

    const uint64_t earliest = time_that_passes();
    ASSERT_EQ(kp_sub_topic(nullptr, nullptr), 0); // enough to start the time
    const uint64_t latest = time_that_passes();
    after.write(1);
    ASSERT_EQ(kp_sub_topic(handle, "before"), 0);
    ASSERT_EQ(kp_sub_topic(handle, "after"), 0);

    EXPECT_GE(kp_get_tag(handle, "before")->shm->last_update_ts, earliest);
    EXPECT_LE(kp_get_tag(handle, "before")->shm->last_update_ts, latest);
    EXPECT_EQ(kp_get_tag(handle, "after")->shm->last_update_ts,
              kp_get_tag(handle, "before")->shm->last_update_ts);
    EXPECT_EQ(kp_tag_need_read(kp_get_tag(handle, "before")), 0);
    EXPECT_EQ(kp_tag_need_read(kp_get_tag(handle, "after")), 1);
}

} // namespace
