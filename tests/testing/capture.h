// What a piece of code writes to standard error or standard output, caught at the descriptor, so
// that every stream and every child process is covered.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kptest {

using Lines = std::vector<std::string>;

// Catches from its construction to its end. When the test failed, what was caught is shown after
// all.
class Capture {
  public:
    explicit Capture(FILE *stream);
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    ~Capture();

    // Gives everything caught so far, byte for byte.
    std::string text() const;

    // Gives the same without the "(123)" behind the function name of each log line.
    std::string text_without_line_numbers() const;

    // Gives the lines, without colours and line numbers: "ERROR: kp_shm_new: mmap: Cannot allocate
    // memory".
    Lines lines() const;

    // Says whether so many log lines of the library are there, each to its end: a line is written
    // in pieces.
    bool has_log_lines(std::size_t count) const;

    // How often a text stands there that is written at once: the beginning of a log line up to its
    // function, or its message. Lines of several threads may mix, but such pieces do not.
    std::size_t count_of(const std::string &piece) const;

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
