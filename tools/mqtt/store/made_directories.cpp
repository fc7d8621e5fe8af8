#include "store/made_directories.h"

#include "common/store/store_files.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace kp::mqtt {

void MadeDirectories::note(const std::string &tag)
{
    for (size_t end = tag.find('/'); end != tag.npos; end = tag.find('/', end + 1)) {
        const std::string directory = tag.substr(0, end);
        if (tool::place_of(directory) == tool::Place::free)
            made_.insert(directory);
    }
}

// False when the directory stays, so that those above it stay, too.
bool MadeDirectories::remove(const std::string &directory)
{
    tool::TopicOpener opener;
    tool::Problem problem;
    const auto place = opener.locate(directory, problem);
    return place &&
           (unlinkat(place->directory, place->name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
}

void MadeDirectories::remove_of(const std::string &tag)
{
    for (size_t end = tag.rfind('/'); end != tag.npos && end > 0; end = tag.rfind('/', end - 1)) {
        const auto found = made_.find(tag.substr(0, end));
        if (found == made_.end() || !remove(*found))
            return;
        made_.erase(found);
    }
}

// In the order of names a deeper directory comes after those above it.
void MadeDirectories::remove_all()
{
    for (auto directory = made_.rbegin(); directory != made_.rend(); ++directory)
        (void)remove(*directory);
    made_.clear();
}

} // namespace kp::mqtt
