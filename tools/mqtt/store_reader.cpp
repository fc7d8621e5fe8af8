#include "store_reader.h"

#include "layout/segment.h"
#include "log.h"
#include "names/topic_names.h"
#include "topic_filter.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

namespace kp::mqtt {

namespace {

constexpr int kMostTries = 5;   // against writes that begin during the read
constexpr int kMostLevels = 64; // directories deeper than that are somebody's mistake

std::string path_of(const std::string &topic)
{
    return std::string(kStoreRoot) + '/' + topic;
}

// Reads the whole file; false unless it has the size of a segment.
bool load(const UniqueFd &fd, Segment &segment)
{
    std::array<char, kSegmentSize + 1> room;
    if (pread(fd.get(), room.data(), room.size(), 0) != kSegmentSize)
        return false;
    std::memcpy(static_cast<void *>(&segment), room.data(), kSegmentSize);
    return true;
}

bool same(const Segment &a, const Segment &b)
{
    constexpr size_t start = offsetof(Segment, last_write_ts);
    const auto *first = reinterpret_cast<const char *>(&a);
    const auto *second = reinterpret_cast<const char *>(&b);
    return std::memcmp(first + start, second + start, kSegmentSize - start) == 0;
}

// Two equal copies with no write in progress make one that no write has torn.
ReadOutcome load_consistently(const UniqueFd &fd, Segment &segment)
{
    Segment second;
    for (int tries = 0; tries < kMostTries; ++tries) {
        if (!load(fd, segment) || !load(fd, second))
            return ReadOutcome::refused;
        if (segment.state.writing == 0 && same(segment, second))
            return ReadOutcome::read;
    }
    return ReadOutcome::busy;
}

void take_over(const Segment &segment, Sample &sample)
{
    sample.type = segment.value_type;
    sample.max_size = segment.max_value_size;
    sample.extra_info = segment.extra_info;
    sample.quality = segment.quality;
    sample.providers = segment.refs.providers;
    sample.consumers = segment.refs.consumers;
    sample.has_value = (segment.state.flags & kHasValue) && segment.written_value_size > 0;
    sample.ts = segment.last_write_ts;
    sample.source_ts = segment.source_ts;
    sample.value.assign(reinterpret_cast<const char *>(segment.value),
                        sample.has_value ? segment.written_value_size : 0);
}

// Fields that no provider can have written.
bool is_corrupt(const Segment &segment)
{
    if (segment.value_type > KP_TYPE_RAW || segment.written_value_size > KP_MAX_VALUE_SIZE)
        return true;
    const uint32_t fixed = kp_get_value_size(segment.value_type, 0);
    return fixed && segment.written_value_size && segment.written_value_size != fixed;
}

// Returns whether there is a directory below the last level.
bool visit_directory(UniqueFd folder, const std::string &prefix, int levels_left,
                     const std::function<void(const std::string &)> &visit)
{
    DIR *stream = fdopendir(folder.get());
    if (!stream)
        return false;
    bool goes_deeper = false;
    const UniqueDir entries(stream);
    const int fd = folder.release(); // the stream's from now on
    while (const dirent *entry = entries.next()) {
        const std::string name = prefix + entry->d_name;
        if (entry->d_type == DT_REG)
            visit(name);
        goes_deeper |= entry->d_type == DT_DIR && levels_left == 0;
        if (entry->d_type != DT_DIR || levels_left == 0)
            continue;
        UniqueFd below(openat(fd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (below)
            goes_deeper |= visit_directory(std::move(below), name + '/', levels_left - 1, visit);
    }
    return goes_deeper;
}

} // namespace

ReadOutcome StoreReader::read(const std::string &topic, Sample &sample) const
{
    const UniqueFd fd(open(path_of(topic).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return errno == ENOENT || errno == ENOTDIR ? ReadOutcome::missing : ReadOutcome::refused;
    struct stat status {};
    if (fstat(fd.get(), &status) != 0)
        return ReadOutcome::refused;
    Segment segment;
    const ReadOutcome outcome = load_consistently(fd, segment);
    if (outcome != ReadOutcome::read)
        return outcome;
    if (!(segment.state.flags & kValid))
        return ReadOutcome::undeclared;
    if (is_corrupt(segment))
        return ReadOutcome::refused;
    take_over(segment, sample);
    sample.file = status.st_ino;
    return ReadOutcome::read;
}

bool StoreReader::for_each_topic(const std::function<void(const std::string &)> &visit) const
{
    UniqueFd root(open(kStoreRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root)
        return false;
    const bool goes_deeper = visit_directory(std::move(root), "", kMostLevels, visit);
    if (goes_deeper && !std::exchange(reported_depth_, true))
        log(Level::warning, "the store has a directory below " + std::to_string(kMostLevels) +
                                " others, and tags in it are not found");
    return true;
}

StoreReader::Place StoreReader::place(const std::string &topic) const
{
    struct stat status {};
    if (lstat(path_of(topic).c_str(), &status) == 0)
        return S_ISDIR(status.st_mode) ? Place::directory : Place::topic;
    return errno == ENOTDIR ? Place::below_a_topic : Place::free;
}

std::string StoreReader::standing_for(std::string name) const
{
    while (place(name) == Place::directory)
        name += "/_";
    return name;
}

} // namespace kp::mqtt
