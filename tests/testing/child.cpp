#include "testing/child.h"

#include "testing/process.h"
#include "testing/readable.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kptest {

namespace {

constexpr int kThrew = 99;
constexpr int kNotExecuted = 127;

// Cross-built tests run emulated, and such a process cannot execute a program of its own machine
// without the emulator, whose name the build gives.
#ifdef KP_TEST_EMULATOR
const char *emulator_for(const std::string &program)
{
    Elf64_Ehdr header{};
    const int fd = open(program.c_str(), O_RDONLY | O_CLOEXEC);
    const bool is_foreign = read(fd, &header, sizeof(header)) == sizeof(header) &&
                            std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
                            header.e_machine == EM_AARCH64;
    (void)close(fd);
    return is_foreign ? KP_TEST_EMULATOR : nullptr;
}
#else
const char *emulator_for(const std::string &)
{
    return nullptr;
}
#endif

[[noreturn]] void execute(const std::vector<std::string> &command, int read_fd, int write_fd)
{
    std::vector<char *> arguments;
    if (const char *emulator = emulator_for(command.front()))
        arguments.push_back(const_cast<char *>(emulator));
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    (void)dup2(read_fd, STDIN_FILENO);
    (void)dup2(write_fd, STDOUT_FILENO);
    (void)execvp(arguments[0], arguments.data());
    (void)std::fprintf(stderr, "%s: %s\n", arguments[0], std::strerror(errno));
    _exit(kNotExecuted);
}

[[noreturn]] void run(const std::function<int(Channel &)> &body, int read_fd, int write_fd)
{
    int status = kThrew;
    try {
        Channel parent(read_fd, write_fd);
        status = body(parent);
    } catch (...) {
    }
    (void)std::fflush(nullptr);
    _exit(status);
}

} // namespace

Channel::~Channel()
{
    (void)close(read_fd_);
    (void)close(write_fd_);
}

bool Channel::tell(const std::string &line) const
{
    const std::string text = line + '\n';
    return write(write_fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::optional<std::string> Channel::hear(std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (const std::size_t length = pending_.find('\n'); length != std::string::npos) {
            std::string line = pending_.substr(0, length);
            pending_.erase(0, length + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() < 0 || !is_readable(read_fd_, left))
            return std::nullopt;
        char bytes[4096];
        const ssize_t count = read(read_fd_, bytes, sizeof(bytes));
        if (count <= 0)
            return std::nullopt;
        pending_.append(bytes, static_cast<std::size_t>(count));
    }
}

ChildProcess::ChildProcess(const std::function<int(Channel &)> &body)
{
    start([&body](int read_fd, int write_fd) { run(body, read_fd, write_fd); });
}

ChildProcess::ChildProcess(const std::vector<std::string> &command)
{
    start([&command](int read_fd, int write_fd) { execute(command, read_fd, write_fd); });
}

ChildProcess::~ChildProcess()
{
    if (!status_) {
        signal(SIGKILL);
        (void)wait();
    }
}

void ChildProcess::start(const std::function<void(int, int)> &child_side)
{
    (void)std::signal(SIGPIPE, SIG_IGN); // a child may be gone when it is told something
    int to_child[2];
    int from_child[2];
    if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0)
        std::abort();
    (void)std::fflush(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0)
        std::abort();
    if (pid_ == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(kThrew);
        (void)std::signal(SIGPIPE, SIG_DFL);
        (void)close(to_child[1]);
        (void)close(from_child[0]);
        child_side(to_child[0], from_child[1]);
    }
    (void)close(to_child[0]);
    (void)close(from_child[1]);
    channel_.emplace(from_child[0], to_child[1]);
}

void ChildProcess::signal(int number) const
{
    if (!status_)
        (void)kill(pid_, number);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds deadline)
{
    (void)wait_until(
        [this] {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_)
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return status_.has_value();
        },
        deadline);
    return status_;
}

namespace {

// Says whether all threads of this process but the main one sleep. AddressSanitizer's allocator
// does not survive a fork() at a moment at which another thread is in it.
bool do_others_sleep()
{
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(getpid()))
            continue;
        std::string stat;
        (void)std::getline(std::ifstream(task.path() / "stat"), stat);
        const size_t behind_name = stat.rfind(") ");
        if (behind_name != stat.npos && stat[behind_name + 2] != 'S')
            return false;
    }
    return true;
}

} // namespace

int status_of_child(const std::function<bool()> &body)
{
    (void)wait_until(do_others_sleep);
    const pid_t child = fork();
    if (child == 0)
        _exit(body() ? 0 : 1);
    int status = -1;
    (void)waitpid(child, &status, 0);
    return status;
}

} // namespace kptest
