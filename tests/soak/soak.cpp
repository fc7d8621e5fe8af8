// soak SECONDS: real processes exchange values while this driver kills, stops, restarts and crowds
// them and drops junk into both directories. After every round each member must hold the last value
// of every other within a second, be alive and at work, and use no more than before.
// soak --kills ROUNDS: four members that write ten times as often; in each round one is killed.
// --other DIRECTORY: every second member loads the library there, another build of it.
#include "soak/family.h"
#include "soak/member.h"

#include "kp.h"
#include "testing/mounts.h"
#include "testing/process.h"
#include "testing/unix_socket.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;
using namespace soak;
using Clock = std::chrono::steady_clock;

namespace {

// A junk file keeps every watcher busy for three seconds, and several can come together.
constexpr std::chrono::seconds kReconnection{40};
constexpr std::chrono::milliseconds kLastValue{1000};
constexpr std::chrono::milliseconds kHang{5000};
constexpr long kMoreMemoryKb = 4096;

// In rounds that do nothing but kill.
constexpr int kFewMembers = 4;
constexpr unsigned kKillsOfAFamily = 200;       // each leaves its counts behind, which wrap at 256
constexpr unsigned kShortConnectionUs = 10'000; // once all topics are known
constexpr std::chrono::milliseconds kPatience{10000};

Board *board;
int members = kMembers; // that take part, of those that there is room for
std::chrono::milliseconds patience = kLastValue;
Family *family;
std::mt19937 dice(1);
uint64_t faults;
uint64_t lost;
unsigned sockets_left;
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
    for (int reader = 0; reader < members; ++reader)
        for (int writer = 0; writer < members; ++writer)
            if (reader != writer && !condition(reader, writer))
                return false;
    return true;
}

// Waits until every member has received from every other something written from now on.
void wait_until_connected()
{
    std::array<uint32_t, kMembers> now{};
    for (int number = 0; number < members; ++number)
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
    // A write may be under way.
    std::this_thread::sleep_for(std::chrono::microseconds(board->pause_us + 10'000));
    const bool all = kptest::wait_until([&] { return holds_for_all_pairs(same); }, patience);
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
    const std::string name = "member " + std::to_string(number);
    if (!family->is_alive(number)) {
        fail(name + " died");
        family->start(number);
        return;
    }
    const Usage now = family->usage(number);
    const Usage first = family->first_usage(number);
    // Two endpoints that start at the same moment may connect twice; hence the room.
    if (now.fds > first.fds + kMembers || now.threads != first.threads ||
        now.memory_kb > first.memory_kb + kMoreMemoryKb)
        fail(name + " grows: " + first.text() + " to " + now.text());
}

void end(int number, int signal)
{
    const std::string problem = family->end(number, signal);
    if (!problem.empty())
        fail("member " + std::to_string(number) + problem);
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
    const int number = pick(members);
    end(number, SIGKILL);
    family->start(number);
}

void restart_cleanly()
{
    const int number = pick(members);
    end(number, SIGTERM);
    family->start(number);
}

void stop_and_continue()
{
    const int number = pick(members);
    family->signal(number, SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    family->signal(number, SIGCONT);
}

void exhaust_descriptors()
{
    board->reports[static_cast<std::size_t>(pick(members))].fill_descriptors = true;
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
        family->start(number);
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
    for (int number = 1; number < members; ++number)
        end(number, SIGTERM);
    kp_t *handle = kp_new("last", nullptr);
    for (const fs::directory_entry &entry : fs::directory_iterator("/run/providers"))
        if (entry.is_socket() && entry.path().filename() != "last") {
            ++sockets_left;
            fail("left behind: " + entry.path().string());
        }
    (void)kp_destroy(handle);
}

// One after the other: an endpoint drops the directory events that it reads together with its own
// and would never hear of members that start within the same moment.
void start_members()
{
    for (int number = 0; number < members; ++number) {
        family->start(number);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    wait_until_connected();
}

unsigned run_rounds(std::chrono::seconds time)
{
    const auto finish = Clock::now() + time;
    start_members();
    unsigned rounds = 0;
    while (Clock::now() < finish && failures == 0)
        do_round(rounds++);
    check_end();
    return rounds;
}

// The members work with little pause, so that the kills meet every step of theirs.
void kill_without_pause(unsigned rounds)
{
    const unsigned first_connection_us = board->connection_us;
    start_members();
    board->connection_us = kShortConnectionUs;
    for (unsigned round = 0; round < rounds && failures == 0; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(pick(5000)));
        restart_killed();
        ++faults;
        wait_until_connected();
        check_last_values();
    }
    board->connection_us = first_connection_us;
    check_end();
    fs::remove_all("/dev/shm/zu-kp"); // with the counts of the killed
}

unsigned run_kills(unsigned rounds)
{
    members = kFewMembers;
    patience = kPatience;
    board->pause_us = 3'000;
    unsigned done = 0;
    for (; done < rounds && failures == 0; done += kKillsOfAFamily)
        kill_without_pause(std::min(kKillsOfAFamily, rounds - done));
    return std::min(done, rounds);
}

void print_totals(unsigned rounds)
{
    uint64_t updates = 0;
    uint64_t notices = 0;
    for (const Report &report : board->reports) {
        updates += report.updates;
        notices += report.notices;
    }
    std::printf("%u rounds: %lu updates written, %lu notices delivered, %lu faults injected, "
                "%lu values lost, %u sockets left, worst time to the last value %.0f ms\n",
                rounds, updates, notices, faults, lost, sockets_left, worst_ms);
}

} // namespace

int main(int argc, char **argv)
{
    unsigned seconds = 600;
    unsigned kills = 0;
    int member = -1;
    int board_fd = -1;
    std::string other;
    CLI::App app("Processes that exchange values while they are disturbed.");
    app.add_option("seconds", seconds, "of rounds of all kinds");
    app.add_option("--kills", kills, "rounds of nothing but kills instead");
    app.add_option("--other", other, "directory of a library for every second member")
        ->check(CLI::ExistingDirectory);
    app.add_option("--member", member)->group(""); // how the driver executes this program again
    app.add_option("--board", board_fd)->group("");
    CLI11_PARSE(app, argc, argv);
    if (member >= 0)
        return run_executed_member(member, board_fd, other);

    kptest::enter_private_mounts();
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    board = make_board(board_fd);
    if (!board)
        return 1;
    Family all(*board, board_fd, other);
    family = &all;
    print_totals(kills ? run_kills(kills) : run_rounds(std::chrono::seconds(seconds)));
    return failures == 0 ? 0 : 1;
}
