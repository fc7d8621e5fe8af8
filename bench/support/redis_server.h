// A Redis server of this run on a Unix socket, without persistence, and connections to it.
#pragma once

#include "support/process.h"

#include <cstdio>
#include <cstdlib>
#include <hiredis/hiredis.h>
#include <memory>
#include <unistd.h>

namespace bench {

constexpr const char *kRedisSocket = "/run/bench-redis.sock";

struct CloseRedis {
    void operator()(redisContext *context) const
    {
        redisFree(context);
    }
};

struct FreeRedisReply {
    void operator()(redisReply *reply) const
    {
        freeReplyObject(reply);
    }
};

using RedisConnection = std::unique_ptr<redisContext, CloseRedis>;

class RedisReply {
  public:
    explicit RedisReply(void *reply) : reply_(static_cast<redisReply *>(reply))
    {
    }
    explicit operator bool() const
    {
        return reply_ != nullptr;
    }
    const redisReply *operator->() const
    {
        return reply_.get();
    }

  private:
    std::unique_ptr<redisReply, FreeRedisReply> reply_;
};

inline RedisConnection connect_to_redis()
{
    RedisConnection redis(redisConnectUnix(kRedisSocket));
    if (!redis || redis->err) {
        std::fprintf(stderr, "bench: redis: %s\n", redis ? redis->errstr : "no memory");
        std::exit(1);
    }
    return redis;
}

inline Child start_redis()
{
    (void)unlink(kRedisSocket);
    Child server = run_program({"redis-server", "--port", "0", "--unixsocket", kRedisSocket,
                                "--save", "", "--appendonly", "no", "--dir", "/tmp"});
    wait_until([] { return access(kRedisSocket, F_OK) == 0; }, 5000, "redis-server");
    return server;
}

} // namespace bench
