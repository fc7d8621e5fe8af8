#include "output.h"

#include "problem.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr std::size_t kEnough = 65536;

bool use_colors = false;

bool is_set(const char *variable)
{
    const char *text = std::getenv(variable);
    return text && *text;
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

bool Output::flush()
{
    std::string_view rest = pending_;
    while (open_ && !rest.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        if (errno == EINTR)
            continue;
        open_ = false;
        if (errno != EPIPE) {
            code_ = kLimit;
            complain(std::string("standard output: ") + std::strerror(errno));
        }
    }
    pending_.clear();
    return open_;
}

Output &output()
{
    static Output standard_output;
    return standard_output;
}

void choose_colors(ColorChoice choice)
{
    if (choice != ColorChoice::automatic)
        use_colors = choice == ColorChoice::always;
    else if (is_set("NO_COLOR"))
        use_colors = false;
    else
        use_colors = isatty(STDOUT_FILENO) == 1 || is_set("CLICOLOR_FORCE");
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
