// What a handle costs an application that has no peer: private memory and time.
#include "kp.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The memory of this process that no other one shares.
long private_kib()
{
    long sum = 0;
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;) {
        long kib = 0;
        if ((word == "Private_Clean:" || word == "Private_Dirty:") && file >> kib)
            sum += kib;
    }
    return sum;
}

bool open_and_close()
{
    kp_t *handle = kp_new("cost", nullptr);
    return kp_destroy(handle) == 0;
}

// A loaded machine makes some rounds slow; the library itself is the fastest of them.
Clock::duration fastest_opening_and_closing()
{
    auto fastest = Clock::duration::max();
    for (int round = 0; round < 20; ++round) {
        const auto start = Clock::now();
        EXPECT_TRUE(open_and_close());
        fastest = std::min(fastest, Clock::now() - start);
    }
    return fastest;
}

TEST(HandleCost, IsAtMostTwoHundredKibibytesOfPrivateMemory)
{
    ASSERT_TRUE(open_and_close()); // what the process pays once
    const long before = private_kib();
    ASSERT_GT(before, 0);

    kp_t *handle = kp_new("cost", nullptr);
    const long with_handle = private_kib();
    ASSERT_EQ(kp_destroy(handle), 0);

    RecordProperty("kib", static_cast<int>(with_handle - before));
    EXPECT_LE(with_handle - before, 200);
}

TEST(HandleCost, IsAtMostFiveMillisecondsAboveTheStatedWait)
{
    const auto fastest = fastest_opening_and_closing();

    RecordProperty("us", static_cast<int>(fastest / std::chrono::microseconds(1)));
    EXPECT_GE(fastest, milliseconds(10)); // the wait for peers that start at the same moment
    EXPECT_LE(fastest, milliseconds(10 + 5));
}

} // namespace
