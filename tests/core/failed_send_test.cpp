// What kp_tag_notify() does when the sending reports a failure, which kp_notify_send() never does
// by itself. This binary is linked with a replacement of it.
#include "core/handle.h"
#include "testing/capture.h"

#include <gtest/gtest.h>

using namespace kptest;

extern "C" int32_t __wrap_kp_notify_send(kp_notify_t *endpoint, const void *buf, uint32_t len);

namespace {

int32_t send_result = 0;

TEST(FailedSend, IsReportedAndKeepsTheMarksForTheNextNotice)
{
    kp_t *handle = kp_new("self", nullptr);
    kp_tag_t *tag = kp_tag_provider_new(handle, "a", KP_TYPE_INT8, 0, 0);
    ASSERT_EQ(kp_tag_write(handle, tag, "", 1), 1);
    StderrCapture log;

    send_result = -1;
    EXPECT_EQ(kp_tag_notify(handle), -1);
    EXPECT_EQ(handle->write_info.bitmap[97 >> 3], 1 << (97 & 7));
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_tag_notify: ret is null\n\033[0m");

    send_result = 0;
    EXPECT_EQ(kp_tag_notify(handle), 0);
    EXPECT_EQ(handle->write_info.bitmap[97 >> 3], 0);
    EXPECT_EQ(kp_tags_destroy(handle), 0);
    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(FailedSend, AfterAnInstantWriteDoesNotChangeItsResult)
{
    kp_t *handle = kp_new("self", nullptr);
    StderrCapture log;

    send_result = 1; // anything but 0 is a failure
    EXPECT_EQ(kp_tag_instant_write(handle, "i", "", KP_TYPE_INT8, 1, 1, 1, 0), 0);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tag_notify: ret is null"});

    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(FailedSend, AfterAnInstantPublicationDoesNotChangeItsResult)
{
    kp_t *handle = kp_new("self", nullptr);
    StderrCapture log;

    send_result = -1;
    EXPECT_EQ(kp_pub_topic_instant(handle, "p", "", 1, KP_TYPE_INT8, 1), 0);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_tag_notify: ret is null"});

    EXPECT_EQ(kp_tags_destroy(handle), 0);
    EXPECT_EQ(kp_destroy(handle), 0);
}

TEST(FailedSend, OfAnAnnouncementDoesNotChangeTheProvider)
{
    kp_t *handle = kp_new("self", nullptr);
    ASSERT_EQ(kp_set_new_tag_notify(handle, 1), 0);
    StderrCapture log;

    send_result = -1;
    EXPECT_NE(kp_tag_provider_new(handle, "a", KP_TYPE_INT8, 0, 0), nullptr);
    EXPECT_EQ(log.text(), "");

    EXPECT_EQ(kp_tags_destroy(handle), 0);
    EXPECT_EQ(kp_destroy(handle), 0);
}

} // namespace

extern "C" int32_t __wrap_kp_notify_send(kp_notify_t *, const void *, uint32_t)
{
    return send_result;
}
