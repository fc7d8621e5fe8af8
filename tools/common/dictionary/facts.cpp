#include "common/dictionary/facts.h"

#include "common/text/text.h"
#include "common/values/number_type.h"
#include "common/values/value_text.h"

#include <cmath>
#include <type_traits>

namespace kp::tool {

namespace {

bool has_number(uint32_t type)
{
    return is_number_type(type) || type == KP_TYPE_BOOLEAN;
}

ValueState state_by_limits(const ValueLimits &limits, double value)
{
    // Written so that a NaN, which no comparison holds for, is beyond each limit.
    if (limits.lowlow && !(value > *limits.lowlow))
        return ValueState::lowlow;
    if (limits.highhigh && !(value < *limits.highhigh))
        return ValueState::highhigh;
    if (limits.low && !(value > *limits.low))
        return ValueState::low;
    if (limits.high && !(value < *limits.high))
        return ValueState::high;
    return ValueState::ok;
}

bool is_stale(const Facts &facts, const StateInput &input)
{
    if (!facts.stale_s || input.now_us <= input.written_us)
        return false;
    return static_cast<double>(input.now_us - input.written_us) > facts.stale_s->value * 1e6;
}

} // namespace

bool lie_in(const ValueLimits &limits, const ValueRange &range)
{
    const auto is_inside = [&range](const std::optional<double> &limit) {
        return !limit || (*limit >= range.least && *limit <= range.most);
    };
    return is_inside(limits.lowlow) && is_inside(limits.low) && is_inside(limits.high) &&
           is_inside(limits.highhigh);
}

std::string number_text(double number)
{
    return plain_text(KP_TYPE_DOUBLE, to_bytes(number));
}

std::string place_text(const FilePlace &place)
{
    std::string text = escaped(*place.file);
    if (place.line != 0)
        text += ":" + std::to_string(place.line) + ":" + std::to_string(place.column);
    return text;
}

const std::string *name_of(const Facts &facts, uint32_t type, std::string_view bytes)
{
    if (!facts.names || bytes.empty() || !has_number(type) || is_floating_type(type))
        return nullptr;
    const auto number = with_number(type, [bytes](auto zero) -> std::optional<int64_t> {
        const auto value = from_bytes<decltype(zero)>(bytes);
        if constexpr (std::is_same_v<decltype(zero), uint64_t>)
            if (value > static_cast<uint64_t>(INT64_MAX))
                return std::nullopt;
        return static_cast<int64_t>(value);
    });
    if (!number)
        return nullptr;
    const auto found = facts.names->value.find(*number);
    return found == facts.names->value.end() ? nullptr : &found->second;
}

std::optional<std::string> named_value(const Facts &facts, std::string_view name)
{
    if (!facts.names)
        return std::nullopt;
    for (const auto &[number, known] : facts.names->value)
        if (known == name)
            return std::to_string(number);
    return std::nullopt;
}

const char *state_name(ValueState state)
{
    switch (state) {
    case ValueState::bad_quality:
        return "bad quality";
    case ValueState::stale:
        return "stale";
    case ValueState::lowlow:
        return "lowlow";
    case ValueState::highhigh:
        return "highhigh";
    case ValueState::low:
        return "low";
    case ValueState::high:
        return "high";
    case ValueState::ok:
        break;
    }
    return "ok";
}

ValueState state_of(const Facts &facts, const StateInput &input)
{
    if (input.quality != KP_QUALITY_GOOD)
        return ValueState::bad_quality;
    if (is_stale(facts, input))
        return ValueState::stale;
    if (!facts.limits || input.bytes.empty() || !has_number(input.type))
        return ValueState::ok;
    return state_by_limits(facts.limits->value, as_double(input.type, input.bytes));
}

bool is_in_range(const Facts &facts, uint32_t type, std::string_view bytes)
{
    if (!facts.range || bytes.empty() || !has_number(type))
        return true;
    const double value = as_double(type, bytes);
    return value >= facts.range->value.least && value <= facts.range->value.most;
}

std::string range_text(const Facts &facts)
{
    if (!facts.range)
        return {};
    std::string text =
        number_text(facts.range->value.least) + ".." + number_text(facts.range->value.most);
    if (facts.unit && !facts.unit->value.empty())
        text += " " + escaped(facts.unit->value);
    return text;
}

} // namespace kp::tool
