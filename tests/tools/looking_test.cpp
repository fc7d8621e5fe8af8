// Looking changes nothing: neither a byte nor a time of change of the store, nor the mesh.
#include "kp_run.h"

#include "testing/segment_file.h"

#include <atomic>
#include <gtest/gtest.h>

using namespace kptest;

class Looking : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(Looking, ChangesNothing)
{
    kp_t *handle = kp_new("application", ignore_notice);
    kp_tag_t *tag = kp_tag_provider_new(handle, "plant/speed", KP_TYPE_DOUBLE, 8, 0);
    const double value = 21.5;
    (void)kp_tag_write(handle, tag, &value, sizeof(value));
    put_text("plant/name", "north");
    SegmentFile("waiting").create();
    SegmentFile("short").create(3);
    const std::string before = store_picture();

    const Ran ran = kp(GetParam());

    EXPECT_NE(ran.code, 2) << ran.err;
    EXPECT_EQ(store_picture(), before);
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
}

INSTANTIATE_TEST_SUITE_P(
    EveryCommandThatLooks, Looking,
    testing::Values(std::vector<std::string>{"list"}, std::vector<std::string>{"list", "-l"},
                    std::vector<std::string>{"list", "--tree"},
                    std::vector<std::string>{"get", "#"},
                    std::vector<std::string>{"get", "missing", "-t", "0.1"},
                    std::vector<std::string>{"info", "plant/speed"},
                    std::vector<std::string>{"dump"}, std::vector<std::string>{"peers"},
                    std::vector<std::string>{"doctor"}, std::vector<std::string>{"gc", "-n"},
                    std::vector<std::string>{"hz", "#", "-1", "-w", "0.1"},
                    std::vector<std::string>{"watch", "#", "-t", "0.2", "--rate", "100"},
                    std::vector<std::string>{"wait", "plant/speed", "==", "0", "-t", "0.1"}));
