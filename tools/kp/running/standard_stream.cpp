#include "running/standard_stream.h"

#include "running/stop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <limits>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

uint64_t deadline = std::numeric_limits<uint64_t>::max();

} // namespace

StandardStream::StandardStream(int fd) : fd_(fd)
{
    struct stat status;
    if (fstat(fd, &status) != 0)
        return;
    is_file_ = S_ISREG(status.st_mode);
    is_socket_ = S_ISSOCK(status.st_mode);
    if (!S_ISFIFO(status.st_mode) && isatty(fd) != 1)
        return;
    // A description of our own, since others share the mode of the one that was given.
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    own_.reset(open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own_)
        fd_ = own_.get();
}

void StandardStream::set_deadline(uint64_t monotonic_us)
{
    deadline = monotonic_us;
}

StandardStream::Written StandardStream::write(std::string_view text) const
{
    while (!text.empty()) {
        const Readiness readiness = wait_writable(fd_, deadline);
        if (readiness != Readiness::ready)
            return readiness == Readiness::late ? Written::late : Written::stopped;
        const ssize_t written = write_some(text);
        if (written >= 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR && errno != EAGAIN)
            return Written::failed;
    }
    return Written::all;
}

// After poll said that there is room: a pipe then takes so much at once.
ssize_t StandardStream::write_some(std::string_view text) const
{
    const std::size_t size = is_file_ ? text.size() : std::min<std::size_t>(text.size(), PIPE_BUF);
    return is_socket_ ? send(fd_, text.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL)
                      : ::write(fd_, text.data(), size);
}

} // namespace kp::tool
