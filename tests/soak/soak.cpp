// soak SECONDS: real processes exchange values while this driver kills, stops, restarts and crowds
// them and drops junk into both directories. After every round each member must hold the last value
// of every other within a second, be alive and at work, and use no more than before.
#include "soak/member.h"

#include "kp.h"
#include "testing/mounts.h"
#include "testing/process.h"
#include "testing/unix_socket.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace soak;
using Clock = std::chrono::steady_clock;

namespace {

// A junk file keeps every watcher busy for three seconds, and several can come together.
constexpr std::chrono::seconds kReconnection{40};
constexpr std::chrono::milliseconds kLastValue{1000};
constexpr std::chrono::milliseconds kHang{5000};
constexpr std::chrono::milliseconds kEnding{30000};
constexpr long kMoreMemoryKb = 4096;

struct Usage {
    long fds = 0;
    long threads = 0;
    long memory_kb = 0;
};

struct Process {
    pid_t pid = -1;
    Usage first; // once it was connected to all others
    bool measured = false;
};

Board *board;
std::array<Process, kProcesses> processes;
std::mt19937 dice(1);
uint64_t faults;
uint64_t lost;
int failures;
double worst_ms;

void fail(const std::string &what)
{
    std::printf("FAILED: %s\n", what.c_str());
    ++failures;
}

int pick(int below)
{
    return static_cast<int>(dice() % static_cast<unsigned>(below));
}

void start(int number)
{
    Process &process = processes[static_cast<std::size_t>(number)];
    process = {};
    std::fflush(stdout);
    process.pid = fork();
    if (process.pid != 0)
        return;
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit descriptors{256, 256};
    (void)setrlimit(RLIMIT_NOFILE, &descriptors);
    _exit(run_member(number, *board));
}

void end(int number, int signal)
{
    Process &process = processes[static_cast<std::size_t>(number)];
    if (process.pid <= 0)
        return;
    int status = 0;
    (void)kill(process.pid, signal);
    const bool ended = kptest::wait_until(
        [&] { return waitpid(process.pid, &status, WNOHANG) == process.pid; }, kEnding);
    if (!ended)
        fail("member " + std::to_string(number) + " does not end");
    else if (signal == SIGTERM && status != 0)
        fail("member " + std::to_string(number) + " ends with status " + std::to_string(status));
    process.pid = -1;
}

Usage usage_of(pid_t pid)
{
    Usage usage;
    const std::string folder = "/proc/" + std::to_string(pid);
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

uint32_t written_by(int number)
{
    return board->reports[static_cast<std::size_t>(number)].written;
}

uint32_t held_by(int reader, int number)
{
    return board->reports[static_cast<std::size_t>(reader)].held[static_cast<std::size_t>(number)];
}

template <typename Condition> bool holds_for_all_pairs(Condition condition)
{
    for (int reader = 0; reader < kMembers; ++reader)
        for (int writer = 0; writer < kMembers; ++writer)
            if (reader != writer && !condition(reader, writer))
                return false;
    return true;
}

// Waits until every member has received from every other something written from now on.
void wait_until_connected()
{
    std::array<uint32_t, kMembers> now{};
    for (int number = 0; number < kMembers; ++number)
        now[static_cast<std::size_t>(number)] = written_by(number);
    const auto fresh = [&](int reader, int writer) {
        const uint32_t held = held_by(reader, writer);
        return held > now[static_cast<std::size_t>(writer)] && held <= written_by(writer) + 1;
    };
    if (kptest::wait_until([&] { return holds_for_all_pairs(fresh); }, kReconnection))
        return;
    (void)holds_for_all_pairs([&](int reader, int writer) {
        if (!fresh(reader, writer))
            fail("member " + std::to_string(reader) + " hears no more of " +
                 std::to_string(writer));
        return true;
    });
}

// The members pause, and every one must come to hold the last value of every other.
void check_last_values()
{
    board->writing = false;
    const auto begin = Clock::now();
    const auto same = [](int reader, int writer) {
        return held_by(reader, writer) == written_by(writer);
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(40)); // a write may be under way
    const bool all = kptest::wait_until([&] { return holds_for_all_pairs(same); }, kLastValue);
    worst_ms =
        std::max(worst_ms, std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    if (!all)
        (void)holds_for_all_pairs([&](int reader, int writer) {
            if (!same(reader, writer)) {
                ++lost;
                fail("member " + std::to_string(reader) + " lacks the last value of " +
                     std::to_string(writer));
            }
            return true;
        });
    board->writing = true;
}

void check_process(int number)
{
    Process &process = processes[static_cast<std::size_t>(number)];
    const std::string name = "member " + std::to_string(number);
    if (waitpid(process.pid, nullptr, WNOHANG) != 0) {
        fail(name + " died");
        process.pid = -1;
        start(number);
        return;
    }
    const Usage now = usage_of(process.pid);
    if (!process.measured) {
        process.first = now;
        process.measured = true;
        return;
    }
    // Two endpoints that start at the same moment may connect twice; hence the room.
    if (now.fds > process.first.fds + kMembers || now.threads != process.first.threads ||
        now.memory_kb > process.first.memory_kb + kMoreMemoryKb)
        fail(name + " grows: descriptors " + std::to_string(process.first.fds) + " to " +
             std::to_string(now.fds) + ", threads " + std::to_string(process.first.threads) +
             " to " + std::to_string(now.threads) + ", kB " +
             std::to_string(process.first.memory_kb) + " to " + std::to_string(now.memory_kb));
}

void check_heartbeats()
{
    std::array<uint32_t, kMembers> before{};
    for (std::size_t number = 0; number < kMembers; ++number)
        before[number] = board->reports[number].heartbeat;
    for (std::size_t number = 0; number < kMembers; ++number)
        if (!kptest::wait_until([&] { return board->reports[number].heartbeat != before[number]; },
                                kHang))
            fail("member " + std::to_string(number) + " hangs");
}

void restart_killed()
{
    const int number = pick(kMembers);
    end(number, SIGKILL);
    start(number);
}

void restart_cleanly()
{
    const int number = pick(kMembers);
    end(number, SIGTERM);
    start(number);
}

void stop_and_continue()
{
    const pid_t pid = processes[static_cast<std::size_t>(pick(kMembers))].pid;
    (void)kill(pid, SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    (void)kill(pid, SIGCONT);
}

void exhaust_descriptors()
{
    board->reports[static_cast<std::size_t>(pick(kMembers))].fill_descriptors = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

void drop_junk_sockets()
{
    std::ofstream("/run/providers/junk-file") << "junk";
    kptest::UnixSocket::leave_dead_file("/run/providers/junk-socket");
}

void drop_junk_segments()
{
    // As new files: who shortens one that others have mapped kills them with SIGBUS.
    const fs::path folder = "/dev/shm/zu-kp/junk";
    fs::remove_all(folder);
    fs::create_directories(folder / "folder");
    std::ofstream(folder / "empty");
    std::ofstream(folder / "short") << "short";
    std::ofstream(folder / "corrupt") << std::string(4080, '\xff');
    fs::create_symlink("/etc/hostname", folder / "link");
    restart_cleanly(); // one more scan meets it
}

void crowd()
{
    for (int number = kMembers; number < kProcesses; ++number)
        start(number);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (int number = kMembers; number < kProcesses; ++number)
        end(number, pick(4) == 0 ? SIGKILL : SIGTERM);
}

void do_round(unsigned round)
{
    constexpr std::array kFaults{restart_killed,
                                 stop_and_continue,
                                 restart_cleanly,
                                 exhaust_descriptors,
                                 drop_junk_sockets,
                                 drop_junk_segments,
                                 crowd};
    kFaults[round % kFaults.size()]();
    ++faults;
    wait_until_connected();
    check_last_values();
    check_heartbeats();
    for (int number = 0; number < kMembers; ++number)
        check_process(number);
}

// One member dies, the others leave; who comes next clears what the dead one has left.
void check_end()
{
    end(0, SIGKILL);
    for (int number = 1; number < kMembers; ++number)
        end(number, SIGTERM);
    kp_t *handle = kp_new("last", nullptr);
    for (const fs::directory_entry &entry : fs::directory_iterator("/run/providers"))
        if (entry.is_socket() && entry.path().filename() != "last")
            fail("left behind: " + entry.path().string());
    (void)kp_destroy(handle);
}

} // namespace

int main(int argc, char **argv)
{
    const auto seconds = std::chrono::seconds(argc > 1 ? std::atoi(argv[1]) : 600);
    kptest::enter_private_mounts();
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    void *memory =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return 1;
    board = new (memory) Board{};
    board->writing = true;
    const auto finish = Clock::now() + seconds;
    // One after the other: an endpoint drops the directory events that it reads together with its own
    // and would never hear of members that start within the same moment.
    for (int number = 0; number < kMembers; ++number) {
        start(number);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    wait_until_connected();
    unsigned rounds = 0;
    while (Clock::now() < finish && failures == 0)
        do_round(rounds++);
    check_end();
    uint64_t updates = 0;
    uint64_t notices = 0;
    for (const Report &report : board->reports) {
        updates += report.updates;
        notices += report.notices;
    }
    std::printf("%u rounds: %lu updates written, %lu notices delivered, %lu faults injected, "
                "%lu values lost, worst time to the last value %.0f ms\n",
                rounds, updates, notices, faults, lost, worst_ms);
    return failures == 0 ? 0 : 1;
}
