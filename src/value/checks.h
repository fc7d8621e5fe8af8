// What the operations on values share: their guards, each of which logs under its caller's name,
// and their optional outputs.
#pragma once

#include "store/segment_file.h"

namespace kp {

// Logged at DEBUG by every function that needs what only a provider can declare.
constexpr const char *kUndeclared =
    "shm is invalid. tag size and tag type should be set by provider.\n";

// Stores a result if the caller wants it.
template <typename T> void give(T *output, T value)
{
    if (output)
        *output = value;
}

// Says why a handle has no declared segment. The two families of callers word a missing mapping
// differently.
[[gnu::cold]] inline void log_undeclared(const kp_shm_t *shm, const char *no_memory, LogSite site)
{
    if (!shm)
        KP_LOG_AT(KP_LEVEL_ERROR, site, "shm is null\n");
    else if (!shm->mem)
        KP_LOG_AT(KP_LEVEL_ERROR, site, "%s", no_memory);
    else
        KP_LOG_AT(KP_LEVEL_DEBUG, site, "%s", kUndeclared);
}

inline Segment *segment_for_value(const kp_shm_t *shm, LogSite site = LogSite::current())
{
    Segment *segment = declared_segment(shm);
    if (!segment) [[unlikely]]
        log_undeclared(shm, "shm memory is not exist\n", site);
    return segment;
}

inline Segment *segment_for_query(const kp_shm_t *shm, LogSite site = LogSite::current())
{
    Segment *segment = declared_segment(shm);
    if (!segment) [[unlikely]]
        log_undeclared(shm, "shm memory is null\n", site);
    return segment;
}

// Says whether there is a value and a buffer of this size can take all of it.
inline bool value_fits(const Segment &segment, uint32_t buffer_size,
                       LogSite site = LogSite::current())
{
    const uint32_t size = load_relaxed(segment.written_value_size);
    if (size == 0) {
        KP_LOG_AT(KP_LEVEL_WARN, site,
                  "written_value_size is 0, cannot read anything. please write first\n");
        return false;
    }
    if (size > buffer_size) {
        KP_LOG_AT(KP_LEVEL_WARN, site, "value_buffer_size(%d) < written_value_size(%d)\n",
                  static_cast<int32_t>(buffer_size), static_cast<int32_t>(size));
        return false;
    }
    return true;
}

} // namespace kp
