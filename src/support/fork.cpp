#include "support/fork.h"

#include "layout/field.h"

#include <array>
#include <bit>
#include <cstddef>
#include <fcntl.h>
#include <unistd.h>

namespace kp {

pthread_mutex_t fork_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Linux gives out no higher number unless an administrator raises the limit. A descriptor with a
// higher one is not closed in a child, and that is all.
constexpr std::size_t kMostFds = std::size_t{1} << 20;
constexpr std::size_t kBitsPerWord = 64;

// All of it is covered by `fork_mutex` but the generation.
std::array<uint64_t, kMostFds / kBitsPerWord> own_fds;
std::size_t used_words = 0; // no bit is set in the words from here on
ForkLink *links = nullptr;
uint32_t generation = 0;
bool is_watching = false;

// Changes the bit of a descriptor.
template <typename Change> void change_bit(int fd, Change change)
{
    const auto number = static_cast<std::size_t>(fd);
    if (number < kMostFds)
        change(number / kBitsPerWord, uint64_t{1} << (number % kBitsPerWord));
}

void before_fork()
{
    (void)pthread_mutex_lock(&fork_mutex);
}

void in_parent()
{
    (void)pthread_mutex_unlock(&fork_mutex);
}

void in_child()
{
    for (std::size_t word = 0; word < used_words; ++word)
        for (; own_fds[word] != 0; own_fds[word] &= own_fds[word] - 1)
            (void)close(static_cast<int>(word * kBitsPerWord) + std::countr_zero(own_fds[word]));
    for (ForkLink *link = std::exchange(links, nullptr); link; link = link->next)
        link->in_child(link->record);
    store_relaxed(generation, generation + 1);
    (void)pthread_mutex_unlock(&fork_mutex);
}

// If there is no memory for it a later call tries again. The caller holds the lock.
void watch_forks()
{
    if (!is_watching)
        is_watching = pthread_atfork(before_fork, in_parent, in_child) == 0;
}

} // namespace

void note_own_fd(int fd)
{
    change_bit(fd, [](std::size_t word, uint64_t bit) {
        own_fds[word] |= bit;
        if (used_words <= word)
            used_words = word + 1;
    });
}

void forget_own_fd(int fd)
{
    change_bit(fd, [](std::size_t word, uint64_t bit) { own_fds[word] &= ~bit; });
}

void CloseOwnFd::operator()(int fd) const
{
    const MutexLock lock(fork_mutex); // no child closes the number when it is somebody else's
    forget_own_fd(fd);
    (void)close(fd);
}

bool own_pipe(std::span<int32_t, 2> ends)
{
    const MutexLock lock(fork_mutex);
    std::array<int, 2> made{};
    if (pipe2(made.data(), O_CLOEXEC) != 0)
        return false;
    UniqueFd read_end = high_fd(made[0]);
    UniqueFd write_end = high_fd(made[1]);
    if (!read_end || !write_end)
        return false;
    note_own_fd(ends[0] = read_end.release());
    note_own_fd(ends[1] = write_end.release());
    return true;
}

void enter_fork_link(ForkLink &link, void (*told)(void *record), void *record)
{
    const MutexLock lock(fork_mutex);
    watch_forks();
    link = {links, told, record};
    links = &link;
}

void leave_fork_link(ForkLink &link)
{
    const MutexLock lock(fork_mutex);
    ForkLink **place = &links;
    while (*place && *place != &link)
        place = &(*place)->next;
    if (*place)
        *place = link.next;
}

uint32_t fork_generation()
{
    const MutexLock lock(fork_mutex);
    watch_forks();
    return generation;
}

} // namespace kp
