#include "store/listing.h"

namespace kp::web {

std::size_t Listing::read(std::span<char> room)
{
    std::span<char> rest = out_.move_to(room);
    while (!rest.empty() && prepare_next())
        rest = out_.move_to(rest);
    return room.size() - rest.size();
}

// It goes on behind the name of the last topic, since topics come and go between two pieces.
bool Listing::prepare_next()
{
    const auto &topics = board_.topics();
    for (auto next = topics.upper_bound(last_); next != topics.end(); ++next) {
        last_ = next->first;
        if (!selection_.covers(last_))
            continue;
        std::string line = line_(next->second);
        if (line.empty())
            continue;
        out_.put(std::move(line));
        return true;
    }
    is_done_ = true;
    return false;
}

} // namespace kp::web
