// What a program learned from its configuration file.
#pragma once

#include <string>
#include <vector>

namespace kp::tool {

template <typename Configuration> struct Configured {
    Configuration configuration;       // with every default filled in
    std::vector<std::string> problems; // one line each; empty when the configuration is good
};

} // namespace kp::tool
