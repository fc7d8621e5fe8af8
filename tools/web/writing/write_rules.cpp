#include "writing/write_rules.h"

#include "common/names/pattern.h"

#include <algorithm>
#include <strings.h>

namespace kp::web {

namespace {

constexpr std::string_view kScheme = "Bearer ";

// Gives what stands behind the scheme, whose letters may be small or large.
std::string_view token_of(std::string_view authorization)
{
    if (authorization.size() <= kScheme.size() ||
        strncasecmp(authorization.data(), kScheme.data(), kScheme.size()) != 0)
        return {};
    authorization.remove_prefix(kScheme.size());
    while (authorization.starts_with(' '))
        authorization.remove_prefix(1);
    return authorization;
}

bool covers(const WriteRule &rule, std::string_view topic)
{
    return std::ranges::any_of(rule.topics, [topic](const std::string &pattern) {
        return tool::Pattern(pattern).covers(topic);
    });
}

} // namespace

// It looks at every rule, so that the time does not tell which of them has the token.
Verdict verdict(const std::vector<WriteRule> &rules, std::string_view authorization,
                std::string_view topic)
{
    const std::string_view token = token_of(authorization);
    if (token.empty())
        return Verdict::no_token;
    bool is_known = false;
    bool may_write = false;
    for (const WriteRule &rule : rules) {
        const bool is_its = rule.token.is(token);
        is_known |= is_its;
        may_write |= is_its && covers(rule, topic);
    }
    if (!is_known)
        return Verdict::unknown_token;
    return may_write ? Verdict::may_write : Verdict::other_topics;
}

} // namespace kp::web
