// Reading TOML that anybody may have written.
#pragma once

#include <string_view>
#include <toml++/toml.h>

namespace kp::tool {

// toml::parse(), and like it throws toml::parse_error. Refuses letters beyond ASCII that stand outside
// quotation marks and comments: they are a mistake, and the parser's version 3.3 has undefined
// behaviour on some of them.
toml::table parse_toml(std::string_view text);

} // namespace kp::tool
