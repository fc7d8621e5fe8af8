// Answers clients that write: PUT /tags/TOPIC, see kp-web(1).
#pragma once

#include "config/configuration.h"
#include "http/answer.h"
#include "http/request.h"
#include "store/board.h"
#include "writing/announcer.h"

#include <memory>
#include <optional>

namespace kp::web {

class Writes {
  public:
    // What is given must outlive the object. Without a rule it takes no place in the mesh.
    Writes(const Configuration &configuration, Board &board);

    // Says whether anybody may write.
    bool are_allowed() const
    {
        return announcer_ != nullptr;
    }
    // Says why a PUT is refused, before its body is sent; nothing when it is not.
    std::optional<Answer> refusal(const Request &request) const;
    // Stores what the body says of the topic. The request has passed refusal().
    Answer put(const Request &request);

    // Counts the values that were stored since the start.
    uint64_t count() const
    {
        return count_;
    }
    // Gives what went wrong since the last call, for the log.
    std::vector<std::string> take_problems();

  private:
    const Configuration &configuration_;
    Board &board_;
    std::unique_ptr<Announcer> announcer_; // null without a rule
    uint64_t count_ = 0;
};

} // namespace kp::web
