#include "testing/process.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace kptest {

namespace fs = std::filesystem;

bool wait_until(const std::function<bool()> &condition, std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::map<int, std::string> open_descriptors()
{
    std::map<int, std::string> descriptors;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        descriptors[std::stoi(entry.path().filename())] = fs::read_symlink(entry, gone);
    }
    // The walk saw its own descriptor, which is closed by now.
    std::erase_if(descriptors, [](const auto &item) {
        return !fs::is_symlink(fs::symlink_status("/proc/self/fd/" + std::to_string(item.first)));
    });
    return descriptors;
}

namespace {

// The first words behind the name in the `stat` file of a task: its state, and others.
std::istringstream stat_of(const fs::path &task)
{
    std::ifstream file(task / "stat");
    std::string stat;
    std::getline(file, stat);
    return std::istringstream(stat.substr(std::min(stat.size(), stat.rfind(')') + 1)));
}

// One that was joined stands among the tasks for a moment more, on its way out.
bool is_exiting(const fs::path &task)
{
    constexpr unsigned kExiting = 0x4; // of the kernel's flags, the seventh word after the name
    std::istringstream words = stat_of(task);
    std::string word;
    for (int count = 0; count < 6; ++count)
        words >> word;
    unsigned flags = kExiting;
    words >> flags;
    return flags & kExiting;
}

// Under the emulator it can be joined before it is on its way out.
void wait_for_joined_threads()
{
#ifdef KP_TEST_EMULATOR
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
#endif
}

} // namespace

int thread_count()
{
    wait_for_joined_threads();
    const fs::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::count_if(
        begin(tasks), end(tasks), [](const auto &task) { return !is_exiting(task.path()); }));
}

bool is_at_rest(pid_t pid)
{
    const fs::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
    return std::all_of(begin(tasks), end(tasks), [](const auto &task) {
        char state = 'R';
        stat_of(task.path()) >> state;
        return state == 'S';
    });
}

int mapping_count(const std::string &directory)
{
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find(' ' + directory) != std::string::npos;
    return count;
}

} // namespace kptest
