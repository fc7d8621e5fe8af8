#include "soak/family.h"

#include "kp.h"
#include "testing/process.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace soak {

namespace {

constexpr std::chrono::milliseconds kEnding{30000};

void *map_board(int fd)
{
    return mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

// Says whether the functions that this process calls are those of the library there.
bool is_loaded_from(const std::string &directory)
{
    Dl_info info{};
    return dladdr(reinterpret_cast<void *>(&kp_new), &info) != 0 &&
           fs::equivalent(fs::path(info.dli_fname).parent_path(), directory);
}

} // namespace

std::string Usage::text() const
{
    return std::to_string(fds) + " descriptors, " + std::to_string(threads) + " threads, " +
           std::to_string(memory_kb) + " kB";
}

Board *make_board(int &fd)
{
    fd = memfd_create("soak", 0);
    if (fd < 0 || ftruncate(fd, sizeof(Board)) != 0)
        return nullptr;
    void *memory = map_board(fd);
    if (memory == MAP_FAILED)
        return nullptr;
    auto *board = new (memory) Board{};
    board->writing = true;
    return board;
}

int run_executed_member(int number, int board_fd, const std::string &library)
{
    void *memory = map_board(board_fd);
    if (memory == MAP_FAILED || !is_loaded_from(library)) {
        std::fprintf(stderr, "soak: no board, or not the library in %s\n", library.c_str());
        return 1;
    }
    return run_member(number, *static_cast<Board *>(memory));
}

Family::Family(Board &board, int board_fd, std::string other)
    : board_(board), board_fd_(board_fd), other_(std::move(other))
{
}

void Family::become_member(int number) const
{
    if (other_.empty() || number % 2 == 0)
        _exit(run_member(number, board_));
    (void)setenv("LD_LIBRARY_PATH", other_.c_str(), 1);
    (void)execl("/proc/self/exe", "soak", "--member", std::to_string(number).c_str(), "--board",
                std::to_string(board_fd_).c_str(), "--other", other_.c_str(), nullptr);
    _exit(127);
}

void Family::start(int number)
{
    Process &process = processes_[static_cast<std::size_t>(number)];
    process = {};
    std::fflush(stdout);
    process.pid = fork();
    if (process.pid != 0)
        return;
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit descriptors{256, 256};
    (void)setrlimit(RLIMIT_NOFILE, &descriptors);
    become_member(number);
}

std::string Family::end(int number, int signal)
{
    Process &process = processes_[static_cast<std::size_t>(number)];
    if (process.pid <= 0)
        return "";
    int status = 0;
    (void)kill(process.pid, signal);
    const bool ended = kptest::wait_until(
        [&] { return waitpid(process.pid, &status, WNOHANG) == process.pid; }, kEnding);
    process.pid = -1;
    if (!ended)
        return " does not end";
    return signal == SIGTERM && status != 0 ? " ends with status " + std::to_string(status) : "";
}

void Family::signal(int number, int signal) const
{
    (void)kill(processes_[static_cast<std::size_t>(number)].pid, signal);
}

bool Family::is_alive(int number)
{
    Process &process = processes_[static_cast<std::size_t>(number)];
    if (waitpid(process.pid, nullptr, WNOHANG) == 0)
        return true;
    process.pid = -1;
    return false;
}

Usage Family::usage(int number) const
{
    Usage usage;
    const std::string folder =
        "/proc/" + std::to_string(processes_[static_cast<std::size_t>(number)].pid);
    usage.fds = std::distance(fs::directory_iterator(folder + "/fd"), fs::directory_iterator());
    std::ifstream status(folder + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Threads:"))
            usage.threads = std::atol(line.c_str() + 8);
        if (line.starts_with("RssAnon:"))
            usage.memory_kb = std::atol(line.c_str() + 8);
    }
    return usage;
}

Usage Family::first_usage(int number)
{
    Process &process = processes_[static_cast<std::size_t>(number)];
    if (!process.measured)
        process.first = usage(number);
    process.measured = true;
    return process.first;
}

} // namespace soak
