// From a change notice to the watches: which tags it speaks of, and whom they concern.
#pragma once

#include "node.h"

namespace kp::python {

// Takes the notice that waits, if one does, and gives its topics to the watches that cover them.
// Never waits for a change. The interpreter's lock is held before and after, not all the time.
void dispatch(NodeState &state);

// When dispatch() is due though no notice comes, of the monotonic clock.
inline uint64_t next_look(const NodeState &state)
{
    return state.has_unknown ? state.search_after_us : state.look_after_us;
}

// Follows the topics of a pattern from now on, and those that are announced later. False when the
// library could not; errno tells why.
bool follow(NodeState &state, const std::string &pattern);

// The topics of the store that a pattern covers.
std::vector<std::string> topics_of_store(const std::string &pattern);

} // namespace kp::python
