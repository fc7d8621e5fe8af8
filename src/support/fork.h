// What a process must not take along from its parent: the descriptors of the library, which would
// keep the parent's connections open after its death, and the records of its threads. A child of
// fork() closes the first and is told of the second; one of vfork(), of posix_spawn() or of a bare
// system call is not, and has nothing to do but to execute a program.
#pragma once

#include "layout/unique_fd.h"
#include "support/high_fd.h"
#include "support/lock.h"

#include <cstdint>
#include <span>

namespace kp {

// Covers everything below. No fork() can go on while it is held, so nobody waits while holding it.
extern pthread_mutex_t fork_mutex;

// Enters a descriptor in the set of those that a child closes, or takes it out again. The caller
// holds the lock.
void note_own_fd(int fd);
void forget_own_fd(int fd);

// Closes a descriptor that was noted.
struct CloseOwnFd {
    void operator()(int fd) const;
};

// The owner of a descriptor that a child closes.
using OwnFd = FdOwner<CloseOwnFd>;

// Calls `make`, which makes a descriptor or returns -1, and takes the descriptor over under a
// number of 3 or more.
template <typename Make> OwnFd own_fd(Make make)
{
    const MutexLock lock(fork_mutex); // no child has it unnoted
    OwnFd fd(high_fd(make()).release());
    if (fd)
        note_own_fd(fd.get());
    return fd;
}

// A pipe whose ends executed programs don't inherit; false with errno set. The ends are the
// caller's, as from OwnFd::release().
bool own_pipe(std::span<int32_t, 2> ends);

// A record that wants to know when it has come into a child. Part of the record, zero-filled.
struct ForkLink {
    ForkLink *next;
    void (*in_child)(void *record); // runs before fork() returns there; must not take a lock
    void *record;
};

// Enters a record, or takes it out before it is freed. It is told once.
void enter_fork_link(ForkLink &link, void (*told)(void *record), void *record);
void leave_fork_link(ForkLink &link);

// Makes sure that the library notices children, and gives this process's number, which is another
// one than that of its parent.
uint32_t fork_generation();

} // namespace kp
