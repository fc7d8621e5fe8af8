// What `kp wait` waits for on one topic: a comparison with its value, a change, a recent write.
#pragma once

#include "common/store/segment_reader.h"

#include <optional>
#include <string>
#include <vector>

namespace kp::tool {

enum class Test { equal, unequal, less, at_most, more, at_least, changes, exists, fresh };

struct TopicCondition {
    Test test = Test::exists;
    std::string operand; // of the comparisons, as it was given
    uint64_t age_us = 0; // of `fresh`: how long ago the write may be
};

// Gives the condition that these words of the command line say, at least one; nothing when they say
// none. "==5", "== 5" in one word and in two are alike.
std::optional<TopicCondition> parse_condition(const std::vector<std::string> &given);

// Compares a value as a comparison says: in the value's type, or as numbers if the operand is a
// number that the type does not have, such as 4.5 for integers. Gives nothing, with a problem, if
// the operand is neither.
std::optional<bool> is_met_by(const TopicCondition &condition, const Snapshot &snapshot,
                              Problem &problem);

} // namespace kp::tool
