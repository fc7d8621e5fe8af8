// Reaching a segment by its topic alone: each call opens, maps, acts, unmaps and closes, and counts
// no reference. Nothing outlives a call but the file.
#include "store/bytes.h"
#include "store/removal.h"
#include "store/segment_file.h"
#include "store/store_path.h"
#include "support/cancellation.h"
#include "support/memory.h"
#include "value/checks.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

namespace kp {

namespace {

// A segment mapped for one call; unmaps before it closes, and logs under the call's name.
class MappedSegment {
  public:
    MappedSegment(UniqueFd fd, Segment *segment, LogSite site)
        : fd_(std::move(fd)), segment_(segment), site_(site)
    {
    }
    MappedSegment(MappedSegment &&other) noexcept
        : fd_(std::move(other.fd_)), segment_(std::exchange(other.segment_, nullptr)),
          site_(other.site_)
    {
    }
    MappedSegment(const MappedSegment &) = delete;
    MappedSegment &operator=(const MappedSegment &) = delete;
    MappedSegment &operator=(MappedSegment &&) = delete;
    ~MappedSegment()
    {
        if (segment_ && munmap(segment_, kSegmentSize) != 0)
            KP_LOG_AT(KP_LEVEL_ERROR, site_, "munmap: %s\n", std::strerror(errno));
    }

    // False for a file that is not a whole segment yet, of which nothing is mapped.
    bool is_declared() const
    {
        return segment_ && is_valid(*segment_);
    }
    Segment &operator*() const
    {
        return *segment_;
    }
    Segment *operator->() const
    {
        return segment_;
    }

  private:
    UniqueFd fd_;
    Segment *segment_;
    LogSite site_;
};

// Maps an open file; nullopt after a log line.
std::optional<MappedSegment> map_open_file(UniqueFd fd, LogSite site)
{
    Segment *segment = map_segment(fd);
    if (!segment) {
        const int cause = errno;
        fd.reset();
        KP_LOG_AT(KP_LEVEL_ERROR, site, "instant read mmap: %s\n", std::strerror(cause));
        return std::nullopt;
    }
    return MappedSegment(std::move(fd), segment, site);
}

// A file whose owner stands between its open and its ftruncate, or that somebody else made: to
// touch it through a mapping could be a fatal signal. A file without a page holds nothing but
// zeros, and on a full file system could not be touched either.
bool is_whole(const UniqueFd &fd)
{
    struct stat status;
    return fstat(fd.get(), &status) == 0 && status.st_size >= kSegmentSize && status.st_blocks > 0;
}

// Says why a reader has no file.
void log_unopened(const char *path, int error, LogSite site)
{
    if (error == kForeignLink)
        KP_LOG_AT(KP_LEVEL_ERROR, site, "topic is invalid\n");
    else if (exists_in_store(path))
        KP_LOG_AT(KP_LEVEL_ERROR, site, "fd '%s' create fail\n", path);
    else // Deliberate: on standard output whatever the log level, where users have always found it.
        (void)std::puts("access failed");
}

// Opens an existing segment for a reader; nullopt after its message.
std::optional<MappedSegment> open_existing(const char *topic, LogSite site)
{
    if (!topic) {
        KP_LOG_AT(KP_LEVEL_ERROR, site, "topic is null\n");
        return std::nullopt;
    }
    const auto path = segment_path(topic, site);
    if (!path)
        return std::nullopt;
    UniqueFd fd = open_segment(path->data());
    if (!fd) {
        log_unopened(path->data(), errno, site);
        return std::nullopt;
    }
    if (!is_whole(fd))
        return MappedSegment(std::move(fd), nullptr, site);
    return map_open_file(std::move(fd), site);
}

// Opens a declared segment for a reader; nullopt after its message.
std::optional<MappedSegment> open_declared(const char *topic, LogSite site = LogSite::current())
{
    auto segment = open_existing(topic, site);
    if (segment && !segment->is_declared()) {
        KP_LOG_AT(KP_LEVEL_DEBUG, site, "%s", kUndeclared);
        segment.reset();
    }
    return segment;
}

// Says whether the writer has to make the directories. It also tries when no descriptor is free and
// so nothing says whether they are there.
bool may_be_missing(int error)
{
    return error == ENOENT || error == ENOTDIR || error == EMFILE || error == ENFILE;
}

// Opens the file for a writer, with its directories; none after its message.
OpenedFile open_for_writer(const char *path, LogSite site)
{
    UniqueFd fd = open_segment(path);
    if (fd)
        return {std::move(fd), false};
    if (may_be_missing(errno)) {
        if (kp_mkdir(path) < 0) {
            KP_LOG_AT(KP_LEVEL_ERROR, site, "make tag directory failed\n");
            return {};
        }
        OpenedFile file = open_or_create_segment(path);
        if (file.fd)
            return file;
    }
    if (errno == kForeignLink)
        KP_LOG_AT(KP_LEVEL_ERROR, site, "topic is invalid\n");
    else
        KP_LOG_AT(KP_LEVEL_ERROR, site, "open shm(increase 'ulimit -n'): %s\n",
                  std::strerror(errno));
    return {};
}

struct WritableSegment {
    MappedSegment segment;
    bool created;
};

// Opens a segment for a writer and creates it when missing; nullopt after its message.
std::optional<WritableSegment> open_or_create(const char *topic, LogSite site = LogSite::current())
{
    const auto path = segment_path(topic, site);
    if (!path)
        return std::nullopt;
    OpenedFile file = open_for_writer(path->data(), site);
    if (!file.fd)
        return std::nullopt;
    if (!size_segment_file(file.fd)) {
        const int cause = errno;
        if (file.created)
            remove_leftover(path->data(), file.fd);
        file.fd.reset();
        KP_LOG_AT(KP_LEVEL_ERROR, site, "ftruncate: %s\n", std::strerror(cause));
        return std::nullopt;
    }
    // Deliberate: the writer reports a failed mapping in the words of the readers.
    auto segment = map_open_file(std::move(file.fd), site);
    if (!segment)
        return std::nullopt;
    return WritableSegment{std::move(*segment), file.created};
}

// Sets `writing` and kValid with one store, visible before any store that follows.
void begin_write(Segment &segment)
{
    WriteState state = load_relaxed(segment.state);
    state.writing = 1;
    state.flags |= kValid;
    store_relaxed(segment.state, state);
    order_stores();
}

// Stores what a write without a value leaves in a file that it created.
void declare_empty(Segment &segment, uint32_t value_type)
{
    store_relaxed(segment.max_value_size, KP_MAX_VALUE_SIZE);
    store_relaxed(segment.written_value_size, kp_get_value_size(value_type, 0));
    const uint8_t flags = load_relaxed(segment.state.flags);
    store_relaxed(segment.state.flags, static_cast<uint8_t>(flags & ~kHasValue));
}

} // namespace

} // namespace kp

