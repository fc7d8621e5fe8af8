// What the messages to the broker look like: a value, the clearing of what the broker keeps, and
// what Home Assistant is told of a tag. Each has the origin, DEVICE/BOOT.
#pragma once

#include "messages/message.h"
#include "store/sample.h"
#include "topics/topic_table.h"

#include <string>

namespace kp::mqtt {

Publication make_value(const OutTopic &topic, const Sample &sample, const std::string &origin);

Publication make_clearing(const std::string &mqtt, const std::string &origin);

// `text` is JSON.
Publication make_announcement(const std::string &mqtt, std::string text, const std::string &origin);

} // namespace kp::mqtt
