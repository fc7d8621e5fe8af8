// The library: a write and a notice, and in the callback the walk and the read.
#include "notices/channel.h"

#include "kp.h"

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
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
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
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
    }

  private:
    static int receive(kp_t *handle, const kp_write_info *notice, void *self)
    {
        kp_tag_iter_t iter{};
        while (iter.bucket < KP_BUCKET_COUNT)
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

class KpChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<KpSender>();
    }
    std::unique_ptr<Receiver> open_receiver(unsigned index, Delivered delivered) override
    {
        return std::make_unique<KpReceiver>(index, std::move(delivered));
    }
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"kp", channel_of<KpChannel>()}};
}

} // namespace bench
