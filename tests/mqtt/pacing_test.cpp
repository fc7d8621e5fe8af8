#include "topics/pacing.h"

#include "broker/backoff.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;
using std::chrono::seconds;
using Verdict = Gate::Verdict;

namespace {

const Clock::time_point kStart{};

Sample number(double value, uint8_t quality = 1)
{
    Sample sample;
    sample.type = KP_TYPE_DOUBLE;
    sample.quality = quality;
    sample.value.assign(reinterpret_cast<const char *>(&value), sizeof value);
    return sample;
}

Gate gate_after(const Sample &sample)
{
    Gate gate;
    gate.sent(sample, kStart);
    return gate;
}

Quiet deadband(double absolute, double relative = 0)
{
    Quiet quiet;
    quiet.deadband = absolute;
    quiet.relative_deadband = relative;
    return quiet;
}

} // namespace

TEST(Gate, LetsTheFirstSamplePass)
{
    EXPECT_EQ(Gate{}.judge(deadband(100), number(1), kStart), Verdict::send);
}

TEST(Gate, LetsARepeatedValuePassUnlessToldOtherwise)
{
    const Gate gate = gate_after(number(1));
    Quiet only_changes;
    only_changes.only_changes = true;

    EXPECT_EQ(gate.judge({}, number(1), kStart), Verdict::send);
    EXPECT_EQ(gate.judge(only_changes, number(1), kStart), Verdict::skip);
    EXPECT_EQ(gate.judge(only_changes, number(1, 2), kStart), Verdict::send);
}

TEST(Gate, SkipsStepsInsideTheDeadband)
{
    const Gate gate = gate_after(number(100));

    EXPECT_EQ(gate.judge(deadband(0.5), number(100.4), kStart), Verdict::skip);
    EXPECT_EQ(gate.judge(deadband(0.5), number(99.5), kStart), Verdict::send);
    EXPECT_EQ(gate.judge(deadband(0, 0.01), number(100.9), kStart), Verdict::skip);
    EXPECT_EQ(gate.judge(deadband(0, 0.01), number(101), kStart), Verdict::send);
}

TEST(Gate, LetsAChangedQualityPassTheDeadband)
{
    EXPECT_EQ(gate_after(number(1)).judge(deadband(5), number(1, 0), kStart), Verdict::send);
}

TEST(Gate, DelaysWhatComesBeforeTheInterval)
{
    const Gate gate = gate_after(number(1));
    Quiet quiet;
    quiet.min_interval = seconds(10);

    EXPECT_EQ(gate.judge(quiet, number(2), kStart + seconds(9)), Verdict::later);
    EXPECT_EQ(gate.due(quiet), kStart + seconds(10));
    EXPECT_EQ(gate.judge(quiet, number(2), kStart + seconds(10)), Verdict::send);
}

TEST(TokenBucket, LetsItsRatePass)
{
    TokenBucket bucket(100);
    int passed = 0;
    for (int ms = 0; ms < 1000; ++ms)
        for (; bucket.may_pass(kStart + std::chrono::milliseconds(ms)); ++passed)
            bucket.pass();

    EXPECT_NEAR(passed, 110, 1); // a second's share and the tenth that it starts with
}

TEST(TokenBucket, WithoutARateLetsEverythingPass)
{
    TokenBucket bucket(0);
    for (int i = 0; i < 1000; ++i)
        bucket.pass();

    EXPECT_TRUE(bucket.may_pass(kStart));
}

TEST(Backoff, GrowsToItsMaximumWithJitterAndStartsAnew)
{
    Backoff backoff(milliseconds(1000), milliseconds(5000), 1);

    for (const int expected : {1000, 2000, 4000, 5000, 5000}) {
        const auto delay = backoff.next().count();
        EXPECT_GE(delay, expected / 2);
        EXPECT_LE(delay, expected);
    }
    backoff.reset();
    EXPECT_LE(backoff.next().count(), 1000);
}

TEST(Backoff, DiffersBetweenDevices)
{
    Backoff one(milliseconds(60'000), milliseconds(60'000), 1);
    Backoff two(milliseconds(60'000), milliseconds(60'000), 2);

    EXPECT_NE(one.next(), two.next());
}
