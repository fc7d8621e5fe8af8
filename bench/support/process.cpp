#include "support/process.h"

#include "support/clock.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

Child::~Child()
{
    if (pid_ <= 0)
        return;
    (void)kill(pid_, SIGTERM);
    const uint64_t deadline = now_ns() + 3'000'000'000;
    while (waitpid(pid_, nullptr, WNOHANG) == 0) {
        if (now_ns() > deadline)
            (void)kill(pid_, SIGKILL);
        sleep_ms(2);
    }
}

bool Child::wait()
{
    int status = -1;
    const pid_t done = waitpid(std::exchange(pid_, -1), &status, 0);
    return done > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

Child run_in_child(const std::function<int()> &body)
{
    (void)std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(1);
        const int result = body();
        (void)std::fflush(nullptr);
        _exit(result);
    }
    if (pid < 0) {
        std::perror("fork");
        std::exit(1);
    }
    return Child(pid);
}

Child run_program(const std::vector<std::string> &command)
{
    return run_in_child([&command] {
        const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
        (void)dup2(nowhere, STDIN_FILENO);
        (void)dup2(nowhere, STDOUT_FILENO);
        (void)dup2(nowhere, STDERR_FILENO);
        std::vector<char *> arguments;
        for (const std::string &word : command)
            arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        (void)execvp(arguments[0], arguments.data());
        return 127;
    });
}

void wait_until(const std::function<bool()> &condition, unsigned timeout_ms, const char *what)
{
    const uint64_t deadline = now_ns() + timeout_ms * 1'000'000ULL;
    while (!condition()) {
        if (now_ns() > deadline) {
            std::fprintf(stderr, "bench: gave up waiting for %s\n", what);
            std::exit(1);
        }
        sleep_ms(1);
    }
}

} // namespace bench
