// An endpoint that a child of fork() has taken along, and threads that are cancelled in its calls.
#include "notify/endpoints.h"
#include "testing/capture.h"
#include "testing/child.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace kptest;

namespace {

std::atomic<bool> is_child_of_a_callback = false;

} // namespace

// Asked by LeakSanitizer where the tests are built with it. Such a child has one thread, which is
// not the main one, and all that only the main thread's stack leads to looks lost there.
extern "C" int __lsan_is_turned_off();
int __lsan_is_turned_off()
{
    return is_child_of_a_callback;
}

namespace {

class Fork : public NotifyTest {};

// Gives the descriptors of the process that the library makes: sockets, pipes, and what it waits
// with.
int library_descriptors()
{
    int count = 0;
    for (const auto &[fd, target] : open_descriptors())
        count += fd > STDERR_FILENO && (target.starts_with("socket:") ||
                                        target.starts_with("pipe:") || target.starts_with("anon"));
    return count;
}

TEST_F(Fork, LeavesTheChildNoDescriptorOfAnEndpoint)
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    const int before = library_descriptors();
    const Endpoint endpoint;
    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");
    ASSERT_TRUE(endpoint.has_clients(1));

    const int status = status_of_child([&] { return library_descriptors() == before + 1; });

    EXPECT_EQ(status, 0);
    EXPECT_TRUE(peer.is_open());
    EXPECT_EQ(endpoint.client_count(), 1);
}

TEST_F(Fork, LetsPeersSeeTheDeathOfAParentWhoseChildLives)
{
    ChildProcess parent([](Channel &test) {
        const Endpoint other("other");
        const pid_t child = fork();
        if (child == 0) { // keeps what it has until the test ends it
            (void)alarm(60);
            (void)pause();
            _exit(0);
        }
        test.tell(std::to_string(child));
        return test.hear(std::chrono::minutes(1)) ? 0 : 1;
    });
    const Endpoint endpoint;
    const pid_t child = std::stoi(parent.hear().value());
    EXPECT_TRUE(endpoint.has_clients(1));
    EXPECT_TRUE(endpoint.has_servers(1));

    parent.signal(SIGKILL);

    EXPECT_TRUE(endpoint.has_clients(0));
    EXPECT_TRUE(endpoint.has_servers(0));
    EXPECT_EQ(kill(child, SIGKILL), 0);
}

TEST_F(Fork, LetsTheChildSendToNobody)
{
    const Endpoint endpoint;
    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;

    const int status = status_of_child(
        [&] { return kp_notify_send(endpoint.get(), write_notice({1}).data(), 129) == 0; });

    EXPECT_EQ(status, 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(peer.is_readable(std::chrono::milliseconds(0)));
}

TEST_F(Fork, LetsTheChildCloseWithoutTouchingTheParents)
{
    const Endpoint endpoint;
    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;

    const int status = status_of_child([&] {
        const int own = open("/", O_PATH | O_CLOEXEC); // a number that was the endpoint's
        kp_notify_t *inherited = endpoint.get();
        return kp_notify_close(&inherited) == 0 && fcntl(own, F_GETFD) != -1;
    });

    EXPECT_EQ(status, 0);
    EXPECT_TRUE(file_exists("/run/providers/endpoint"));
    endpoint.send(write_notice({2}));
    EXPECT_EQ(peer.recv(129), write_notice({2}));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Fork, LetsTheChildOpenAnEndpointOfItsOwn)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a child that is forked among threads cannot start any";
#endif
    const Endpoint endpoint;

    const int status = status_of_child([&] {
        kp_notify_t *own = kp_notify_init("child", 129, Inbox::receive, nullptr);
        const bool is_connected =
            own &&
            wait_until([&] { return endpoint.server_count() == 0 && own->server_fds[0] != -1; });
        return kp_notify_close(&own) == 0 && is_connected;
    });

    EXPECT_EQ(status, 0);
    EXPECT_TRUE(endpoint.has_clients(0));
}

TEST_F(Fork, LeavesTheDescriptorsOfAClosedEndpointToTheirNextOwner)
{
    {
        const Endpoint endpoint;
    }
    const int next = open("/", O_PATH | O_CLOEXEC);

    const int status = status_of_child([&] { return fcntl(next, F_GETFD) != -1; });

    EXPECT_EQ(status, 0);
    (void)close(next);
}

TEST_F(Fork, EndsAChildOfTheCallbackThatReturns)
{
    const UnixSocket listening = UnixSocket::listening("/run/providers/peer");
    static std::atomic<pid_t> child;
    kp_notify_t *endpoint = kp_notify_init(
        "endpoint", 129,
        [](const uint8_t *, int32_t, void *) {
            child = fork();
            is_child_of_a_callback = child == 0;
            if (child == 0) // all its descriptors are closed already; the numbers are others' now
                new BeforeEach(Call::close, [] { _exit(1); });
        },
        nullptr);

    EXPECT_TRUE(listening.accept().send(write_notice({1})));
    ASSERT_TRUE(wait_until([] { return child.load() > 0; }));
    int status = -1;

    EXPECT_TRUE(wait_until([&] { return waitpid(child, &status, WNOHANG) == child; }));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(kp_notify_close(&endpoint), 0);
}

class Cancellation : public NotifyTest {};

TEST_F(Cancellation, LeavesNoSenderCountedIn)
{
    Endpoint endpoint;
    UnixSocket slow = UnixSocket::connected("/run/providers/endpoint");
    ASSERT_TRUE(endpoint.has_clients(1));
    StderrCapture log;
    std::thread sending([&] {
        for (; true; pthread_testcancel())
            (void)kp_notify_send(endpoint.get(), write_notice({1}).data(), 129);
    });
    ASSERT_TRUE(wait_until([&] {
        return readable_bytes(slow.fd()) > 20'000 && kp::load_ordered(endpoint->senders[1]) == 1;
    }));

    EXPECT_EQ(pthread_cancel(sending.native_handle()), 0);
    EXPECT_EQ(slow.recv(129), write_notice({1}));
    slow.close();
    sending.join();

    EXPECT_TRUE(endpoint.has_clients(0));
    EXPECT_EQ(kp::load_ordered(endpoint->senders[1]), 0U);
    endpoint.close();
}

TEST_F(Cancellation, WaitsForTheEndOfAnOpening)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;
    const CountCalls tries(Call::connect);
    static kp_notify_t *endpoint;
    std::thread opening(
        [] { endpoint = kp_notify_init("endpoint", 129, Inbox::receive, nullptr); });
    ASSERT_TRUE(wait_until([&] { return tries.count() == 1; }));

    EXPECT_EQ(pthread_cancel(opening.native_handle()), 0);
    opening.join();

    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(kp_notify_close(&endpoint), 0);
}

} // namespace
