// Standard output and standard error, written without ever being stuck in a write: a reader who
// sleeps is waited for with poll, which signals to stop and the deadline end.
#pragma once

#include "layout/unique_fd.h"

#include <cstdint>
#include <string_view>

namespace kp::tool {

class StandardStream {
  public:
    enum class Written {
        all,
        late,    // the reader did not take all before the deadline
        stopped, // nor before a signal asked for the end
        failed,  // errno says why
    };

    // The descriptor stays open as long as the program runs.
    explicit StandardStream(int fd);

    Written write(std::string_view text) const;

    // From this monotonic time on the program waits for no reader any more.
    static void set_deadline(uint64_t monotonic_us);

  private:
    ssize_t write_some(std::string_view text) const;

    int fd_;
    UniqueFd own_;
    bool is_file_ = false;
    bool is_socket_ = false;
};

} // namespace kp::tool
