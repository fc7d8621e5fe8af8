#include "base/journal.h"

#include "common/problem.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

namespace kp::mqtt {

namespace {

constexpr size_t kFewLines = 1000; // a journal up to this size is not worth rewriting

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

} // namespace

void Journal::read(const std::function<void(const std::string &line)> &take) const
{
    std::ifstream file(path_, std::ios::binary);
    for (std::string line; std::getline(file, line) && !file.eof();)
        take(line);
}

// The new file is written beside the old one and renamed, so that a crash leaves one of the two.
std::string Journal::rewrite(const Whole &whole)
{
    if (path_.empty())
        return {};
    const std::string fresh = path_ + ".new";
    UniqueFd file(::open(fresh.c_str(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file || !write_all(file.get(), whole.text) || fdatasync(file.get()) != 0)
        return tool::system_text(fresh, errno);
    if (rename(fresh.c_str(), path_.c_str()) != 0)
        return tool::system_text(path_, errno);
    fd_.reset(file.release());
    lines_ = whole.lines;
    return {};
}

// After a failure only a part of the last line may be there, and a new line would be joined to it.
std::string Journal::append(const std::string &line, size_t lines,
                            const std::function<Whole()> &whole)
{
    if (path_.empty())
        return {};
    ++lines_;
    const bool is_stale = failed_ || (lines_ > kFewLines && lines_ > 2 * lines);
    std::string problem = is_stale ? rewrite(whole()) : std::string();
    if (!is_stale && !write_all(fd_.get(), line + '\n'))
        problem = tool::system_text(path_, errno);
    failed_ = !problem.empty();
    return problem;
}

} // namespace kp::mqtt
