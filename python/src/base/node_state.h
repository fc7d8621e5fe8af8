// The state of a node: one handle of the library, shared by the tags and watches that Python makes
// from it.
//
// Locks. What Python sees of a node changes only while its thread holds the interpreter's lock. The
// library's calls that can wait run without it, so two mutexes keep them apart: `tags` for
// creating, destroying and walking tags, `marks` for notices and the writes beside them. Neither is
// waited for with the interpreter's lock held.
#pragma once

#include "base/object.h"

#include "kp.h"
#include "layout/unique_fd.h"

#include <string>
#include <vector>

namespace kp::python {

class WatchList;

struct Node {
    PyObject_HEAD struct NodeState *state;
};

struct NodeState {
    kp_t *handle = nullptr; // null before open and from the begin of close on
    bool was_opened = false;
    bool defers_notices = false; // writes leave the notice to whoever awaits it, or to notify()
    bool is_marked = false;      // something was written since the last notice
    unsigned process = 0;        // of open(); see current_process()
    int users = 0;               // threads that are in a call on the handle without the lock
    UniqueFd closing;            // an eventfd, readable from the begin of close on
    std::mutex tags;
    std::mutex marks;
    int senders = 0; // threads that send a notice, or are about to; see turn_to_write()
    std::vector<WatchList *> watches;
    uint64_t look_after_us =
        0; // when all tags are looked at without a notice, of the monotonic clock
    bool has_unknown = false;     // a notice spoke of a topic that has no tag
    uint64_t search_after_us = 0; // when the store may be searched for it, of the monotonic clock
};

// Counts a thread in over a scope. Whoever takes away what it uses waits until the count is 0. The
// count changes with the interpreter's lock held.
class Counted {
  public:
    explicit Counted(int &count) : count_(count)
    {
        ++count_;
    }
    Counted(const Counted &) = delete;
    Counted &operator=(const Counted &) = delete;
    ~Counted()
    {
        --count_;
    }

  private:
    int &count_;
};

// Goes up in every child of a fork; written there only, while the child has one thread.
extern unsigned process_number;
inline unsigned current_process()
{
    return process_number;
}

inline NodeState &state_of(PyObject *node)
{
    return *reinterpret_cast<Node *>(node)->state;
}

// Raises when the node cannot be used: not open, closed, or another process's.
[[gnu::cold]] bool refuse_use(const NodeState &state);
inline bool is_usable(const NodeState &state)
{
    return (state.handle && state.process == current_process()) || refuse_use(state);
}

// Keeps writes and notices of one node apart. A write does not wait and so holds the interpreter's
// lock all the time, which is enough as long as no thread sends; else it takes the mutex too.
inline std::unique_lock<std::mutex> turn_to_write(NodeState &state)
{
    return state.senders > 0 ? locked(state.marks) : std::unique_lock<std::mutex>();
}

// Sends the change notice. False with an exception.
bool send_notice(NodeState &state);

// Opens a consumer's or provider's tag, or whatever `make` makes of the handle, as tags are made.
template <typename Make> auto with_tags_locked(NodeState &state, const Make &make)
{
    const Counted use(state.users);
    kp_t *handle = state.handle;
    const WithoutInterpreter waiting;
    const std::lock_guard<std::mutex> lock(state.tags);
    return make(handle);
}

} // namespace kp::python
