#include "stop.h"

#include "problem.h"
#include "output.h"
#include "time_text.h"

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

// Asked for by people and by the system; whatever the caller wanted of them, they end the program.
constexpr std::array kRequests = {SIGINT, SIGTERM, SIGQUIT};
// What else ends a program without being its own fault, unless whoever started it says otherwise, as
// nohup does.
constexpr std::array kOthers = {SIGHUP, SIGUSR1, SIGUSR2,   SIGALRM, SIGVTALRM, SIGPROF,
                                SIGIO,  SIGPWR,  SIGSTKFLT, SIGXCPU, SIGXFSZ};

void remember(int number)
{
    const int keep = errno;
    caught = number;
    (void)!write(wake_pipe[1], "", 1);
    errno = keep;
}

void remember_unless_told_otherwise(int number, const struct sigaction &action)
{
    struct sigaction before {};
    if (sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_DFL)
        (void)sigaction(number, &action, nullptr);
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
        const uint64_t left_ms = std::min<uint64_t>((deadline - now + 999) / 1000, 3'600'000);
        const int ready = poll(fds.data(), fds.size(), static_cast<int>(left_ms));
        if (ready < 0 && errno != EINTR)
            return false;
        if (ready > 0 && (fds[1].revents & (POLLERR | POLLNVAL)))
            return false;
        if (ready > 0 && fds[2].revents)
            return true;
    }
}

bool wait_until(uint64_t deadline)
{
    return wait_readable(-1, deadline);
}

int end_code(int code)
{
    if (stop_signal() != 0)
        return kSignalBase + stop_signal();
    return output().is_open() ? code : output().code();
}

} // namespace kp::tool
