// Redis: SET and GET on its Unix socket, without persistence.
#include "support/redis_server.h"
#include "values/limit.h"

#include <array>
#include <cstring>
#include <string>
#include <sys/time.h>

namespace bench {

namespace {

class RedisKeys {
  public:
    RedisKeys(Side, uint32_t size) : redis_(connect_to_redis()), size_(size)
    {
        for (unsigned topic = 0; topic < kTopics; ++topic)
            keys_[topic] = "bench/value/" + std::to_string(topic);
    }
    void write(unsigned topic, const std::byte *value)
    {
        timeval now{};
        (void)gettimeofday(&now, nullptr);
        std::memcpy(record_.data(), &now, sizeof now);
        std::memcpy(record_.data() + sizeof now, value, size_);
        const RedisReply reply(redisCommand(redis_.get(), "SET %s %b", keys_[topic].c_str(),
                                            record_.data(), sizeof now + size_));
        require(reply && reply->type == REDIS_REPLY_STATUS, "SET");
    }
    void read(unsigned topic, std::byte *buffer)
    {
        const RedisReply reply(redisCommand(redis_.get(), "GET %s", keys_[topic].c_str()));
        require(reply && reply->type == REDIS_REPLY_STRING, "GET");
        std::memcpy(buffer, reply->str + sizeof(timeval),
                    static_cast<std::size_t>(reply->len) - sizeof(timeval));
    }

  private:
    RedisConnection redis_;
    uint32_t size_;
    std::array<std::string, kTopics> keys_;
    std::array<std::byte, kLargestValue + sizeof(timeval)> record_{};
};

} // namespace

std::vector<ValueContestant> value_contestants()
{
    return {{"Redis", store_of<RedisKeys>(), mapped_limit(), start_redis}};
}

} // namespace bench
