// The topics of a selection, read one after another.
#pragma once

#include "common/store/segment_reader.h"
#include "looking/noted_listing.h"

namespace kp::tool {

// Calls `use(topic, snapshot)` for each topic that a provider has declared, sorted, and notes those
// that cannot be shown.
template <typename Use>
void for_each_declared(const Selection &selection, Outcome &outcome, const Use &use)
{
    const StoreListing listing = list_store(selection, outcome);
    TopicOpener opener;
    for (const StoreFile &file : listing.files) {
        Problem problem;
        const auto snapshot = read_topic(opener, file.topic, problem);
        const bool broken = snapshot && snapshot->has_broken_value();
        if (broken)
            problem = value_problem(file.topic, *snapshot);
        if (problem.kind != kDone && problem.kind != kNothing) // one may be removed at any time
            outcome.note(problem);
        if (snapshot && !broken && snapshot->condition != Condition::undeclared)
            use(file.topic, *snapshot);
    }
}

} // namespace kp::tool
