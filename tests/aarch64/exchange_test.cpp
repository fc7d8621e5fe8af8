// A process of x86-64 and one of AArch64 exchange values through the same segment files and the
// same sockets. Each test runs with the roles both ways round.
#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <elf.h>
#include <fstream>
#include <gtest/gtest.h>

using namespace kptest;

namespace {

struct Roles {
    const char *provider;
    const char *consumer;
};

class Exchange : public testing::TestWithParam<Roles> {
  protected:
    Exchange()
    {
        EXPECT_EQ(provider_.hear(), "ready");
        EXPECT_EQ(consumer_.hear(), "ready");
    }

    // Gives the answer to a command; changes that are told meanwhile are not it.
    static std::string ask(ChildProcess &peer, const std::string &command)
    {
        EXPECT_TRUE(peer.tell(command));
        std::string line = peer.hear().value_or("nothing");
        while (line.starts_with("changed "))
            line = peer.hear().value_or("nothing");
        return line;
    }

    // Lets the provider write a topic until the consumer tells a change of it: the sockets of two
    // processes that start together are connected a moment later.
    std::string told_after_writing(const std::string &topic, const std::string &value)
    {
        std::string told = "nothing";
        (void)wait_until([&] {
            EXPECT_EQ(ask(provider_, "write " + topic + ' ' + value), "ok");
            told = consumer_.hear(std::chrono::milliseconds(200)).value_or("nothing");
            return told.starts_with("changed " + topic);
        });
        return told;
    }

    ChildProcess provider_{{GetParam().provider, "provider"}};
    ChildProcess consumer_{{GetParam().consumer, "consumer"}};
};

uint16_t machine_of(const char *program)
{
    Elf64_Ehdr header{};
    std::ifstream(program).read(reinterpret_cast<char *>(&header), sizeof(header));
    return header.e_machine;
}

TEST(ExchangePeers, AreOfTwoMachines)
{
    EXPECT_EQ(machine_of(KP_AARCH64_PEER), EM_AARCH64);
    EXPECT_EQ(machine_of(KP_NATIVE_PEER), EM_X86_64);
}

TEST_P(Exchange, BringsAValueAndItsNoticeToTheOtherMachine)
{
    ASSERT_EQ(ask(provider_, "provide plant/pump"), "ok");
    ASSERT_EQ(ask(consumer_, "consume plant/pump"), "ok");

    const std::string told = told_after_writing("plant/pump", "7 1234567890123 running");

    EXPECT_EQ(told, "changed plant/pump 7 1234567890123 7 running");
}

TEST_P(Exchange, BringsTheLargestValueToTheOtherMachine)
{
    const std::string value(4000, 'v');
    ASSERT_EQ(ask(provider_, "provide plant/pump"), "ok");
    ASSERT_EQ(ask(consumer_, "consume plant/pump"), "ok");

    const std::string told = told_after_writing("plant/pump", "1 2 " + value);

    EXPECT_EQ(told, "changed plant/pump 1 2 4000 " + value);
}

TEST_P(Exchange, AnnouncesANewTopicToTheOtherMachine)
{
    ASSERT_EQ(ask(provider_, "provide hello"), "ok");
    ASSERT_EQ(ask(consumer_, "consume hello"), "ok");
    ASSERT_EQ(told_after_writing("hello", "1 2 now"), "changed hello 1 2 3 now"); // connected
    ASSERT_EQ(ask(consumer_, "subscribe plant/#"), "ok");
    ASSERT_EQ(ask(provider_, "provide plant/pump"), "ok");

    const std::string told = told_after_writing("plant/pump", "1 2 running");

    EXPECT_EQ(told, "changed plant/pump 1 2 7 running");
}

TEST_P(Exchange, CountsTheHandlesOfBothMachinesInOneSegment)
{
    ASSERT_EQ(ask(provider_, "provide plant/pump"), "ok");
    ASSERT_EQ(ask(consumer_, "consume plant/pump"), "ok");

    EXPECT_EQ(ask(provider_, "count plant/pump"), "1 1");
    EXPECT_EQ(ask(consumer_, "count plant/pump"), "1 1");
}

TEST_P(Exchange, RemovesTheSegmentWithTheLastHandleOfEitherMachine)
{
    const SegmentFile segment("plant/pump");
    ASSERT_EQ(ask(provider_, "provide plant/pump"), "ok");
    ASSERT_EQ(ask(consumer_, "consume plant/pump"), "ok");

    (void)provider_.tell("quit");
    ASSERT_EQ(provider_.wait(), 0);
    const bool outlived_the_provider = segment.exists();
    (void)consumer_.tell("quit");
    ASSERT_EQ(consumer_.wait(), 0);

    EXPECT_TRUE(outlived_the_provider);
    EXPECT_FALSE(segment.exists());
}

INSTANTIATE_TEST_SUITE_P(BothWays, Exchange,
                         testing::Values(Roles{KP_NATIVE_PEER, KP_AARCH64_PEER},
                                         Roles{KP_AARCH64_PEER, KP_NATIVE_PEER}),
                         [](const auto &test) {
                             return test.index == 0 ? "FromX86ToAArch64" : "FromAArch64ToX86";
                         });

} // namespace
