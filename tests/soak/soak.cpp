// soak SECONDS: real processes exchange values while this driver kills, stops, restarts and crowds
// them and drops junk into both directories. After every round each member must hold the last value
// of every other within a second, be alive and at work, and use no more than before.
// soak --kills ROUNDS: four members that write ten times as often; in each round one is killed.
// --other DIRECTORY: every second member loads the library there, another build of it.
#include "soak/checks.h"
#include "soak/disturbances.h"

#include "kp.h"
#include "testing/mounts.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <thread>

namespace fs = std::filesystem;
using namespace soak;
using Clock = std::chrono::steady_clock;

namespace {

// In rounds that do nothing but kill.
constexpr int kFewMembers = 4;
constexpr unsigned kKillsOfAFamily = 200;       // each leaves its counts behind, which wrap at 256
constexpr unsigned kShortConnectionUs = 10'000; // once all topics are known
constexpr std::chrono::milliseconds kPatience{10000};

void do_round(Course &course, unsigned round)
{
    disturb(course, round);
    wait_until_connected(course);
    check_last_values(course);
    check_heartbeats(course);
    for (int number = 0; number < kMembers; ++number)
        check_process(course, number);
}

// One member dies, and the others leave. Who comes next clears what the dead one has left.
void check_end(Course &course)
{
    course.end(0, SIGKILL);
    for (int number = 1; number < course.members; ++number)
        course.end(number, SIGTERM);
    kp_t *handle = kp_new("last", nullptr);
    for (const fs::directory_entry &entry : fs::directory_iterator("/run/providers"))
        if (entry.is_socket() && entry.path().filename() != "last") {
            ++course.sockets_left;
            course.fail("left behind: " + entry.path().string());
        }
    (void)kp_destroy(handle);
}

// Starts one member after the other: an endpoint drops the directory events that it reads together
// with its own, and would never hear of members that start in the same moment.
void start_members(Course &course)
{
    for (int number = 0; number < course.members; ++number) {
        course.family.start(number);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    wait_until_connected(course);
}

unsigned run_rounds(Course &course, std::chrono::seconds time)
{
    const auto finish = Clock::now() + time;
    start_members(course);
    unsigned rounds = 0;
    while (Clock::now() < finish && course.failures == 0)
        do_round(course, rounds++);
    check_end(course);
    return rounds;
}

// The members work with little pause, so that the kills meet every step of theirs.
void kill_without_pause(Course &course, unsigned rounds)
{
    const unsigned first_connection_us = course.board.connection_us;
    start_members(course);
    course.board.connection_us = kShortConnectionUs;
    for (unsigned round = 0; round < rounds && course.failures == 0; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(course.pick(5000)));
        restart_killed(course);
        ++course.faults;
        wait_until_connected(course);
        check_last_values(course);
    }
    course.board.connection_us = first_connection_us;
    check_end(course);
    fs::remove_all("/dev/shm/zu-kp"); // the killed have left their counts there
}

unsigned run_kills(Course &course, unsigned rounds)
{
    course.members = kFewMembers;
    course.patience = kPatience;
    course.board.pause_us = 3'000;
    unsigned done = 0;
    for (; done < rounds && course.failures == 0; done += kKillsOfAFamily)
        kill_without_pause(course, std::min(kKillsOfAFamily, rounds - done));
    return std::min(done, rounds);
}

void print_totals(const Course &course, unsigned rounds)
{
    uint64_t updates = 0;
    uint64_t notices = 0;
    for (const Report &report : course.board.reports) {
        updates += report.updates;
        notices += report.notices;
    }
    std::printf("%u rounds: %lu updates written, %lu notices delivered, %lu faults injected, "
                "%lu values lost, %u sockets left, worst time to the last value %.0f ms\n",
                rounds, updates, notices, course.faults, course.lost, course.sockets_left,
                course.worst_ms);
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
    Board *board = make_board(board_fd);
    if (!board)
        return 1;
    Family family(*board, board_fd, other);
    Course course(*board, family);
    const unsigned rounds =
        kills ? run_kills(course, kills) : run_rounds(course, std::chrono::seconds(seconds));
    print_totals(course, rounds);
    return course.failures == 0 ? 0 : 1;
}
