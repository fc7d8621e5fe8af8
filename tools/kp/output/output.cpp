#include "output/output.h"

#include "layout/unique_fd.h"
#include "running/problem.h"
#include "running/stop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr std::size_t kEnough = 65536;

bool use_colors = false;

// How standard output is written without ever being stuck in a write: what can be waited for is
// waited for with poll, which the signals end.
class StandardOutput {
  public:
    StandardOutput() : fd_(STDOUT_FILENO)
    {
        struct stat status;
        if (fstat(STDOUT_FILENO, &status) != 0)
            return;
        is_file_ = S_ISREG(status.st_mode);
        is_socket_ = S_ISSOCK(status.st_mode);
        if (!S_ISFIFO(status.st_mode) && isatty(STDOUT_FILENO) != 1)
            return;
        // A description of our own, since others share the mode of the one that was given.
        own_.reset(open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (own_)
            fd_ = own_.get();
    }
    int fd() const
    {
        return fd_;
    }
    // After poll said that there is room: a pipe then takes so much at once.
    ssize_t write(std::string_view text) const
    {
        const std::size_t size =
            is_file_ ? text.size() : std::min<std::size_t>(text.size(), PIPE_BUF);
        return is_socket_ ? send(fd_, text.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL)
                          : ::write(fd_, text.data(), size);
    }

  private:
    int fd_;
    UniqueFd own_;
    bool is_file_ = false;
    bool is_socket_ = false;
};

const StandardOutput &standard_output()
{
    static const StandardOutput output;
    return output;
}

bool is_set(const char *variable)
{
    const char *text = std::getenv(variable);
    return text && *text;
}

// It is usual for such a variable that 0 means the same as no variable.
bool is_forced()
{
    return is_set("CLICOLOR_FORCE") && std::string_view(std::getenv("CLICOLOR_FORCE")) != "0";
}

} // namespace

void Output::write(std::string_view text)
{
    pending_.append(text);
    if (pending_.size() >= kEnough)
        (void)flush();
}

void Output::line(std::string_view text)
{
    pending_.append(text).push_back('\n');
    if (pending_.size() >= kEnough)
        (void)flush();
}

// Says whether the reader takes more; else there is nothing to wait for any longer.
bool Output::await_reader()
{
    switch (wait_writable(standard_output().fd(), deadline_)) {
    case Readiness::ready:
        return true;
    case Readiness::late:
        give_up(kTimeout);
        return false;
    default: // the signal tells why
        give_up(code_);
        return false;
    }
}

void Output::give_up(int code)
{
    open_ = false;
    code_ = code;
}

bool Output::flush()
{
    std::string_view rest = pending_;
    while (open_ && !rest.empty()) {
        if (!await_reader())
            break;
        const ssize_t written = standard_output().write(rest);
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        if (errno == EINTR || errno == EAGAIN)
            continue;
        const bool is_reader_gone = errno == EPIPE;
        if (!is_reader_gone)
            complain(std::string("standard output: ") + std::strerror(errno));
        give_up(is_reader_gone ? code_ : kLimit);
    }
    pending_.clear();
    return open_;
}

Output &output()
{
    static Output the_output;
    return the_output;
}

int end_code(int code)
{
    if (stop_signal() != 0)
        return kSignalBase + stop_signal();
    return output().is_open() ? code : output().code();
}

void choose_colors(ColorChoice choice)
{
    if (choice != ColorChoice::automatic)
        use_colors = choice == ColorChoice::always;
    else if (is_set("NO_COLOR"))
        use_colors = false;
    else
        use_colors = isatty(STDOUT_FILENO) == 1 || is_forced();
}

bool uses_colors()
{
    return use_colors;
}

std::string colored(std::string_view text, Color color)
{
    if (!use_colors)
        return std::string(text);
    const char *code = color == Color::red      ? "\033[31m"
                       : color == Color::yellow ? "\033[33m"
                       : color == Color::dim    ? "\033[2m"
                                                : "\033[1m";
    return code + std::string(text) + "\033[0m";
}

} // namespace kp::tool
