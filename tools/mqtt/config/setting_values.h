// The texts that settings may have: each of these takes one apart, or says what is wrong with it.
#pragma once

#include "common/result.h"
#include "config/rule_settings.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kp::mqtt::setting {

tool::Result<PayloadMode> payload_mode(const std::string &text);

// What topics start with.
tool::Result<std::string> prefix(const std::string &text);

// The same for what the broker sends.
tool::Result<std::string> in_prefix(const std::string &text);

// One level of a topic.
tool::Result<std::string> name_part(const std::string &text);

// A broker's name or address without scheme and port.
tool::Result<std::string> host_alone(const std::string &text);

tool::Result<std::string> client_id(const std::string &text);

tool::Result<std::string> endpoint_name(const std::string &text);

tool::Result<std::string> tag_pattern(const std::string &text);

// What tags start with.
tool::Result<std::string> tag_prefix(const std::string &text);

// A filter of topics whose values become tags.
tool::Result<std::string> topic_filter(const std::string &text);

// A filter of any topics.
tool::Result<std::string> plain_filter(const std::string &text);

tool::Result<std::optional<uint32_t>> value_type(const std::string &text);

} // namespace kp::mqtt::setting
