// A shim counts a call in every armed rule that names it, then fails it or passes it on. While
// nothing is armed that is one relaxed load, so that ThreadSanitizer sees no order between threads
// that the library does not make itself.
#include "testing/faults.h"

#include "testing/pauses.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kptest {

namespace {

struct Known {
    const char *name;
    int error;
};

constexpr Known kKnown[] = {
#define KP_CALL(name, error) {#name, error},
#include "testing/calls.def"
#undef KP_CALL
};
static_assert(std::size(kKnown) <= 64, "a set of calls is one word");

std::array<std::atomic<Shim *>, 8> armed;
std::atomic<int> armed_count;
std::atomic<int> threads_inside;
std::atomic<long> blocks;

int usual_error(Call call)
{
    return kKnown[static_cast<unsigned>(call)].error;
}

constexpr CallSet every_fallible_call()
{
    CallSet calls{};
    for (unsigned index = 0; index < std::size(kKnown); ++index)
        if (kKnown[index].error != 0)
            calls = calls.with(static_cast<Call>(index));
    return calls;
}

// Gives the error that the call is to fail with, 0 for none. Leaves errno as it is.
int error_for(Call call)
{
    if (armed_count.load(std::memory_order_relaxed) == 0)
        return 0;
    const int kept_errno = errno;
    int error = 0;
    ++threads_inside;
    for (std::atomic<Shim *> &slot : armed)
        if (Shim *shim = slot.load())
            if (const int found = shim->meet(call); error == 0)
                error = found;
    --threads_inside;
    errno = kept_errno;
    return error;
}

bool is_failed(Call call)
{
    const int error = error_for(call);
    if (error != 0)
        errno = error;
    return error != 0;
}

template <typename T> T *counted(T *block)
{
    if (block)
        blocks.fetch_add(1, std::memory_order_relaxed);
    return block;
}

} // namespace

constinit const CallSet kFallibleCalls = every_fallible_call();

const char *name_of(Call call)
{
    return kKnown[static_cast<unsigned>(call)].name;
}

long live_blocks()
{
    return blocks.load(std::memory_order_relaxed);
}

Shim::Shim(Rule rule) : rule_(std::move(rule)), thread_(pthread_self())
{
    for (std::atomic<Shim *> &slot : armed) {
        Shim *none = nullptr;
        if (slot.compare_exchange_strong(none, this)) {
            ++armed_count;
            return;
        }
    }
    std::abort(); // more shims at once than there are slots
}

Shim::~Shim()
{
    disarm();
}

void Shim::disarm()
{
    if (!armed_)
        return;
    armed_ = false;
    for (std::atomic<Shim *> &slot : armed) {
        Shim *self = this;
        if (slot.compare_exchange_strong(self, nullptr))
            --armed_count;
    }
    while (threads_inside != 0) // another thread may just be looking at this shim
        (void)sched_yield();
}

long Shim::count() const
{
    return count_;
}

bool Shim::fired() const
{
    return fired_on_ >= 0;
}

Call Shim::fired_on() const
{
    return static_cast<Call>(fired_on_.load());
}

int Shim::meet(Call call)
{
    if (!rule_.calls.has(call))
        return 0;
    if (rule_.threads == Threads::this_one && !pthread_equal(thread_, pthread_self()))
        return 0;
    const long number = ++count_;
    if (number < rule_.first || number > rule_.last)
        return 0;
    fired_on_ = static_cast<int>(call);
    if (rule_.before)
        rule_.before();
    return rule_.error == kUsualError ? usual_error(call) : rule_.error;
}

FailNth::FailNth(CallSet calls, long n, int error, Threads threads)
    : Shim({calls, n, n, error, threads, nullptr})
{
}

FailFrom::FailFrom(CallSet calls, long n, int error, Threads threads)
    : Shim({calls, n, LONG_MAX, error, threads, nullptr})
{
}

FailNext::FailNext(CallSet calls, int error, Threads threads) : FailNth(calls, 1, error, threads)
{
}

FailNext::~FailNext()
{
    disarm();
    EXPECT_TRUE(fired()) << "the call that was to fail was never made";
}

CountCalls::CountCalls(CallSet calls, Threads threads)
    : Shim({calls, LONG_MAX, LONG_MAX, 0, threads, nullptr})
{
}

