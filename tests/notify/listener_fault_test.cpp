// What the three threads have in common. Each runs here on the test's own thread, step by step.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <ostream>

using namespace kptest;

namespace {

struct Listener {
    const char *name;
    void *(*body)(void *);
};

void PrintTo(const Listener &listener, std::ostream *out)
{
    *out << listener.name;
}

class AnyListener : public NotifyTest, public testing::WithParamInterface<Listener> {
  protected:
    AnyListener()
    {
        endpoint_.listen();
    }

    std::string name() const
    {
        return GetParam().name;
    }
    void run(std::vector<Step> steps = {}) const
    {
        run_in_steps(GetParam().body, endpoint_, std::move(steps));
    }

    BareEndpoint endpoint_;
    StderrCapture log_;
    const std::string unwatched_ =
        "ERROR: " + name() + ": epoll_ctl\\(EPOLL_CTL_ADD, [0-9]+\\) failed";
};

TEST_P(AnyListener, EndsSilentlyAtTheStopFlag)
{
    run();

    EXPECT_EQ(log_.text(), "");
}

TEST_P(AnyListener, EndsWithoutAnEpollInstance)
{
    FailNext create(Call::epoll_create1, EMFILE);

    EXPECT_EQ(GetParam().body(&*endpoint_), nullptr);

    EXPECT_EQ(log_.lines(), Lines{"ERROR: " + name() + ": epoll_create1 failed"});
}

TEST_P(AnyListener, GoesOnWithoutItsFirstDescriptor)
{
    const FailNth add(Call::epoll_ctl, 1);
    const FailNth wait(Call::epoll_wait, 1, EINTR); // perhaps nothing would wake it

    run({[this] { endpoint_.stop(); }});

    EXPECT_THAT(log_.lines().front(), testing::MatchesRegex(unwatched_));
}

TEST_P(AnyListener, GoesOnWithoutItsSecondDescriptor)
{
    const FailNth add(Call::epoll_ctl, 2);
    const FailNth wait(Call::epoll_wait, 1, EINTR);

    run({[this] { endpoint_.stop(); }});

    EXPECT_THAT(log_.lines().front(), testing::MatchesRegex(unwatched_));
}

TEST_P(AnyListener, WaitsAgainAfterAnInterruptedWait)
{
    FailNext wait(Call::epoll_wait, EINTR);

    run({[] {}});

    EXPECT_EQ(log_.text_without_line_numbers(),
              "\033[93mWARN: " + name() + ": epoll_wait interrupted\n\033[0m");
}

TEST_P(AnyListener, WaitsAgainAfterABadDescriptor)
{
    FailNext wait(Call::epoll_wait, EBADF);

    run({[] {}});

    EXPECT_EQ(log_.lines(), Lines{"WARN: " + name() + ": epoll_wait interrupted"});
}

TEST_P(AnyListener, EndsAfterAnyOtherFailedWait)
{
    FailFrom wait(Call::epoll_wait, 1, EINVAL);

    run({[] {}});

    EXPECT_EQ(wait.count(), 1);
    EXPECT_EQ(log_.text_without_line_numbers(),
              "\033[93mWARN: " + name() + ": epoll_wait failed\n\033[0m");
}

INSTANTIATE_TEST_SUITE_P(
    Of, AnyListener,
    testing::Values(Listener{"subscriber_connecting_listener", kp::subscriber_connecting_listener},
                    Listener{"publisher_linkup_listener", kp::publisher_linkup_listener},
                    Listener{"message_receive_listener", kp::message_receive_listener}),
    [](const auto &instance) { return instance.param.name; });

} // namespace
