#include "outbound_fixture.h"
#include "testing/segment_file.h"
#include "testing/store_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kp::mqtt;
using namespace kptest;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(Outbound, SendsEachCurrentValueOnce)
{
    StoreProvider one("a/1");
    one.write("x");
    StoreProvider two("a/2");
    two.write("y");
    StoreProvider without_value("a/3");
    StoreProvider other("b/1");
    other.write("z");
    OutboundOf outbound("");

    EXPECT_THAT(outbound.messages_after_scan(), UnorderedElementsAre("p/a/1=x q=1", "p/a/2=y q=1"));
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
}

TEST(Outbound, SendsTheNewestOfManyChanges)
{
    StoreProvider provider("a/1");
    OutboundOf outbound("");
    outbound.topics().scan(outbound.now());
    provider.write("first", 1);
    EXPECT_TRUE(outbound.notice("a/1"));
    provider.write("second", 2);
    EXPECT_TRUE(outbound.notice("a/1"));

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=second q=1"));
}

TEST(Outbound, ReadsATopicThatWaitsOnlyWhenItsTurnComes)
{
    StoreProvider provider("a/1");
    provider.write("first", 1);
    OutboundOf outbound("");
    outbound.topics().scan(outbound.now());
    SegmentFile("a/1").put_u8(at::writing, 1);
    EXPECT_TRUE(outbound.notice("a/1"));
    SegmentFile("a/1").put_u8(at::writing, 0);

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=first q=1"));
}

TEST(Outbound, SeesAChangeWithinTheSameMicrosecond)
{
    StoreProvider provider("a/1");
    provider.write("first", 1);
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    provider.write("other", 1);

    EXPECT_TRUE(outbound.notice("a/1"));
    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=other q=1"));
}

TEST(Outbound, AsksForAScanWhenANoticeIsOfNoTopicItKnows)
{
    OutboundOf outbound("");
    StoreProvider untaken("b/1");
    outbound.topics().scan(outbound.now());
    StoreProvider provider("a/new");
    provider.write("x");

    EXPECT_FALSE(outbound.notice("a/new"));
    EXPECT_TRUE(outbound.notice("b/1"));
    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/new=x q=1"));
}

TEST(Outbound, ClearsATopicThatIsGone)
{
    OutboundOf outbound("");
    {
        StoreProvider provider("a/1");
        provider.write("x");
        EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=1"));
        EXPECT_TRUE(outbound.state().has("p/a/1"));
    }
    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1= q="));
    EXPECT_FALSE(outbound.state().has("p/a/1"));
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
}

TEST(Outbound, ClearsAgainWhatAKilledBrokerMayBringBack)
{
    OutboundOf outbound("");
    {
        StoreProvider provider("a/1");
        provider.write("x");
        (void)outbound.messages_after_scan();
    }
    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1= q="));

    outbound->connected(true, outbound.now());
    EXPECT_THAT(outbound.messages(), IsEmpty());
    outbound->connected(false, outbound.now());
    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1= q="));
    EXPECT_FALSE(outbound.state().has("p/a/1"));
}

TEST(Outbound, ClearsATopicWhoseProviderComesBackWithoutAValue)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    StoreProvider again("a/1");

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1= q="));
}

TEST(Outbound, SaysWithTheQualityThatTheProvidersAreGone)
{
    kp_shm_t *consumer = kp_shm_new("a/1", KP_ROLE_CONSUMER);
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    OutboundOf outbound("");
    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=3"));
    provider.leave();
    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=0"));
    StoreProvider again("a/1");
    again.write("y", 2, 3);
    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=y q=3"));
    (void)kp_shm_destroy(consumer, "a/1", KP_ROLE_CONSUMER);
}

TEST(Outbound, KeepsTheQualityOfATopicThatIsWrittenByName)
{
    (void)kp_shm_instant_write("a/1", "x", KP_TYPE_STRING, 1, 1, 5, 1, 0);
    OutboundOf outbound("");

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=5"));
}