Before::Before(CallSet calls, std::function<void()> hook, long n)
    : Shim({calls, n, n, 0, Threads::all, std::move(hook)})
{
}

Before::~Before()
{
    disarm();
    EXPECT_TRUE(fired()) << "the call before which the hook was to run was never made";
}

} // namespace kptest

using namespace kptest;

// One shim for each call that reports its failure through errno. The C library's own function is
// the one called here, since this file is not linked with the shims.
#define SHIM(result, name, failure, parameters, arguments)                                         \
    result __wrap_##name parameters;                                                               \
    result __wrap_##name parameters                                                                \
    {                                                                                              \
        if (is_failed(Call::name))                                                                 \
            return failure;                                                                        \
        return ::name arguments;                                                                   \
    }

// The same for calls that return their error.
#define SHIM_PTHREAD(name, parameters, arguments)                                                  \
    int __wrap_##name parameters;                                                                  \
    int __wrap_##name parameters                                                                   \
    {                                                                                              \
        if (const int error = error_for(Call::name))                                               \
            return error;                                                                          \
        return ::name arguments;                                                                   \
    }

// The same for calls that do their work even when they report a failure.
#define SHIM_DONE(name, parameters, arguments)                                                     \
    int __wrap_##name parameters;                                                                  \
    int __wrap_##name parameters                                                                   \
    {                                                                                              \
        const int error = error_for(Call::name);                                                   \
        const int result = ::name arguments;                                                       \
        if (error == 0)                                                                            \
            return result;                                                                         \
        errno = error;                                                                             \
        return -1;                                                                                 \
    }

// The same for calls that wait so long.
#define SHIM_WAIT(name, duration, parameters, arguments)                                           \
    int __wrap_##name parameters;                                                                  \
    int __wrap_##name parameters                                                                   \
    {                                                                                              \
        note_wait(Call::name, duration);                                                           \
        return is_failed(Call::name) ? -1 : ::name arguments;                                      \
    }

extern "C" {

void *__wrap_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    return is_failed(Call::malloc) ? nullptr : counted(std::malloc(size));
}

void *__wrap_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    return is_failed(Call::calloc) ? nullptr : counted(std::calloc(count, size));
}

char *__wrap_strdup(const char *text);
char *__wrap_strdup(const char *text)
{
    return is_failed(Call::strdup) ? nullptr : counted(strdup(text));
}

void __wrap_rewinddir(DIR *dir);
void __wrap_rewinddir(DIR *dir)
{
    (void)error_for(Call::rewinddir);
    ::rewinddir(dir);
}

void __wrap_free(void *block);
void __wrap_free(void *block)
{
    (void)error_for(Call::free);
    if (block)
        blocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

int __wrap_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return is_failed(Call::open) ? -1 : open(path, flags, mode);
}

int __wrap_openat(int directory, const char *path, int flags, ...);
int __wrap_openat(int directory, const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return is_failed(Call::openat) ? -1 : openat(directory, path, flags, mode);
}

// Each argument is an int or a pointer; a long holds both. The library makes no call of more.
long __wrap_syscall(long number, ...);
long __wrap_syscall(long number, ...)
{
    va_list arguments;
    va_start(arguments, number);
    const long first = va_arg(arguments, long);
    const long second = va_arg(arguments, long);
    const long third = va_arg(arguments, long);
    const long fourth = va_arg(arguments, long);
    va_end(arguments);
    return is_failed(Call::syscall) ? -1 : syscall(number, first, second, third, fourth);
}

// The third argument is an int or a pointer; a long holds both.
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return is_failed(Call::fcntl) ? -1 : fcntl(fd, command, argument);
}

int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    return is_failed(Call::clock_gettime) || stopped_time(clock, *now) ? 0
                                                                       : clock_gettime(clock, now);
}

SHIM(int, ftruncate, -1, (int fd, off_t length), (fd, length))
SHIM(int, fallocate, -1, (int fd, int mode, off_t offset, off_t length), (fd, mode, offset, length))
SHIM(int, fstat, -1, (int fd, struct stat *status), (fd, status))
SHIM(int, stat, -1, (const char *path, struct stat *status), (path, status))
SHIM(int, lstat, -1, (const char *path, struct stat *status), (path, status))
SHIM(int, access, -1, (const char *path, int mode), (path, mode))
SHIM(void *, mmap, MAP_FAILED,
     (void *address, size_t length, int protection, int flags, int fd, off_t offset),
     (address, length, protection, flags, fd, offset))
