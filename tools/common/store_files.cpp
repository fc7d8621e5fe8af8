#include "common/store_files.h"

#include "common/text.h"
#include "layout/segment.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>

namespace kp::tool {

namespace {

// O_NONBLOCK, so that a pipe lying in the store cannot hold up the program.
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

Problem topic_problem(const std::string &topic, int error)
{
    const std::string name = escaped(topic);
    if (error == ENOENT)
        return {kNothing, name + ": no such topic"};
    if (error == ENOTDIR)
        return {kNothing, name + ": no such topic (one of its levels is a topic itself)"};
    if (error == ELOOP)
        return {kInvalid, name + ": not a segment (a symbolic link)"};
    return system_problem(name, error);
}

std::string joined(const std::string &directory, std::string_view name)
{
    return directory.empty() ? std::string(name) : directory + "/" + std::string(name);
}

bool is_link(int directory, const std::string &name)
{
    struct stat status;
    return fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode);
}

// What file systems that do not tell the type in the directory say of an entry.
unsigned char entry_type(int directory, const dirent &entry)
{
    struct stat status;
    if (entry.d_type != DT_UNKNOWN ||
        fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return entry.d_type;
    return S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_LNK;
}

void list_below(const std::string &directory, const Selection &selection, StoreListing &listing)
{
    Problem problem;
    auto entries = list_directory(directory, problem);
    if (!entries) {
        if (problem.code == kNothing) // one that is gone has no topics
            return;
        listing.problems.push_back(std::move(problem));
        listing.closed.push_back(directory);
        return;
    }
    listing.directories.push_back(directory);
    for (StoreFile &file : entries->files)
        if (selection.covers(file.topic))
            listing.files.push_back(std::move(file));
    for (const std::string &child : entries->directories)
        if (selection.may_cover_below(child))
            list_below(child, selection, listing);
}

} // namespace

UniqueFd open_store_directory(const std::string &directory, Problem &problem)
{
    int fd = open(kStoreRoot, kDirectoryFlags);
    if (fd < 0 && errno == ENOTDIR) {
        problem = {kInvalid, std::string(kStoreRoot) + ": not a directory, so there are no topics"};
        return UniqueFd();
    }
    for (const std::string_view level : split_levels(directory)) {
        if (fd < 0)
            break;
        const UniqueFd parent(fd);
        const std::string name(level);
        fd = openat(parent.get(), name.c_str(), kDirectoryFlags | O_NOFOLLOW);
        if (fd < 0 && errno == ENOTDIR)
            errno = is_link(parent.get(), name) ? ELOOP : ENOTDIR;
    }
    if (fd < 0)
        problem = topic_problem(directory.empty() ? kStoreRoot : directory, errno);
    return UniqueFd(fd);
}

std::optional<StoreDirectory> list_directory(const std::string &directory, Problem &problem)
{
    UniqueFd fd = open_store_directory(directory, problem);
    if (!fd)
        return std::nullopt;
    DIR *stream = fdopendir(fd.get());
    if (!stream) {
        problem = topic_problem(directory, errno);
        return std::nullopt;
    }
    const int number = fd.release();
    const UniqueDir owner(stream);

    StoreDirectory entries;
    while (const dirent *entry = owner.next()) {
        const unsigned char type = entry_type(number, *entry);
        std::string name = joined(directory, entry->d_name);
        if (type == DT_DIR)
            entries.directories.push_back(std::move(name));
        else
            entries.files.push_back({std::move(name), entry->d_ino, type});
    }
    return entries;
}

StoreListing list_store(const Selection &selection)
{
    StoreListing listing;
    list_below("", selection, listing);
    std::sort(listing.files.begin(), listing.files.end(),
              [](const StoreFile &a, const StoreFile &b) { return a.topic < b.topic; });
    return listing;
}

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

int TopicOpener::directory_of(const std::string &topic, Problem &problem)
{
    const std::size_t slash = topic.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : topic.substr(0, slash);
    name_ = slash == std::string::npos ? topic : topic.substr(slash + 1);
    if (!directory_fd_ || directory != directory_) {
        directory_fd_.reset();
        UniqueFd fd = open_store_directory(directory, problem);
        if (!fd) {
            if (problem.code == kNothing || errno == ELOOP)
                problem = topic_problem(topic, errno);
            return -1;
        }
        directory_fd_ = std::make_unique<UniqueFd>(std::move(fd));
        directory_ = directory;
    }
    return directory_fd_->get();
}

UniqueFd TopicOpener::open_any(const std::string &topic, Problem &problem)
{
    const int directory = directory_of(topic, problem);
    if (directory < 0)
        return UniqueFd();
    UniqueFd fd(openat(directory, name_.c_str(), kReadFlags));
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

UniqueFd TopicOpener::open(const std::string &topic, Problem &problem)
{
    UniqueFd fd = open_any(topic, problem);
    struct stat status;
    if (fd && (fstat(fd.get(), &status) != 0 || !is_segment_file(status, topic, problem)))
        return UniqueFd();
    return fd;
}

bool TopicOpener::status(const std::string &topic, struct stat &status, Problem &problem)
{
    const int directory = directory_of(topic, problem);
    if (directory < 0)
        return false;
    if (fstatat(directory, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return true;
    problem = topic_problem(topic, errno);
    return false;
}

bool TopicOpener::remove(const std::string &topic, Problem &problem)
{
    const int directory = directory_of(topic, problem);
    if (directory < 0)
        return false;
    if (unlinkat(directory, name_.c_str(), 0) == 0)
        return true;
    problem = topic_problem(topic, errno);
    return false;
}

} // namespace kp::tool
