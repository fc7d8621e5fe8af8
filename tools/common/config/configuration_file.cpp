#include "common/config/configuration_file.h"

#include "common/config/toml_text.h"
#include "layout/unique_fd.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr int kPatienceMs = 2000;
constexpr std::size_t kMostBytes = 16 << 20;

} // namespace

Result<toml::table> configuration_table(std::string_view text, const std::string &path)
{
    try {
        return Result<toml::table>::of(parse_toml(text));
    } catch (const toml::parse_error &error) {
        return Result<toml::table>::failed(path + ":" + std::to_string(error.source().begin.line) +
                                           ": " + std::string(error.description()));
    }
}

// A pipe is as good as a file as long as somebody writes to it.
Result<std::string> configuration_text(const std::string &path)
{
    using Text = Result<std::string>;
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    pollfd waiting{file.get(), POLLIN, 0};
    std::string text;
    while (file && text.size() < kMostBytes) {
        if (poll(&waiting, 1, kPatienceMs) == 0)
            return Text::failed(path + ": nobody writes to this pipe");
        std::array<char, 4096> part;
        const ssize_t size = read(file.get(), part.data(), part.size());
        if (size == 0)
            return Text::of(std::move(text));
        if (size > 0)
            text.append(part.data(), static_cast<std::size_t>(size));
        else if (errno != EINTR && errno != EAGAIN)
            break;
    }
    return Text::failed(path + ": " +
                        (text.size() < kMostBytes ? std::strerror(errno) : "has no end"));
}

} // namespace kp::tool
