// The receive thread of an endpoint: whole messages, broken ones, and its callback.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <algorithm>
#include <atomic>
#include <unistd.h>

using namespace kptest;

namespace {

// An endpoint with a connection to a peer that the test holds.
class ReceiveThread : public NotifyTest {
  protected:
    std::vector<std::string> received(std::size_t count)
    {
        EXPECT_TRUE(endpoint_.inbox().has_received(count));
        return endpoint_.inbox().messages();
    }

    const UnixSocket socket_ = UnixSocket::listening("/run/providers/peer");
    SettledEndpoint endpoint_;
    UnixSocket peer_ = socket_.accept();
};

TEST_F(ReceiveThread, HandsAWriteNoticeToTheCallback)
{
    EXPECT_TRUE(peer_.send(write_notice({0, 9, 1023})));

    EXPECT_EQ(received(1), std::vector{write_notice({0, 9, 1023})});
}

TEST_F(ReceiveThread, HandsANewTagNoticeToTheCallback)
{
    EXPECT_TRUE(peer_.send(new_tag_notice("a/b")));

    EXPECT_EQ(received(1), std::vector{new_tag_notice("a/b")});
}

TEST_F(ReceiveThread, HandsOverATopicThatFillsItsFieldUnterminated)
{
    const std::string topic(386, 't');

    EXPECT_TRUE(peer_.send(new_tag_notice(topic)));

    EXPECT_EQ(received(1), std::vector{'\2' + topic});
}

TEST_F(ReceiveThread, CallsTheCallbackOnAThreadOfItsOwn)
{
    EXPECT_TRUE(peer_.send(write_notice({1})));
    ASSERT_TRUE(endpoint_.inbox().has_received(1));

    EXPECT_NE(endpoint_.inbox().receiving_thread(), std::this_thread::get_id());
    EXPECT_NE(endpoint_.inbox().receiving_thread(), std::thread::id());
}

TEST_F(ReceiveThread, KeepsWriteNoticesWholeAfterANewTagNotice)
{
    EXPECT_TRUE(peer_.send(new_tag_notice(std::string(385, '\xff'))));
    EXPECT_TRUE(peer_.send(write_notice({4})));
    EXPECT_TRUE(peer_.send(write_notice({1000})));

    EXPECT_EQ(received(3), (std::vector{new_tag_notice(std::string(385, '\xff')), write_notice({4}),
                                        write_notice({1000})}));
}

TEST_F(ReceiveThread, DeliversNoticesOfOnePeerOneByOne)
{
    endpoint_.inbox().hold();
    EXPECT_TRUE(peer_.send(write_notice({1})));
    EXPECT_TRUE(wait_until([&] { return endpoint_.inbox().is_holding(); }));

    EXPECT_TRUE(peer_.send(write_notice({2})));
    EXPECT_TRUE(peer_.send(write_notice({3})));
    endpoint_.inbox().resume();

    EXPECT_EQ(received(3), (std::vector{write_notice({1}), write_notice({2}), write_notice({3})}));
}

TEST_F(ReceiveThread, DeliversTheNoticesOfTwoPeersByThemselves)
{
    const UnixSocket other_socket = UnixSocket::listening("/run/providers/other");
    const UnixSocket other = other_socket.accept();
    EXPECT_TRUE(other.send(write_notice({6})));
    ASSERT_TRUE(endpoint_.inbox().has_received(1));
    endpoint_.inbox().hold();
    EXPECT_TRUE(peer_.send(write_notice({1})));
    EXPECT_TRUE(wait_until([&] { return endpoint_.inbox().is_holding(); }));

    EXPECT_TRUE(peer_.send(write_notice({2})));
    EXPECT_TRUE(other.send(write_notice({3})));
    endpoint_.inbox().resume();

    const std::vector<std::string> messages = received(4);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), write_notice({2})), 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), write_notice({3})), 1);
}

TEST_F(ReceiveThread, ConsumesAnUnknownTypeByte)
{
    EXPECT_TRUE(peer_.send(std::string("\0\3\xff", 3) + write_notice({7})));

    EXPECT_EQ(received(1), std::vector{write_notice({7})});
    EXPECT_EQ(endpoint_.server_count(), 1);
}

TEST_F(ReceiveThread, DropsAPeerThatHangsUp)
{
    ASSERT_EQ(endpoint_.server_count(), 1);

    peer_.close();

    EXPECT_TRUE(endpoint_.has_servers(0));
}

TEST_F(ReceiveThread, DropsAPeerWhoseWriteNoticeIsShort)
{
    EXPECT_TRUE(peer_.send(write_notice({1}).substr(0, 128)));

    EXPECT_TRUE(peer_.is_closed_by_peer());
    EXPECT_TRUE(endpoint_.has_servers(0));
    EXPECT_EQ(endpoint_.inbox().count(), 0U);
}

