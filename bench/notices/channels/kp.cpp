// The library: a write and a notice, and in the callback the walk and the read. Beside it the same
// in a loop of the application's own, which waits for the handle's descriptor, in C and in C++.
#include "notices/channels/channel.h"

#include "kp.hpp"

#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace bench {

namespace {

constexpr const char *kTopic = "bench/notice";

class KpSender final : public Sender {
  public:
    KpSender() : handle_(kp_new("bench-sender", nullptr))
    {
        require(handle_ != nullptr, "kp_new");
        tag_ = kp_tag_provider_new(handle_, kTopic, KP_TYPE_RAW, sizeof(Message), 0);
        require(tag_ != nullptr, "kp_tag_provider_new");
    }
    ~KpSender() override
    {
        (void)kp_close(handle_);
    }
    void send(const Message &message) override
    {
        (void)kp_tag_write(handle_, tag_, &message, sizeof message);
        (void)kp_tag_notify(handle_);
    }

  private:
    kp_t *handle_;
    kp_tag_t *tag_ = nullptr;
};

class KpReceiver final : public Receiver {
  public:
    KpReceiver(unsigned index, Delivered delivered) : delivered_(std::move(delivered))
    {
        const std::string name = "bench-receiver-" + std::to_string(index);
        handle_ = kp_new(name.c_str(), receive);
        require(handle_ != nullptr, "kp_new");
        (void)kp_set_user_data(handle_, this);
        require(kp_tag_consumer_new(handle_, kTopic) != nullptr, "kp_tag_consumer_new");
    }
    ~KpReceiver() override
    {
        (void)kp_close(handle_);
    }

  private:
    static int receive(kp_t *handle, const kp_write_info *notice, void *self)
    {
        kp_tag_iter_t iter{};
        while (iter.bucket < KP_BUCKET_COUNT || iter.entry)
            if (kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter)) {
                Message message;
                if (kp_tag_read(tag, &message, sizeof message) == sizeof message)
                    static_cast<KpReceiver *>(self)->delivered_(message);
            }
        return 0;
    }

    Delivered delivered_;
    kp_t *handle_ = nullptr;
};

// An application's loop on a thread of its own, until it is destroyed.
class Loop {
  public:
    Loop(int fd, std::function<void()> on_readable)
        : end_(eventfd(0, EFD_CLOEXEC)), thread_([this, fd, on_readable = std::move(on_readable)] {
              pollfd ready[]{{fd, POLLIN, 0}, {end_, POLLIN, 0}};
              while (poll(ready, 2, -1) > 0 && ready[1].revents == 0)
                  on_readable();
          })
    {
    }
    ~Loop()
    {
        (void)eventfd_write(end_, 1);
        thread_.join();
        (void)close(end_);
    }

  private:
    int end_;
    std::thread thread_;
};

class KpLoopReceiver final : public Receiver {
  public:
    KpLoopReceiver(unsigned index, Delivered delivered) : delivered_(std::move(delivered))
    {
        const std::string name = "bench-receiver-" + std::to_string(index);
        handle_ = kp_new(name.c_str(), nullptr);
        require(handle_ != nullptr, "kp_new");
        require(kp_tag_consumer_new(handle_, kTopic) != nullptr, "kp_tag_consumer_new");
        loop_.emplace(kp_get_fd(handle_), [this] { take(); });
    }
    ~KpLoopReceiver() override
    {
        loop_.reset();
        (void)kp_close(handle_);
    }

  private:
    void take()
    {
        kp_write_info notice;
        kp_tag_iter_t iter{};
        if (kp_take_notice(handle_, &notice) != 1)
            return;
        while (iter.bucket < KP_BUCKET_COUNT || iter.entry)
            if (kp_tag_t *tag = kp_get_next_updated_tag(handle_, &notice, &iter)) {
                Message message;
                if (kp_tag_read(tag, &message, sizeof message) == sizeof message)
                    delivered_(message);
            }
    }

    Delivered delivered_;
    kp_t *handle_ = nullptr;
    std::optional<Loop> loop_;
};

// What the header for C++ makes of it: the loop lists the change and reads the structure.
class KpNodeReceiver final : public Receiver {
  public:
    KpNodeReceiver(unsigned index, Delivered delivered)
        : delivered_(std::move(delivered)), node_("bench-receiver-" + std::to_string(index)),
          consumer_(node_, kTopic), loop_(node_.fd(), [this] { take(); })
    {
    }

  private:
    void take()
    {
        for (const kp::Change change : node_.take())
            if (const auto now = consumer_.read())
                delivered_(now->value);
    }

    Delivered delivered_;
    kp::Node node_;
    kp::Consumer<Message> consumer_;
    Loop loop_;
};

template <typename KindOfReceiver> class KpChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<KpSender>();
    }
    std::unique_ptr<Receiver> open_receiver(unsigned index, Delivered delivered) override
    {
        return std::make_unique<KindOfReceiver>(index, std::move(delivered));
    }
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"kp", channel_of<KpChannel<KpReceiver>>()},
            {"kp, descriptor", channel_of<KpChannel<KpLoopReceiver>>()},
            {"kp, C++", channel_of<KpChannel<KpNodeReceiver>>()}};
}

} // namespace bench
