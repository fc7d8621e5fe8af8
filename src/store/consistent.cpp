// The consistent read: attempts until one sees no write get in its way, or patience ends. consistent.h
// tells what makes an attempt trustworthy.
#include "store/consistent.h"

#include "store/checks.h"

#include <unistd.h>

namespace kp {

namespace {

// A writer is at it for well under a microsecond at a time, so most attempts that fail are best
// repeated at once; the pauses are for one that was taken off its processor in the middle.
constexpr int kAttemptsBeforePause = 64;

} // namespace

int32_t read_consistent(kp_shm_t *shm, void *buffer, uint32_t buffer_size, uint64_t *timestamp,
                        uint8_t *quality, uint64_t *source_ts, LogSite site)
{
    const Segment *segment = segment_for_value(shm, site);
    if (!segment)
        return -1;
    auto *bytes = static_cast<uint8_t *>(buffer);
    for (int attempt = 1; attempt <= kWriterTries * kAttemptsBeforePause; ++attempt) {
        if (!value_fits(*segment, buffer_size, site))
            return -1;
        if (const auto header = try_consistent_read(*segment, bytes, buffer_size)) [[likely]] {
            store_relaxed(shm->last_update_ts, header->last_write_ts);
            give(timestamp, header->last_write_ts);
            give(quality, header->quality);
            give(source_ts, header->source_ts);
            return static_cast<int32_t>(header->size());
        }
        if (attempt % kAttemptsBeforePause == 0)
            (void)usleep(kWriterPauseUs);
    }
    KP_LOG_AT(KP_LEVEL_INFO, site, "shm read fail\n");
    return -1;
}

} // namespace kp
