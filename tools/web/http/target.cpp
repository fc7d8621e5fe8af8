#include "http/target.h"

#include "common/text/encoding.h"

#include <optional>

namespace kp::web {

namespace {

// Gives nothing for a broken escape, nor for a zero byte, which no topic has. A plus stays a plus,
// since it is a wildcard of patterns.
std::optional<std::string> decoded(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const bool is_escape = text[0] == '%';
        const auto byte = is_escape ? tool::escaped_byte(text) : text[0];
        if (byte.value_or('\0') == '\0')
            return std::nullopt;
        out += *byte;
        text.remove_prefix(is_escape ? 3 : 1);
    }
    return out;
}

} // namespace

std::vector<std::string> Target::all(std::string_view name) const
{
    std::vector<std::string> values;
    for (const auto &[key, value] : query)
        if (key == name)
            values.push_back(value);
    return values;
}

const std::string *Target::last(std::string_view name) const
{
    const std::string *found = nullptr;
    for (const auto &[key, value] : query)
        if (key == name)
            found = &value;
    return found;
}

tool::Result<Target> parse_target(std::string_view text)
{
    using Parsed = tool::Result<Target>;
    if (!text.starts_with('/'))
        return Parsed::failed("the target must begin with a slash");
    const std::size_t mark = text.find('?');
    Target target;
    auto path = decoded(text.substr(0, mark));
    if (!path)
        return Parsed::failed("the path has a broken percent escape");
    target.path = std::move(*path);
    std::string_view rest = mark == text.npos ? "" : text.substr(mark + 1);
    while (!rest.empty()) {
        const std::string_view pair = rest.substr(0, rest.find('&'));
        rest.remove_prefix(pair.size() + (pair.size() < rest.size() ? 1 : 0));
        const std::size_t equals = pair.find('=');
        auto key = decoded(pair.substr(0, equals));
        auto value = decoded(equals == pair.npos ? "" : pair.substr(equals + 1));
        if (!key || !value)
            return Parsed::failed("the query has a broken percent escape");
        if (!pair.empty())
            target.query.emplace_back(std::move(*key), std::move(*value));
    }
    return Parsed::of(std::move(target));
}

} // namespace kp::web
