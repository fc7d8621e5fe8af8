// Following the topics of a pattern: which of them have changed and not been delivered yet.
#pragma once

#include "base/object.h"

#include "common/names/pattern.h"
#include "kp.h"
#include "layout/unique_fd.h"

#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kp::python {

struct NodeState;

// The topics of one watch that wait for their delivery. A topic waits once, whatever is written to
// it meanwhile: what is delivered is its newest value then. Touched with the interpreter's lock
// held.
class WatchList {
  public:
    explicit WatchList(const std::string &pattern) : pattern_(pattern)
    {
    }

    bool covers(const std::string &topic) const
    {
        return pattern_.covers(topic);
    }
    // Notes a change, and wakes the thread that waits for one.
    void add(const std::string &topic);
    bool has_waiting() const
    {
        return !waiting_.empty();
    }
    // Promises to deliver those that wait now, even after the timeout of the watch.
    void owe_what_waits()
    {
        owed_ = waiting_.size();
    }
    // Says whether some of the promised ones were not taken yet.
    bool owes() const
    {
        return owed_ > 0;
    }
    // Takes the topic that has waited longest, if there is one.
    std::optional<std::string> take();
    // Says whether this write of the topic was not delivered before, and remembers it.
    bool is_news(const std::string &topic, uint64_t time_us, uint64_t source_time_us);
    // Gives a descriptor that add() and wake() make readable; -1 when there is none left.
    int wake_fd();
    void wake() const;

    int waiting_threads = 0; // which use the descriptor without the interpreter's lock

  private:
    struct Delivered {
        bool waits = false;
        bool any = false;
        uint64_t time_us = 0;
        uint64_t source_time_us = 0;
    };

    tool::Pattern pattern_;
    std::unordered_map<std::string, Delivered> topics_;
    std::deque<std::string> waiting_;
    std::size_t owed_ = 0; // so many, from the front of waiting_, are promised
    UniqueFd wake_fd_;
};

// Wakes every thread that waits in one of these watches.
void wake_all(const std::vector<WatchList *> &watches);

bool add_watch_type(PyObject *module);

} // namespace kp::python
