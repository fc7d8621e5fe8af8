// Reading TOML that anybody may have written.
#pragma once

#include "common/result.h"
#include "common/toml.h"

#include <string>
#include <string_view>

namespace kp::tool {

// Parses as `toml::parse()` does, and throws `toml::parse_error` like it. Refuses two mistakes
// before the parser sees them: letters beyond ASCII that stand outside quotation marks and
// comments, since the parser's version 3.3 has undefined behaviour on some of them; and more than
// 50 dots in a line, since its tables within tables, one for each dot, end in a recursion.
toml::table parse_toml(std::string_view text);

// The same for a program's configuration: the problem names the file and the line.
Result<toml::table> parse_configuration_text(std::string_view text, const std::string &path);

// The text of a program's configuration; the problem names the file.
Result<std::string> read_configuration_text(const std::string &path);

} // namespace kp::tool
