// The topics in the order in which the live view shows them, the cursor among them, and which of
// them the screen has room for.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kp::tool {

class TopicList {
  public:
    // Takes what is shown from now on, in so many rows. The cursor stays on its topic when the
    // order changes, and on its place when that topic is gone.
    void set(std::vector<std::string> topics, std::size_t rows);

    // Moves the cursor to a topic, or to the last one when there are not so many. The rows that are
    // seen follow it.
    void move_to(std::size_t index, std::size_t rows);
    // Goes back to the first rows.
    void go_to_start()
    {
        first_ = 0;
    }
    // Until this is called no topic is marked. Says whether one was marked before.
    bool mark_cursor();

    std::size_t size() const
    {
        return topics_.size();
    }
    std::size_t cursor() const
    {
        return cursor_;
    }
    // The topic that the cursor is on; empty when there is none.
    const std::string &chosen() const
    {
        return chosen_;
    }
    // Those that are seen in so many rows. Valid until the next set().
    std::span<const std::string> seen(std::size_t rows) const;
    // Which of those is marked.
    std::optional<std::size_t> marked() const;

  private:
    std::vector<std::string> topics_;
    std::string chosen_;
    std::size_t cursor_ = 0;
    std::size_t first_ = 0; // in the first row
    bool is_marked_ = false;
};

} // namespace kp::tool
