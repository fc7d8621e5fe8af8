#include "notices/session.h"

#include "notices/channels/socket_channel.h"
#include "support/clock.h"
#include "support/futex.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

constexpr unsigned kWarmUps = 100;

void note_delivery(Board &board, unsigned index, const Message &message)
{
    const uint64_t now = now_ns();
    if (message.number != board.number.load(std::memory_order_acquire))
        return; // it belongs to an exchange that was given up
    if (board.delivered_at[index].exchange(now) != 0)
        return; // it comes again: some connect twice while they find each other
    if (board.missing.fetch_sub(1) == 1)
        futex_wake_all(board.missing);
}

} // namespace

void require(bool condition, const char *what)
{
    if (condition)
        return;
    std::fprintf(stderr, "bench: failed: %s\n", what);
    std::exit(1);
}

std::string unique_name(const char *stem)
{
    static unsigned count = 0;
    return std::string(stem) + "_" + std::to_string(getpid()) + "_" + std::to_string(++count);
}

Session::Session(const NoticeContestant *contestant, Placement placement, unsigned receivers)
    : board_(make_shared_memory<Board>()), limit_channel_(make_socket_channel(true))
{
    take_place(placement, Side::broker);
    if (contestant && contestant->start_broker)
        broker_.emplace(contestant->start_broker());
    limit_channel_->prepare(receivers);
    if (contestant) {
        own_channel_ = contestant->make();
        own_channel_->prepare(receivers);
    }
    for (unsigned index = 0; index < receivers; ++index) {
        receivers_.push_back(
            run_in_child([this, placement, index] { return run_receiver(placement, index); }));
        wait_until([&] { return board_->ready.load() == index + 1; }, 20'000, "a receiver");
    }
    take_place(placement, Side::sender);
    limit_ = limit_channel_->open_sender();
    if (own_channel_)
        own_ = own_channel_->open_sender();
    connect();
}

Session::~Session()
{
    own_.reset();
    board_->end.store(1);
    futex_wake_all(board_->end);
    for (Child &receiver : receivers_)
        (void)receiver.wait();
}

int Session::run_receiver(Placement placement, unsigned index)
{
    take_place(placement, Side::receiver);
    const Delivered delivered = [this, index](const Message &message) {
        note_delivery(*board_, index, message);
    };
    const auto limit = limit_channel_->open_receiver(index, delivered);
    std::unique_ptr<Receiver> own;
    if (own_channel_)
        own = own_channel_->open_receiver(index, delivered);
    board_->ready.fetch_add(1);
    while (board_->end.load() == 0)
        futex_wait(board_->end, 0, 1000);
    return 0;
}

// Sends until everybody hears, then warms up.
void Session::connect()
{
    if (!own_)
        return;
    wait_ms_ = 20;
    const uint64_t deadline = now_ns() + 20'000'000'000;
    for (unsigned in_a_row = 0; in_a_row < 3;) {
        in_a_row = exchange(*own_) ? in_a_row + 1 : 0;
        require(now_ns() < deadline, "all receivers are connected");
    }
    wait_ms_ = 1000;
    for (unsigned i = 0; i < kWarmUps; ++i) {
        (void)exchange(*own_);
        (void)exchange(*limit_);
    }
    lost_ = 0;
}

std::optional<Exchange> Session::exchange(Sender &sender)
{
    Message message;
    message.number = board_->number.load() + 1;
    for (unsigned index = 0; index < receivers_.size(); ++index)
        board_->delivered_at[index].store(0, std::memory_order_relaxed);
    board_->missing.store(static_cast<uint32_t>(receivers_.size()));
    board_->number.store(message.number, std::memory_order_release);

    const uint64_t start = now_ns();
    sender.send(message);
    const uint64_t sent = now_ns();
    const uint64_t deadline = sent + wait_ms_ * 1'000'000ULL;
    while (const uint32_t missing = board_->missing.load()) {
        if (now_ns() > deadline) {
            ++lost_;
            return std::nullopt;
        }
        futex_wait(board_->missing, missing, wait_ms_);
    }
    uint64_t last = start;
    for (unsigned index = 0; index < receivers_.size(); ++index)
        last = std::max(last, board_->delivered_at[index].load());
    return Exchange{static_cast<double>(last - start) / 1000,
                    static_cast<double>(sent - start) / 1000};
}

uint64_t Session::cpu_ns() const
{
    uint64_t total = bench::cpu_ns(getpid());
    for (const Child &receiver : receivers_)
        total += bench::cpu_ns(receiver.pid());
    return total + (broker_ ? bench::cpu_ns(broker_->pid()) : 0);
}

} // namespace bench
