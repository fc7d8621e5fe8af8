// The way from a change notice to the watches: it finds the tags that the notice speaks of, and the
// watches that cover them.
#pragma once

#include "base/node_state.h"

namespace kp::python {

// Takes the notice that waits, if one does, and gives its topics to the watches that cover them.
// Never waits for a change. The interpreter's lock is held before and after, not all the time.
void dispatch(NodeState &state);

// Gives the time, of the monotonic clock, at which dispatch() is due although no notice comes.
inline uint64_t next_look(const NodeState &state)
{
    return state.has_unknown ? state.search_after_us : state.look_after_us;
}

// Follows the topics of a pattern from now on, and those that are announced later. False when the
// library could not; errno tells why.
bool follow(NodeState &state, const std::string &pattern);

// Gives the topics of the store that a pattern covers.
std::vector<std::string> topics_of_store(const std::string &pattern);

} // namespace kp::python
