// The file behind a segment: its path, opening, sizing and mapping it, and the handle that keeps
// the mapping. Shared by the handles and the instant operations.
#pragma once

#include "kp.h"
#include "layout/segment.h"
#include "layout/unique_fd.h"
#include "support/log.h"
#include "support/path.h"

#include <optional>
#include <sys/types.h>

namespace kp {

// The segment's path below the store's root. Refuses, with a log line under the caller's name, a
// topic with a level "..", which would leave the store. A path that is too long is cut.
std::optional<PathBuffer> segment_path(const char *topic, LogSite site = LogSite::current());

// Says which file an open descriptor or a mapping belongs to, whatever has its name meanwhile.
struct FileId {
    dev_t device;
    ino_t inode;

    bool operator==(const FileId &) const = default;
};

struct FileState {
    FileId id;      // all zeros, which no file has, when the system does not tell
    bool is_linked; // the file still has a name
};

FileState file_state(const UniqueFd &fd);

// Opens an existing segment file for reading and writing. Waits a moment for a process that has a
// lease on the file, and no longer. None with errno set, to kForeignLink for a path that is
// refused.
UniqueFd open_segment(const char *path);

struct OpenedFile {
    UniqueFd fd;
    bool created; // by this call and nobody else
};

// Does the same, and creates the file when it is missing.
OpenedFile open_or_create_segment(const char *path);

// Gives the file its size and reserves its page, so that a full file system is an error here and
// not a fatal signal when a value is stored first. False with errno set.
bool size_segment_file(const UniqueFd &fd);

// Maps an open segment file; null with errno set.
Segment *map_segment(const UniqueFd &fd);

} // namespace kp

// A handle on one topic's segment. Its user serialises the calls on it, but a change callback may
// look at it while another thread writes, so `last_update_ts` is read and written atomically.
struct kp_shm_t {
    int32_t fd; // closed as soon as the file is mapped; the number is kept but means nothing
    uint32_t generation; // of the process that is counted for it; see fork_generation()
    kp::Segment *mem;
    uint64_t last_update_ts; // last_write_ts of the value last read or written here
    uint64_t doubted_ts;     // last_write_ts of the last read that was in doubt, see doubt.h
    uint64_t doubted_print;  // fingerprint of what it gave
    kp::FileId file;         // what `mem` is mapped from
};

static_assert(offsetof(kp_shm_t, fd) == 0);
static_assert(offsetof(kp_shm_t, mem) == 8);
static_assert(offsetof(kp_shm_t, last_update_ts) == 16);

namespace kp {

// The segment behind a handle, declared or not, or null.
inline Segment *mapped_segment(const kp_shm_t *shm)
{
    return shm ? shm->mem : nullptr;
}

// The segment behind a handle once a provider has declared it, else null.
inline Segment *declared_segment(const kp_shm_t *shm)
{
    // Loaded once: behind the ordered load of is_valid() the compiler would load it again.
    Segment *segment = mapped_segment(shm);
    return segment && is_valid(*segment) ? segment : nullptr;
}

} // namespace kp

extern "C" {

// Makes the directories above a segment's file. Returns 0, or -1 when out of memory; a directory
// that cannot be made shows when the file is opened.
KP_API int32_t kp_mkdir(const char *path);

// Creates the file behind a segment handle, opens and sizes it; the descriptor goes to `fd`.
KP_API int32_t kp_new_shm(kp_shm_t *shm, const char *path);
}
