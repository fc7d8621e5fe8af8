#include "store/segment_file.h"

#include "support/memory.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>

namespace kp {

namespace {

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

UniqueFd open_segment(const char *path, int flags)
{
    return UniqueFd(open(path, flags | O_NOFOLLOW | O_CLOEXEC, 0666));
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
    auto rest = copy_text(path ? path : "");
    if (!rest) {
        KP_ERROR("kp create tag: malloc: %s\n", std::strerror(errno));
        return -1;
    }
    PathBuffer directory{};
    std::size_t length = 0;
    char *position = nullptr;
    const char *level = strtok_r(rest.get(), "/", &position);
    while (const char *next = level ? strtok_r(nullptr, "/", &position) : nullptr) {
        (void)format_text(std::span(directory).subspan(length), "/%s", level);
        length = std::strlen(directory.data());
        struct stat status;
        if (stat(directory.data(), &status) != 0 || !S_ISDIR(status.st_mode))
            (void)mkdir(directory.data(), 0777); // a failure shows when the file is opened
        level = next;
    }
    return 0;
}

int32_t kp_new_shm(kp_shm_t *shm, const char *path)
{
    if (kp_mkdir(path) < 0) {
        KP_ERROR("make tag directory failed\n");
        return -1;
    }
    UniqueFd fd = open_segment(path, O_RDWR | O_CREAT);
    if (!fd) {
        KP_ERROR("open shm(increase 'ulimit -n'): %s\n", std::strerror(errno));
        return -1;
    }
    if (!size_segment_file(fd)) {
        const int cause = errno;
        fd.reset();
        KP_ERROR("ftruncate: %s\n", std::strerror(cause));
        return -1;
    }
    shm->fd = fd.release();
    return 0;
}
