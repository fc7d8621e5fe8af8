#include "store/counts.h"

#include "kp.h"
#include "layout/field.h"
#include "support/clock.h"

#include <semaphore.h>
#include <time.h>

namespace kp {

namespace {

// The steps are short: another open may initialise the semaphore again, which wakes nobody, and the
// wait has to end soon after that.
constexpr int64_t kSemaphoreStepNs = 10'000'000;

// After this time the holder counts as killed. The counts are atomic without the semaphore, so
// going on is safe and waiting longer would hang every later close of the topic.
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
    // The clock ends the wait and not the number of steps, since a signal can cut a step short.
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

} // namespace

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

} // namespace kp
