// Values as JSON and back.
#pragma once

#include "common/values/value_text.h"

#include <nlohmann/json_fwd.hpp>

namespace kp::tool {

// Gives true, 21.5 or "text". NaN and the infinities, which JSON does not have, become strings, and
// so do the bytes of a bytearray or a raw value, in the style. The bytes must fit the type.
nlohmann::ordered_json value_json(uint32_t type, std::string_view bytes,
                                  ByteStyle style = ByteStyle::hex);

// The bytes that a JSON value stands for in a type; nothing, with a problem, when it does not fit.
std::optional<std::string> parse_json_value(uint32_t type, const nlohmann::json &value,
                                            ByteStyle style, Problem &problem);

} // namespace kp::tool
