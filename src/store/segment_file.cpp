#include "store/segment_file.h"

#include "store/removal.h"
#include "store/store_path.h"
#include "support/clock.h"
#include "support/memory.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp {

namespace {

// The system asks the holder of a lease for the file at once, but gives it 45 s to answer.
constexpr int64_t kLeasePatienceMs = 100;
constexpr useconds_t kLeasePauseUs = 1000;

// How often a file may vanish and come back between the look for it and its creation.
constexpr int kCreateTries = 100;

bool leaves_the_store(std::string_view topic)
{
    while (!topic.empty()) {
        const std::size_t end = topic.find('/');
        const std::string_view level = topic.substr(0, end);
        if (level == "..")
            return true;
        topic.remove_prefix(end == std::string_view::npos ? topic.size() : end + 1);
    }
    return false;
}

UniqueFd open_patiently(const char *path, int flags)
{
    const int64_t start = monotonic_ms();
    for (;;) {
        UniqueFd fd = open_in_store(path, flags);
        if (fd || errno != EWOULDBLOCK || monotonic_ms() - start >= kLeasePatienceMs)
            return fd;
        (void)usleep(kLeasePauseUs);
    }
}

} // namespace

std::optional<PathBuffer> segment_path(const char *topic, LogSite site)
{
    if (leaves_the_store(topic)) {
        KP_LOG_AT(KP_LEVEL_ERROR, site, "topic is invalid\n");
        return std::nullopt;
    }
    std::optional<PathBuffer> path(std::in_place);
    (void)format_text(*path, "%s/%s", kStoreRoot, topic); // a topic that is too long is cut
    return path;
}

FileState file_state(const UniqueFd &fd)
{
    struct stat status;
    if (fstat(fd.get(), &status) != 0)
        return {.id = {}, .is_linked = true};
    return {.id = {status.st_dev, status.st_ino}, .is_linked = status.st_nlink > 0};
}

UniqueFd open_segment(const char *path)
{
    return open_patiently(path, O_RDWR);
}

OpenedFile open_or_create_segment(const char *path)
{
    for (int tries = 1;; ++tries) {
        UniqueFd fd = open_patiently(path, O_RDWR);
        if (fd || (errno != ENOENT && errno != ENOTDIR))
            return {std::move(fd), false};
        fd.reset(open_patiently(path, O_RDWR | O_CREAT | O_EXCL).release());
        if (fd || errno != EEXIST || tries == kCreateTries)
            return {std::move(fd), true};
    }
}

bool size_segment_file(const UniqueFd &fd)
{
    if (ftruncate(fd.get(), kSegmentSize) != 0)
        return false;
    while (fallocate(fd.get(), 0, 0, kSegmentSize) != 0) {
        if (errno == EOPNOTSUPP) // this file system reserves nothing, so there is nothing to lose
            return true;
        if (errno != EINTR)
            return false;
    }
    return true;
}

Segment *map_segment(const UniqueFd &fd)
{
    void *memory = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    return memory == MAP_FAILED ? nullptr : static_cast<Segment *>(memory);
}

} // namespace kp

using namespace kp;

int32_t kp_mkdir(const char *path)
{
    const auto copy = copy_text(path ? path : "");
    if (!copy) {
        KP_ERROR("kp create tag: malloc: %s\n", std::strerror(errno));
        return -1;
    }
    make_directories(copy.get());
    return 0;
}

int32_t kp_new_shm(kp_shm_t *shm, const char *path)
{
    if (kp_mkdir(path) < 0) {
        KP_ERROR("make tag directory failed\n");
        return -1;
    }
    OpenedFile file = open_or_create_segment(path);
    if (!file.fd && errno == kForeignLink) {
        KP_ERROR("topic is invalid\n");
        return -1;
    }
    if (!file.fd) {
        KP_ERROR("open shm(increase 'ulimit -n'): %s\n", std::strerror(errno));
        return -1;
    }
    if (!size_segment_file(file.fd)) {
        const int cause = errno;
        if (file.created)
            remove_leftover(path, file.fd);
        file.fd.reset();
        KP_ERROR("ftruncate: %s\n", std::strerror(cause));
        return -1;
    }
    shm->fd = file.fd.release();
    return 0;
}
