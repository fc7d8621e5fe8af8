#include "sandbox/supervisor.h"

#include "common/clock.h"
#include "common/system/held_signals.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "running/outcome.h"
#include "running/standard_stream.h"
#include "running/stop.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr uint64_t kGraceUs = 2 * kUsPerSecond;
constexpr long kPauseNs = 20'000'000; // between two looks at what is left

// Those of job control stop it together with the command.
sigset_t handed_on()
{
    sigset_t set = all_but_crashes();
    for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU})
        (void)sigdelset(&set, number);
    return set;
}

[[noreturn]] void become(std::vector<std::string> &words, pid_t parent, const sigset_t &mask)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) // which ended before it could be heard of
        _exit(kNotRunnable);
    (void)std::signal(SIGPIPE, SIG_DFL);
    (void)std::signal(SIGXFSZ, SIG_DFL);
    (void)sigprocmask(SIG_SETMASK, &mask, nullptr);
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    (void)execvp(arguments[0], arguments.data());
    const int error = errno;
    complain(escaped(words[0]) + ": " + std::strerror(error));
    _exit(error == ENOENT ? kNotFound : kNotRunnable);
}

// Takes the children that have ended; true when `command` was one of them.
bool reap(pid_t command, int &status)
{
    bool ended = false;
    int other = 0;
    while (const pid_t pid = waitpid(-1, &other, WNOHANG)) {
        if (pid < 0)
            break;
        if (pid == command) {
            status = other;
            ended = true;
        }
    }
    return ended;
}

// Ends with the child, or with `parent` (0: nobody), whose death comes as a signal.
int wait_for(pid_t child, const sigset_t &signals, pid_t parent)
{
    int status = 0;
    while (!reap(child, status)) {
        if (parent != 0 && getppid() != parent)
            return W_EXITCODE(0, SIGKILL);
        siginfo_t info{};
        const int number = sigwaitinfo(&signals, &info);
        if (number > 0 && number != SIGCHLD && info.si_code <= SI_USER)
            (void)kill(child, number);
    }
    return status;
}

bool has_children()
{
    int ignored = 0;
    (void)reap(0, ignored);
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// The kernel's own list takes microseconds where a look at all processes takes milliseconds, in
// which a process that forks and ends at once is long another one. Not every kernel has it.
std::vector<pid_t> own_children()
{
    const std::string self = std::to_string(getpid());
    std::ifstream list("/proc/" + self + "/task/" + self + "/children");
    if (!list)
        return children_of(getpid());
    return {std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
}

// Orphans become children of this process one after another, so each look may find new ones.
void end_the_rest()
{
    const uint64_t start = monotonic_us();
    StandardStream::set_deadline(start + 2 * kGraceUs);
    std::set<pid_t> asked;
    std::set<pid_t> killed;
    while (has_children() && monotonic_us() < start + 2 * kGraceUs) {
        const bool kills = monotonic_us() >= start + kGraceUs;
        bool has_new = false;
        for (const pid_t pid : own_children()) {
            const bool is_new = (kills ? killed : asked).insert(pid).second;
            if (is_new || kills)
                (void)kill(pid, kills ? SIGKILL : SIGTERM);
            if (is_new && kills) // dead, but not reaped: it still has its name
                complain("killed what the command left behind: " + process_text(process_of(pid)));
            has_new = has_new || is_new;
        }
        if (kills && has_new)
            continue; // one that forks and ends again and again is caught without a pause only
        const timespec pause{0, kPauseNs};
        (void)nanosleep(&pause, nullptr);
    }
    if (has_children())
        complain("a process that the command left behind cannot be killed");
}

// The process between this program and the command. Orphans come to it, and after it to its parent,
// so that whichever of the two is killed, the other one ends what runs.
[[noreturn]] void keep(std::vector<std::string> &words, pid_t parent, const sigset_t &signals,
                       const sigset_t &mask)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t self = getpid();
    const pid_t command = fork();
    if (command == 0)
        become(words, self, mask);
    if (command < 0) {
        complain(std::string("fork: ") + std::strerror(errno));
        _exit(kNoSandbox);
    }
    const int status = wait_for(command, signals, parent);
    end_the_rest();
    end_like(status);
}

} // namespace

int run_to_the_end(std::vector<std::string> words)
{
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    (void)std::signal(SIGCHLD, SIG_DFL); // ignored, the command's end would not show
    const sigset_t signals = handed_on();
    sigset_t before;
    (void)sigprocmask(SIG_BLOCK, &signals, &before);
    const pid_t parent = getpid();
    const pid_t keeper = fork();
    if (keeper < 0) {
        complain(std::string("fork: ") + std::strerror(errno));
        return W_EXITCODE(kNoSandbox, 0);
    }
    if (keeper == 0)
        keep(words, parent, signals, before);
    const int status = wait_for(keeper, signals, 0);
    end_the_rest();
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    return status;
}

void end_like(int status)
{
    if (!WIFSIGNALED(status))
        std::exit(WEXITSTATUS(status));
    const int number = WTERMSIG(status);
    const rlimit no_core{0, 0}; // the command has left its own
    (void)setrlimit(RLIMIT_CORE, &no_core);
    die_of(number);
    std::exit(kSignalBase + number);
}

} // namespace kp::tool
