#include "stop.h"

#include "exit_code.h"
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

void remember(int number)
{
    const int keep = errno;
    caught = number;
    (void)!write(wake_pipe[1], "", 1);
    errno = keep;
}

} // namespace

void catch_stop_signals()
{
    if (pipe2(wake_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return; // signals end the program then, as they do without this
    struct sigaction action {};
    action.sa_handler = remember;
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        (void)sigaction(number, &action, nullptr);
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
