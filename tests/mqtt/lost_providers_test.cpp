#include "outbound_fixture.h"
#include "testing/store_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using namespace kptest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A look that sees all and finds that nobody has a topic open.
HandleCensus nobody_in_sight()
{
    HandleCensus census;
    census.sight = Sight::full;
    return census;
}

} // namespace

TEST(Outbound, SaysWithTheQualityThatTheProvidersWereKilled)
{
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    OutboundOf outbound("");
    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=3"));
    EXPECT_TRUE(outbound.topics().counts_changed());

    outbound.topics().take_census(nobody_in_sight(), outbound.now());

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=x q=0"));
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
    EXPECT_FALSE(outbound.topics().counts_changed());
}

TEST(Outbound, TakesAValueWrittenAfterTheProvidersWereKilledForALiveOne)
{
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    outbound.topics().take_census(nobody_in_sight(), outbound.now());
    (void)outbound.messages();

    (void)kp_shm_instant_write("a/1", "y", KP_TYPE_STRING, 1, 2, 5, 1, 0);

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=y q=5"));
    outbound.topics().take_census(nobody_in_sight(), outbound.now());
    EXPECT_THAT(outbound.messages(), IsEmpty());
}

TEST(Outbound, TakesANewProviderForALiveOne)
{
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    outbound.topics().take_census(nobody_in_sight(), outbound.now());
    (void)outbound.messages();

    StoreProvider again("a/1");
    again.write("y", 1, 3);

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=y q=3"));
    EXPECT_TRUE(outbound.topics().counts_changed());
}

TEST(Outbound, SaysItAgainOfAProviderThatCameAndWasKilledBetweenTwoLooks)
{
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    outbound.topics().take_census(nobody_in_sight(), outbound.now());
    (void)outbound.messages();
    StoreProvider again("a/1");
    again.write("y", 2, 3);
    ASSERT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=y q=3"));

    outbound.topics().take_census(nobody_in_sight(), outbound.now());

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=y q=0"));
}

TEST(Outbound, ComparesNoCountsThatChangedDuringTheCensus)
{
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    (void)outbound.topics().counts_changed();
    const StoreProvider again("a/1");

    outbound.topics().take_census(nobody_in_sight(), outbound.now());

    EXPECT_TRUE(outbound.topics().counts_changed());
    EXPECT_THAT(outbound.messages_after_scan(), Not(testing::Contains(testing::HasSubstr("=x"))));
}
