#include "outbound_fixture.h"
#include "testing/store_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using namespace kptest;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(OldestAge, CountsUntilTheBrokerHasAcknowledged)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("");
    outbound.topics().scan(outbound.now());
    outbound.pass(seconds(2));
    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(2));
    ASSERT_THAT(outbound.messages(false), ElementsAre("p/a/1=x q=1"));
    outbound.pass(seconds(3));
    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(5));

    outbound->acknowledged(outbound.last_id(), {}, outbound.now());

    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(0));
}

TEST(OldestAge, GoesOnWhenTheConnectionBreaks)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("");
    outbound.topics().scan(outbound.now());
    (void)outbound.messages(false);
    outbound.pass(seconds(2));
    outbound->connection_lost(outbound.now());
    outbound.pass(seconds(2));

    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(4));
    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=x q=1"));
    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(0));
}

TEST(OldestAge, GoesOnWhileTheBrokerHasNoRoom)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("");
    outbound.topics().scan(outbound.now());
    (void)outbound.messages(false);
    outbound->acknowledged(outbound.last_id(), {kQuotaExceeded, "quota"}, outbound.now());
    outbound.pass(seconds(9));
    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(9));

    ASSERT_THAT(outbound.messages(false), ElementsAre("p/a/1=x q=1"));

    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(9));
}

TEST(OldestAge, LeavesOutWhatARuleHoldsBack)
{
    StoreProvider provider("a/1");
    provider.write("x", 1);
    OutboundOf outbound("min-interval = 10\n");
    (void)outbound.messages_after_scan();
    outbound.pass(seconds(1));
    provider.write("y", 2);
    ASSERT_THAT(outbound.messages_after_scan(), IsEmpty());
    outbound.pass(seconds(8));
    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(0));

    outbound.pass(seconds(4));

    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(3));
}

TEST(OldestAge, CountsWhatIsSentAtQosZeroNoLonger)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("qos = 0\n");
    outbound.topics().scan(outbound.now());
    outbound.pass(seconds(2));
    const auto publication = outbound->next(outbound.now());
    ASSERT_TRUE(publication);

    outbound->sent(*publication, 0, outbound.now());

    EXPECT_EQ(outbound->oldest_age(outbound.now()), seconds(0));
}
