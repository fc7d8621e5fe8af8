// Handles on segments: opening, counting, declaring and closing. The counts are kept under the
// segment's process-shared semaphore, and changed atomically besides, because every open
// initialises the semaphore again and so two processes can hold it at once.
#include "store/segment_file.h"
#include "support/clock.h"
#include "support/memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>

namespace kp {

namespace {

// Short, so that a wait ends soon after another open has initialised the semaphore again, which
// wakes nobody.
constexpr int64_t kSemaphoreStepNs = 10'000'000;

// After this time the holder counts as killed. The counts are atomic without the semaphore, so going
// on is safe and waiting longer would hang every later close of the topic.
constexpr int64_t kSemaphorePatienceNs = 1'000'000'000;

// Holds the segment's semaphore over a scope, or goes on without it when its holder is gone.
class SemaphoreLock {
  public:
    explicit SemaphoreLock(sem_t &sem) : sem_(sem), held_(wait())
    {
    }
    SemaphoreLock(const SemaphoreLock &) = delete;
    SemaphoreLock &operator=(const SemaphoreLock &) = delete;
    ~SemaphoreLock()
    {
        if (held_)
            (void)sem_post(&sem_);
    }

  private:
    // The clock ends the wait and not the number of steps, of which signals can cut any short.
    bool wait()
    {
        const int64_t start = monotonic_ns();
        for (int64_t now = start; now - start < kSemaphorePatienceNs; now = monotonic_ns()) {
            const int64_t end = now + kSemaphoreStepNs;
            const timespec deadline{.tv_sec = end / 1'000'000'000, .tv_nsec = end % 1'000'000'000};
            if (sem_clockwait(&sem_, CLOCK_MONOTONIC, &deadline) == 0)
                return true;
        }
        return false;
    }

    sem_t &sem_;
    bool held_;
};

// Adds to the count of one role (8-bit, wrapping) and returns both counts as they are then.
ReferenceCounts count_role(Segment &segment, uint32_t role, int amount)
{
    const SemaphoreLock lock(segment.sem);
    return update(segment.refs, [role, amount](ReferenceCounts refs) {
        if (role == KP_ROLE_PROVIDER)
            refs.providers = static_cast<uint8_t>(refs.providers + amount);
        if (role == KP_ROLE_CONSUMER)
            refs.consumers = static_cast<uint8_t>(refs.consumers + amount);
        return refs;
    });
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
    if (kp_new_shm(shm.get(), path->data()) < 0)
        return nullptr;

    UniqueFd fd(shm->fd);
    shm->mem = map_segment(fd);
    if (!shm->mem) {
        const int cause = errno;
        fd.reset();
        shm.reset();
        KP_ERROR("mmap: %s\n", std::strerror(cause));
        return nullptr;
    }
    fd.reset();

    Segment &segment = *shm->mem;
    if (load_relaxed(segment.refs).sum() == 0)
        store_relaxed(segment.last_write_ts, shm->last_update_ts);
    // Deliberate: every open initialises the semaphore again, also under processes that hold it, so
    // one that a killed process left taken is free again.
    if (sem_init(&segment.sem, 1, 1) == -1) {
        const int cause = errno;
        shm.reset(); // Deliberate: the mapping stays, this failure leaves it to the process's end.
        KP_ERROR("sem_open: %s\n", std::strerror(cause));
        return nullptr;
    }
    (void)count_role(segment, role, +1);
    return shm.release();
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
    const MallocPtr<kp_shm_t> owner(shm);
    const uint32_t remaining = count_role(*shm->mem, role, -1).sum();
    (void)sem_destroy(&shm->mem->sem);
    if (munmap(shm->mem, kSegmentSize) != 0)
        KP_ERROR("munmap: %s\n", std::strerror(errno));
    if (remaining == 0)
        (void)unlink(path->data()); // the directories made for the topic stay
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
    store_relaxed(segment.state.flags, static_cast<uint8_t>((flags & ~kHasValue) | kValid));
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
