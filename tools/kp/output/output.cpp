#include "output/output.h"

#include "running/outcome.h"
#include "running/standard_stream.h"
#include "running/stop.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace kp::tool {

namespace {

constexpr std::size_t kEnough = 65536;

bool use_colors = false;

// Empty where the environment does not have it.
std::string_view variable(const char *name)
{
    const char *text = std::getenv(name);
    return text ? text : "";
}

bool is_set(const char *name)
{
    return !variable(name).empty();
}

// It is usual for such a variable that 0 means the same as no variable.
bool is_forced()
{
    return is_set("CLICOLOR_FORCE") && variable("CLICOLOR_FORCE") != "0";
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

void Output::fail(int error)
{
    if (error == EPIPE) // its reader is gone
        return give_up(code_);
    complain(std::string("standard output: ") + std::strerror(error));
    give_up(kLimit);
}

void Output::give_up(int code)
{
    open_ = false;
    code_ = code;
}

bool Output::flush()
{
    static const StandardStream stream(STDOUT_FILENO);
    const std::string text = std::exchange(pending_, {});
    if (!open_ || text.empty())
        return open_;
    switch (stream.write(text)) {
    case StandardStream::Written::all:
        break;
    case StandardStream::Written::late:
        give_up(kTimeout);
        break;
    case StandardStream::Written::stopped: // the signal tells why
        give_up(code_);
        break;
    case StandardStream::Written::failed:
        fail(errno);
    }
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
