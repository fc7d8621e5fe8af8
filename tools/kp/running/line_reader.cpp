#include "running/line_reader.h"

#include "common/text/text.h"
#include "layout/unique_fd.h"
#include "running/stop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <unistd.h>
#include <utility>

namespace kp::tool {

namespace {

constexpr std::size_t kLongestLine = 1 << 20; // a record takes a tenth of that at most

} // namespace

std::string input_name(const std::string &file)
{
    return file == "-" ? "standard input" : escaped(file);
}

int run_on_input(const std::string &file, const std::function<int(int fd)> &run)
{
    if (file == "-")
        return run(STDIN_FILENO);
    const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    return fd ? run(fd.get()) : complain(system_problem(input_name(file), errno));
}

Problem LineReader::at_line(Problem problem) const
{
    problem.text = "line " + std::to_string(number_) + ": " + problem.text;
    return problem;
}

std::optional<Problem> LineReader::problem(const std::string &name) const
{
    if (is_too_long_)
        return Problem{kUsage, name + ": line " + std::to_string(number_ + 1) +
                                   " is longer than any record, so it and the rest are left out"};
    if (error_ != 0)
        return system_problem(name, error_);
    return std::nullopt;
}

std::optional<std::string> LineReader::next()
{
    auto line = next_of_any();
    while (line && line->find_first_not_of(" \t\r") == std::string::npos)
        line = next_of_any();
    return line;
}

std::optional<std::string> LineReader::next_of_any()
{
    while (!has_line() && !is_at_end_)
        if (!read_more())
            return std::nullopt;
    if (start_ == ready_.size())
        return std::nullopt;
    const std::size_t end =
        std::min(ready_.find('\n', start_), ready_.size()); // the last may lack it
    const std::size_t start = std::exchange(start_, std::min(end + 1, ready_.size()));
    ++number_;
    return ready_.substr(start, end - start);
}

bool LineReader::read_more()
{
    std::array<char, 65536> buffer;
    if (!wait_readable(fd_, std::numeric_limits<uint64_t>::max()) && stop_signal() != 0)
        return false;
    const ssize_t size = read(fd_, buffer.data(), buffer.size());
    if (size < 0 && errno != EINTR && errno != EAGAIN) {
        error_ = errno;
        return false;
    }
    if (ready_.size() - start_ > kLongestLine) {
        is_too_long_ = true;
        return false;
    }
    is_at_end_ = size == 0;
    ready_.erase(0, std::exchange(start_, 0));
    ready_.append(buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return true;
}

} // namespace kp::tool
