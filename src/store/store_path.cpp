// One call of the system does it where no link stands on the path. Else the levels are entered one
// by one, each through a descriptor: a descriptor of a link stays that of this link, whoever puts
// something else in its place, so its owner and its text belong together.
#include "store/store_path.h"

#include "support/high_fd.h"
#include "support/path.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace kp {

namespace {

constexpr int kLevelFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr int kMostLinks = 40; // as many as the system itself follows
constexpr mode_t kFileMode = 0666;
constexpr mode_t kDirectoryMode = 0777;

// The levels of the root and one more: what is made by path when no descriptor is free.
constexpr int kLevelsMadeByPath = 4;

bool is_foreign_link(const struct stat &status)
{
    return S_ISLNK(status.st_mode) && status.st_uid != 0 && status.st_uid != geteuid();
}

bool is_out_of_descriptors(int error)
{
    return error == EMFILE || error == ENFILE;
}

// Opens a path on which no link stands; ELOOP when one does.
UniqueFd open_without_links(const char *path, int flags)
{
    open_how how{};
    how.flags = static_cast<uint64_t>(flags);
    how.mode = flags & O_CREAT ? kFileMode : 0;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return high_fd(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof(how))));
}

// Whether the levels have to be entered one by one: a link is on the path, or the call above is
// unknown here (ENOSYS) or forbidden (EPERM, by a filter of system calls).
bool needs_walk(int error)
{
    return error == ELOOP || error == ENOSYS || error == EPERM;
}

UniqueFd open_level(int directory, const char *name)
{
    return high_fd(openat(directory, name, kLevelFlags));
}

// Cuts the first level off a path; null when there is none left.
char *take_level(char *&path)
{
    char *level = path + std::strspn(path, "/");
    char *end = level + std::strcspn(level, "/");
    path = *end ? end + 1 : end;
    *end = '\0';
    return *level ? level : nullptr;
}

// Puts the text of a link in front of the levels that are still to be entered; false with errno
// set.
bool insert_link(int link, PathBuffer &levels, char *&rest)
{
    PathBuffer text;
    const ssize_t length = readlinkat(link, "", text.data(), text.size());
    if (length < 0)
        return false;
    const auto end = static_cast<std::size_t>(length);
    if (end == text.size() || !format_text(std::span(text).subspan(end), "/%s", rest)) {
        errno = ENAMETOOLONG;
        return false;
    }
    levels = text;
    rest = levels.data();
    return true;
}

// Goes from directory to directory, through those links that may be followed.
class Walk {
  public:
    // Starts where `path` does.
    explicit Walk(std::string_view path)
        : directory_(open_level(AT_FDCWD, path.starts_with('/') ? "/" : "."))
    {
    }

    explicit operator bool() const
    {
        return static_cast<bool>(directory_);
    }
    int directory() const
    {
        return directory_.get();
    }
    UniqueFd release()
    {
        return std::move(directory_);
    }

    // Goes down all levels of `path`; false with errno set, and then it stays where it was.
    bool enter(std::string_view path)
    {
        PathBuffer levels;
        if (!format_text(levels, "%.*s", static_cast<int>(path.size()), path.data())) {
            errno = ENAMETOOLONG;
            return false;
        }
        UniqueFd here;
        char *rest = levels.data();
        while (const char *level = take_level(rest)) {
            UniqueFd next = open_level(here ? here.get() : directory(), level);
            struct stat status;
            if (!next || fstat(next.get(), &status) != 0)
                return false;
            if (!S_ISLNK(status.st_mode))
                here.reset(next.release()); // what is no directory shows at the next level
            else if (!follow(next, status, here, levels, rest))
                return false;
        }
        if (here)
            directory_.reset(here.release());
        return true;
    }

