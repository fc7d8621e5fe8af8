// What the broker has acknowledged, as far as it tells something when the broker comes back: the
// last value that it keeps, and the topics that it has cleared last.
#pragma once

#include "messages/message.h"

#include <deque>
#include <optional>
#include <string>

namespace kp::mqtt {

class Acknowledged {
  public:
    static constexpr size_t kMostCleared = 1000;

    // A value that the broker keeps from now on.
    void keep(Publication value);
    // It keeps none of the topic any more.
    void keep_no_more(const std::string &topic);
    // A topic that is no longer anybody's is cleared.
    void remember_cleared(const std::string &topic);

    // The last value that the broker has acknowledged and keeps. A broker that still has it has
    // everything that came before it. Null when there is none.
    const Publication *last_kept() const
    {
        return last_kept_ ? &*last_kept_ : nullptr;
    }

    // The topics that were cleared last. A broker that was killed may come back with values from
    // before.
    std::deque<std::string> take_cleared();

  private:
    std::optional<Publication> last_kept_;
    std::deque<std::string> cleared_;
};

} // namespace kp::mqtt
