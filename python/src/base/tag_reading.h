// Reads a tag of the library, as a whole or not at all.
#pragma once

#include "base/object.h"

#include "base/reading.h"
#include "kp.h"

#include <array>
#include <string>

namespace kp::python {

enum class Outcome { value, no_value, busy, failed };

struct TagValue {
    ReadingInfo info;
    uint32_t size = 0;
    std::array<char, KP_MAX_VALUE_SIZE> bytes;
};

// Waits up to about a millisecond while writes get in the way. `busy` means that they never ended.
inline Outcome read_tag(kp_tag_t *tag, TagValue &value)
{
    if (!kp_tag_has_value(tag)) // asked first, since the library reports such a read as an error
        return Outcome::no_value;
    uint32_t quality = 0;
    if (kp_tag_get_value_info(tag, &value.info.type, nullptr, nullptr) != 0)
        return Outcome::failed;
    const int32_t size =
        kp_tag_read_consistent(tag, value.bytes.data(), static_cast<uint32_t>(value.bytes.size()),
                               &quality, &value.info.time_us, &value.info.source_time_us);
    if (size < 0)
        return Outcome::busy;
    value.size = static_cast<uint32_t>(size);
    value.info.quality = static_cast<uint8_t>(quality);
    const uint32_t expected = kp_get_value_size(value.info.type, value.size);
    return expected == value.size ? Outcome::value : Outcome::failed;
}

} // namespace kp::python
