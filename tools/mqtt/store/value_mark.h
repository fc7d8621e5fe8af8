// Tells one write of a tag from another without keeping its value.
#pragma once

#include "store/sample.h"

#include <functional>

namespace kp::mqtt {

struct ValueMark {
    bool has_value = false;
    size_t value_hash = 0;
    uint64_t source_ts = 0;
    uint64_t ts = 0;
    uint8_t quality = 0;

    bool operator==(const ValueMark &) const = default;

    // All but the time of the write, which the writer does not know before.
    bool is_same_value(const ValueMark &other) const
    {
        return has_value == other.has_value && value_hash == other.value_hash &&
               source_ts == other.source_ts && quality == other.quality;
    }
};

inline ValueMark mark_of(const Sample &sample)
{
    if (!sample.has_value)
        return {};
    return {true, std::hash<std::string>{}(sample.value), sample.source_ts, sample.ts,
            sample.quality};
}

} // namespace kp::mqtt
