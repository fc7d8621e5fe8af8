#include "common/store/store_walk.h"

#include "common/store/store_levels.h"
#include "common/system/file_id.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace kp::tool {

namespace {

// A walk keeps at most this many nested directories open. It comes back to the others through
// those below them.
constexpr std::size_t kMostOpenDirectories = 64;

// What file systems that do not tell the type in the directory say of an entry.
unsigned char entry_type(int directory, const dirent &entry)
{
    struct stat status;
    if (entry.d_type != DT_UNKNOWN ||
        fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return entry.d_type;
    return S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_LNK;
}

class Walk {
  public:
    explicit Walk(StoreVisitor &visitor) : visitor_(visitor)
    {
    }

    void run()
    {
        enter("", open_levels(""));
        while (!levels_.empty()) {
            Level &level = levels_.back();
            if (level.next == level.children.size()) {
                leave();
                continue;
            }
            const std::string child = level.children[level.next++];
            enter(child, open_level(level.fd.get(), last_level(child)));
        }
    }

  private:
    // A directory in which the walk is.
    struct Level {
        std::string name;
        UniqueFd fd;
        FileId id;
        std::vector<std::string> children = {};
        std::size_t next = 0; // of the children
    };

    void enter(const std::string &name, UniqueFd fd)
    {
        struct stat status;
        if (!fd || fstat(fd.get(), &status) != 0)
            return visitor_.miss(name, topic_problem(name, errno));
        levels_.push_back({name, std::move(fd), file_id(status)});
        levels_.back().children = visitor_.enter(name, levels_.back().fd.get(), status);
        if (levels_.size() > kMostOpenDirectories)
            levels_[levels_.size() - 1 - kMostOpenDirectories].fd.reset();
    }

    void leave()
    {
        const Level left = std::move(levels_.back());
        levels_.pop_back();
        if (levels_.empty() || levels_.back().fd)
            return;
        open_again(levels_.back(), left.fd.get());
    }

    // The way up is proved, since somebody may have moved the directory below elsewhere.
    void open_again(Level &level, int below)
    {
        struct stat status;
        level.fd.reset(open_level(below, "..").release());
        if (level.fd && fstat(level.fd.get(), &status) == 0 && file_id(status) == level.id)
            return;
        level.fd.reset(open_levels(level.name).release());
        if (level.fd)
            return;
        visitor_.miss(level.name, topic_problem(level.name, errno));
        level.next = level.children.size();
    }

    StoreVisitor &visitor_;
    std::vector<Level> levels_; // from the root down
};

class Lister : public StoreVisitor {
  public:
    Lister(const Selection &selection, StoreListing &listing)
        : selection_(selection), listing_(listing)
    {
    }

    std::vector<std::string> enter(const std::string &name, int fd, const struct stat &) override
    {
        auto entries = read_directory(fd, name, selection_);
        if (!entries) {
            miss(name, topic_problem(name, errno));
            return {};
        }
        listing_.directories.push_back(name);
        std::ranges::move(entries->files, std::back_inserter(listing_.files));
        return std::move(entries->directories);
    }
    void miss(const std::string &name, const Problem &problem) override
    {
        if (problem.kind == kNothing) // one that is gone has no topics
            return;
        listing_.problems.push_back(problem);
        listing_.closed.push_back(name);
    }

  private:
    const Selection &selection_;
    StoreListing &listing_;
};

} // namespace

std::optional<StoreDirectory> read_directory(int fd, const std::string &name,
                                             const Selection &selection)
{
    UniqueFd own(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    const UniqueDir stream(own ? fdopendir(own.get()) : nullptr);
    if (!stream)
        return std::nullopt;
    (void)own.release(); // the stream's from now on
    StoreDirectory directory;
    while (const dirent *entry = stream.next()) {
        const unsigned char type = entry_type(fd, *entry);
        std::string topic = join_levels(name, entry->d_name);
        if (type != DT_DIR && selection.covers(topic))
            directory.files.push_back({std::move(topic), entry->d_ino, type});
        else if (type == DT_DIR && selection.may_cover_below(topic))
            directory.directories.push_back(std::move(topic));
    }
    return directory;
}

void walk_store(StoreVisitor &visitor)
{
    Walk(visitor).run();
}

StoreListing list_store(const Selection &selection)
{
    StoreListing listing;
    Lister lister(selection, listing);
    walk_store(lister);
    std::ranges::sort(listing.files, {}, &StoreFile::topic);
    return listing;
}

} // namespace kp::tool
