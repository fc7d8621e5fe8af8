// How long the threads of an endpoint wait and pause.
#include "notify/endpoints.h"
#include "testing/capture.h"
#include "testing/pauses.h"

#include <cerrno>

using namespace kptest;

namespace {

constexpr long kDayMs = 86'400'000;

class Waits : public NotifyTest {
  protected:
    Waits()
    {
        endpoint_.listen();
    }
    // Runs a thread's body up to its first wait and says how long that was to last.
    long first_wait(void *(*body)(void *)) const
    {
        run_in_steps(body, endpoint_, {});
        return last_wait(Call::epoll_wait);
    }

    BareEndpoint endpoint_;
};

TEST_F(Waits, LastADayAtMost)
{
    EXPECT_EQ(first_wait(kp::subscriber_connecting_listener), kDayMs);
    EXPECT_EQ(first_wait(kp::publisher_linkup_listener), kDayMs);
    EXPECT_EQ(first_wait(kp::message_receive_listener), kDayMs);
}

TEST_F(Waits, LastATenthOfASecondWhenTheCloseCannotWakeThem)
{
    StderrCapture log;
    const FailFrom adding(Call::epoll_ctl, 1, ENOMEM);

    EXPECT_EQ(first_wait(kp::subscriber_connecting_listener), 100);
    EXPECT_EQ(first_wait(kp::publisher_linkup_listener), 100);
    EXPECT_EQ(first_wait(kp::message_receive_listener), 100);
}

class Pauses : public NotifyTest {};

TEST_F(Pauses, BeforeTheScanAreOneOfTenMilliseconds)
{
    const CountCalls pauses(Call::usleep);

    const Endpoint endpoint;

    EXPECT_EQ(pauses.count(), 1);
    EXPECT_EQ(last_wait(Call::usleep), 10'000);
}

TEST_F(Pauses, BeforeTheScanIncludeTheWatchWhateverSignalsCome)
{
    CountCalls waits(Call::sem_wait);
    const FailNth interrupted(Call::sem_wait, 1, EINTR);

    const Endpoint endpoint;

    EXPECT_EQ(waits.count(), 3); // for the watch twice, then for the accept thread
}

// Lets an accept fail once, and gives how often the accept thread paused until it took the peer.
long pauses_after(int error)
{
    const SettledEndpoint endpoint;
    const CountCalls pauses(Call::usleep);
    const FailNext accept(Call::accept4, error);
    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");
    EXPECT_TRUE(endpoint.has_clients(1));
    EXPECT_TRUE(pauses.count() == 0 || last_wait(Call::usleep) == 10'000);
    return pauses.count();
}

TEST_F(Pauses, OfTheAcceptThreadWaitForWhatTheSystemHasRunOutOf)
{
    EXPECT_EQ(pauses_after(EMFILE), 1);
    EXPECT_EQ(pauses_after(ENFILE), 1);
    EXPECT_EQ(pauses_after(ENOBUFS), 1);
    EXPECT_EQ(pauses_after(ENOMEM), 1);
}

TEST_F(Pauses, OfTheAcceptThreadAreNoneForOtherReasons)
{
    EXPECT_EQ(pauses_after(ECONNABORTED), 0);
    EXPECT_EQ(pauses_after(EINTR), 0);
}

} // namespace