TEST(Outbound, KeepsTheQualityOfATopicThatAToolHasDeclared)
{
    declare_by_name("a/1");
    (void)kp_shm_instant_write("a/1", "x", KP_TYPE_STRING, 1, 1, 5, 1, 0);
    kp_shm_t *consumer = kp_shm_new("a/2", KP_ROLE_CONSUMER);
    declare_by_name("a/2");
    (void)kp_shm_instant_write("a/2", "y", KP_TYPE_STRING, 1, 1, 5, 1, 0);
    OutboundOf outbound("");

    EXPECT_THAT(outbound.messages_after_scan(), UnorderedElementsAre("p/a/1=x q=5", "p/a/2=y q=5"));
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
    (void)kp_shm_destroy(consumer, "a/2", KP_ROLE_CONSUMER);
}

TEST(Outbound, KeepsTheQualityOfATopicMadeByNameAfterItsProviderHasLeft)
{
    OutboundOf outbound("");
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    ASSERT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=3"));
    provider.leave();
    declare_by_name("a/1");
    (void)kp_shm_instant_write("a/1", "y", KP_TYPE_STRING, 1, 2, 5, 1, 0);

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=y q=5"));
}

TEST(Outbound, SaysAtItsStartThatProvidersOfAnEarlierRunAreGone)
{
    kp_shm_t *consumer = kp_shm_new("a/1", KP_ROLE_CONSUMER);
    StoreProvider provider("a/1");
    provider.write("x", 1, 3);
    provider.leave();
    OutboundOf outbound("");
    outbound.retained_before("p/a/1", true);

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=0"));
    EXPECT_TRUE(outbound.state().is_provided("p/a/1"));
    (void)kp_shm_destroy(consumer, "a/1", KP_ROLE_CONSUMER);
}

TEST(Outbound, KeepsAtItsStartTheQualityOfWhatNobodyHolds)
{
    declare_by_name("a/1");
    (void)kp_shm_instant_write("a/1", "x", KP_TYPE_STRING, 1, 1, 5, 1, 0);
    OutboundOf outbound("");
    outbound.retained_before("p/a/1", true);

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=x q=5"));
    EXPECT_FALSE(outbound.state().is_provided("p/a/1"));
}

TEST(Outbound, RemembersWhichTopicsHaveProviders)
{
    (void)kp_shm_instant_write("a/1", "x", KP_TYPE_STRING, 1, 1, 5, 1, 0);
    StoreProvider provider("a/2");
    provider.write("y");
    OutboundOf outbound("");

    (void)outbound.messages_after_scan();

    EXPECT_FALSE(outbound.state().is_provided("p/a/1"));
    EXPECT_TRUE(outbound.state().is_provided("p/a/2"));
}

TEST(Outbound, SendsAgainWhatWasNotAcknowledged)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("only-changes = true\n");
    outbound.topics().scan(outbound.now());
    EXPECT_THAT(outbound.messages(false), ElementsAre("p/a/1=x q=1"));
    outbound->connection_lost(outbound.now());

    outbound->connected(true, outbound.now());

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=x q=1"));
}

TEST(Outbound, SendsOnlyWhatChangedToABrokerThatHasKeptTheRest)
{
    StoreProvider one("a/1");
    one.write("x");
    StoreProvider two("a/2");
    two.write("y");
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    outbound->connection_lost(outbound.now());
    two.write("z", 2);
    EXPECT_TRUE(outbound.notice("a/2"));

    outbound->connected(true, outbound.now());
    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/2=z q=1"));

    outbound->connected(false, outbound.now());
    EXPECT_THAT(outbound.messages(), UnorderedElementsAre("p/a/1=x q=1", "p/a/2=z q=1"));
}

TEST(Outbound, DoubtsWhatWentAtQosZeroJustBeforeTheConnectionBroke)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("qos = 0\n");
    (void)outbound.messages_after_scan();

    outbound->connection_lost(outbound.now());
    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=x q=1"));

    outbound.pass(seconds(3600));
    outbound->connection_lost(outbound.now());
    EXPECT_THAT(outbound.messages(), IsEmpty());
}

