#include "broker/connection_names.h"

#include "broker/state_message.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

namespace {

constexpr const char *kAddress = "one:1883";

Message state(const char *payload, const std::string &connection)
{
    Message message;
    message.payload = payload;
    message.properties = {{kConnection, connection}};
    return message;
}

// The names while a second connection begins. `last` is the name of the first, which was online.
struct SecondConnection {
    ConnectionNames names;
    std::string last;

    SecondConnection()
    {
        names.begin_attempt();
        last = names.current();
        names.went_online(kAddress);
        names.begin_attempt();
    }
};

TEST(ConnectionNames, KeepOneNameUntilAConnectionIsOnline)
{
    ConnectionNames names;
    names.begin_attempt();
    const std::string first = names.current();
    EXPECT_FALSE(first.empty());
    EXPECT_TRUE(names.none_was_online());

    names.begin_attempt();
    EXPECT_EQ(names.current(), first);

    names.went_online(kAddress);
    EXPECT_FALSE(names.none_was_online());
    names.begin_attempt();
    EXPECT_NE(names.current(), first);
}

TEST(ConnectionNames, KnowTheirOwnState)
{
    ConnectionNames names;
    names.begin_attempt();
    EXPECT_TRUE(names.is_of_current(state(kOnline, names.current())));
    EXPECT_FALSE(names.is_of_current(state(kOnline, "another")));
}

TEST(ConnectionNames, TellThatAllIsKeptByTheWillOfTheLastConnection)
{
    const SecondConnection second;
    EXPECT_TRUE(second.names.tells_that_all_is_kept(state(kOffline, second.last), kAddress, false));
    EXPECT_FALSE(second.names.tells_that_all_is_kept(state(kOnline, second.last), kAddress, true));
    EXPECT_FALSE(second.names.tells_that_all_is_kept(state(kOffline, "another"), kAddress, true));
}

TEST(ConnectionNames, BelieveTheWillOfAnAttemptWithAWitnessOnly)
{
    const SecondConnection second;
    const Message will = state(kOffline, second.names.current());
    EXPECT_TRUE(second.names.tells_that_all_is_kept(will, kAddress, true));
    EXPECT_FALSE(second.names.tells_that_all_is_kept(will, kAddress, false));
}

TEST(ConnectionNames, ExpectNothingOfAnotherBroker)
{
    const SecondConnection second;
    const Message will = state(kOffline, second.last);
    EXPECT_FALSE(second.names.tells_that_all_is_kept(will, "two:1883", true));
}

// The state of an earlier run may carry any name, or none.
TEST(ConnectionNames, ExpectNothingBeforeAConnectionWasOnline)
{
    ConnectionNames names;
    names.begin_attempt();
    EXPECT_FALSE(names.tells_that_all_is_kept(state(kOffline, ""), "", true));
    EXPECT_FALSE(names.tells_that_all_is_kept(state(kOffline, names.current()), "", true));
}

} // namespace
