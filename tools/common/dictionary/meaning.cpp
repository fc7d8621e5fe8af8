#include "common/dictionary/meaning.h"

#include "common/clock.h"
#include "common/text/text.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

namespace {

bool has_text(const Fact<std::string> *fact)
{
    return fact && !fact->value.empty();
}

} // namespace

Meaning meaning_of(const Dictionary &dictionary, const std::string &topic, const Snapshot &snapshot)
{
    Meaning meaning;
    meaning.facts = dictionary.facts_of(topic);
    if (!meaning.facts.is_known || snapshot.condition != Condition::value)
        return meaning;
    meaning.state = state_of(meaning.facts, {snapshot.type, snapshot.bytes, snapshot.quality,
                                             snapshot.last_write_ts, now_us()});
    meaning.name = name_of(meaning.facts, snapshot.type, snapshot.bytes);
    return meaning;
}

std::string meant_value(const Meaning &meaning, const std::string &shown)
{
    if (!meaning.state)
        return shown;
    if (meaning.name)
        return escaped(*meaning.name) + " (" + shown + ")";
    return has_text(meaning.facts.unit) ? shown + " " + escaped(meaning.facts.unit->value) : shown;
}

std::string state_text(const Meaning &meaning)
{
    return meaning.state ? state_name(*meaning.state) : "-";
}

void add_meaning(nlohmann::ordered_json &object, const Meaning &meaning)
{
    if (has_text(meaning.facts.unit))
        object["unit"] = meaning.facts.unit->value;
    if (meaning.name)
        object["name"] = *meaning.name;
    if (meaning.state)
        object["state"] = state_name(*meaning.state);
    if (has_text(meaning.facts.description))
        object["description"] = meaning.facts.description->value;
}

} // namespace kp::tool
