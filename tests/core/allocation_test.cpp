// Every allocation fails in turn, once and from then on. Whatever is reported, nothing stays behind
// and the handle goes on working.
#include "core/mesh.h"

#include <filesystem>

using namespace kptest;

namespace {

constexpr CallSet kAllocations{Call::malloc, Call::calloc, Call::strdup};

// Neither the process nor the store may keep anything of a scenario.
void expect_clean(const Holdings &before, long n)
{
    EXPECT_EQ(Holdings::now(), before) << "allocation " << n;
    EXPECT_EQ(kp_list_all_topics(), nullptr) << "allocation " << n;
}

// Runs a scenario with its first allocation failing, then its second, and so on until none fails.
// Returns how many there were.
template <typename Fault> long fail_each(const std::function<void()> &scenario)
{
    const StderrCapture log;
    scenario(); // lets the C library allocate what it keeps
    for (long n = 1;; ++n) {
        const Holdings before = Holdings::now();
        Fault fault(kAllocations, n);
        scenario();
        fault.disarm();
        expect_clean(before, n);
        if (!fault.fired() || testing::Test::HasFailure())
            return n - 1;
    }
}

bool can_make_a_handle()
{
    kp_t *handle = kp_new("short-lived", nullptr);
    return handle && kp_destroy(handle) == 0;
}

// How many of a new handle's allocations fail it, by their numbers. Those of its threads, which are
// started by then, do not.
template <typename Fault> std::vector<long> allocations_that_fail_a_handle(long count)
{
    const StderrCapture log;
    std::vector<long> numbers;
    for (long n = 1; n <= count; ++n) {
        const Fault fault(kAllocations, n, kUsualError, Threads::this_one);
        if (!can_make_a_handle())
            numbers.push_back(n);
    }
    return numbers;
}

TEST(FailingAllocation, LeavesNothingOfANewHandle)
{
    const auto scenario = [] { (void)can_make_a_handle(); };

    EXPECT_GE(fail_each<FailNth>(scenario), 6);
    EXPECT_GE(fail_each<FailFrom>(scenario), 6);
}

TEST(FailingAllocation, FailsANewHandle)
{
    const std::vector<long> all{1, 2, 3, 4, 5, 6};

    EXPECT_EQ(allocations_that_fail_a_handle<FailNth>(7), all);
    EXPECT_EQ(allocations_that_fail_a_handle<FailFrom>(7), all);
}

class FailingAllocationOfAHandle : public testing::Test {
  protected:
    ~FailingAllocationOfAHandle() override
    {
        // The handle is still usable.
        EXPECT_NE(kp_tag_provider_new(handle_, "p", KP_TYPE_INT8, 0, 0), nullptr);
        EXPECT_EQ(kp_sub_topic(handle_, "c"), 0);
    }

    const Handle handle_;
};

TEST_F(FailingAllocationOfAHandle, LeavesNothingOfATag)
{
    const auto scenario = [this] {
        (void)kp_tag_provider_new(handle_, "a/b", KP_TYPE_INT32, 0, 0);
        (void)kp_tag_consumer_new(handle_, "a/b");
        EXPECT_EQ(kp_tags_destroy(handle_), 0);
    };

    EXPECT_GE(fail_each<FailNth>(scenario), 8);
    EXPECT_GE(fail_each<FailFrom>(scenario), 8);
}

TEST_F(FailingAllocationOfAHandle, LeavesNothingOfAPublication)
{
    const auto scenario = [this] {
        (void)kp_pub_topic(handle_, "a/b", "\1", 1, KP_TYPE_INT8, 1);
        EXPECT_EQ(kp_tags_destroy(handle_), 0);
    };

    EXPECT_GE(fail_each<FailNth>(scenario), 4);
    EXPECT_GE(fail_each<FailFrom>(scenario), 4);
}

TEST_F(FailingAllocationOfAHandle, LeavesNothingOfAPlainSubscription)
{
    const auto scenario = [this] {
        (void)kp_sub_topic(handle_, "a/b");
        (void)kp_unsub_topic(handle_, "a/b");
    };

    EXPECT_GE(fail_each<FailNth>(scenario), 6);
    EXPECT_GE(fail_each<FailFrom>(scenario), 6);
}

TEST_F(FailingAllocationOfAHandle, LeavesNothingOfAPatternItsScanAndItsRebuild)
{
    const auto scenario = [this] {
        (void)kp_tag_provider_new(handle_, "x/y", KP_TYPE_INT8, 0, 0);
        (void)kp_sub_topic(handle_, "a/+");
        (void)kp_sub_topic(handle_, "x/#");
        (void)kp_sub_topic(handle_, "b");
        (void)kp_sub_plain_topic(handle_, "a/b");
        (void)kp_unsub_topic(handle_, "x/#");
        (void)kp_unsub_topic(handle_, "a/+");
        (void)kp_unsub_topic(handle_, "b");
        EXPECT_EQ(kp_tags_destroy(handle_), 0);
    };

    EXPECT_GE(fail_each<FailNth>(scenario), 20);
    EXPECT_GE(fail_each<FailFrom>(scenario), 20);
}

TEST_F(FailingAllocationOfAHandle, LeavesNothingOfAnAnnouncedTopic)
{
    const std::string notice = new_tag_notice("a/b");
    follow(handle_, "a/+");
    const auto scenario = [this, &notice] {
        kp_notify_callback(bytes_of(notice), 387, handle_);
        EXPECT_EQ(kp_tags_destroy(handle_), 0);
    };

    EXPECT_GE(fail_each<FailNth>(scenario), 4);
    EXPECT_GE(fail_each<FailFrom>(scenario), 4);
}

} // namespace