using namespace kp;

int32_t kp_shm_instant_read(const char *topic, void **value, uint32_t *value_type, uint32_t *size,
                            uint64_t *timestamp, uint8_t *quality, uint64_t *source_ts,
                            uint32_t *extra_info)
{
    const NoCancellation scope;
    if (is_null(value, "value is null\n"))
        return -1;
    if (is_null(value_type, "value type is null\n"))
        return -1;
    if (is_null(size, "value size is null\n"))
        return -1;
    const auto segment = open_declared(topic);
    if (!segment)
        return -1;
    // Read once: another process may change it, and the buffer is as large as this says.
    const uint32_t stored = stored_value_size(**segment);
    *size = stored;
    give(timestamp, load_relaxed((*segment)->last_write_ts));
    *value_type = load_relaxed((*segment)->value_type);
    give(extra_info, load_relaxed((*segment)->extra_info));
    *value = std::malloc(stored);
    if (!*value) {
        KP_ERROR("malloc: %s\n", std::strerror(errno));
        return -1;
    }
    copy_bytes(*value, (*segment)->value, stored);
    give(quality, load_relaxed((*segment)->quality));
    give(source_ts, load_relaxed((*segment)->source_ts));
    return 0;
}

int32_t kp_shm_instant_write(const char *topic, const void *value, uint32_t value_type,
                             uint32_t size, uint64_t timestamp, uint8_t quality, uint64_t source_ts,
                             uint32_t extra_info)
{
    const NoCancellation scope;
    if (is_null(topic, "topic is null\n"))
        return -1;
    if (value && size > kValueAreaSize) {
        KP_ERROR("value size is invalid\n");
        return -1;
    }
    const auto file = open_or_create(topic);
    if (!file)
        return -1;
    Segment &segment = *file->segment;
    store_release(segment.last_write_ts, timestamp); // after the whole of the write before
    begin_write(segment);
    if (quality != KP_QUALITY_KEEP)
        store_relaxed(segment.quality, quality);
    store_relaxed(segment.value_type, value_type);
    store_relaxed(segment.extra_info, extra_info);
    store_relaxed(segment.source_ts, source_ts);
    if (value)
        store_value(segment, value, size);
    else if (file->created)
        declare_empty(segment, value_type);
    store_release(segment.state.writing, 0);
    return 0;
}

int32_t kp_shm_instant_get_value_info(const char *topic, uint32_t *value_type, uint32_t *size,
                                      uint32_t *extra_info)
{
    const NoCancellation scope;
    const auto segment = open_declared(topic);
    if (!segment)
        return -1;
    give(value_type, load_relaxed((*segment)->value_type));
    give(size, load_relaxed((*segment)->written_value_size));
    give(extra_info, load_relaxed((*segment)->extra_info));
    return 0;
}

int32_t kp_shm_instant_get_max_value_size(const char *topic, uint32_t *max_value_size)
{
    const NoCancellation scope;
    const auto segment = open_declared(topic);
    if (!segment)
        return -1;
    give(max_value_size, load_relaxed((*segment)->max_value_size));
    return 0;
}

int32_t kp_shm_get_reference_count(const char *topic, uint32_t *providers, uint32_t *consumers)
{
    const NoCancellation scope;
    std::optional<ReferenceCounts> refs;
    {
        const auto segment = open_existing(topic, LogSite::current());
        if (!segment)
            return -1;
        if (segment->is_declared())
            refs = load_relaxed((*segment)->refs);
    }
    if (!refs) {
        KP_DEBUG("%s", kUndeclared); // after the segment is unmapped, unlike the other readers
        return -1;
    }
    give<uint32_t>(providers, refs->providers);
    give<uint32_t>(consumers, refs->consumers);
    return 0;
}