TEST_F(ReceiveThread, DropsAPeerThatSendsATypeAlone)
{
    EXPECT_TRUE(peer_.send("\1"));

    EXPECT_TRUE(peer_.is_closed_by_peer());
    EXPECT_EQ(endpoint_.inbox().count(), 0U);
}

TEST_F(ReceiveThread, DropsAPeerWhoseNewTagNoticeIsShort)
{
    EXPECT_TRUE(peer_.send(new_tag_notice("a").substr(0, 386)));

    EXPECT_TRUE(peer_.is_closed_by_peer());
    EXPECT_TRUE(endpoint_.has_servers(0));
    EXPECT_EQ(endpoint_.inbox().count(), 0U);
}

TEST_F(ReceiveThread, KeepsTheOtherPeersWhenItDropsOne)
{
    const UnixSocket other_socket = UnixSocket::listening("/run/providers/other");
    const UnixSocket other = other_socket.accept();

    EXPECT_TRUE(peer_.send("\1"));
    EXPECT_TRUE(peer_.is_closed_by_peer());
    EXPECT_TRUE(other.send(write_notice({2})));

    EXPECT_EQ(received(1), std::vector{write_notice({2})});
    EXPECT_TRUE(endpoint_.has_servers(1));
}

TEST_F(ReceiveThread, TakesUpAPeerInTheSlotOfADroppedOne)
{
    EXPECT_TRUE(peer_.send("\1"));
    ASSERT_TRUE(endpoint_.has_servers(0));
    EXPECT_EQ(unlink("/run/providers/peer"), 0);
    const UnixSocket again = UnixSocket::listening("/run/providers/peer");

    EXPECT_TRUE(again.accept().send(write_notice({3})));

    EXPECT_EQ(received(1), std::vector{write_notice({3})});
}

TEST_F(ReceiveThread, DropsAPeerThatItCannotTakeOutOfItsSet)
{
    const int fd = endpoint_.server(0);
    EXPECT_TRUE(peer_.send(write_notice({1})));
    ASSERT_TRUE(endpoint_.inbox().has_received(1)); // the connection is in the set
    StderrCapture log;
    FailNext remove(Call::epoll_ctl);

    peer_.close();

    EXPECT_TRUE(wait_until([&] { return log.text().find("failed") != std::string::npos; }));
    EXPECT_EQ(log.lines(), Lines{"ERROR: message_receive_listener: epoll_ctl(EPOLL_CTL_DEL, " +
                                 std::to_string(fd) + ") failed"});
    EXPECT_TRUE(endpoint_.has_servers(0));
}

TEST_F(ReceiveThread, HandsTheNextMessageToANewCallback)
{
    EXPECT_TRUE(peer_.send(write_notice({1})));
    ASSERT_TRUE(endpoint_.inbox().has_received(1));
    static std::atomic<const void *> object;

    kp_notify_set_callback(endpoint_.get(),
                           [](const uint8_t *, int32_t, void *inbox) { object = inbox; });
    EXPECT_TRUE(peer_.send(write_notice({2})));

    EXPECT_TRUE(wait_until([] { return object != nullptr; }));
    EXPECT_EQ(object, &endpoint_.inbox()); // unchanged
    EXPECT_EQ(endpoint_.inbox().count(), 1U);
}

TEST_F(ReceiveThread, DropsMessagesWhileThereIsNoCallback)
{
    kp_notify_set_callback(endpoint_.get(), nullptr);
    EXPECT_TRUE(peer_.send(write_notice({1}) + new_tag_notice("a")));
    EXPECT_TRUE(wait_until([&] { return readable_bytes(endpoint_.server(0)) == 0; }));

    // The last one's body is read, its delivery perhaps not yet over.
    EXPECT_TRUE(peer_.send("\3"));
    EXPECT_TRUE(wait_until([&] { return readable_bytes(endpoint_.server(0)) == 0; }));
    kp_notify_set_callback(endpoint_.get(), Inbox::receive);
    EXPECT_TRUE(peer_.send(write_notice({2})));

    EXPECT_EQ(received(1), std::vector{write_notice({2})});
}

TEST(SetCallback, DoesNothingForANullEndpoint)
{
    kp_notify_set_callback(nullptr, Inbox::receive);
}

TEST_F(ReceiveThread, SeesWhatWasWrittenBeforeItsCallbackWasSet)
{
    static int prepared; // ThreadSanitizer judges
    static std::atomic<int> seen;
    prepared = 7;
    kp_notify_set_callback(endpoint_.get(),
                           [](const uint8_t *, int32_t, void *) { seen = prepared; });

    EXPECT_TRUE(peer_.send(write_notice({1})));

    EXPECT_TRUE(wait_until([] { return seen == 7; }));
}

} // namespace
