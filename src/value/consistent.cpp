// The consistent read: attempts until one sees no write get in its way, or patience ends.
// consistent.h tells what makes an attempt trustworthy.
#include "value/consistent.h"

#include "value/checks.h"
#include "value/doubt.h"
#include "value/plain.h"

#include <unistd.h>

namespace kp {

namespace {

// A writer is at it for well under a microsecond at a time, so most attempts that fail are best
// repeated at once; the pauses are for one that was taken off its processor in the middle.
constexpr int kAttemptsBeforePause = 64;

// Where the caller wants what belongs to the value, each optional.
struct Outputs {
    uint64_t *timestamp;
    uint8_t *quality;
    uint64_t *source_ts;
};

int32_t accept(kp_shm_t *shm, const ValueHeader &header, const uint8_t *bytes,
               const Outputs &outputs)
{
    mark_seen(*shm, header, bytes);
    give(outputs.timestamp, header.last_write_ts);
    give(outputs.quality, header.quality);
    give(outputs.source_ts, header.source_ts);
    return static_cast<int32_t>(header.size());
}

// Repeats the attempt after a first one that failed.
[[gnu::noinline, gnu::cold]] int32_t read_patiently(kp_shm_t *shm, uint8_t *buffer,
                                                    uint32_t buffer_size, const Outputs &outputs,
                                                    LogSite site)
{
    ValueHeader header;
    for (int attempt = 1; attempt <= kWriterTries * kAttemptsBeforePause; ++attempt) {
        if (!value_fits(*shm->mem, buffer_size, site))
            return -1;
        if (try_consistent_read(*shm->mem, buffer, buffer_size, header))
            return accept(shm, header, buffer, outputs);
        if (attempt % kAttemptsBeforePause == 0)
            (void)usleep(kWriterPauseUs);
    }
    KP_LOG_AT(KP_LEVEL_INFO, site, "shm read fail\n");
    return -1;
}

} // namespace

// Flat, so that the header stays in registers: that halves the cost of reading a small value.
[[gnu::flatten]] int32_t read_consistent(kp_shm_t *shm, void *buffer, uint32_t buffer_size,
                                         uint64_t *timestamp, uint8_t *quality, uint64_t *source_ts,
                                         LogSite site)
{
    const Segment *segment = segment_for_value(shm, site);
    if (!segment)
        return -1;
    auto *bytes = static_cast<uint8_t *>(buffer);
    const Outputs outputs{timestamp, quality, source_ts};
    ValueHeader header;
    if (try_consistent_read(*segment, bytes, buffer_size, header)) [[likely]]
        return accept(shm, header, bytes, outputs);
    return read_patiently(shm, bytes, buffer_size, outputs, site);
}

} // namespace kp
