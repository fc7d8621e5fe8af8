// Names on both sides. A tag's topic may hold what MQTT forbids or counts differently, so outbound
// it is escaped (%XX), and inbound what cannot be a tag is refused.
#pragma once

#include <string>
#include <string_view>

namespace kp::mqtt {

// A topic with more levels is somebody's mistake, on the way out as on the way in.
constexpr size_t kMostLevels = 64;

// A name, or the reason why there is none.
struct Name {
    std::string text;
    std::string problem; // empty when the name is good
};

// The MQTT topic of a tag below a prefix (which may be empty). Escaped are "%", "+", "#", control
// characters, what is not UTF-8, and a leading "$" of the first level. A last level "_" is dropped:
// topic `a` cannot be both a file and the directory of `a/b`, so its value is stored as `a/_`.
std::string to_mqtt_topic(std::string_view prefix, std::string_view tag);

// The tag of an MQTT topic whose prefix has been taken off; undoes the escapes.
Name to_tag_topic(std::string_view topic);

// The same with both prefixes: takes `mqtt_prefix` off and puts `tag_prefix` in front.
Name to_tag_topic(std::string_view mqtt_prefix, std::string_view tag_prefix,
                  std::string_view topic);

// The name by which a topic gives a tag: without the last levels "_".
std::string plain_name(std::string tag);

// Undoes the escapes alone.
std::string without_escapes(std::string_view text);

// What is wrong with a prefix or a plain topic for MQTT, or an empty text. Refuses wildcards,
// control characters and what is not UTF-8.
std::string mqtt_topic_problem(std::string_view topic);

// Control characters and what is not UTF-8 as %XX; all else as it is.
std::string percent_escaped(std::string_view text);

} // namespace kp::mqtt
