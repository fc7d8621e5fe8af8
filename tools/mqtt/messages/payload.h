// A tag's value as an MQTT payload, and a payload as a tag's value.
#pragma once

#include "common/result.h"
#include "config/rule_settings.h"
#include "messages/message.h"
#include "store/sample.h"

#include <optional>
#include <string>
#include <string_view>

namespace kp::mqtt {

// No payload that becomes a value is larger: 4000 bytes of which JSON escapes each with six, the
// topic with three for each of its bytes, and the other keys. Larger ones are never parsed, which
// would take many times their size.
constexpr size_t kMostPayloadBytes = size_t{40} * 1024;

constexpr const char *kJson = "application/json"; // as content type

struct Payload {
    std::string bytes;
    const char *content_type;
    bool is_utf8; // sent as the payload format indicator
};

// The payload of a sample with a value. `quality` is what the message says, which can differ from
// the sample's own when the providers are gone; an empty unit is not said.
Payload make_payload(PayloadMode mode, std::string_view topic, const Sample &sample,
                     uint8_t quality, std::string_view unit = {});

// Gives all properties of a message but its origin.
UserProperties describing_properties(const Sample &sample, uint8_t quality);

// What a message says of itself, from its properties or its JSON object.
struct Description {
    std::optional<uint32_t> type;
    std::optional<uint8_t> quality;
    std::optional<uint64_t> source_ts;
    std::optional<uint32_t> extra_info;
    std::string problem; // why a message that says so cannot be taken, or empty
};

// Ignores properties that it does not know or that make no sense, except a quality: a value must
// not count as good if its message does not say that it is good.
Description describe(const UserProperties &properties);

// A payload ready to be converted: where `is_bytes` is set, the store's own bytes, else text.
struct Content {
    std::string data;
    bool is_bytes = false;
    std::string integer{}; // the same for a whole number that was written with a fraction, as 21.0

    const std::string &whole_or_text() const
    {
        return integer.empty() ? data : integer;
    }
};

// Splits a payload into its parts. In JSON mode it also completes the description; JSON that is no
// object is a value by itself.
tool::Result<Content> take_apart(PayloadMode mode, std::string_view payload,
                                 Description &description);

} // namespace kp::mqtt
