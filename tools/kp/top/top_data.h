// What the live view shows: the topics with their rates, their values, and the values of the last
// minute. It looks at the store ten times a second and knows nothing of the screen.
#pragma once

#include "common/store/live_store.h"
#include "top/value_history.h"

#include <array>

namespace kp::tool {

enum class Order { topic, rate, age, size, quality };
constexpr std::array<const char *, 5> kOrderNames = {"topic", "rate", "age", "size", "quality"};

// A value with the time when it was read.
struct ShownTopic {
    Snapshot snapshot;
    uint64_t read_at = 0; // microseconds since the epoch
};

class TopData {
  public:
    explicit TopData(const Selection &selection);

    // Looks once at all topics.
    void sample(uint64_t monotonic_us);

    std::size_t topic_count() const
    {
        return store_.topics().size();
    }
    std::size_t refused_count() const
    {
        return store_.refused_count();
    }
    // The topics that pass a filter, a pattern or a part of the name, in their order.
    std::vector<std::string> sorted_topics(const std::string &filter, Order order,
                                           bool is_reversed) const;
    // Gives the value as it is now, or, if `is_frozen`, as it was read last. Null for a topic that
    // is gone.
    const ShownTopic *read(const std::string &topic, bool is_frozen);
    // Writes per second; ">=" in front of a lower bound.
    std::string rate_text(const std::string &topic) const;
    const ValueHistory &history(const std::string &topic) const;

  private:
    struct Rate {
        unsigned writes = 0; // in the second that runs, as far as they were seen
        double per_second = 0;
        bool has_run = false;
        bool is_lower_bound =
            false; // it was written about as often as it was looked at, or more often
    };

    void end_second(double seconds);
    double rate_of(const std::string &topic) const;
    bool comes_before(const LiveTopic &a, const LiveTopic &b, Order order) const;

    LiveStore store_;
    std::map<std::string, Rate> rates_;
    std::map<std::string, ShownTopic> shown_;
    std::map<std::string, ValueHistory> histories_;
    uint64_t second_at_ = 0;
    unsigned looks_ = 0; // in the second that runs
};

} // namespace kp::tool
