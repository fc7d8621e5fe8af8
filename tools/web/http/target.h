// Reads what a request asks for: the path and the query of its target, with their percent escapes
// decoded.
#pragma once

#include "common/result.h"

#include <string>
#include <string_view>
#include <vector>

namespace kp::web {

struct Target {
    std::string path; // decoded, with its leading slash; may hold any byte but zero
    std::vector<std::pair<std::string, std::string>> query;

    // Gives the values of a name, in their order.
    std::vector<std::string> all(std::string_view name) const;
    // Gives the last value of a name, or null.
    const std::string *last(std::string_view name) const;
};

// Takes a target of origin form ("/tags/a%20b?q=%23"). A phrase says what is wrong with any other.
tool::Result<Target> parse_target(std::string_view text);

} // namespace kp::web
