// Says who may write which topics, by the rules of the configuration, of which each has its token.
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
    no_token,      // the request has none
    unknown_token, // no rule has it
    other_topics,  // the rules that have it are for other topics
};

// `authorization` is the header of that name, or empty.
Verdict verdict(const std::vector<WriteRule> &rules, std::string_view authorization,
                std::string_view topic);

} // namespace kp::web
