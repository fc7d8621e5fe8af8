#include "common/values/value_json.h"

#include "common/text/text.h"
#include "common/values/number_type.h"

#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace kp::tool {

nlohmann::ordered_json value_json(uint32_t type, std::string_view bytes, ByteStyle style)
{
    if (is_text_type(type))
        return std::string(bytes);
    if (is_binary_type(type))
        return value_text(type, bytes, style);
    if (type == KP_TYPE_BOOLEAN)
        return from_bytes<uint8_t>(bytes) != 0;
    return with_number(type, [type, bytes](auto zero) -> nlohmann::ordered_json {
        const auto value = from_bytes<decltype(zero)>(bytes);
        if constexpr (std::is_floating_point_v<decltype(zero)>) {
            const std::string text = plain_text(type, bytes);
            if (!std::isfinite(value))
                return text;
            // Through the text of its own width: as a double, 0.1f would show digits that it lacks.
            return std::strtod(text.c_str(), nullptr);
        } else {
            return value;
        }
    });
}

std::optional<std::string> parse_json_value(uint32_t type, const nlohmann::json &value,
                                            ByteStyle style, Problem &problem)
{
    if (value.is_string())
        return parse_value(type, value.get_ref<const std::string &>(), style, problem);
    const bool fits = value.is_boolean() ? type == KP_TYPE_BOOLEAN
                                         : value.is_number() && !has_variable_size(type);
    if (fits)
        return parse_value(type, value.dump(), style, problem);
    problem = {kUsage, shortened(escaped(value.dump()), 60) + " is not " +
                           (is_text_type(type) ? "a string" : expected_text(type, style))};
    return std::nullopt;
}

} // namespace kp::tool
