#include "testing/capture.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void *fd);

namespace kptest {

namespace {

// Takes the first "(123): " out of a line, where a log line has its source line.
std::string without_line_number(const std::string &line)
{
    const std::size_t open = line.find('(');
    const std::size_t close = line.find_first_not_of("0123456789", open + 1);
    if (open == std::string::npos || close == open + 1 || line.compare(close, 3, "): ") != 0)
        return line;
    return line.substr(0, open) + line.substr(close + 1);
}

std::string without_colours(std::string text)
{
    for (std::size_t start; (start = text.find("\033[")) != std::string::npos;)
        text.erase(start, text.find('m', start) - start + 1);
    return text;
}

} // namespace

Capture::Capture(FILE *stream) : stream_(stream)
{
    (void)std::fflush(stream_);
    original_fd_ = fcntl(fileno(stream_), F_DUPFD_CLOEXEC, 3);
    memory_fd_ = memfd_create("capture", MFD_CLOEXEC);
    if (original_fd_ < 0 || memory_fd_ < 0 || dup2(memory_fd_, fileno(stream_)) < 0)
        std::abort();
}

Capture::~Capture()
{
    const std::string caught = text();
    (void)dup2(original_fd_, fileno(stream_));
    (void)close(original_fd_);
    (void)close(memory_fd_);
    if (testing::Test::HasFailure())
        (void)std::fputs(caught.c_str(), stream_);
}

std::string Capture::text() const
{
    (void)std::fflush(stream_);
    std::string caught(static_cast<std::size_t>(lseek(memory_fd_, 0, SEEK_END)), '\0');
    const ssize_t count = pread(memory_fd_, caught.data(), caught.size(), 0);
    EXPECT_EQ(count, static_cast<ssize_t>(caught.size()));
    return caught;
}

std::string Capture::text_without_line_numbers() const
{
    std::istringstream caught(text());
    std::string cut;
    for (std::string line; std::getline(caught, line);) {
        cut += without_line_number(line);
        if (!caught.eof())
            cut += '\n';
    }
    return cut;
}

std::size_t Capture::count_of(const std::string &piece) const
{
    const std::string caught = text();
    std::size_t count = 0;
    for (std::size_t at = 0; (at = caught.find(piece, at)) != std::string::npos; at += piece.size())
        ++count;
    return count;
}

Lines Capture::lines() const
{
    std::istringstream plain(without_colours(text_without_line_numbers()));
    Lines lines;
    for (std::string line; std::getline(plain, line);)
        lines.push_back(line);
    return lines;
}

bool Capture::has_log_lines(std::size_t count) const
{
    constexpr std::string_view kEndOfLine = "\n\033[0m";
    const std::string caught = text();
    std::size_t found = 0;
    for (std::size_t at = 0; (at = caught.find(kEndOfLine, at)) != std::string::npos; ++at)
        ++found;
    return found >= count;
}

void Capture::clear()
{
    (void)std::fflush(stream_);
    EXPECT_EQ(ftruncate(memory_fd_, 0), 0);
    (void)lseek(memory_fd_, 0, SEEK_SET);
}

void keep_sanitizer_reports_out_of_captures()
{
    if (__sanitizer_set_report_fd) {
        const intptr_t fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
        __sanitizer_set_report_fd(reinterpret_cast<void *>(fd));
    }
}

} // namespace kptest
