// The processes of the soak. They are started, disturbed and ended here, and measured.
#pragma once

#include "soak/member.h"

#include <array>
#include <string>
#include <sys/types.h>

namespace soak {

struct Usage {
    long fds = 0;
    long threads = 0;
    long memory_kb = 0;

    std::string text() const;
};

// Makes the memory that driver and members share, also over exec(); null when there is none. `fd`
// gets the descriptor of it, which executed programs inherit.
Board *make_board(int &fd);

// Runs the part of a program that Family has executed, with the library in directory `library`.
int run_executed_member(int number, int board_fd, const std::string &library);

class Family {
  public:
    // Every second member loads the library in directory `other`, unless that is empty.
    Family(Board &board, int board_fd, std::string other);

    void start(int number);
    // Ends a process and says what was wrong with that; mostly nothing. It need not be running.
    std::string end(int number, int signal);
    void signal(int number, int signal) const;
    bool is_alive(int number);
    Usage usage(int number) const;
    // Gives what the process used when this was asked for the first time, which is when it was
    // connected to all others.
    Usage first_usage(int number);

  private:
    struct Process {
        pid_t pid = -1;
        Usage first;
        bool measured = false;
    };

    [[noreturn]] void become_member(int number) const;

    Board &board_;
    int board_fd_;
    std::string other_;
    std::array<Process, kProcesses> processes_;
};

} // namespace soak
