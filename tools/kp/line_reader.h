// The lines of a file or pipe, as they come, by a program that must not miss a signal meanwhile.
#pragma once

#include <optional>
#include <string>

namespace kp::tool {

class LineReader {
  public:
    // Borrows the descriptor.
    explicit LineReader(int fd) : fd_(fd)
    {
    }

    // The next line, waiting for it. Nothing at the end, when told to stop, or after a failed read.
    std::optional<std::string> next();
    // Whether next() has one at hand.
    bool has_line() const
    {
        return ready_.find('\n', start_) != std::string::npos;
    }
    // The errno of the read that failed, EMSGSIZE for a line that is no record's, or 0.
    int error() const
    {
        return error_;
    }

  private:
    bool read_more();

    int fd_;
    std::string ready_;
    std::size_t start_ = 0; // of what was not given out yet
    bool is_at_end_ = false;
    int error_ = 0;
};

// What to call a file in a message, where "-" stands for standard input.
std::string input_name(const std::string &file);

inline bool is_blank(const std::string &line)
{
    return line.find_first_not_of(" \t\r") == std::string::npos;
}

} // namespace kp::tool
