#include "soak/disturbances.h"

#include "testing/unix_socket.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

namespace soak {

namespace fs = std::filesystem;

namespace {

void restart_cleanly(Course &course)
{
    const int number = course.pick(course.members);
    course.end(number, SIGTERM);
    course.family.start(number);
}

void stop_and_continue(Course &course)
{
    const int number = course.pick(course.members);
    course.family.signal(number, SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    course.family.signal(number, SIGCONT);
}

void exhaust_descriptors(Course &course)
{
    course.board.reports[static_cast<std::size_t>(course.pick(course.members))].fill_descriptors =
        true;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

void drop_junk_sockets(Course & /*course*/)
{
    std::ofstream("/run/providers/junk-file") << "junk";
    kptest::UnixSocket::leave_dead_file("/run/providers/junk-socket");
}

void drop_junk_segments(Course &course)
{
    // These are new files, since who shortens one that others have mapped kills them with SIGBUS.
    const fs::path folder = "/dev/shm/zu-kp/junk";
    fs::remove_all(folder);
    fs::create_directories(folder / "folder");
    std::ofstream(folder / "empty");
    std::ofstream(folder / "short") << "short";
    std::ofstream(folder / "corrupt") << std::string(4080, '\xff');
    fs::create_symlink("/etc/hostname", folder / "link");
    restart_cleanly(course); // one more scan meets it
}

void crowd(Course &course)
{
    for (int number = kMembers; number < kProcesses; ++number)
        course.family.start(number);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (int number = kMembers; number < kProcesses; ++number)
        course.end(number, course.pick(4) == 0 ? SIGKILL : SIGTERM);
}

} // namespace

void restart_killed(Course &course)
{
    const int number = course.pick(course.members);
    course.end(number, SIGKILL);
    course.family.start(number);
}

void disturb(Course &course, unsigned round)
{
    constexpr std::array kWays{restart_killed,
                               stop_and_continue,
                               restart_cleanly,
                               exhaust_descriptors,
                               drop_junk_sockets,
                               drop_junk_segments,
                               crowd};
    kWays[round % kWays.size()](course);
    ++course.faults;
}

} // namespace soak
