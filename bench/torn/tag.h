// The topic of the measurement as one process sees it.
#pragma once

#include "kp.h"

#include <cstdint>
#include <string>
#include <vector>

namespace torn {

enum class Read { plain, consistent };

inline uint8_t quality_of(uint32_t number)
{
    return static_cast<uint8_t>(number % 200 + 1);
}

// Its values are arrays of numbers.
class Tag {
  public:
    explicit Tag(const std::string &name) : handle_(kp_new(name.c_str(), nullptr))
    {
    }
    Tag(const Tag &) = delete;
    Tag &operator=(const Tag &) = delete;
    ~Tag()
    {
        (void)kp_close(handle_);
    }

    bool provide(uint32_t size)
    {
        tag_ = kp_tag_provider_new(handle_, "bench/torn", KP_TYPE_RAW, size, 0);
        return tag_ != nullptr;
    }
    bool consume()
    {
        tag_ = kp_tag_consumer_new(handle_, "bench/torn");
        return tag_ != nullptr;
    }
    void write(const std::vector<uint32_t> &value, uint32_t number)
    {
        (void)kp_tag_write_with_source_params(handle_, tag_, value.data(),
                                              static_cast<uint32_t>(value.size() * 4),
                                              quality_of(number), number);
    }
    void write_plainly(const std::vector<uint32_t> &value)
    {
        (void)kp_tag_write(handle_, tag_, value.data(), static_cast<uint32_t>(value.size() * 4));
    }
    void write_at(const std::vector<uint32_t> &value, uint64_t timestamp)
    {
        (void)kp_tag_write_with_timestamp(handle_, tag_, value.data(),
                                          static_cast<uint32_t>(value.size() * 4), timestamp);
    }
    int32_t read(Read kind, std::vector<uint32_t> &value, uint32_t &quality, uint64_t &source_ts)
    {
        const auto size = static_cast<uint32_t>(value.size() * 4);
        if (kind == Read::plain)
            return kp_tag_read_with_source_params(tag_, value.data(), size, &quality, &source_ts);
        return kp_tag_read_consistent(tag_, value.data(), size, &quality, nullptr, &source_ts);
    }

  private:
    kp_t *handle_;
    kp_tag_t *tag_ = nullptr;
};

} // namespace torn
