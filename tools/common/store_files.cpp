#include "common/store_files.h"

#include "common/text.h"
#include "layout/segment.h"

#include <algorithm>
#include <cerrno>

namespace kp::tool {

namespace {

// O_NONBLOCK, so that a pipe lying in the store cannot hold up the program.
constexpr int kFileFlags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kDirectoryMode = 0777; // less the umask, as the library makes them

// A walk keeps at most this many nested directories open. It reaches deeper ones from the root.
constexpr int kMostOpenDirectories = 64;

bool is_store_no_directory()
{
    struct stat status;
    return stat(kStoreRoot, &status) == 0 && !S_ISDIR(status.st_mode);
}

// Why a topic, or a directory of topics, cannot be reached.
Problem topic_problem(const std::string &topic, int error)
{
    const std::string name = escaped(topic.empty() ? kStoreRoot : topic);
    if (error == ENOENT)
        return {kNothing, name + ": no such topic"};
    if (error == ENOTDIR && is_store_no_directory())
        return {kInvalid, std::string(kStoreRoot) + ": not a directory, so there are no topics"};
    if (error == ENOTDIR)
        return {kNothing, name + ": no such topic (one of its levels is a topic itself)"};
    if (error == ELOOP)
        return {kInvalid, name + ": not a segment (a symbolic link)"};
    return system_problem(name, error);
}

bool is_link(int directory, const std::string &name)
{
    struct stat status;
    return fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode);
}

// Opens one level. The errno of a failure says ELOOP for a link, whatever it leads to.
UniqueFd open_level(int parent, const std::string &name)
{
    UniqueFd fd(openat(parent, name.c_str(), kDirectoryFlags | O_NOFOLLOW));
    if (!fd && errno == ENOTDIR)
        errno = is_link(parent, name) ? ELOOP : ENOTDIR;
    return fd;
}

UniqueFd make_level(int parent, const std::string &name)
{
    UniqueFd fd = open_level(parent, name);
    if (fd || errno != ENOENT ||
        (mkdirat(parent, name.c_str(), kDirectoryMode) != 0 && errno != EEXIST))
        return fd;
    return open_level(parent, name);
}

// The root stands in a directory where everybody may make files. It may be a link, but only one
// that root or this user made.
UniqueFd open_root()
{
    UniqueFd fd(open(kStoreRoot, kDirectoryFlags | O_NOFOLLOW));
    struct stat link;
    if (fd || errno != ENOTDIR || lstat(kStoreRoot, &link) != 0 || !S_ISLNK(link.st_mode))
        return fd;
    if (link.st_uid == 0 || link.st_uid == geteuid())
        return UniqueFd(open(kStoreRoot, kDirectoryFlags));
    errno = ELOOP;
    return fd;
}

UniqueFd make_root()
{
    UniqueFd fd = open_root();
    if (fd || errno != ENOENT || (mkdir(kStoreRoot, kDirectoryMode) != 0 && errno != EEXIST))
        return fd;
    return open_root();
}

// Opens level after level below the root, each through `open_next`. Empty with errno set.
template <typename OpenNext>
UniqueFd open_levels(UniqueFd fd, std::string_view directory, OpenNext open_next)
{
    for (const std::string_view level : split_levels(directory)) {
        if (!fd)
            break;
        UniqueFd next = open_next(fd.get(), std::string(level));
        fd.reset(next.release());
    }
    return fd;
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

// An open directory with its entries.
class OpenDirectory {
  public:
    explicit OpenDirectory(UniqueFd fd) : fd_(fd.get()), stream_(fd ? fdopendir(fd_) : nullptr)
    {
        if (stream_)
            (void)fd.release(); // the stream's from now on
    }
    explicit operator bool() const
    {
        return static_cast<bool>(stream_);
    }
    int fd() const
    {
        return fd_;
    }
    StoreDirectory entries(const std::string &name) const
    {
        StoreDirectory entries;
        while (const dirent *entry = stream_.next()) {
            const unsigned char type = entry_type(fd_, *entry);
            std::string topic = join_levels(name, entry->d_name);
            if (type == DT_DIR)
                entries.directories.push_back(std::move(topic));
            else
                entries.files.push_back({std::move(topic), entry->d_ino, type});
        }
        return entries;
    }

  private:
    int fd_;
    UniqueDir stream_;
};

class Walk {
  public:
    Walk(const Selection &selection, StoreListing &listing)
        : selection_(selection), listing_(listing)
    {
    }

    void list_root()
    {
        list("", open_levels(open_root(), "", open_level), 1);
    }

  private:
    void list(const std::string &name, UniqueFd fd, int open_count)
    {
        std::optional<OpenDirectory> directory(std::in_place, std::move(fd));
        if (!*directory)
            return note(name, topic_problem(name, errno));
        listing_.directories.push_back(name);
        StoreDirectory entries = directory->entries(name);
        for (StoreFile &file : entries.files)
            if (selection_.covers(file.topic))
                listing_.files.push_back(std::move(file));
        if (open_count > kMostOpenDirectories)
            directory.reset();
        for (const std::string &child : entries.directories)
            if (selection_.may_cover_below(child))
                list(child, open_child(directory, child), open_count + 1);
    }

    static UniqueFd open_child(const std::optional<OpenDirectory> &parent, const std::string &child)
    {
        if (!parent)
            return open_levels(open_root(), child, open_level);
        return open_level(parent->fd(), child.substr(child.rfind('/') + 1));
    }

    void note(const std::string &name, Problem problem)
    {
        if (problem.code == kNothing) // one that is gone has no topics
            return;
        listing_.problems.push_back(std::move(problem));
        listing_.closed.push_back(name);
    }

    const Selection &selection_;
    StoreListing &listing_;
};

} // namespace

UniqueFd open_store_directory(const std::string &directory, Problem &problem)
{
    UniqueFd fd = open_levels(open_root(), directory, open_level);
    if (!fd)
        problem = topic_problem(directory, errno);
    return fd;
}

std::optional<StoreDirectory> list_directory(const std::string &directory, Problem &problem)
{
    const OpenDirectory open(open_levels(open_root(), directory, open_level));
    if (open)
        return open.entries(directory);
    problem = topic_problem(directory, errno);
    return std::nullopt;
}

StoreListing list_store(const Selection &selection)
{
    StoreListing listing;
    Walk(selection, listing).list_root();
    std::ranges::sort(listing.files, {}, &StoreFile::topic);
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

Place place_of(const std::string &topic)
{
    const std::size_t slash = topic.rfind('/');
    const std::string above = slash == std::string::npos ? "" : topic.substr(0, slash);
    const UniqueFd directory = open_levels(open_root(), above, open_level);
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
        const bool makes = missing == Missing::make;
        UniqueFd fd = open_levels(makes ? make_root() : open_root(), directory,
                                  makes ? make_level : open_level);
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
