#include "common/store/segment_writer.h"

#include "common/clock.h"
#include "common/store/fault_guard.h"
#include "common/system/file_lock.h"
#include "common/system/held_signals.h"
#include "common/text/text.h"
#include "kp.h"
#include "layout/segment.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>

namespace kp::tool {

namespace {

// O_NONBLOCK, so that a pipe lying in the store cannot hold up the program.
constexpr int kWriteFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr mode_t kFileMode = 0666; // less the umask, as the library makes them

// How often the file is opened again if others have made or removed it in the same moment.
constexpr int kAttempts = 10;

struct OpenFile {
    UniqueFd fd;
    bool is_ours = false; // made by this call
};

OpenFile open_or_make(const TopicPlace &place)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        UniqueFd there(openat(place.directory, place.name.c_str(), kWriteFlags));
        if (there || errno != ENOENT)
            return {std::move(there), false};
        UniqueFd made(
            openat(place.directory, place.name.c_str(), kWriteFlags | O_CREAT | O_EXCL, kFileMode));
        if (made || errno != EEXIST)
            return {std::move(made), true};
    }
    return {};
}

bool is_still_linked(const UniqueFd &fd)
{
    struct stat status;
    return fstat(fd.get(), &status) != 0 || status.st_nlink > 0;
}

// No handle is counted while the lock is held, and in a file that is too short none can be counted.
bool is_unused(const UniqueFd &fd)
{
    ReferenceCounts counts{};
    (void)!pread(fd.get(), &counts, sizeof(counts), offsetof(Segment, refs));
    return counts.sum() == 0;
}

// Removes the file that this call made, unless somebody uses it by now.
void take_away(const TopicPlace &place, const UniqueFd &fd)
{
    const KeepErrno keep;
    const FileLock lock(fd);
    struct stat ours;
    struct stat now;
    if (lock.is_held() && is_unused(fd) && fstat(fd.get(), &ours) == 0 &&
        fstatat(place.directory, place.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
        file_id(ours) == file_id(now))
        (void)unlinkat(place.directory, place.name.c_str(), 0);
}

// Gives the file its size and its page, so that a full file system shows here and not as a fatal
// signal. False with errno set.
bool reserve(const UniqueFd &fd)
{
    if (ftruncate(fd.get(), kSegmentSize) != 0)
        return false;
    while (fallocate(fd.get(), 0, 0, kSegmentSize) != 0) {
        if (errno == EOPNOTSUPP)
            return true;
        if (errno != EINTR)
            return false;
    }
    return true;
}

void declare(Segment &segment, const Declaration &declaration)
{
    store_relaxed(segment.value_type, declaration.type);
    store_relaxed(segment.max_value_size, declaration.max);
    store_relaxed(segment.extra_info, declaration.extra);
    store_relaxed(segment.quality, KP_QUALITY_NONE);
    store_relaxed(segment.source_ts, 0);
    store_relaxed(segment.written_value_size, kp_get_value_size(declaration.type, 0));
    std::memset(segment.value, 0, sizeof(segment.value));
}

void store(Segment &segment, const StoredValue &value)
{
    if (value.quality != KP_QUALITY_KEEP)
        store_relaxed(segment.quality, value.quality);
    store_relaxed(segment.value_type, value.type);
    store_relaxed(segment.extra_info, value.extra);
    store_relaxed(segment.source_ts, value.source_ts);
    const auto size = static_cast<uint32_t>(value.bytes.size());
    std::memcpy(segment.value, value.bytes.data(), size);
    store_relaxed(segment.written_value_size, size);
}

// Readers wait from the first store of `writing` to the last. A topic becomes valid only when all
// that this says of it is there, so that those who do not look at `writing` find it whole too.
void write(Segment &segment, const Declaration *declaration, const StoredValue *value, uint64_t now)
{
    if (value)
        store_release(segment.last_write_ts, value->timestamp);
    else if (load_relaxed(segment.refs).sum() == 0)
        store_release(segment.last_write_ts, now);
    WriteState state = load_relaxed(segment.state);
    state.writing = 1;
    if (declaration)
        state.flags = static_cast<uint8_t>(state.flags & ~kHasValue);
    store_relaxed(segment.state, state);
    order_stores();
    if (declaration)
        declare(segment, *declaration);
    if (value)
        store(segment, *value);
    state.flags = static_cast<uint8_t>(state.flags | kValid | (value ? kHasValue : 0));
    store_release(segment.state, state);
    state.writing = 0;
    store_release(segment.state, state);
}

bool write_file(const UniqueFd &fd, const Declaration *declaration, const StoredValue *value)
{
    void *memory = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED)
        return false;
    auto &segment = *static_cast<Segment *>(memory);
    const uint64_t now = now_us();
    const bool done = guarded([&] { write(segment, declaration, value, now); });
    (void)munmap(memory, kSegmentSize);
    if (!done)
        errno = 0;
    return done;
}

// Says whether the file may be written: a segment, or one that is just being made.
bool is_writable_segment(const UniqueFd &fd, const std::string &topic, Problem &problem)
{
    struct stat status;
    if (fstat(fd.get(), &status) != 0) {
        problem = system_problem(escaped(topic), errno);
        return false;
    }
    return (S_ISREG(status.st_mode) && status.st_size == 0) ||
           is_segment_file(status, topic, problem);
}

} // namespace

bool store_segment(TopicOpener &opener, const std::string &topic,
                   const std::optional<Declaration> &declaration,
                   const std::optional<StoredValue> &value, Problem &problem)
{
    for (int attempt = 0;; ++attempt) {
        const auto place = opener.make_place(topic, problem);
        if (!place)
            return false;
        // A signal that ended the program here would leave a topic that is empty or unreadable.
        const HeldSignals held;
        const OpenFile file = open_or_make(*place);
        if (!file.fd) {
            problem = system_problem(escaped(topic), errno);
            return false;
        }
        errno = 0;
        if (!is_writable_segment(file.fd, topic, problem))
            return false;
        if (!reserve(file.fd) || !write_file(file.fd, declaration ? &*declaration : nullptr,
                                             value ? &*value : nullptr)) {
            const int error = errno;
            if (file.is_ours)
                take_away(*place, file.fd);
            problem = error != 0 ? system_problem(escaped(topic), error)
                                 : TopicOpener::not_a_segment(topic, file.fd);
            errno = error;
            return false;
        }
        // Its last user may have closed and removed it while it was written.
        if (is_still_linked(file.fd) || attempt >= kAttempts)
            return true;
        opener.start_round();
    }
}

} // namespace kp::tool
