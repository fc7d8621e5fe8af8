// The library: through tags, through the store's own functions, and by topic name.
#include "values/limit.h"

#include "kp.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace bench {

namespace {

// The smallest value has a fixed-size type, the others a variable one.
uint32_t type_of(uint32_t size)
{
    return size == 4 ? KP_TYPE_UINT32 : KP_TYPE_RAW;
}

std::string topic_name(const char *family, unsigned topic)
{
    return std::string("bench/") + family + "/" + std::to_string(topic);
}

class Tags {
  public:
    Tags(Side side, uint32_t size)
        : size_(size), handle_(kp_new(side == Side::sender ? "writer" : "reader", nullptr))
    {
        require(handle_ != nullptr, "kp_new");
        for (unsigned topic = 0; topic < kTopics; ++topic) {
            const std::string name = topic_name("tag", topic);
            tags_[topic] = side == Side::sender
                               ? kp_tag_provider_new(handle_, name.c_str(), type_of(size), size, 0)
                               : kp_tag_consumer_new(handle_, name.c_str());
            require(tags_[topic] != nullptr, "a tag");
        }
    }
    Tags(const Tags &) = delete;
    Tags &operator=(const Tags &) = delete;
    ~Tags()
    {
        (void)kp_close(handle_);
    }
    void write(unsigned topic, const std::byte *value)
    {
        (void)kp_tag_write(handle_, tags_[topic], value, size_);
    }
    void read(unsigned topic, std::byte *buffer)
    {
        (void)kp_tag_read(tags_[topic], buffer, kLargestValue);
    }

  private:
    uint32_t size_;
    kp_t *handle_;
    std::array<kp_tag_t *, kTopics> tags_{};
};

class Segments {
  public:
    Segments(Side side, uint32_t size)
        : size_(size), role_(side == Side::sender ? KP_ROLE_PROVIDER : KP_ROLE_CONSUMER)
    {
        for (unsigned topic = 0; topic < kTopics; ++topic) {
            segments_[topic] = kp_shm_new(topic_name("shm", topic).c_str(), role_);
            require(segments_[topic] != nullptr, "kp_shm_new");
            if (side == Side::sender)
                (void)kp_shm_set_provider_info(segments_[topic], type_of(size), size, 0);
        }
    }
    Segments(const Segments &) = delete;
    Segments &operator=(const Segments &) = delete;
    ~Segments()
    {
        for (unsigned topic = 0; topic < kTopics; ++topic)
            (void)kp_shm_destroy(segments_[topic], topic_name("shm", topic).c_str(), role_);
    }
    void write(unsigned topic, const std::byte *value)
    {
        const uint64_t now = kp_shm_get_timestamp_us();
        (void)kp_shm_write(segments_[topic], value, size_, now, KP_QUALITY_GOOD, now);
    }
    void read(unsigned topic, std::byte *buffer)
    {
        (void)kp_shm_read(segments_[topic], buffer, kLargestValue, nullptr, nullptr, nullptr);
    }

  private:
    uint32_t size_;
    uint32_t role_;
    std::array<kp_shm_t *, kTopics> segments_{};
};

class Instant {
  public:
    Instant(Side, uint32_t size) : size_(size)
    {
        for (unsigned topic = 0; topic < kTopics; ++topic)
            topics_[topic] = topic_name("instant", topic);
    }
    void write(unsigned topic, const std::byte *value)
    {
        const uint64_t now = kp_shm_get_timestamp_us();
        (void)kp_shm_instant_write(topics_[topic].c_str(), value, type_of(size_), size_, now,
                                   KP_QUALITY_GOOD, now, 0);
    }
    void read(unsigned topic, std::byte *buffer)
    {
        void *value = nullptr;
        uint32_t type = 0;
        uint32_t size = 0;
        if (kp_shm_instant_read(topics_[topic].c_str(), &value, &type, &size, nullptr, nullptr,
                                nullptr, nullptr) == 0)
            std::memcpy(buffer, value, size);
        std::free(value);
    }

  private:
    uint32_t size_;
    std::array<std::string, kTopics> topics_;
};

} // namespace

std::vector<ValueContestant> value_contestants()
{
    return {{"kp_tag", store_of<Tags>(), mapped_limit()},
            {"kp_shm", store_of<Segments>(), mapped_limit()},
            {"kp_shm_instant", store_of<Instant>(), remapped_limit()}};
}

} // namespace bench
