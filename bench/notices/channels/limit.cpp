// The limit compared with itself, with one receive call and with two, and with what wakes without a
// payload.
#include "notices/channels/socket_channel.h"
#include "support/futex.h"
#include "support/shared_memory.h"

#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

// The value lies in shared memory; the receivers' threads wait for the word to change.
struct WakeBoard {
    std::atomic<uint32_t> word{0};
    std::atomic<uint64_t> number{0};
    std::atomic<bool> end{false};
};

class WakeSender final : public Sender {
  public:
    WakeSender(WakeBoard &board, std::vector<int> events)
        : board_(board), events_(std::move(events))
    {
    }
    void send(const Message &message) override
    {
        board_.number.store(message.number);
        board_.word.fetch_add(1);
        if (events_.empty())
            futex_wake_all(board_.word);
        const uint64_t one = 1;
        for (const int event : events_)
            (void)!write(event, &one, sizeof one);
    }

  private:
    WakeBoard &board_;
    std::vector<int> events_;
};

class WakeReceiver final : public Receiver {
  public:
    WakeReceiver(WakeBoard &board, int event, Delivered delivered)
        : board_(board), event_(event), delivered_(std::move(delivered)), thread_([this] { run(); })
    {
    }
    ~WakeReceiver() override
    {
        board_.end.store(true);
        board_.word.fetch_add(1);
        futex_wake_all(board_.word);
        const uint64_t one = 1;
        if (event_ >= 0)
            (void)!write(event_, &one, sizeof one);
        thread_.join();
    }

  private:
    void run()
    {
        for (uint32_t seen = 0; !board_.end.load();) {
            wait(seen);
            const uint32_t word = board_.word.load();
            if (word == seen || board_.end.load())
                continue;
            seen = word;
            Message message;
            message.number = board_.number.load();
            delivered_(message);
        }
    }
    void wait(uint32_t seen)
    {
        uint64_t count = 0;
        if (event_ >= 0)
            (void)!read(event_, &count, sizeof count);
        else
            futex_wait(board_.word, seen, 1000);
    }

    WakeBoard &board_;
    int event_;
    Delivered delivered_;
    std::thread thread_;
};

template <bool kWithEvents> class WakeChannel final : public Channel {
  public:
    ~WakeChannel() override
    {
        for (const int event : events_)
            (void)close(event);
    }
    void prepare(unsigned receivers) override
    {
        for (unsigned i = 0; kWithEvents && i < receivers; ++i)
            events_.push_back(eventfd(0, EFD_CLOEXEC));
    }
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<WakeSender>(*board_, events_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned index, Delivered delivered) override
    {
        return std::make_unique<WakeReceiver>(*board_, kWithEvents ? events_[index] : -1,
                                              std::move(delivered));
    }

  private:
    SharedPtr<WakeBoard> board_ = make_shared_memory<WakeBoard>();
    std::vector<int> events_;
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"socket, two receives", [] { return make_socket_channel(true); }},
            {"socket, one receive", [] { return make_socket_channel(false); }},
            {"eventfd", channel_of<WakeChannel<true>>()},
            {"futex", channel_of<WakeChannel<false>>()}};
}

} // namespace bench
