// One sender and a number of receivers, each a process, that hold the limit and a contestant side
// by side. An exchange tells all receivers of one value and waits until each has taken it.
#pragma once

#include "notices/channels/channel.h"
#include "support/placement.h"
#include "support/shared_memory.h"

#include <atomic>
#include <optional>

namespace bench {

// What the processes share. The stamps and the way back are the same for every contestant.
struct Board {
    std::atomic<uint64_t> number{0}; // the number of the value under way
    std::atomic<uint32_t> missing{0};
    std::atomic<uint32_t> ready{0}; // how many receivers are open
    std::atomic<uint32_t> end{0};
    std::array<std::atomic<uint64_t>, kMostReceivers> delivered_at{};
};

// The figures of one exchange.
struct Exchange {
    double delay_us; // from before the send to the last delivery
    double cost_us;  // of the send alone
};

class Session {
  public:
    // Opens all but the sender, which the calling process becomes. `contestant` may be null: then
    // only the limit is there.
    Session(const NoticeContestant *contestant, Placement placement, unsigned receivers);
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session();

    // Gives nothing when a receiver did not get the value within a second.
    std::optional<Exchange> exchange_own()
    {
        return exchange(*own_);
    }
    std::optional<Exchange> exchange_limit()
    {
        return exchange(*limit_);
    }
    // Gives the processor time of all processes of the session and of the broker.
    uint64_t cpu_ns() const;
    unsigned lost() const
    {
        return lost_;
    }

  private:
    std::optional<Exchange> exchange(Sender &sender);
    int run_receiver(Placement placement, unsigned index);
    void connect();

    SharedPtr<Board> board_;
    std::optional<Child> broker_;
    std::unique_ptr<Channel> limit_channel_;
    std::unique_ptr<Channel> own_channel_;
    std::vector<Child> receivers_;
    std::unique_ptr<Sender> limit_;
    std::unique_ptr<Sender> own_;
    uint32_t wait_ms_ = 1000;
    unsigned lost_ = 0;
};

} // namespace bench
