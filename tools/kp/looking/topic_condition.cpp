#include "looking/topic_condition.h"

#include "common/text/parse_number.h"
#include "common/values/value_text.h"

#include <array>
#include <string_view>
#include <utility>

namespace kp::tool {

namespace {

std::string trimmed(const std::string &text)
{
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? ""
                                      : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

// The longer signs come first. An operand that is a word of its own counts as it stands.
std::optional<TopicCondition> comparison(const std::string &first,
                                         const std::vector<std::string> &rest)
{
    const std::array<std::pair<std::string_view, Test>, 7> signs = {{{"==", Test::equal},
                                                                     {"!=", Test::unequal},
                                                                     {"<=", Test::at_most},
                                                                     {">=", Test::at_least},
                                                                     {"<", Test::less},
                                                                     {">", Test::more},
                                                                     {"=", Test::equal}}};
    for (const auto &[sign, test] : signs) {
        if (!first.starts_with(sign))
            continue;
        const std::string glued = trimmed(first.substr(sign.size()));
        if (glued.empty() ? rest.size() != 1 : !rest.empty())
            return std::nullopt;
        return TopicCondition{test, glued.empty() ? rest.front() : glued, 0};
    }
    return std::nullopt;
}

std::optional<TopicCondition> freshness(const std::vector<std::string> &rest)
{
    const auto seconds = rest.size() == 1 ? parse_number<double>(rest[0]) : std::nullopt;
    if (!seconds || !(*seconds >= 0 && *seconds < 1e9))
        return std::nullopt;
    return TopicCondition{Test::fresh, "", static_cast<uint64_t>(*seconds * 1e6)};
}

bool holds(Test test, std::optional<int> order)
{
    switch (test) {
    case Test::equal:
        return order == 0;
    case Test::unequal:
        return order != 0;
    case Test::less:
        return order && *order < 0;
    case Test::at_most:
        return order && *order <= 0;
    case Test::more:
        return order && *order > 0;
    default:
        return order && *order >= 0;
    }
}

struct Comparison {
    std::optional<int> order; // nothing when one of the two is not a number
};
std::optional<Comparison> compare(const Snapshot &snapshot, const std::string &operand,
                                  Problem &problem)
{
    const bool is_number = is_number_type(snapshot.type);
    const std::string text = is_number ? trimmed(operand) : operand;
    if (const auto bytes = parse_value(snapshot.type, text, ByteStyle::hex, problem))
        return Comparison{compare_values(snapshot.type, snapshot.bytes, *bytes)};
    const auto right = is_number ? parse_number<long double>(text) : std::nullopt;
    const auto left =
        right ? parse_number<long double>(value_text(snapshot.type, snapshot.bytes)) : std::nullopt;
    if (!left || !right)
        return std::nullopt;
    if (*left == *right)
        return Comparison{0};
    return *left < *right || *left > *right ? Comparison{*left < *right ? -1 : 1} : Comparison{};
}

} // namespace

std::optional<TopicCondition> parse_condition(const std::vector<std::string> &given)
{
    std::vector<std::string> words = given;
    words[0] = trimmed(words[0]);
    if (words.size() == 1 && words[0].starts_with("fresh "))
        words = {"fresh", trimmed(words[0].substr(6))};
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    if (words[0] == "fresh")
        return freshness(rest);
    if (words[0] == "changes" && rest.empty())
        return TopicCondition{Test::changes, "", 0};
    if (words[0] == "exists" && rest.empty())
        return TopicCondition{Test::exists, "", 0};
    return comparison(words[0], rest);
}

std::optional<bool> is_met_by(const TopicCondition &condition, const Snapshot &snapshot,
                              Problem &problem)
{
    const auto comparison = compare(snapshot, condition.operand, problem);
    if (!comparison)
        return std::nullopt;
    return holds(condition.test, comparison->order);
}

} // namespace kp::tool
