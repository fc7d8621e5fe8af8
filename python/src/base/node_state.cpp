#include "base/node_state.h"

#include "base/errors.h"

namespace kp::python {

unsigned process_number = 0;

bool refuse_use(const NodeState &state)
{
    if (state.was_opened && state.process != current_process())
        raise(Kind::ForkedError, "the node belongs to the process that this one was forked from; "
                                 "open one of your own");
    else
        raise(Kind::ClosedError, state.was_opened
                                     ? "the node is closed"
                                     : "the node is not open; use with, async with or open()");
    return false;
}

bool send_notice(NodeState &state)
{
    const Counted use(state.users);
    const Counted sends(state.senders);
    kp_t *handle = state.handle;
    state.is_marked = false;
    int32_t result = 0;
    {
        const WithoutInterpreter sending;
        const std::lock_guard<std::mutex> lock(state.marks);
        result = kp_tag_notify(handle);
    }
    if (result == 0)
        return true;
    raise(Kind::Error, "the notice was not sent");
    return false;
}

} // namespace kp::python
