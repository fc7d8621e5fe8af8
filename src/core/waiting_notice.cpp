// Change notices for the application's own thread: the receive thread merges their bits and makes a
// descriptor readable, the application takes the bits whenever it likes. Nothing is queued: while
// the application does not take them, only 1024 bits and one event are kept.
//
// Nothing is lost because each side has its order. The receive thread adds bits, then sets
// `notice_waits`, and writes the descriptor if it was clear. The taker empties the descriptor, then
// clears `notice_waits`, then takes the bits. If it misses a bit, the receive thread adds that bit
// later, then finds the flag clear, and so makes the descriptor readable again.
#include "core/waiting_notice.h"

#include "layout/keep_errno.h"
#include "support/fork.h"
#include "support/lock.h"
#include "support/log.h"

#include <cerrno>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kp {

namespace {

// The bits of a received notice as words.
NoticeWords words_of(const uint8_t *notice)
{
    NoticeWords words;
    std::memcpy(&words, notice + offsetof(kp_write_info, bitmap), sizeof(words));
    return words;
}

// Adds bits; says whether there were any.
bool add_bits(NoticeWords &waiting, const NoticeWords &words)
{
    uint64_t any = 0;
    for (std::size_t index = 0; index < words.size(); ++index) {
        if (words[index] != 0)
            set_bits_relaxed(waiting[index], words[index]); // exchange() publishes them
        any |= words[index];
    }
    return any != 0;
}

} // namespace

void merge_notice(kp_t &handle, const uint8_t *notice)
{
    if (!add_bits(handle.waiting_bits, words_of(notice)))
        return;
    if (exchange(handle.notice_waits, 1) != 0)
        return; // the descriptor is readable already, or its taker has yet to come to the bits
    constexpr uint64_t kOne = 1;
    if (write(load_acquire(handle.notice_fd), &kOne, sizeof(kOne)) == sizeof(kOne))
        return;
    store_release(handle.notice_waits, 0); // so that the next notice tries again
    KP_WARN("write notice fd failed\n");
}

} // namespace kp

using namespace kp;

int32_t kp_get_fd(kp_t *handle)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    const MutexLock lock(handle->mutex); // waits for a callback that is running
    if (has_notice_fd(*handle))
        return handle->notice_fd;
    OwnFd made = own_fd([] { return eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK); });
    if (!made) {
        const KeepErrno keep;
        KP_ERROR("eventfd: %s\n", std::strerror(errno));
        return -1;
    }
    // All buckets are marked, so that the application also finds what was written until now.
    for (uint64_t &word : handle->waiting_bits)
        store_relaxed(word, ~uint64_t{0});
    store_relaxed(handle->notice_waits, 1);
    store_release(handle->notice_fd, made.release());
    return handle->notice_fd;
}

int32_t kp_take_notice(kp_t *handle, kp_write_info *notice)
{
    if (is_null(handle, "kp is null\n"))
        return -1;
    if (is_null(notice, "notice is null\n"))
        return -1;
    NoticeWords taken{};
    uint64_t any = 0;
    if (has_notice_fd(*handle)) {
        const KeepErrno keep; // that nothing can be read is no failure
        uint64_t count = 0;
        if (read(handle->notice_fd, &count, sizeof(count)) < 0 && errno != EAGAIN)
            KP_WARN("read notice fd failed\n");
        (void)exchange(handle->notice_waits, 0);
        for (std::size_t index = 0; index < taken.size(); ++index)
            if (load_relaxed(handle->waiting_bits[index]) != 0)
                any |= taken[index] = exchange(handle->waiting_bits[index], 0);
    }
    notice->type = KP_MSG_WRITE_INFO;
    std::memcpy(notice->bitmap, taken.data(), sizeof(taken));
    return any != 0 ? 1 : 0;
}
