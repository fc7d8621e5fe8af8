#include "sandbox/store_copy.h"

#include "common/store/store_files.h"
#include "common/store/store_levels.h"
#include "common/text/text.h"
#include "layout/segment.h"
#include "looking/noted_listing.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kRights = S_IRWXU | S_IRWXG | S_IRWXO;

// Opens the copy of a directory, which is made with the rights of the original.
UniqueFd make_copied_level(int parent, const std::string &level, const UniqueFd &original)
{
    const bool is_new = mkdirat(parent, level.c_str(), S_IRWXU) == 0;
    if (!is_new && errno != EEXIST)
        return UniqueFd();
    UniqueFd copy = open_level(parent, level);
    struct stat status;
    if (is_new && copy && original && fstat(original.get(), &status) == 0)
        (void)fchmod(copy.get(), (status.st_mode & kRights) | S_IRWXU);
    return copy;
}

} // namespace

bool StoreCopy::open(const std::string &directory, Problem &problem)
{
    name_ = escaped(directory);
    if (mkdir(directory.c_str(), 0777) != 0 && errno != EEXIST) {
        problem = system_problem(name_, errno);
        return false;
    }
    directory_.reset(::open(directory.c_str(), kDirectoryFlags));
    if (!directory_) {
        problem = system_problem(name_, errno);
        return false;
    }
    if (is_empty_directory(directory_))
        return true;
    problem = {kUsage, name_ + ": not empty, and a copy is not mixed with what is there"};
    return false;
}

UniqueFd StoreCopy::make_file(const std::string &topic, UniqueFd &parent) const
{
    UniqueFd original = open_levels("");
    parent.reset(openat(directory_.get(), ".", kDirectoryFlags));
    const auto levels = split_levels(topic);
    for (std::size_t index = 0; parent && index + 1 < levels.size(); ++index) {
        const std::string level(levels[index]);
        original.reset(open_level(original.get(), level).release());
        parent.reset(make_copied_level(parent.get(), level, original).release());
    }
    const std::string name(levels.back());
    return parent ? UniqueFd(openat(parent.get(), name.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                    S_IRUSR | S_IWUSR))
                  : UniqueFd();
}

bool StoreCopy::copy_topic(const std::string &topic, Problem &problem) const
{
    TopicOpener opener;
    const UniqueFd from = opener.open(topic, problem);
    if (!from)
        return false;
    struct stat status;
    std::array<char, kSegmentSize> bytes;
    if (fstat(from.get(), &status) != 0 ||
        pread(from.get(), bytes.data(), bytes.size(), 0) != kSegmentSize) {
        problem = TopicOpener::not_a_segment(topic, from);
        return false;
    }
    UniqueFd parent;
    const UniqueFd to = make_file(topic, parent);
    errno = to ? ENOSPC : errno; // of a write that is only cut short
    if (to && write(to.get(), bytes.data(), bytes.size()) == kSegmentSize) {
        (void)fchmod(to.get(), status.st_mode & kRights);
        return true;
    }
    problem = system_problem(name_ + "/" + escaped(topic), errno);
    if (to) // half a segment is none
        (void)unlinkat(parent.get(), std::string(split_levels(topic).back()).c_str(), 0);
    return false;
}

void StoreCopy::take(Outcome &outcome) const
{
    const StoreListing listing = list_store({}, outcome);
    for (const StoreFile &file : listing.files) {
        Problem problem;
        if (!copy_topic(file.topic, problem))
            outcome.note(problem);
    }
}

} // namespace kp::tool
