#include "writing/meant_write.h"

#include "common/text.h"
#include "output/meaning.h"

namespace kp::tool {

void take_declaration(Write &write)
{
    const Facts facts = dictionary().facts_of(write.topic);
    if (facts.type)
        write.meant_type = facts.type->value;
    if (facts.size)
        write.meant_max = facts.size->value;
}

std::string value_behind_name(const std::string &topic, const std::string &text)
{
    return named_value(dictionary().facts_of(topic), text).value_or(text);
}

void take_value_behind_name(Record &record, uint32_t type)
{
    if (record.bytes || !record.value.is_string())
        return;
    const auto number =
        named_value(dictionary().facts_of(record.write.topic), record.value.get<std::string>());
    if (number && type == KP_TYPE_BOOLEAN)
        record.value = *number == "1";
    else if (number)
        record.value = nlohmann::json::parse(*number);
}

bool check_range(const std::string &topic, uint32_t type, const std::string &bytes,
                 Problem &problem)
{
    const Facts facts = dictionary().facts_of(topic);
    if (is_in_range(facts, type, bytes))
        return true;
    problem = {kUsage, escaped(topic) + ": " + value_text(type, bytes) + " is outside " +
                           range_text(facts) + " (--force sets it)"};
    return false;
}

} // namespace kp::tool