  private:
    bool follow(const UniqueFd &link, const struct stat &status, UniqueFd &here, PathBuffer &levels,
                char *&rest)
    {
        if (is_foreign_link(status)) {
            errno = kForeignLink;
            return false;
        }
        if (++links_ > kMostLinks) {
            errno = ELOOP;
            return false;
        }
        if (!insert_link(link.get(), levels, rest))
            return false;
        if (*rest != '/')
            return true;
        here.reset(open_level(AT_FDCWD, "/").release());
        return static_cast<bool>(here);
    }

    UniqueFd directory_;
    int links_ = 0;
};

// Opens a directory that a path leads to; none with errno set.
UniqueFd open_place(std::string_view path)
{
    PathBuffer text;
    if (!format_text(text, "%.*s", static_cast<int>(path.size()), path.data())) {
        errno = ENAMETOOLONG;
        return {};
    }
    UniqueFd directory =
        open_without_links(*text.data() ? text.data() : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (directory || !needs_walk(errno))
        return directory;
    Walk walk(path);
    return walk && walk.enter(path) ? walk.release() : UniqueFd();
}

UniqueFd open_directory(const char *path)
{
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;
    UniqueFd directory = open_without_links(path, kFlags);
    if (directory || !needs_walk(errno))
        return directory;
    Walk walk(path);
    if (!walk || !walk.enter(path))
        return {};
    return high_fd(openat(walk.directory(), ".", kFlags));
}

// Makes the first directories by path. Safe without a descriptor as far as it goes: who may write
// in the store cannot put a link in the place of its root, whose parent is root's.
void make_first_directories(char *path)
{
    PathBuffer directory{};
    std::size_t length = 0;
    const char *level = take_level(path);
    for (int made = 0; made < kLevelsMadeByPath; ++made) {
        const char *next = take_level(path);
        struct stat status;
        if (!next || !format_text(std::span(directory).subspan(length), "/%s", level))
            return;
        if (lstat(directory.data(), &status) == 0 && is_foreign_link(status))
            return;
        (void)mkdir(directory.data(), kDirectoryMode);
        length = std::strlen(directory.data());
        level = next;
    }
}

} // namespace

std::optional<StorePlace> find_place(const char *path)
{
    const std::string_view text(path);
    const std::size_t last = text.find_last_not_of('/');
    const std::size_t slash = last == std::string_view::npos ? last : text.rfind('/', last);
    const std::size_t start = slash == std::string_view::npos ? 0 : slash + 1;
    UniqueFd directory = open_place(text.substr(0, start));
    if (!directory)
        return std::nullopt;
    return StorePlace{std::move(directory), path + start};
}

UniqueFd open_in_store(const char *path, int flags)
{
    flags |= O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd fd = open_without_links(path, flags);
    if (fd || !needs_walk(errno))
        return fd;
    const auto place = find_place(path);
    if (!place)
        return {};
    return high_fd(openat(place->directory.get(), place->name, flags, kFileMode));
}

DIR *open_store_directory(const char *path)
{
    UniqueFd directory = open_directory(path);
    DIR *stream = directory ? fdopendir(directory.get()) : nullptr;
    if (stream)
        (void)directory.release(); // the stream's now
    return stream;
}

bool exists_in_store(const char *path)
{
    const auto place = find_place(path);
    if (place)
        return faccessat(place->directory.get(), place->name, F_OK, 0) == 0;
    // With no descriptor free only the path itself can be asked, which opens nothing.
    return is_out_of_descriptors(errno) && access(path, F_OK) == 0;
}

void make_directories(char *path)
{
    if (find_place(path))
        return; // all of them are there
    if (is_out_of_descriptors(errno)) {
        make_first_directories(path);
        return;
    }
    Walk walk(path);
    const char *level = take_level(path);
    while (const char *next = walk && level ? take_level(path) : nullptr) {
        if (!walk.enter(level)) {
            (void)mkdirat(walk.directory(), level, kDirectoryMode);
            if (!walk.enter(level))
                return;
        }
        level = next;
    }
}

} // namespace kp