SHIM(DIR *, opendir, nullptr, (const char *path), (path))
SHIM(DIR *, fdopendir, nullptr, (int fd), (fd))
SHIM(int, fstatat, -1, (int directory, const char *path, struct stat *status, int flags),
     (directory, path, status, flags))
SHIM(int, faccessat, -1, (int directory, const char *path, int mode, int flags),
     (directory, path, mode, flags))
SHIM(ssize_t, readlinkat, -1, (int directory, const char *path, char *text, size_t room),
     (directory, path, text, room))
SHIM(int, mkdirat, -1, (int directory, const char *path, mode_t mode), (directory, path, mode))
SHIM(int, unlinkat, -1, (int directory, const char *path, int flags), (directory, path, flags))

// Giving a lock back never fails; one that stayed would only slow down what comes later.
int __wrap_flock(int fd, int operation);
int __wrap_flock(int fd, int operation)
{
    const bool fails = is_failed(Call::flock) && operation != LOCK_UN;
    return fails ? -1 : flock(fd, operation);
}

SHIM(ssize_t, pread, -1, (int fd, void *bytes, size_t room, off_t offset),
     (fd, bytes, room, offset))
SHIM(int, unshare, -1, (int flags), (flags))
SHIM(int, mkdir, -1, (const char *path, mode_t mode), (path, mode))
SHIM(int, unlink, -1, (const char *path), (path))
SHIM(int, sem_init, -1, (sem_t * sem, int shared, unsigned value), (sem, shared, value))
SHIM(int, sem_clockwait, -1, (sem_t * sem, clockid_t clock, const timespec *deadline),
     (sem, clock, deadline))
SHIM(int, sem_post, -1, (sem_t * sem), (sem))
SHIM(int, sem_destroy, -1, (sem_t * sem), (sem))
SHIM(int, sem_wait, -1, (sem_t * sem), (sem))
SHIM_WAIT(usleep, duration, (useconds_t duration), (duration))
SHIM_WAIT(poll, timeout, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
SHIM(int, pipe2, -1, (int fds[2], int flags), (fds, flags))
SHIM(int, socket, -1, (int domain, int type, int protocol), (domain, type, protocol))
SHIM(int, bind, -1, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
SHIM(int, listen, -1, (int fd, int backlog), (fd, backlog))
SHIM(int, accept4, -1, (int fd, sockaddr *address, socklen_t *length, int flags),
     (fd, address, length, flags))
SHIM(int, connect, -1, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
SHIM(int, epoll_create1, -1, (int flags), (flags))
SHIM(int, epoll_ctl, -1, (int poll, int operation, int fd, epoll_event *event),
     (poll, operation, fd, event))
SHIM_WAIT(epoll_wait, timeout, (int poll, epoll_event *events, int room, int timeout),
          (poll, events, room, timeout))
SHIM(int, inotify_init1, -1, (int flags), (flags))
SHIM(int, inotify_add_watch, -1, (int fd, const char *path, uint32_t mask), (fd, path, mask))
SHIM(int, eventfd, -1, (unsigned count, int flags), (count, flags))
SHIM(ssize_t, getrandom, -1, (void *bytes, size_t count, unsigned flags), (bytes, count, flags))
SHIM(ssize_t, send, -1, (int fd, const void *bytes, size_t count, int flags),
     (fd, bytes, count, flags))
SHIM(ssize_t, recv, -1, (int fd, void *bytes, size_t room, int flags), (fd, bytes, room, flags))
SHIM(ssize_t, read, -1, (int fd, void *bytes, size_t room), (fd, bytes, room))
SHIM(ssize_t, write, -1, (int fd, const void *bytes, size_t count), (fd, bytes, count))
SHIM_DONE(munmap, (void *address, size_t length), (address, length))
SHIM_DONE(close, (int fd), (fd))
SHIM_PTHREAD(pthread_create,
             (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *),
              void *argument),
             (thread, attributes, body, argument))
SHIM_PTHREAD(pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
             (mutex, attributes))
}
