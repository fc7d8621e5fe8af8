// Topics as metrics, in the text format of Prometheus, of which OpenMetrics is a stricter kind.
#pragma once

#include "common/store/segment_reader.h"

#include <array>
#include <string>

namespace kp::tool {

// A label of a sample, name="text".
std::string metric_label(const char *name, const std::string &text);

// A metric and its samples, which the format wants side by side.
struct Gauge {
    const char *name;
    const char *help;
    std::string samples = {};

    // Adds a sample with these labels, "" for none.
    void add(const std::string &labels, const std::string &value);
    // The samples below the metric's help and type; nothing without samples.
    std::string text() const;
};

class TopicMetrics {
  public:
    // Adds a topic. A unit that is not empty is a label of its value.
    void take(const std::string &topic, const Snapshot &snapshot, const std::string &unit = "");

    // The families that have samples, each with its help and type.
    std::string text() const;

    bool is_empty() const
    {
        return providers_.samples.empty();
    }

  private:
    Gauge value_{"zu_kp_value", "The latest value of a topic of numbers or booleans."};
    Gauge quality_{"zu_kp_quality", "The quality of the value, 0 for none and 1 for good."};
    Gauge written_{"zu_kp_write_timestamp_seconds", "When the value was written, since 1970."};
    Gauge providers_{"zu_kp_providers", "Handles that are open to provide the topic."};
    Gauge consumers_{"zu_kp_consumers", "Handles that are open to consume the topic."};
};

} // namespace kp::tool
