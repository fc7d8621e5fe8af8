// Measures how long it takes endpoints that start at one moment until each is connected to each.
#include "support/clock.h"
#include "support/collect.h"
#include "support/futex.h"
#include "support/process.h"
#include "support/shared_memory.h"
#include "support/summary.h"

#include "kp.h"

#include <array>
#include <atomic>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace bench {

namespace {

constexpr std::array<unsigned, 6> kCounts{1, 2, 4, 8, 16, 31};
constexpr unsigned kRepeats = 3;
constexpr uint64_t kPatienceNs = 3'000'000'000;

struct Board {
    std::atomic<uint32_t> waiting{0};
    std::atomic<uint32_t> start{0};
    std::atomic<uint32_t> end{0};
    std::atomic<uint32_t> opened{0};
};

int run_endpoint(Board &board, unsigned index)
{
    board.waiting.fetch_add(1);
    while (board.start.load() == 0)
        futex_wait(board.start, 0, 1000);
    kp_t *handle = kp_new(("endpoint-" + std::to_string(index)).c_str(), nullptr);
    if (!handle)
        return 1;
    board.opened.fetch_add(1);
    while (board.end.load() == 0)
        futex_wait(board.end, 0, 1000);
    return kp_destroy(handle) == 0 ? 0 : 1;
}

// Gives the accepted connections on sockets in /run/providers: the kernel lists them with the path
// of the listening socket and the state 3.
unsigned accepted_connections()
{
    std::ifstream file("/proc/net/unix");
    unsigned count = 0;
    for (std::string line; std::getline(file, line);)
        if (line.find(" 0001 03 ") != std::string::npos &&
            line.find(" /run/providers/") != std::string::npos)
            ++count;
    return count;
}

// Gives nothing when they are never all connected: two that find each other twice take two of the
// 31 places for peers, so that others find none.
std::optional<double> time_until_connected_ms(unsigned endpoints)
{
    const auto board = make_shared_memory<Board>();
    std::vector<Child> children;
    for (unsigned index = 0; index < endpoints; ++index)
        children.push_back(run_in_child([&board, index] { return run_endpoint(*board, index); }));
    wait_until([&] { return board->waiting.load() == endpoints; }, 10'000, "the processes");
    const uint64_t start = now_ns();
    board->start.store(1);
    futex_wake_all(board->start);
    const auto connected = [&] {
        return board->opened.load() == endpoints &&
               accepted_connections() >= endpoints * (endpoints - 1);
    };
    while (!connected() && now_ns() - start < kPatienceNs)
        sleep_ms(1);
    std::optional<double> ms;
    if (connected())
        ms = static_cast<double>(now_ns() - start) / 1e6;
    board->end.store(1);
    futex_wake_all(board->end);
    for (Child &child : children)
        (void)child.wait();
    return ms;
}

} // namespace

} // namespace bench

int main()
{
    kp_xlog_set_user_level(KP_LEVEL_OFF); // a refused connection shows in the figures
    nlohmann::json rows = nlohmann::json::array();
    for (const unsigned endpoints : bench::kCounts) {
        std::vector<double> ms;
        for (unsigned i = 0; i < bench::kRepeats; ++i)
            if (const auto time = bench::time_until_connected_ms(endpoints))
                ms.push_back(*time);
        rows.push_back({{"endpoints", endpoints},
                        {"runs", bench::kRepeats},
                        {"runs_connected", ms.size()},
                        {"connected_ms", bench::rounded(bench::median(ms))}});
    }
    std::cout << rows.dump(1) << "\n";
}
