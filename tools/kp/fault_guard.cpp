#include "fault_guard.h"

#include <csignal>

namespace kp::tool {

thread_local sigjmp_buf *fault_return = nullptr;

namespace {

void return_from_fault(int number)
{
    if (fault_return)
        siglongjmp(*fault_return, 1);
    (void)std::signal(number, SIG_DFL); // a fault of our own: die of it on return
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
