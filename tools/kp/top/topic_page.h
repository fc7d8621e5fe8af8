// One topic on a page of its own: the whole value, its last minute, and who has it open.
#pragma once

#include "top/top_data.h"

namespace kp::tool {

class TopicPage {
  public:
    explicit TopicPage(std::string topic) : topic_(std::move(topic))
    {
    }
    const std::string &topic() const
    {
        return topic_;
    }
    // The page as lines of at most so many columns.
    std::vector<std::string> lines(TopData &data, bool is_frozen, std::size_t columns);

  private:
    std::vector<std::string> user_lines();

    std::string topic_;
    std::vector<std::string> users_;
    uint64_t look_at_users_ = 0; // a monotonic time: all processes are looked at for them
};

} // namespace kp::tool
