// Who wants to hear what becomes of something.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kp::mqtt {

// Each is called with the reason why it was not done, or with an empty text. Any thread may call.
using WhenDone = std::vector<std::function<void(const std::string &problem)>>;

inline void tell(const WhenDone &listeners, const std::string &problem)
{
    for (const auto &listener : listeners)
        listener(problem);
}

} // namespace kp::mqtt
