// What a receiving process costs: the time to open and close it, alone and beside 30 others, and
// its private memory and threads.
#include "notices/measure.h"

#include "support/clock.h"
#include "support/futex.h"
#include "support/shared_memory.h"

#include <atomic>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>

namespace bench {

namespace {

constexpr unsigned kOpenings = 5;
constexpr unsigned kOthers = 30;

struct Opening {
    double open_ms;
    double close_ms;
    double private_kb; // more than before the opening
    double stack_kb;
    double threads;
};

struct Report {
    std::array<Opening, kOthers + 1> openings{};
    std::atomic<uint32_t> ready{0};
    std::atomic<uint32_t> end{0};
};

// Gives the sum of a figure over the lines of a file of /proc that begin with one of these words.
double sum_of(const char *path, std::initializer_list<const char *> keys)
{
    std::ifstream file(path);
    double sum = 0;
    for (std::string line; std::getline(file, line);)
        for (const char *key : keys)
            if (line.starts_with(key))
                sum += std::stod(line.substr(std::strlen(key)));
    return sum;
}

double private_kb()
{
    return sum_of("/proc/self/smaps_rollup", {"Private_Clean:", "Private_Dirty:"});
}

double thread_count()
{
    return sum_of("/proc/self/status", {"Threads:"});
}

// Gives the address space of the threads' stacks: private writable mappings of several MB without a
// name.
double stack_kb()
{
    std::ifstream file("/proc/self/maps");
    double sum = 0;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string range;
        std::string mode;
        std::string offset;
        std::string device;
        std::string inode;
        std::string name;
        words >> range >> mode >> offset >> device >> inode >> name;
        const std::size_t dash = range.find('-');
        const auto bytes = std::stoull(range.substr(dash + 1), nullptr, 16) -
                           std::stoull(range.substr(0, dash), nullptr, 16);
        if (mode == "rw-p" && name.empty() && bytes >= (1U << 20) && bytes <= (8U << 20))
            sum += static_cast<double>(bytes) / 1024;
    }
    return sum;
}

// The contestants start threads of their own, which reach their state shortly after the opening.
void settle()
{
    sleep_ms(30);
}

int open_once(Channel &channel, unsigned index, Report &report)
{
    Opening &opening = report.openings[index];
    const double private_kb_before = private_kb();
    const uint64_t start = now_ns();
    auto receiver = channel.open_receiver(index, [](const Message &) {});
    opening.open_ms = static_cast<double>(now_ns() - start) / 1e6;
    settle();
    opening.private_kb = private_kb() - private_kb_before;
    opening.stack_kb = stack_kb();
    opening.threads = thread_count();
    report.ready.fetch_add(1);
    while (report.end.load() == 0)
        futex_wait(report.end, 0, 100);
    const uint64_t close_start = now_ns();
    receiver.reset();
    opening.close_ms = static_cast<double>(now_ns() - close_start) / 1e6;
    return 0;
}

// Opens so many processes one after another; gives the figures of the last.
Opening open_beside(const NoticeContestant &contestant, unsigned others,
                    std::vector<double> *open_ms = nullptr)
{
    const auto report = make_shared_memory<Report>();
    const auto channel = contestant.make();
    channel->prepare(others + 1);
    std::vector<Child> children;
    for (unsigned index = 0; index <= others; ++index) {
        children.push_back(
            run_in_child([&, index] { return open_once(*channel, index, *report); }));
        wait_until([&] { return report->ready.load() == index + 1; }, 20'000, "an opening");
    }
    report->end.store(1);
    futex_wake_all(report->end);
    for (Child &child : children)
        require(child.wait(), contestant.name);
    if (open_ms)
        for (unsigned index = 0; index <= others; ++index)
            open_ms->push_back(rounded(report->openings[index].open_ms));
    return report->openings[others];
}

double median_of(const std::vector<Opening> &openings, double Opening::*figure)
{
    std::vector<double> figures;
    for (const Opening &opening : openings)
        figures.push_back(opening.*figure);
    return rounded(median(figures));
}

} // namespace

void measure_footprint(const NoticeContestant &contestant, nlohmann::json &rows)
{
    std::optional<Child> broker;
    if (contestant.start_broker)
        broker.emplace(contestant.start_broker());
    std::vector<Opening> alone;
    for (unsigned i = 0; i < kOpenings; ++i)
        alone.push_back(open_beside(contestant, 0));
    std::vector<double> each_open_ms;
    const Opening crowded = open_beside(contestant, kOthers, &each_open_ms);
    rows.push_back({{"contestant", contestant.name},
                    {"open_ms", median_of(alone, &Opening::open_ms)},
                    {"close_ms", median_of(alone, &Opening::close_ms)},
                    {"open_beside_30_ms", rounded(crowded.open_ms)},
                    {"close_beside_30_ms", rounded(crowded.close_ms)},
                    {"each_open_ms", each_open_ms},
                    {"private_kb", median_of(alone, &Opening::private_kb)},
                    {"private_beside_30_kb", rounded(crowded.private_kb)},
                    {"threads", median_of(alone, &Opening::threads)},
                    {"stack_address_space_kb", median_of(alone, &Opening::stack_kb)}});
}

} // namespace bench
