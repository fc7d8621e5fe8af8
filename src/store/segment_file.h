// The file behind a segment: its path, opening, sizing and mapping it, and the handle that keeps the
// mapping. Shared by the handles and the instant operations.
#pragma once

#include "kp.h"
#include "layout/segment.h"
#include "layout/unique_fd.h"
#include "support/log.h"
#include "support/path.h"

#include <optional>

namespace kp {

// The segment's path below the store's root. Refuses, with a log line under the caller's name, a
// topic with a level "..", which would leave the store. A path that is too long is cut.
std::optional<PathBuffer> segment_path(const char *topic, LogSite site = LogSite::current());

// Opens a segment file; O_NOFOLLOW and O_CLOEXEC are added to the flags.
UniqueFd open_segment(const char *path, int flags);

// Gives the file its size and reserves its page, so that a full file system is an error here and
// not a fatal signal at the first store. False with errno set.
bool size_segment_file(const UniqueFd &fd);

// Maps an open segment file; null with errno set.
Segment *map_segment(const UniqueFd &fd);

} // namespace kp

// A handle on one topic's segment. Its user serialises the calls on it, but a change callback may
// look at it while another thread writes, so `last_update_ts` is read and written atomically.
struct kp_shm_t {
    int32_t fd; // closed as soon as the file is mapped; the number is kept but means nothing
    kp::Segment *mem;
    uint64_t last_update_ts; // last_write_ts of the value last read or written here
};

static_assert(offsetof(kp_shm_t, fd) == 0);
static_assert(offsetof(kp_shm_t, mem) == 8);
static_assert(offsetof(kp_shm_t, last_update_ts) == 16);

namespace kp {

// The segment behind a handle once a provider has declared it, else null.
inline Segment *declared_segment(const kp_shm_t *shm)
{
    return shm && shm->mem && is_valid(*shm->mem) ? shm->mem : nullptr;
}

} // namespace kp

extern "C" {

// Makes the directories above a segment's file. Returns 0, or -1 when out of memory; a directory
// that cannot be made shows when the file is opened.
KP_API int32_t kp_mkdir(const char *path);

// Creates the file behind a segment handle, opens and sizes it; the descriptor goes to `fd`.
KP_API int32_t kp_new_shm(kp_shm_t *shm, const char *path);
}
