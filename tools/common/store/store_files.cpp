#include "common/store/store_files.h"

#include "common/store/store_levels.h"
#include "common/text/text.h"
#include "layout/segment.h"

#include <cerrno>
#include <fcntl.h>

namespace kp::tool {

namespace {

// O_NONBLOCK, so that a pipe lying in the store cannot hold up the program.
constexpr int kFileFlags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

} // namespace

bool is_segment_file(const struct stat &status, const std::string &topic, Problem &problem)
{
    std::string what;
    if (S_ISLNK(status.st_mode))
        what = "a symbolic link";
    else if (S_ISDIR(status.st_mode))
        what = "a directory";
    else if (!S_ISREG(status.st_mode))
        what = "not a regular file";
    else if (status.st_size != kSegmentSize)
        what = std::to_string(status.st_size) + " bytes instead of " + std::to_string(kSegmentSize);
    else
        return true;
    problem = {S_ISDIR(status.st_mode) ? kNothing : kInvalid,
               escaped(topic) + ": not a segment (" + what + ")"};
    return false;
}

Place place_of(const std::string &topic)
{
    const std::size_t slash = topic.rfind('/');
    const std::string above = slash == std::string::npos ? "" : topic.substr(0, slash);
    const UniqueFd directory = open_levels(above);
    struct stat status;
    if (directory &&
        fstatat(directory.get(), topic.c_str() + slash + 1, &status, AT_SYMLINK_NOFOLLOW) == 0)
        return S_ISDIR(status.st_mode) ? Place::directory : Place::topic;
    if (errno == ENOENT)
        return Place::free;
    return errno == ENOTDIR && !above.empty() ? Place::below_a_topic : Place::unreachable;
}

std::optional<TopicPlace> TopicOpener::find(const std::string &topic, Missing missing,
                                            Problem &problem)
{
    const std::size_t slash = topic.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : topic.substr(0, slash);
    if (!directory_fd_ || directory != directory_) {
        UniqueFd fd = missing == Missing::make ? make_levels(directory) : open_levels(directory);
        if (!fd) {
            problem = topic_problem(topic, errno);
            return std::nullopt;
        }
        directory_fd_.reset(fd.release());
        directory_ = directory;
    }
    return TopicPlace{directory_fd_.get(), topic.substr(slash + 1)};
}

std::optional<TopicPlace> TopicOpener::locate(const std::string &topic, Problem &problem)
{
    return find(topic, Missing::fail, problem);
}

std::optional<TopicPlace> TopicOpener::make_place(const std::string &topic, Problem &problem)
{
    return find(topic, Missing::make, problem);
}

UniqueFd TopicOpener::open_any(const std::string &topic, Problem &problem, int access)
{
    const auto place = locate(topic, problem);
    if (!place)
        return UniqueFd();
    UniqueFd fd(openat(place->directory, place->name.c_str(), access | kFileFlags));
    if (!fd)
        problem = errno == ENXIO // a socket
                      ? Problem{kInvalid, escaped(topic) + ": not a segment (not a regular file)"}
                      : topic_problem(topic, errno);
    return fd;
}

Problem TopicOpener::not_a_segment(const std::string &topic, const UniqueFd &fd)
{
    struct stat status;
    Problem problem = {kInvalid, escaped(topic) + ": not a segment (cut short while it was read)"};
    if (fstat(fd.get(), &status) == 0)
        (void)is_segment_file(status, topic, problem);
    return problem;
}

UniqueFd TopicOpener::open(const std::string &topic, Problem &problem, int access)
{
    UniqueFd fd = open_any(topic, problem, access);
    struct stat status;
    if (fd && (fstat(fd.get(), &status) != 0 || !is_segment_file(status, topic, problem)))
        return UniqueFd();
    return fd;
}

bool TopicOpener::status(const std::string &topic, struct stat &status, Problem &problem)
{
    const auto place = locate(topic, problem);
    if (!place)
        return false;
    if (fstatat(place->directory, place->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return true;
    problem = topic_problem(topic, errno);
    return false;
}

bool TopicOpener::remove(const std::string &topic, Problem &problem)
{
    const auto place = locate(topic, problem);
    if (!place)
        return false;
    if (unlinkat(place->directory, place->name.c_str(), 0) == 0)
        return true;
    problem = topic_problem(topic, errno);
    return false;
}

bool TopicOpener::remove_same(const std::string &topic, const FileId &file, Problem &problem)
{
    struct stat now;
    if (!status(topic, now, problem))
        return false;
    if (file_id(now) == file)
        return remove(topic, problem);
    problem = {kLimit, escaped(topic) + ": another file took its name meanwhile"};
    return false;
}

} // namespace kp::tool
