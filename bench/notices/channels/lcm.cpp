// LCM: UDP multicast that does not leave the machine.
#include "notices/channels/channel.h"

#include <atomic>
#include <lcm/lcm.h>
#include <thread>
#include <vector>

namespace bench {

namespace {

lcm_t *join()
{
    lcm_t *lcm = lcm_create("udpm://239.255.76.67:7667?ttl=0");
    require(lcm != nullptr, "lcm_create");
    return lcm;
}

class LcmSender final : public Sender {
  public:
    explicit LcmSender(std::string name) : lcm_(join()), name_(std::move(name))
    {
    }
    ~LcmSender() override
    {
        lcm_destroy(lcm_);
    }
    void send(const Message &message) override
    {
        (void)lcm_publish(lcm_, name_.c_str(), &message, sizeof message);
    }

  private:
    lcm_t *lcm_;
    std::string name_;
};

class LcmReceiver final : public Receiver {
  public:
    LcmReceiver(const std::string &name, Delivered delivered)
        : lcm_(join()), delivered_(std::move(delivered))
    {
        require(lcm_subscribe(lcm_, name.c_str(), receive, this) != nullptr, "lcm_subscribe");
        thread_ = std::thread([this] {
            while (!stop_.load())
                (void)lcm_handle_timeout(lcm_, 200);
        });
    }
    ~LcmReceiver() override
    {
        stop_.store(true);
        thread_.join();
        lcm_destroy(lcm_);
    }

  private:
    static void receive(const lcm_recv_buf_t *buffer, const char *, void *self)
    {
        static_cast<LcmReceiver *>(self)->delivered_(message_from(buffer->data, buffer->data_size));
    }

    lcm_t *lcm_;
    Delivered delivered_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class LcmChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<LcmSender>(name_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<LcmReceiver>(name_, std::move(delivered));
    }

  private:
    std::string name_ = unique_name("lcm");
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"LCM", channel_of<LcmChannel>()}};
}

} // namespace bench
