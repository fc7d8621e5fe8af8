#include "output/screen_output.h"

#include "running/stop.h"

#include <fcntl.h>
#include <unistd.h>

namespace kp::tool {

namespace {

// For the handler of signals; -1 while there is none.
int screen_fd = -1;
int nowhere_fd = -1;

void divert()
{
    (void)dup3(nowhere_fd, screen_fd, O_CLOEXEC);
}

} // namespace

ScreenOutput::ScreenOutput()
{
    nowhere_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    screen_fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    file_ = nowhere_fd < 0 || screen_fd < 0 ? nullptr : fdopen(screen_fd, "w");
    if (file_)
        call_at_stop(divert);
}

ScreenOutput::~ScreenOutput()
{
    call_at_stop(nullptr);
    if (file_)
        (void)std::fclose(file_);
    else if (screen_fd >= 0)
        (void)close(screen_fd);
    if (nowhere_fd >= 0)
        (void)close(nowhere_fd);
    screen_fd = nowhere_fd = -1;
}

} // namespace kp::tool
