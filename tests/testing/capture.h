// What a piece of code writes to standard error or standard output, caught at the descriptor, so
// that every stream and every child process is covered.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kptest {

using Lines = std::vector<std::string>;

// Catches from its construction to its end. What was caught is shown after all when the test
// failed.
class Capture {
  public:
    explicit Capture(FILE *stream);
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    ~Capture();

    // Everything caught so far, byte for byte.
    std::string text() const;

    // Byte for byte but for the "(123)" behind the function name of each log line, which is left
    // out.
    std::string text_without_line_numbers() const;

    // The lines, without colours and line numbers: "ERROR: kp_shm_new: mmap: Cannot allocate
    // memory".
    Lines lines() const;

    // Whether so many log lines of the library are there, each to its end: a line is written in
    // pieces.
    bool has_log_lines(std::size_t count) const;

    // Forgets what was caught so far.
    void clear();

  private:
    FILE *stream_;
    int original_fd_;
    int memory_fd_;
};

class StderrCapture : public Capture {
  public:
    StderrCapture() : Capture(stderr)
    {
    }
};

class StdoutCapture : public Capture {
  public:
    StdoutCapture() : Capture(stdout)
    {
    }
};

// Lets the sanitizers' reports go to the standard error that the process started with.
void keep_sanitizer_reports_out_of_captures();

} // namespace kptest
