#include "collecting/dead_sockets.h"

#include "common/clock.h"
#include "common/text/text.h"
#include "layout/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

// A socket of another network namespace cannot be seen while it is bound and does not listen yet,
// which lasts microseconds. So a file is judged when it is so old.
constexpr uint64_t kYouthUs = kUsPerSecond;

bool is_bound(const UnixSockets &sockets, const EndpointFile &file)
{
    return std::any_of(
        sockets.sockets.begin(), sockets.sockets.end(), [&file](const UnixSocket &socket) {
            return socket.state != UnixSocket::State::connected && file.is_bound_by(socket);
        });
}

// The status of an entry that still is the file that was found.
bool is_same(int directory, const char *name, const EndpointFile &file)
{
    struct stat status;
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISSOCK(status.st_mode) && status.st_dev == file.device &&
           status.st_ino == file.inode && to_us(status.st_mtim) == file.made_us;
}

void wait_until_grown(const std::vector<EndpointFile> &files)
{
    uint64_t youngest = 0;
    for (const EndpointFile &file : files)
        youngest = std::max(youngest, file.made_us);
    const uint64_t now = now_us();
    if (youngest <= now && now - youngest < kYouthUs)
        (void)usleep(static_cast<useconds_t>(kYouthUs - (now - youngest)));
}

// Removes a file after moving it to another name, where nobody puts a new file in its place.
// Without that, its process could start again between the last look and the removal, and would lose
// its new socket.
class Remover {
  public:
    Remover() : directory_(open(kEndpointRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
    }

    DeedResult remove(const EndpointFile &file)
    {
        const std::string aside =
            ".kp-gc-" + std::to_string(getpid()) + "-" + std::to_string(++count_);
        if (!is_same(directory_.get(), file.name.c_str(), file) || !refuses_connections(file.name))
            return {};
        if (renameat2(directory_.get(), file.name.c_str(), directory_.get(), aside.c_str(),
                      RENAME_NOREPLACE) != 0)
            return failed(file);
        if (!is_same(directory_.get(), aside.c_str(), file) || !refuses_connections(aside)) {
            give_back(aside, file.name);
            return {};
        }
        if (unlinkat(directory_.get(), aside.c_str(), 0) != 0)
            return failed(file);
        return {Deed::done, {}};
    }

  private:
    static DeedResult failed(const EndpointFile &file)
    {
        if (errno == ENOENT)
            return {};
        return {Deed::failed, system_problem(escaped(endpoint_path(file.name)), errno)};
    }

    // Where the name was taken again meanwhile, the newer socket counts, as it does when an
    // endpoint starts under a name that another has.
    void give_back(const std::string &aside, const std::string &name) const
    {
        if (renameat2(directory_.get(), aside.c_str(), directory_.get(), name.c_str(),
                      RENAME_NOREPLACE) != 0 &&
            errno == EEXIST)
            (void)unlinkat(directory_.get(), aside.c_str(), 0);
    }

    UniqueFd directory_;
    unsigned count_ = 0;
};

} // namespace

DeadSockets find_dead_sockets()
{
    DeadSockets found;
    const UnixSockets sockets = list_unix_sockets();
    for (const EndpointFile &file : list_endpoint_files(&found.error))
        if (file.is_socket && !is_bound(sockets, file) && refuses_connections(file.name))
            found.files.push_back(file);
    return found;
}

std::vector<DeedResult> remove_dead_sockets(const std::vector<EndpointFile> &files)
{
    std::vector<DeedResult> deeds;
    deeds.reserve(files.size());
    wait_until_grown(files);
    const UnixSockets sockets = list_unix_sockets();
    Remover remover;
    for (const EndpointFile &file : files)
        deeds.push_back(is_bound(sockets, file) ? DeedResult{} : remover.remove(file));
    return deeds;
}

} // namespace kp::tool