TEST(Outbound, SendsAValueAfterItsIntervalWithoutAFurtherMark)
{
    StoreProvider provider("a/1", KP_TYPE_INT32);
    provider.write(bytes_of<int32_t>(1), 1);
    OutboundOf outbound("min-interval = 10\n");
    (void)outbound.messages_after_scan();
    provider.write(bytes_of<int32_t>(2), 2);
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
    provider.write(bytes_of<int32_t>(3), 3);
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
    EXPECT_EQ(outbound->due(), outbound.now() + seconds(10));

    outbound.pass(seconds(10));

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=3 q=1"));
}

TEST(Outbound, KeepsQuietInsideTheDeadband)
{
    StoreProvider provider("a/1", KP_TYPE_DOUBLE);
    provider.write(bytes_of(20.0), 1);
    OutboundOf outbound("deadband = 1\n");
    (void)outbound.messages_after_scan();
    provider.write(bytes_of(20.5), 2);
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
    provider.write(bytes_of(21.0), 3);

    EXPECT_THAT(outbound.messages_after_scan(), ElementsAre("p/a/1=21 q=1"));
}

TEST(Outbound, CountsARefusalAndComesBackWhenTheBrokerHadNoRoom)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("");
    outbound.topics().scan(outbound.now());
    (void)outbound.messages(false);

    outbound->acknowledged(outbound.last_id(), {kQuotaExceeded, "quota"}, outbound.now());
    EXPECT_EQ(outbound.counters().refused, 1u);
    EXPECT_THAT(outbound.messages(), IsEmpty());
    outbound.pass(seconds(1));
    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=x q=1"));
}

TEST(Outbound, LooksAgainAtATopicInTheMiddleOfAWrite)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("");
    outbound.topics().scan(outbound.now());
    SegmentFile("a/1").put_u8(at::writing, 1);
    EXPECT_THAT(outbound.messages(), IsEmpty());
    SegmentFile("a/1").put_u8(at::writing, 0);
    outbound.pass(seconds(1));

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=x q=1"));
}

TEST(Outbound, ClearsOnceWhatAnEarlierRunHadRetainedAndThenSendsTheValue)
{
    StoreProvider provider("a/1");
    provider.write("x");
    OutboundOf outbound("retain = false\n");
    outbound.retained_before("p/a/1");
    outbound.topics().scan(outbound.now());

    EXPECT_THAT(outbound.messages(false), ElementsAre("p/a/1= q="));
    provider.write("y");
    EXPECT_TRUE(outbound.notice("a/1"));
    EXPECT_THAT(outbound.messages(false), IsEmpty()); // the clearing is still on its way
    outbound->acknowledged(outbound.last_id(), {}, outbound.now());

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1=y q=1"));
    EXPECT_FALSE(outbound.state().has("p/a/1"));
}

TEST(Outbound, ClearsAgainWhatTheBrokerHadNoRoomFor)
{
    OutboundOf outbound("");
    {
        StoreProvider provider("a/1");
        provider.write("x");
        outbound.topics().scan(outbound.now());
        ASSERT_THAT(outbound.messages(), ElementsAre("p/a/1=x q=1"));
    }
    outbound.topics().scan(outbound.now());
    ASSERT_THAT(outbound.messages(false), ElementsAre("p/a/1= q="));

    outbound->acknowledged(outbound.last_id(), {kQuotaExceeded, "quota"}, outbound.now());
    EXPECT_THAT(outbound.messages(), IsEmpty());
    outbound.pass(seconds(1));

    EXPECT_THAT(outbound.messages(), ElementsAre("p/a/1= q="));
    EXPECT_FALSE(outbound.state().has("p/a/1"));
}

