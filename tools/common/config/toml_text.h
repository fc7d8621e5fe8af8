// Reading TOML that anybody may have written.
#pragma once

#include "common/config/toml.h"

#include <string_view>

namespace kp::tool {

// Parses as `toml::parse()` does, and throws `toml::parse_error` like it. Refuses two mistakes
// before the parser sees them: letters beyond ASCII that stand outside quotation marks and
// comments, since the parser's version 3.3 has undefined behaviour on some of them; and more than
// 50 dots in a line, since its tables within tables, one for each dot, end in a recursion.
toml::table parse_toml(std::string_view text);

} // namespace kp::tool
