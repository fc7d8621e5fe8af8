#include "running/stop.h"

#include "common/clock.h"
#include "running/outcome.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace kp::tool {

namespace {

volatile std::sig_atomic_t caught = 0; // written by the handler, which nothing else can be
std::array<int, 2> wake_pipe = {-1, -1};
void (*volatile at_stop)() = nullptr;

// Signals by which people and the system end a program. They end this one, even if its caller has
// set them to be ignored.
constexpr std::array kRequests = {SIGINT, SIGTERM, SIGQUIT};
// Other signals that end a program from outside. Its caller may have set them to be
// ignored, as nohup does, and then they are.
constexpr std::array kOthers = {SIGHUP, SIGUSR1, SIGUSR2,   SIGALRM, SIGVTALRM, SIGPROF,
                                SIGIO,  SIGPWR,  SIGSTKFLT, SIGXCPU, SIGXFSZ};

void remember(int number)
{
    const int keep = errno;
    caught = number;
    (void)!write(wake_pipe[1], "", 1);
    if (at_stop)
        at_stop();
    errno = keep;
}

void remember_unless_told_otherwise(int number, const struct sigaction &action)
{
    struct sigaction before {};
    if (sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_DFL)
        (void)sigaction(number, &action, nullptr);
}

// In milliseconds, and at most an hour, after which the caller looks again.
int poll_timeout(uint64_t now, uint64_t deadline)
{
    constexpr uint64_t most_us = 3'600'000'000;
    return static_cast<int>((std::min(deadline - now, most_us) + 999) / 1000);
}

} // namespace

void catch_stop_signals()
{
    if (pipe2(wake_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return; // signals end the program then, as they do without this
    struct sigaction action {};
    action.sa_handler = remember;
    for (const int number : kRequests)
        (void)sigaction(number, &action, nullptr);
    for (const int number : kOthers)
        remember_unless_told_otherwise(number, action);
    for (int number = SIGRTMIN; number <= SIGRTMAX; ++number)
        remember_unless_told_otherwise(number, action);
}

void call_at_stop(void (*function)())
{
    at_stop = function;
    if (function && stop_signal() != 0)
        function();
}

int stop_signal()
{
    return caught;
}

bool wait_readable(int fd, uint64_t deadline)
{
    for (;;) {
        if (stop_signal() != 0)
            return false;
        const uint64_t now = monotonic_us();
        if (now >= deadline)
            return true;
        // Standard output is waited for without an event: only its reader's going shows.
        std::array<pollfd, 3> fds = {
            {{wake_pipe[0], POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {fd, POLLIN, 0}}};
        const int ready = poll(fds.data(), fds.size(), poll_timeout(now, deadline));
        if (ready < 0 && errno != EINTR)
            return false;
        if (ready > 0 && (fds[1].revents & (POLLERR | POLLNVAL)))
            return false;
        if (ready > 0 && fds[2].revents)
            return true;
    }
}

Readiness wait_writable(int fd, uint64_t deadline)
{
    for (;;) {
        const uint64_t now = monotonic_us();
        const bool is_over = stop_signal() != 0 || now >= deadline;
        std::array<pollfd, 2> fds = {{{fd, POLLOUT, 0}, {wake_pipe[0], POLLIN, 0}}};
        const int ready = poll(fds.data(), fds.size(), is_over ? 0 : poll_timeout(now, deadline));
        if ((ready < 0 && errno != EINTR) || (ready > 0 && fds[0].revents))
            return Readiness::ready;
        if (is_over)
            return stop_signal() != 0 ? Readiness::stopped : Readiness::late;
    }
}

bool wait_until(uint64_t deadline)
{
    return wait_readable(-1, deadline);
}

void die_of(int number)
{
    (void)std::signal(number, SIG_DFL);
    sigset_t just_this;
    (void)sigemptyset(&just_this);
    (void)sigaddset(&just_this, number);
    (void)sigprocmask(SIG_UNBLOCK, &just_this, nullptr);
    (void)raise(number); // comes back in the first process of a container, whom defaults do not end
}

void die_of_stop_signal()
{
    if (stop_signal() != 0)
        die_of(stop_signal());
}

} // namespace kp::tool
