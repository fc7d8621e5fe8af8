// Redis: PUBLISH and SUBSCRIBE on its Unix socket.
#include "notices/channels/channel.h"
#include "support/redis_server.h"

#include <sys/socket.h>
#include <thread>

namespace bench {

namespace {

class RedisSender final : public Sender {
  public:
    explicit RedisSender(std::string name) : redis_(connect_to_redis()), name_(std::move(name))
    {
    }
    void send(const Message &message) override
    {
        const RedisReply reply(
            redisCommand(redis_.get(), "PUBLISH %s %b", name_.c_str(), &message, sizeof message));
        require(static_cast<bool>(reply), "PUBLISH");
    }

  private:
    RedisConnection redis_;
    std::string name_;
};

class RedisReceiver final : public Receiver {
  public:
    RedisReceiver(const std::string &name, Delivered delivered)
        : redis_(connect_to_redis()), delivered_(std::move(delivered))
    {
        const RedisReply reply(redisCommand(redis_.get(), "SUBSCRIBE %s", name.c_str()));
        require(static_cast<bool>(reply), "SUBSCRIBE");
        thread_ = std::thread([this] { run(); });
    }
    ~RedisReceiver() override
    {
        (void)shutdown(redis_->fd, SHUT_RDWR); // ends the wait for a reply
        thread_.join();
    }

  private:
    void run()
    {
        void *next = nullptr;
        while (redisGetReply(redis_.get(), &next) == REDIS_OK) {
            const RedisReply reply(next);
            if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 3)
                delivered_(message_from(reply->element[2]->str,
                                        static_cast<std::size_t>(reply->element[2]->len)));
        }
    }

    RedisConnection redis_;
    Delivered delivered_;
    std::thread thread_;
};

class RedisChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<RedisSender>(name_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<RedisReceiver>(name_, std::move(delivered));
    }

  private:
    std::string name_ = unique_name("notice");
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"Redis", channel_of<RedisChannel>(), start_redis}};
}

} // namespace bench
