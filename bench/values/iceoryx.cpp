// iceoryx: one publisher and one subscriber for each topic. The subscriber keeps the newest sample,
// so that it always has a latest value to read.
#include "support/roudi.h"
#include "values/limit.h"

#include <array>
#include <cstring>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <optional>
#include <string>
#include <sys/time.h>

namespace bench {

namespace {

struct Header {
    timeval written;
    uint32_t size;
};

class IceoryxTopics {
  public:
    IceoryxTopics(Side side, uint32_t size) : size_(size)
    {
        join_roudi(side == Side::sender ? "bench-writer" : "bench-reader");
        for (unsigned topic = 0; topic < kTopics; ++topic) {
            const auto service = service_of(topic);
            if (side == Side::sender) {
                iox::popo::PublisherOptions options;
                options.historyCapacity = 1;
                publishers_[topic].emplace(service, options);
            } else {
                iox::popo::SubscriberOptions options;
                options.queueCapacity = 1;
                options.historyRequest = 1;
                subscribers_[topic].emplace(service, options);
                wait_until([&] { return take(topic); }, 5000, "iceoryx");
            }
        }
    }
    void write(unsigned topic, const std::byte *value)
    {
        auto &publisher = *publishers_[topic];
        const auto loan = publisher.loan(static_cast<uint32_t>(sizeof(Header)) + size_);
        require(!loan.has_error(), "loan");
        auto *header = static_cast<Header *>(loan.value());
        (void)gettimeofday(&header->written, nullptr);
        header->size = size_;
        std::memcpy(header + 1, value, size_);
        publisher.publish(loan.value());
    }
    void read(unsigned topic, std::byte *buffer)
    {
        (void)take(topic);
        const auto *header = static_cast<const Header *>(samples_[topic]);
        std::memcpy(buffer, header + 1, header->size);
    }

  private:
    // The size is part of the name: the daemon may still keep the publishers of another size.
    iox::capro::ServiceDescription service_of(unsigned topic) const
    {
        using Text = iox::capro::IdString_t;
        return {"bench", Text(iox::cxx::TruncateToCapacity, std::to_string(size_).c_str()),
                Text(iox::cxx::TruncateToCapacity, std::to_string(topic).c_str())};
    }
    // Replaces the sample by a newer one, if there is one.
    bool take(unsigned topic)
    {
        const auto sample = subscribers_[topic]->take();
        if (sample.has_error())
            return false;
        if (samples_[topic])
            subscribers_[topic]->release(samples_[topic]);
        samples_[topic] = sample.value();
        return true;
    }

    uint32_t size_;
    std::array<std::optional<iox::popo::UntypedPublisher>, kTopics> publishers_;
    std::array<std::optional<iox::popo::UntypedSubscriber>, kTopics> subscribers_;
    std::array<const void *, kTopics> samples_{};
};

} // namespace

std::vector<ValueContestant> value_contestants()
{
    return {{"iceoryx", store_of<IceoryxTopics>(), mapped_limit(), start_roudi}};
}

} // namespace bench
