// Who may write which topics: the rules of the configuration, each with its token.
#pragma once

#include "writing/token.h"

#include <string>
#include <string_view>
#include <vector>

namespace kp::web {

struct WriteRule {
    std::vector<std::string> topics; // patterns
    Token token;
};

enum class Verdict {
    may_write,
    no_token,      // the request shows none
    unknown_token, // no rule has it
    other_topics,  // its rules have other topics
};

// `authorization` is the header of that name, or empty.
Verdict verdict(const std::vector<WriteRule> &rules, std::string_view authorization,
                std::string_view topic);

} // namespace kp::web
