// Handles on segments: opening, counting, declaring and closing. Who counts a handle in looks
// afterwards whether the file is still linked, and who removes the file looks before whether it is
// still unused, both under the file's lock: so no handle is left with a file that nobody else
// finds.
#include "store/bytes.h"
#include "store/counts.h"
#include "store/file_lock.h"
#include "store/removal.h"
#include "store/segment_file.h"
#include "support/cancellation.h"
#include "support/clock.h"
#include "support/fork.h"
#include "support/memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>

namespace kp {

namespace {

// How often a file may be removed between its opening and its lock before an open fails: each time
// somebody else has to close the topic in just these microseconds. The time counts only after some
// tries, since on a busy machine a single one can take longer.
constexpr int kFewestOpenTries = 10;
constexpr int kMostOpenTries = 100;
constexpr int64_t kOpenPatienceMs = 2000;

bool may_open_again(int tries, int64_t start_ms)
{
    return tries < kFewestOpenTries ||
           (tries < kMostOpenTries && monotonic_ms() - start_ms < kOpenPatienceMs);
}

enum class Opening { done, orphaned, failed };

// Counts the handle into its file. Orphaned when the last user has removed the file meanwhile;
// failed when there is no semaphore.
Opening count_in(kp_shm_t &shm, const UniqueFd &fd, uint32_t role)
{
    const FileLock lock(fd);
    Segment &segment = *shm.mem;
    if (load_relaxed(segment.refs).sum() == 0)
        store_relaxed(segment.last_write_ts, shm.last_update_ts);
    // Deliberate: every open initialises the semaphore again, also under processes that hold it, so
    // one that a killed process left taken is free again.
    if (sem_init(&segment.sem, 1, 1) == -1)
        return Opening::failed;
    (void)count_role(segment, role, +1);
    const FileState file = file_state(fd);
    shm.file = file.id;
    if (file.is_linked)
        return Opening::done;
    (void)count_role(segment, role, -1);
    return Opening::orphaned;
}

// Opens, maps and counts. Failed after a log line.
Opening open_counted(kp_shm_t &shm, const char *path, uint32_t role, LogSite site)
{
    if (kp_new_shm(&shm, path) < 0)
        return Opening::failed;
    UniqueFd fd(shm.fd);
    shm.mem = map_segment(fd);
    if (!shm.mem) {
        const int cause = errno;
        fd.reset();
        KP_LOG_AT(KP_LEVEL_ERROR, site, "mmap: %s\n", std::strerror(cause));
        return Opening::failed;
    }
    const Opening opening = count_in(shm, fd, role);
    if (opening == Opening::failed) // Deliberate: the mapping stays, left to the process's end.
        KP_LOG_AT(KP_LEVEL_ERROR, site, "sem_open: %s\n", std::strerror(errno));
    if (opening == Opening::orphaned)
        (void)munmap(shm.mem, kSegmentSize);
    return opening;
}

} // namespace

} // namespace kp

using namespace kp;

kp_shm_t *kp_shm_new(const char *topic, uint32_t role)
{
    if (is_null(topic, "topic is null\n"))
        return nullptr;
    if (!*topic) {
        KP_ERROR("topic length is 0\n");
        return nullptr;
    }
    const auto path = segment_path(topic);
    if (!path)
        return nullptr;
    auto shm = make_zeroed<kp_shm_t>();
    if (!shm) {
        KP_ERROR("kp_shm_new: malloc kp_shm_t: %s\n", std::strerror(errno));
        return nullptr;
    }
    shm->last_update_ts = kp_shm_get_timestamp_us();
    const NoCancellation scope;
    const int64_t start_ms = monotonic_ms();
    for (int tries = 0; may_open_again(tries, start_ms); ++tries) {
        const Opening opening = open_counted(*shm, path->data(), role, LogSite::current());
        if (opening == Opening::done) {
            shm->generation = fork_generation();
            return shm.release();
        }
        if (opening == Opening::failed)
            return nullptr;
    }
    KP_ERROR("open shm(increase 'ulimit -n'): %s\n", std::strerror(ESTALE));
    return nullptr;
}

int32_t kp_shm_destroy(kp_shm_t *shm, const char *topic, uint32_t role)
{
    if (is_null(topic, "topic is null\n"))
        return -1;
    if (!*topic) {
        KP_ERROR("topic length is 0\n");
        return -1;
    }
    const auto path = segment_path(topic);
    if (!path)
        return -1;
    if (is_null(shm, "shm is null\n"))
        return 0;
    const NoCancellation scope;
    const MallocPtr<kp_shm_t> owner(shm);
    // In a child of fork() the count is the parent's, which still uses the segment.
    if (shm->generation == fork_generation()) {
        if (count_role(*shm->mem, role, -1).sum() == 0)
            remove_unused(path->data(), *shm); // the directories made for the topic stay
        (void)sem_destroy(&shm->mem->sem);
    }
    if (munmap(shm->mem, kSegmentSize) != 0)
        KP_ERROR("munmap: %s\n", std::strerror(errno));
    return 0;
}

int32_t kp_shm_set_provider_info(kp_shm_t *shm, uint32_t value_type, uint32_t max_value_size,
                                 uint32_t extra_info)
{
    if (is_null(shm, "shm is null\n"))
        return -1;
    if (is_null(shm->mem, "shm memory is null\n"))
        return -1;
    Segment &segment = *shm->mem;
    store_relaxed(segment.value_type, value_type);
    store_relaxed(segment.max_value_size, max_value_size);
    store_relaxed(segment.extra_info, extra_info);
    const uint8_t flags = load_relaxed(segment.state.flags);
    // This comes after the stores that it announces, and before the value is cleared: without the
    // flag a value is all zeros.
    store_release(segment.state.flags, static_cast<uint8_t>((flags & ~kHasValue) | kValid));
    order_stores();
    store_relaxed(segment.written_value_size, kp_get_value_size(value_type, 0));
    std::memset(segment.value, 0, std::min(max_value_size, kValueAreaSize));
    return 0;
}

int32_t kp_shm_init_source_params(kp_shm_t *shm)
{
    if (!shm || !shm->mem) {
        KP_ERROR("shm is invalid\n");
        return -1;
    }
    store_relaxed(shm->mem->quality, KP_QUALITY_NONE);
    store_relaxed(shm->mem->source_ts, 0);
    return 0;
}

void kp_shm_set_last_update_ts(kp_shm_t *shm, uint64_t timestamp)
{
    if (shm)
        store_relaxed(shm->last_update_ts, timestamp);
}

uint64_t kp_shm_get_timestamp_us(void)
{
    return wall_clock_us();
}
