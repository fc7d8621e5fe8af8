// An open segment that closes itself, and what else the tests of segments share.
#pragma once

#include "kp.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <utility>

namespace kptest {

// What each operation logs that needs a declaration of a provider.
inline const std::string kUndeclared =
    "shm is invalid. tag size and tag type should be set by provider.";

constexpr uint32_t kNumber = 0x04030201; // each of its bytes is another

class OpenedSegment {
  public:
    explicit OpenedSegment(std::string topic, uint32_t role = KP_ROLE_PROVIDER)
        : topic_(std::move(topic)), role_(role), shm_(kp_shm_new(topic_.c_str(), role_))
    {
        EXPECT_NE(shm_, nullptr);
    }
    OpenedSegment(const OpenedSegment &) = delete;
    OpenedSegment &operator=(const OpenedSegment &) = delete;
    ~OpenedSegment()
    {
        close();
    }

    operator kp_shm_t *() const
    {
        return shm_;
    }
    void close()
    {
        kp_shm_t *shm = std::exchange(shm_, nullptr);
        EXPECT_TRUE(!shm || kp_shm_destroy(shm, topic_.c_str(), role_) == 0);
    }

  private:
    std::string topic_;
    uint32_t role_;
    kp_shm_t *shm_;
};

// A provider's segment with the declaration that most tests need: uint32 values.
class DeclaredSegment : public OpenedSegment {
  public:
    explicit DeclaredSegment(std::string topic, uint32_t value_type = KP_TYPE_UINT32,
                             uint32_t max_value_size = 4, uint32_t extra_info = 0)
        : OpenedSegment(std::move(topic))
    {
        EXPECT_EQ(kp_shm_set_provider_info(*this, value_type, max_value_size, extra_info), 0);
    }
};

// While the object lives, the process gets no new descriptor.
class NoDescriptorLeft {
  public:
    NoDescriptorLeft()
    {
        (void)getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none{3, before_.rlim_max};
        (void)setrlimit(RLIMIT_NOFILE, &none);
    }
    NoDescriptorLeft(const NoDescriptorLeft &) = delete;
    NoDescriptorLeft &operator=(const NoDescriptorLeft &) = delete;
    ~NoDescriptorLeft()
    {
        (void)setrlimit(RLIMIT_NOFILE, &before_);
    }

  private:
    rlimit before_{};
};

} // namespace kptest
