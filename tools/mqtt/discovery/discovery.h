// What Home Assistant is told of a tag, in its format for devices that announce themselves: one
// retained message a tag, which makes an entity of it.
#pragma once

#include "topics/topic_table.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace kp::mqtt {

struct DiscoveryMessage {
    std::string mqtt; // the topic
    std::string text; // JSON
};

// The message for a tag whose value has this type. Nothing where there is nothing to tell: of a tag
// that the dictionary does not know, of bytes, and where nobody wants to be told.
std::optional<DiscoveryMessage> discovery_message(const Configuration &configuration,
                                                  const OutTopic &topic, uint32_t type);

// Where messages of a tag can be, of each kind of entity.
std::array<std::string, 2> discovery_topics(const Configuration &configuration,
                                            const std::string &tag);

// The tag that a topic of such messages speaks of, if it is one of this device.
std::optional<std::string> tag_of_discovery(const Configuration &configuration,
                                            std::string_view mqtt);

// Whether the rules let the tag be told of, be it there or not, if the dictionary knows it.
bool is_discoverable(const Configuration &configuration, const std::string &tag);

} // namespace kp::mqtt
