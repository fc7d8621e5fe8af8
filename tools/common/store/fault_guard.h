// Reading memory that can vanish: another process may cut a segment's file while it is mapped, and
// touching what is gone raises SIGBUS, which would end the program.
#pragma once

#include <csetjmp>

namespace kp::tool {

// Installs the handler; called once, before the first guarded access.
void catch_bus_errors();

// Where the handler returns to; null outside a guarded access.
extern thread_local sigjmp_buf *fault_return;

// If it is set, it is called before a fault outside of a guarded access ends the program. It may
// call what a signal handler may.
extern void (*before_fatal_bus_error)();

// Runs `access`, which is left by a jump if the memory is gone: so it must own nothing, nor may
// what it calls. Says with false that the memory was gone.
template <typename Access> __attribute__((noinline)) bool guarded(const Access &access)
{
    sigjmp_buf here;
    if (sigsetjmp(here, 0) != 0) {
        fault_return = nullptr;
        return false;
    }
    fault_return = &here;
    access();
    fault_return = nullptr;
    return true;
}

} // namespace kp::tool
