#include "common/system/signals.h"

#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace kp::tool {

namespace {

// Says whether a terminal controls this process. One that has closed controls nobody.
bool has_terminal()
{
    return UniqueFd(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)).get() >= 0;
}

} // namespace

Signals Signals::take()
{
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGTERM);
    (void)sigaddset(&signals, SIGINT);
    (void)sigaddset(&signals, SIGHUP);
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN);
    return {UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK)), has_terminal()};
}

Order Signals::next() const
{
    signalfd_siginfo signal{};
    if (read(fd_.get(), &signal, sizeof signal) != sizeof signal)
        return Order::none;
    const bool terminal_closed = had_terminal_ && !has_terminal();
    return signal.ssi_signo == SIGHUP && !terminal_closed ? Order::reload : Order::leave;
}

} // namespace kp::tool
