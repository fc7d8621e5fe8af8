// The facts of the dictionary about one topic, each as a line that says what it is and where it
// stands.
#pragma once

#include "common/dictionary/facts.h"

#include <nlohmann/json_fwd.hpp>
#include <vector>

namespace kp::tool {

struct FactLine {
    std::string key;  // as it is in the file
    std::string text; // for people, safe to show
    FilePlace place;
};

// In the order in which kp-tags(5) has them.
std::vector<FactLine> fact_lines(const Facts &facts);

// The facts as an object: each key of the file with its value as in the file, and with its place.
nlohmann::ordered_json facts_json(const Facts &facts);

} // namespace kp::tool
