// Finds in /proc which processes have which topics open, and learns when one of them ends. The
// kernel tells of the ends, so no look is needed while nothing happens: a look reads the mappings
// of every process.
#pragma once

#include "layout/unique_fd.h"

#include <compare>
#include <cstdint>
#include <map>
#include <sys/types.h>
#include <vector>

namespace kp::mqtt {

// A process, told apart from a later one with the same number.
struct ProcessId {
    pid_t pid;
    uint64_t started; // clock ticks since the boot

    auto operator<=>(const ProcessId &) const = default;
};

struct Holder {
    ProcessId process;
    unsigned handles; // that it has open on the topic

    bool operator==(const Holder &) const = default;
};

// Which processes may be inspected.
enum class Sight {
    partial, // processes are hidden, or cannot be looked into
    trusted, // the same, but they are said to have nothing to do with topics
    full,
};

// What one look has found.
struct HandleCensus {
    Sight sight = Sight::partial;
    std::map<ino_t, std::vector<Holder>> of_file; // each in the order of the processes

    const std::vector<Holder> &of(ino_t file) const;
};

class SegmentHolders {
  public:
    explicit SegmentHolders(bool trust_visible);

    // The best that a look can have.
    Sight sight() const
    {
        return sight_;
    }

    // Looks at every process, and listens to the ends of those that have a topic open.
    HandleCensus take();

    // Readable when such a process has ended.
    int fd() const
    {
        return epoll_.get();
    }
    bool some_ended();

  private:
    void watch(const ProcessId &process);

    struct Watched {
        uint64_t started;
        UniqueFd fd;
    };

    Sight sight_;
    UniqueFd epoll_;
    std::map<pid_t, Watched> watched_;
};

} // namespace kp::mqtt
