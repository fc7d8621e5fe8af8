// A provider of one topic on the store alone, without an endpoint.
#pragma once

#include "kp.h"
#include "testing/bytes.h"
#include "testing/child.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace kptest {

class StoreProvider {
  public:
    explicit StoreProvider(std::string topic, uint32_t type = KP_TYPE_STRING,
                           uint32_t max_size = KP_MAX_VALUE_SIZE)
        : topic_(std::move(topic)), shm_(kp_shm_new(topic_.c_str(), KP_ROLE_PROVIDER))
    {
        const uint32_t size = kp_get_value_size(type, max_size);
        (void)kp_shm_set_provider_info(shm_, type, size, 7);
    }
    StoreProvider(const StoreProvider &) = delete;
    StoreProvider &operator=(const StoreProvider &) = delete;
    ~StoreProvider()
    {
        leave();
    }

    void write(const std::string &bytes, uint64_t ts = 1000, uint8_t quality = 1,
               uint64_t source_ts = 900)
    {
        (void)kp_shm_write(shm_, bytes.data(), static_cast<uint32_t>(bytes.size()), ts, quality,
                           source_ts);
    }
    void leave()
    {
        if (shm_)
            (void)kp_shm_destroy(std::exchange(shm_, nullptr), topic_.c_str(), KP_ROLE_PROVIDER);
    }

  private:
    std::string topic_;
    kp_shm_t *shm_;
};

// Declares a topic as the tool does before it writes one: it opens it in no role, so that nothing
// counts it, and does not close it, which would remove the topic.
inline void declare_by_name(const std::string &topic)
{
    ChildProcess tool([&topic](Channel &) {
        constexpr uint32_t no_role = 0;
        kp_shm_t *shm = kp_shm_new(topic.c_str(), no_role);
        return kp_shm_set_provider_info(shm, KP_TYPE_STRING, KP_MAX_VALUE_SIZE, 0);
    });
    EXPECT_EQ(tool.wait(), 0);
}

} // namespace kptest
