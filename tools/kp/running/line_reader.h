// Reads the lines of a file or pipe as they come. A signal that ends the program also ends the
// wait.
#pragma once

#include "running/outcome.h"

#include <functional>
#include <optional>
#include <string>

namespace kp::tool {

class LineReader {
  public:
    // Borrows the descriptor.
    explicit LineReader(int fd) : fd_(fd)
    {
    }

    // Waits for the next line that is not blank and gives it. Gives nothing at the end of the file,
    // after a signal to stop, or after a failed read.
    std::optional<std::string> next();
    // Gives the problem with the number of the line that next() gave.
    Problem at_line(Problem problem) const;
    // Says whether next() can give a line without waiting.
    bool has_line() const
    {
        return ready_.find('\n', start_) != std::string::npos;
    }
    // Why next() gave nothing before the end of the file, told about the file by its name: a read
    // that failed, or a line that is too long for a record. Nothing at the end and after a signal.
    std::optional<Problem> problem(const std::string &name) const;

  private:
    std::optional<std::string> next_of_any();
    bool read_more();

    int fd_;
    std::string ready_;
    std::size_t start_ = 0;  // of what was not given out yet
    std::size_t number_ = 0; // of the line that was given out last
    bool is_at_end_ = false;
    bool is_too_long_ = false;
    int error_ = 0; // the errno of the read that failed
};

// What to call a file in a message, where "-" stands for standard input.
std::string input_name(const std::string &file);

// Calls `run` with the file open to read, or with standard input for "-", and gives what it gives:
// an exit code. Complains if the file cannot be opened.
int run_on_input(const std::string &file, const std::function<int(int fd)> &run);

} // namespace kp::tool
