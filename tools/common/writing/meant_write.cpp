#include "common/writing/meant_write.h"

#include "common/text/text.h"

namespace kp::tool {

namespace {

void take_value_behind_name(Record &record, uint32_t type, const Facts &facts)
{
    if (record.bytes || !record.value.is_string())
        return;
    const auto number = named_value(facts, record.value.get<std::string>());
    if (number && type == KP_TYPE_BOOLEAN)
        record.value = *number == "1";
    else if (number)
        record.value = nlohmann::json::parse(*number);
}

} // namespace

void take_declaration(Write &write, const Facts &facts)
{
    if (facts.type)
        write.meant_type = facts.type->value;
    if (facts.size)
        write.meant_max = facts.size->value;
}

std::string value_behind_name(const Facts &facts, const std::string &text)
{
    return named_value(facts, text).value_or(text);
}

bool check_range(const Write &write, const Facts &facts, uint32_t type, const std::string &bytes,
                 Problem &problem)
{
    if (is_in_range(facts, type, bytes))
        return true;
    problem = {kUsage, escaped(write.topic) + ": " + value_text(type, bytes) + " is outside " +
                           range_text(facts) + write.remedies.out_of_range};
    return false;
}

std::optional<Target> store_meant_record(Record &record, const Facts &facts, Problem &problem)
{
    const Write &write = record.write;
    take_declaration(record.write, facts);
    auto target = find_target(write, problem);
    if (!target)
        return std::nullopt;
    if (!has_variable_size(target->type))
        take_value_behind_name(record, target->type, facts);
    const auto bytes = record_bytes(record, target->type, problem);
    if (!bytes ||
        (!write.change_type && !check_range(write, facts, target->type, *bytes, problem)) ||
        !store_value(write, *target, bytes, problem))
        return std::nullopt;
    return target;
}

} // namespace kp::tool
