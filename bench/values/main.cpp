// Times writes and reads of one value between two processes, in turn with the limit, and prints one
// JSON row for each contestant, placement, size and operation.
#include "support/clock.h"
#include "support/futex.h"
#include "support/shared_memory.h"
#include "support/summary.h"
#include "values/store.h"

#include <alloca.h>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>

namespace bench {

void require(bool condition, const char *what)
{
    if (condition)
        return;
    std::fprintf(stderr, "bench: failed: %s\n", what);
    std::exit(1);
}

namespace {

constexpr std::array<uint32_t, 4> kSizes{4, 64, 1000, 4000};
constexpr unsigned kPairs = 1500;
constexpr unsigned kFreshPairs = 400;
constexpr uint64_t kMostNs = 150'000'000; // of one comparison, for contestants that take long
constexpr uint64_t kBatchNs =
    10'000; // long beside the clock's own cost, short beside a disturbance

struct Series {
    std::array<double, kPairs> limit;
    std::array<double, kPairs> own;
    unsigned count;
};

// What the two processes share. The turn goes to and fro, so only one of them works at a time.
struct Board {
    std::atomic<uint32_t> turn{0};
    std::atomic<bool> fresh_passes_end{false};
    Series write{};
    Series fresh_write{};
};

class Turns {
  public:
    Turns(Board &board, bool may_spin) : board_(board), may_spin_(may_spin)
    {
    }
    void pass()
    {
        board_.turn.store(++expected_, std::memory_order_release);
        futex_wake_all(board_.turn);
        ++expected_;
    }
    void await()
    {
        const uint64_t spin_end = now_ns() + (may_spin_ ? 200'000 : 0);
        const uint64_t deadline = now_ns() + 20'000'000'000;
        while (true) {
            const uint32_t turn = board_.turn.load(std::memory_order_acquire);
            if (turn == expected_)
                return;
            const uint64_t now = now_ns();
            require(now < deadline, "the other process answers");
            if (now > spin_end)
                futex_wait(board_.turn, turn, 1000);
        }
    }
    void start_second()
    {
        expected_ = 1;
    }

  private:
    Board &board_;
    bool may_spin_;
    uint32_t expected_ = 0;
};

template <typename Operation> double time_ns(Operation operation)
{
    const uint64_t start = now_ns();
    operation();
    return static_cast<double>(now_ns() - start);
}

// Runs a measurement with the stack so many bytes deeper. Where the stack stands decides whether
// what a function puts there agrees in the last twelve bits of its address with the bytes it
// copies, which processors take for a dependency. Each process would draw one position; this way
// all count.
template <typename Body> [[gnu::noinline]] void at_stack_depth(std::size_t bytes, Body body)
{
    auto *room = static_cast<volatile char *>(alloca(bytes + 1));
    room[0] = 0;
    body();
}

std::size_t stack_depth(unsigned round)
{
    constexpr std::size_t kStep = 272; // visits every 16th byte of a page
    return round * kStep % 4096;
}

// Gives the number of operations that fill a batch, found while warming up.
template <typename Operation> unsigned batch_of(Operation many)
{
    unsigned count = 1;
    while (count < 10'000 && time_ns([&] { many(count); }) < kBatchNs)
        count *= 2;
    for (int i = 0; i < 20; ++i)
        many(count);
    return count;
}

template <typename Limit, typename Own> void compare(Series &series, Limit limit, Own own)
{
    const unsigned limit_batch = batch_of(limit);
    const unsigned own_batch = batch_of(own);
    const uint64_t end = now_ns() + kMostNs;
    for (unsigned i = 0; i < kPairs && now_ns() < end; ++i) {
        at_stack_depth(stack_depth(i), [&] {
            series.limit[i] = time_ns([&] { limit(limit_batch); }) / limit_batch;
            series.own[i] = time_ns([&] { own(own_batch); }) / own_batch;
        });
        series.count = i + 1;
    }
}

// One pass over all topics; the order of the two changes from pass to pass.
template <typename Limit, typename Own>
void compare_each(Series &series, unsigned pass, Limit limit, Own own)
{
    at_stack_depth(stack_depth(pass), [&] {
        if (pass % 2 == 0)
            series.limit[pass] = time_ns(limit) / kTopics;
        series.own[pass] = time_ns(own) / kTopics;
        if (pass % 2 != 0)
            series.limit[pass] = time_ns(limit) / kTopics;
    });
    series.count = pass + 1;
}

std::array<std::byte, kLargestValue> pattern(unsigned number)
{
    std::array<std::byte, kLargestValue> value{};
    for (unsigned i = 0; i < value.size(); ++i)
        value[i] = static_cast<std::byte>(i * 7 + number + 1);
    return value;
}

struct Match {
    const ValueContestant &contestant;
    Placement placement;
    uint32_t size;
};

int run_writer(const Match &match, Board &board)
{
    take_place(match.placement, Side::sender);
    Turns turns(board, match.placement == Placement::two_cpus);
    const auto limit = match.contestant.open_limit(Side::sender, match.size);
    const auto own = match.contestant.open(Side::sender, match.size);
    const auto value = pattern(0);
    limit->write_each(value.data());
    own->write_each(value.data());
    turns.pass();

    turns.await();
    compare(
        board.write, [&](unsigned n) { limit->write_many(n, value.data()); },
        [&](unsigned n) { own->write_many(n, value.data()); });
    const uint64_t end = now_ns() + 2 * kMostNs;
    for (unsigned pass = 0; pass < kFreshPairs && now_ns() < end; ++pass) {
        const auto fresh = pattern(pass);
        compare_each(
            board.fresh_write, pass, [&] { limit->write_each(fresh.data()); },
            [&] { own->write_each(fresh.data()); });
        turns.pass();
        turns.await();
    }
    board.fresh_passes_end.store(true);
    turns.pass();
    return 0;
}

void require_value(Store &store, const std::byte *value, uint32_t size)
{
    std::array<std::byte, kLargestValue> buffer{};
    store.read_many(1, buffer.data());
    require(std::memcmp(buffer.data(), value, size) == 0, "the value read is the value written");
}

struct ReaderResult {
    Series read{};
    Series fresh_read{};
};

void run_reader(const Match &match, Board &board, ReaderResult &result)
{
    take_place(match.placement, Side::receiver);
    Turns turns(board, match.placement == Placement::two_cpus);
    turns.start_second();
    turns.await();
    const auto limit = match.contestant.open_limit(Side::receiver, match.size);
    const auto own = match.contestant.open(Side::receiver, match.size);
    alignas(64) std::array<std::byte, kLargestValue> buffer{};
    require_value(*limit, pattern(0).data(), match.size);
    require_value(*own, pattern(0).data(), match.size);
    limit->read_each(buffer.data());
    own->read_each(buffer.data());
    compare(
        result.read, [&](unsigned n) { limit->read_many(n, buffer.data()); },
        [&](unsigned n) { own->read_many(n, buffer.data()); });
    turns.pass();
    turns.await();
    for (unsigned pass = 0; !board.fresh_passes_end.load(); ++pass) {
        compare_each(
            result.fresh_read, pass, [&] { limit->read_each(buffer.data()); },
            [&] { own->read_each(buffer.data()); });
        require_value(*own, pattern(pass).data(), match.size);
        turns.pass();
        turns.await();
    }
}

nlohmann::json row(const Match &match, const char *operation, const Series &series)
{
    const std::vector<double> own(series.own.begin(), series.own.begin() + series.count);
    const std::vector<double> limit(series.limit.begin(), series.limit.begin() + series.count);
    return {{"contestant", match.contestant.name},
            {"placement", name_of(match.placement)},
            {"size", match.size},
            {"operation", operation},
            {"own_ns", summary(own)},
            {"limit_ns", summary(limit)},
            {"ratio", median_ratio(own, limit)},
            {"over_limit_ns", median_difference(own, limit)}};
}

void run_match(const Match &match, nlohmann::json &rows)
{
    const auto board = make_shared_memory<Board>();
    const auto result = make_shared_memory<ReaderResult>();
    // Both sides have a process of their own: what a peer's library leaves behind in one match must
    // not reach the next.
    Child writer = run_in_child([&] { return run_writer(match, *board); });
    Child reader = run_in_child([&] {
        run_reader(match, *board, *result);
        return 0;
    });
    require(reader.wait() && writer.wait(), match.contestant.name);
    rows.push_back(row(match, "write", board->write));
    rows.push_back(row(match, "read", result->read));
    if (match.placement != Placement::two_cpus)
        return; // on one processor no value is fresh; if nothing is bound, nobody knows
    rows.push_back(row(match, "fresh write", board->fresh_write));
    rows.push_back(row(match, "fresh read", result->fresh_read));
}

nlohmann::json run_all()
{
    nlohmann::json rows = nlohmann::json::array();
    for (const ValueContestant &contestant : value_contestants())
        for (const Placement placement : kPlacements) {
            std::optional<Child> broker;
            take_place(placement, Side::broker);
            if (contestant.start_broker)
                broker.emplace(contestant.start_broker());
            for (const uint32_t size : kSizes)
                run_match({contestant, placement, size}, rows);
        }
    return rows;
}

} // namespace

} // namespace bench

int main()
{
    std::cout << bench::run_all().dump(1) << "\n";
}
