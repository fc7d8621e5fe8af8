#include "broker/witness.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

namespace {

Publication kept()
{
    Publication value;
    value.topic = "p/a";
    value.payload = "1";
    value.properties = {{property::kOrigin, "d/boot"}, {property::kWriteTime, "1000"}};
    return value;
}

Message as_message(const Publication &value)
{
    Message message;
    message.topic = value.topic;
    message.payload = value.payload;
    message.properties = value.properties;
    return message;
}

// A message that differs from the kept value in its time and value.
Message written_at(const char *time)
{
    Message message = as_message(kept());
    message.payload = "2";
    message.properties[1].second = time;
    return message;
}

bool is_heard(const Message &message)
{
    Witness witness;
    witness.ask_for(kept());
    const bool heard = witness.hears(message);
    EXPECT_EQ(witness.is_there(), heard);
    return heard;
}

TEST(Witness, IsTheValueItself)
{
    EXPECT_TRUE(is_heard(as_message(kept())));
}

TEST(Witness, IsALaterValueOfTheSameDevice)
{
    EXPECT_TRUE(is_heard(written_at("1001")));
    EXPECT_FALSE(is_heard(written_at("1000")));
    EXPECT_FALSE(is_heard(written_at("999")));
    EXPECT_FALSE(is_heard(written_at("")));
}

TEST(Witness, IsNoValueOfAnotherTopicOrDevice)
{
    Message message = written_at("2000");
    message.topic = "p/b";
    EXPECT_FALSE(is_heard(message));
    message = written_at("2000");
    message.properties[0].second = "e/boot";
    EXPECT_FALSE(is_heard(message));
}

TEST(Witness, IsForgottenWithItsTopic)
{
    Witness witness;
    EXPECT_EQ(witness.forget(), "");
    EXPECT_FALSE(witness.hears(as_message(kept())));

    witness.ask_for(kept());
    EXPECT_TRUE(witness.hears(as_message(kept())));
    EXPECT_EQ(witness.forget(), "p/a");
    EXPECT_FALSE(witness.is_there());
    EXPECT_FALSE(witness.hears(as_message(kept())));
}

} // namespace
