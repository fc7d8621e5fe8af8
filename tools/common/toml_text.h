// Reading TOML that anybody may have written.
#pragma once

#include <string_view>
#include <toml++/toml.h>

namespace kp::tool {

// Does what toml::parse() does, and throws toml::parse_error as it does. Refuses letters beyond
// ASCII that stand outside quotation marks and comments: they are a mistake, and version 3.3 of the
// parser has undefined behaviour on some of them.
toml::table parse_toml(std::string_view text);

} // namespace kp::tool
