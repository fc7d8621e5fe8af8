// Topics as metrics, in the text format of Prometheus, of which OpenMetrics is a stricter kind.
#pragma once

#include "common/store/segment_reader.h"

#include <array>
#include <string>

namespace kp::tool {

// A label of a sample, name="text".
std::string metric_label(const char *name, const std::string &text);

// A family of gauges with its help and type; nothing for one without samples.
std::string gauge_family(const std::string &name, const char *help, const std::string &samples);

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
    // A metric and its samples, which the format wants side by side.
    struct Metric {
        const char *name;
        const char *help;
        std::string samples = {};

        void add(const std::string &labels, const std::string &value);
    };

    Metric value_{"zu_kp_value", "The latest value of a topic of numbers or booleans."};
    Metric quality_{"zu_kp_quality", "The quality of the value, 0 for none and 1 for good."};
    Metric written_{"zu_kp_write_timestamp_seconds", "When the value was written, since 1970."};
    Metric providers_{"zu_kp_providers", "Handles that are open to provide the topic."};
    Metric consumers_{"zu_kp_consumers", "Handles that are open to consume the topic."};
};

} // namespace kp::tool