TEST(Outbound, ClearsWhatAnEarlierRunHadRetained)
{
    const std::string path = "/run/state";
    {
        auto before = StateFile::open(path);
        (*before.value)->add("p/a/gone");
    }
    OutboundOf outbound("", "", path);

    outbound->connected(false, Clock::now());
    const auto publication = outbound->next(Clock::now());

    ASSERT_TRUE(publication);
    EXPECT_EQ(publication->topic, "p/a/gone");
    EXPECT_TRUE(publication->payload.empty() && publication->retain);
}

TEST(Outbound, SpreadsWhatWaitsAtTheStart)
{
    StoreProvider one("a/1");
    one.write("x");
    StoreProvider two("a/2");
    two.write("y");
    OutboundOf outbound("", "burst-rate = 1\n");
    outbound.topics().scan(outbound.now());
    outbound->connected(false, outbound.now());

    EXPECT_EQ(outbound.messages().size(), 1u);
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
    outbound.pass(seconds(1));
    EXPECT_EQ(outbound.messages().size(), 1u);
    outbound.pass(seconds(1));
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
}

TEST(Outbound, SpreadsWhatChangedDuringAnOutage)
{
    StoreProvider one("a/1");
    one.write("x");
    StoreProvider two("a/2");
    two.write("y");
    OutboundOf outbound("");
    (void)outbound.messages_after_scan();
    outbound.set_burst_rate(1);
    one.write("x2", 2);
    two.write("y2", 2);
    outbound.topics().scan(outbound.now());
    one.write("x3", 3);
    two.write("y3", 3);
    outbound->connected(true, outbound.now());

    EXPECT_EQ(outbound.messages_after_scan().size(), 1u);
    outbound.pass(seconds(1));
    EXPECT_EQ(outbound.messages_after_scan().size(), 1u);
    outbound.pass(seconds(1));
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
}

TEST(Outbound, SendsAChangeAtOnceWhileTheBurstWaits)
{
    StoreProvider one("a/1");
    one.write("x");
    StoreProvider two("a/2");
    two.write("y");
    OutboundOf outbound("", "burst-rate = 1\n");
    outbound.topics().scan(outbound.now());
    outbound->connected(false, outbound.now());
    ASSERT_EQ(outbound.messages().size(), 1u);
    one.write("x2", 2);
    two.write("y2", 2);

    EXPECT_THAT(outbound.messages_after_scan(),
                UnorderedElementsAre("p/a/1=x2 q=1", "p/a/2=y2 q=1"));
    outbound.pass(seconds(1));
    EXPECT_THAT(outbound.messages_after_scan(), IsEmpty());
}

TEST(OutboundMaxInterval, SendsAgainWhatHasNotChanged)
{
    OutboundOf bridge("max-interval = 10\n");
    StoreProvider provider("a/b", KP_TYPE_STRING);
    provider.write("x");
    EXPECT_THAT(bridge.messages_after_scan(), ElementsAre("p/a/b=x q=1"));

    bridge.pass(seconds(6));
    provider.write("y");
    EXPECT_THAT(bridge.messages_after_scan(), ElementsAre("p/a/b=y q=1"));
    bridge.pass(seconds(6));
    EXPECT_THAT(bridge.messages_after_scan(), IsEmpty());
    EXPECT_EQ(bridge->due(), bridge.now() + seconds(4));
    bridge.pass(seconds(4));
    EXPECT_THAT(bridge.messages(), ElementsAre("p/a/b=y q=1"));
    bridge.pass(seconds(10));
    EXPECT_THAT(bridge.messages(), ElementsAre("p/a/b=y q=1"));
}

TEST(OutboundMaxInterval, EndsWithTheTag)
{
    OutboundOf bridge("max-interval = 10\nretain = false\n");
    {
        StoreProvider provider("a/b", KP_TYPE_STRING);
        provider.write("x");
        EXPECT_THAT(bridge.messages_after_scan(), ElementsAre("p/a/b=x q=1"));
    }

    EXPECT_THAT(bridge.messages_after_scan(), IsEmpty());
    bridge.pass(seconds(10));

    EXPECT_THAT(bridge.messages(), IsEmpty());
    EXPECT_FALSE(bridge->due());
}
