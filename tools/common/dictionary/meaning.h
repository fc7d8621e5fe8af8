// A topic's value beside what the dictionary says of the topic.
#pragma once

#include "common/dictionary/dictionary.h"
#include "common/store/segment_reader.h"

#include <nlohmann/json_fwd.hpp>

namespace kp::tool {

// What is known of a topic, and its value's state by that. Valid as long as the dictionary.
struct Meaning {
    Facts facts;
    std::optional<ValueState> state;   // of the value of a topic that the dictionary knows
    const std::string *name = nullptr; // of the value
};

Meaning meaning_of(const Dictionary &dictionary, const std::string &topic,
                   const Snapshot &snapshot);

// What is shown of a value, with its unit, or with its name and the value in brackets.
std::string meant_value(const Meaning &meaning, const std::string &shown);

// The state's name, or "-" where there is none.
std::string state_text(const Meaning &meaning);

// Adds the keys unit, name, state and description, each only where there is one.
void add_meaning(nlohmann::ordered_json &object, const Meaning &meaning);

} // namespace kp::tool
