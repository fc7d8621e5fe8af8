// The receive thread step by step: what happens between two of its waits, and its buffer.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace kptest;
using kp::extend_message_size;
using kp::message_receive_listener;

namespace {

// The thread's body on a bare record, with one connection whose other end is the peer.
class ReceiveSteps : public NotifyTest {
  protected:
    Step put_connection_into(std::size_t slot)
    {
        return [this, slot] {
            peer_ = BareEndpoint::connect(endpoint_->server_fds[slot]);
            endpoint_.announce();
        };
    }
    Step send(const std::string &bytes)
    {
        return [this, bytes] { EXPECT_TRUE(peer_.send(bytes)); };
    }
    void run(std::vector<Step> steps)
    {
        run_in_steps(message_receive_listener, endpoint_, std::move(steps));
    }

    BareEndpoint endpoint_;
    UnixSocket peer_;
};

TEST_F(ReceiveSteps, ReadOneAnnouncementAtEachWait)
{
    std::vector<int> left;
    const Step note = [&] { left.push_back(endpoint_.announced()); };
    std::vector<UnixSocket> peers;
    CountCalls interests(Call::epoll_ctl);
    long interests_after_first = 0;

    run({[&] {
             peers.push_back(BareEndpoint::connect(endpoint_->server_fds[0]));
             peers.push_back(BareEndpoint::connect(endpoint_->server_fds[5]));
             peers.push_back(BareEndpoint::connect(endpoint_->server_fds[31]));
             endpoint_.announce();
             endpoint_.announce();
             endpoint_.announce();
         },
         [&] {
             note();
             interests_after_first = interests.count();
         },
         note,
         [&] {
             note();
             endpoint_.stop();
         }});

    EXPECT_EQ(left, (std::vector{2, 1, 0}));
    EXPECT_EQ(interests_after_first, 2 + 3) << "all three are taken up at the first wake-up";
    EXPECT_EQ(interests.count(), 2 + 3) << "and none of them again";
}

TEST_F(ReceiveSteps, TakeUpConnectionsEvenIfTheAnnouncementCannotBeRead)
{
    StderrCapture log;
    FailNext read(Call::read, EIO);

    run({put_connection_into(0), [] {}, send(write_notice({1}))});

    EXPECT_EQ(log.lines(), Lines{"WARN: message_receive_listener: read new server fd failed"});
    EXPECT_EQ(endpoint_.inbox().messages(), std::vector{write_notice({1})});
}

TEST_F(ReceiveSteps, GoOnWithoutAConnectionThatCannotBeWatched)
{
    StderrCapture log;
    FailNth add(Call::epoll_ctl, 3);
    int fd = -1;

    run({[&] {
        put_connection_into(2)();
        fd = endpoint_->server_fds[2];
    }});

    EXPECT_TRUE(add.fired());
    EXPECT_EQ(log.lines(), Lines{"ERROR: message_receive_listener: epoll_ctl(EPOLL_CTL_ADD, " +
                                 std::to_string(fd) + ") failed"});
    EXPECT_EQ(endpoint_->server_fds[2], fd);
}

TEST_F(ReceiveSteps, ServeNothingMoreOnceTheStopFlagIsSet)
{
    run({put_connection_into(0), [&] {
             send(write_notice({1}))();
             endpoint_.stop();
         }});

    EXPECT_EQ(endpoint_.inbox().count(), 0U);
}

TEST_F(ReceiveSteps, AreSilentAboutAWaitThatFailsWhileStopping)
{
    StderrCapture log;
    FailNext wait(Call::epoll_wait, EINVAL);

    run({[&] { endpoint_.stop(); }});

    EXPECT_EQ(log.text(), "");
}

TEST_F(ReceiveSteps, DropAConnectionWithinOneWait)
{
    int after = 0;

    run({put_connection_into(0), send("\1"), [&] {
             after = endpoint_->server_fds[0];
             endpoint_.stop();
         }});

    EXPECT_EQ(after, -1);
}

TEST_F(ReceiveSteps, MissTheNextConnectionOfTheNumberThatAShortNewTagNoticeCost)
{
    UnixSocket next;

    run({put_connection_into(3), send("\2short"),
         [&] { // the same number comes into the same slot again
             EXPECT_EQ(endpoint_->server_fds[3], -1);
             const int freed = fcntl(endpoint_->cancel_fds[0], F_DUPFD_CLOEXEC, 0);
             (void)close(freed);
             next = BareEndpoint::connect(endpoint_->server_fds[3]);
             EXPECT_EQ(endpoint_->server_fds[3], freed);
             EXPECT_TRUE(next.send(write_notice({1})));
             endpoint_.announce();
         },
         [&] { endpoint_.announce(); }});

    EXPECT_EQ(endpoint_.inbox().count(), 0U);
    EXPECT_EQ(readable_bytes(endpoint_->server_fds[3]), 129);
}

TEST_F(ReceiveSteps, LeaveANewTagNoticeUnreadWithoutMemory)
{
    StderrCapture log;
    int unread = 0;
    FailNth memory(Call::calloc, 2); // the first is the accumulator

    run({put_connection_into(0), send(new_tag_notice("a")),
         [&] { unread = readable_bytes(endpoint_->server_fds[0]); }});

    EXPECT_EQ(log.text(), "message_receive_listener: error in calloc\n");
    EXPECT_EQ(unread, 386);
    EXPECT_EQ(endpoint_.inbox().count(), 0U);
}

TEST_F(ReceiveSteps, EndWithoutMemoryForTheAccumulator)
{
    StderrCapture log;
    FailNext memory(Call::calloc, ENOMEM);

    EXPECT_EQ(message_receive_listener(&*endpoint_), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(), "\033[91mERROR: message_receive_listener: MALLOC "
                                               "NOTIFY(): Cannot allocate memory\n\033[0m");
}

TEST_F(ReceiveSteps, EndWithoutMemoryForAWholeMessage)
{
    kp_xlog_set_user_level(KP_LEVEL_OFF); // both lines come all the same
    StderrCapture log;
    endpoint_->msg_buf_size = 1;
    FailNth memory(Call::calloc, 2);

    EXPECT_EQ(message_receive_listener(&*endpoint_), nullptr);

    EXPECT_TRUE(memory.fired());
    EXPECT_EQ(log.text(), "message_receive_listener: error in calloc\n"
                          "error to extend message size to sizeof(kp_write_info)=129\n");
}

class ExtendMessageSize : public NotifyTest {
  protected:
    BareEndpoint endpoint_;
    uint8_t *const buffer_ = endpoint_->msg_buf;
};

TEST_F(ExtendMessageSize, KeepsABufferThatIsLargeEnough)
{
    EXPECT_EQ(extend_message_size(*endpoint_, 129), 0);

    EXPECT_EQ(endpoint_->msg_buf, buffer_);
    EXPECT_EQ(endpoint_->msg_buf_size, 129);
}

TEST_F(ExtendMessageSize, ReplacesASmallerBufferByAnEmptyOne)
{
    endpoint_->msg_buf[0] = 'x';

    EXPECT_EQ(extend_message_size(*endpoint_, 387), 0);

    EXPECT_EQ(endpoint_->msg_buf_size, 387);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(endpoint_->msg_buf), 387),
              std::string(387, '\0'));
}

TEST_F(ExtendMessageSize, TakesANegativeSizeForAVastOne)
{
    endpoint_->msg_buf_size = -1;

    EXPECT_EQ(extend_message_size(*endpoint_, 387), 0);

    EXPECT_EQ(endpoint_->msg_buf, buffer_);
}

TEST_F(ExtendMessageSize, KeepsTheOldBufferWithoutMemory)
{
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    StderrCapture log;
    FailNext memory(Call::calloc, ENOMEM);

    EXPECT_EQ(extend_message_size(*endpoint_, 387), -1);

    EXPECT_EQ(endpoint_->msg_buf, buffer_);
    EXPECT_EQ(endpoint_->msg_buf_size, 129);
    EXPECT_EQ(log.text(), "message_receive_listener: error in calloc\n");
}

} // namespace
