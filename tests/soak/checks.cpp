#include "soak/checks.h"

#include "testing/process.h"

#include <algorithm>
#include <array>
#include <thread>

namespace soak {

namespace {

using Clock = std::chrono::steady_clock;

// A junk file keeps every watcher busy for three seconds, and several can come together.
constexpr std::chrono::seconds kReconnection{40};
constexpr std::chrono::milliseconds kHang{5000};
constexpr long kMoreMemoryKb = 4096;

uint32_t written_by(const Course &course, int number)
{
    return course.board.reports[static_cast<std::size_t>(number)].written;
}

uint32_t held_by(const Course &course, int reader, int number)
{
    return course.board.reports[static_cast<std::size_t>(reader)]
        .held[static_cast<std::size_t>(number)];
}

template <typename Condition> bool holds_for_all_pairs(const Course &course, Condition condition)
{
    for (int reader = 0; reader < course.members; ++reader)
        for (int writer = 0; writer < course.members; ++writer)
            if (reader != writer && !condition(reader, writer))
                return false;
    return true;
}

} // namespace

void wait_until_connected(Course &course)
{
    std::array<uint32_t, kMembers> now{};
    for (int number = 0; number < course.members; ++number)
        now[static_cast<std::size_t>(number)] = written_by(course, number);
    const auto fresh = [&](int reader, int writer) {
        const uint32_t held = held_by(course, reader, writer);
        return held > now[static_cast<std::size_t>(writer)] &&
               held <= written_by(course, writer) + 1;
    };
    if (kptest::wait_until([&] { return holds_for_all_pairs(course, fresh); }, kReconnection))
        return;
    (void)holds_for_all_pairs(course, [&](int reader, int writer) {
        if (!fresh(reader, writer))
            course.fail("member " + std::to_string(reader) + " hears no more of " +
                        std::to_string(writer));
        return true;
    });
}

void check_last_values(Course &course)
{
    course.board.writing = false;
    const auto begin = Clock::now();
    const auto same = [&](int reader, int writer) {
        return held_by(course, reader, writer) == written_by(course, writer);
    };
    // A write may be under way.
    std::this_thread::sleep_for(std::chrono::microseconds(course.board.pause_us + 10'000));
    const bool all =
        kptest::wait_until([&] { return holds_for_all_pairs(course, same); }, course.patience);
    course.worst_ms = std::max(
        course.worst_ms, std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    if (!all)
        (void)holds_for_all_pairs(course, [&](int reader, int writer) {
            if (!same(reader, writer)) {
                ++course.lost;
                course.fail("member " + std::to_string(reader) + " lacks the last value of " +
                            std::to_string(writer));
            }
            return true;
        });
    course.board.writing = true;
}

void check_process(Course &course, int number)
{
    const std::string name = "member " + std::to_string(number);
    if (!course.family.is_alive(number)) {
        course.fail(name + " died");
        course.family.start(number);
        return;
    }
    const Usage now = course.family.usage(number);
    const Usage first = course.family.first_usage(number);
    // Two endpoints that start at the same moment may connect twice, so there is room for that.
    if (now.fds > first.fds + kMembers || now.threads != first.threads ||
        now.memory_kb > first.memory_kb + kMoreMemoryKb)
        course.fail(name + " grows: " + first.text() + " to " + now.text());
}

void check_heartbeats(Course &course)
{
    std::array<uint32_t, kMembers> before{};
    for (std::size_t number = 0; number < kMembers; ++number)
        before[number] = course.board.reports[number].heartbeat;
    for (std::size_t number = 0; number < kMembers; ++number)
        if (!kptest::wait_until(
                [&] { return course.board.reports[number].heartbeat != before[number]; }, kHang))
            course.fail("member " + std::to_string(number) + " hangs");
}

} // namespace soak
