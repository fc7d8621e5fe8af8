#include "common/store/fault_guard.h"

#include <csignal>

namespace kp::tool {

thread_local sigjmp_buf *fault_return = nullptr;
void (*before_fatal_bus_error)() = nullptr;

namespace {

void return_from_fault(int number)
{
    if (fault_return)
        siglongjmp(*fault_return, 1);
    if (before_fatal_bus_error)
        before_fatal_bus_error();
    (void)std::signal(number, SIG_DFL);
    (void)raise(number); // a fault of our own, or a signal that was sent: die of it
}

} // namespace

void catch_bus_errors()
{
    struct sigaction action {};
    action.sa_handler = return_from_fault;
    action.sa_flags = SA_NODEFER; // the handler is left by a jump, which does not unblock
    (void)sigaction(SIGBUS, &action, nullptr);
}

} // namespace kp::tool
