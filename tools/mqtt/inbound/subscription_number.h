// The numbers of subscriptions: a broker writes them on each message, so that the bridge knows for
// which of its subscriptions it came.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace kp::mqtt {

constexpr uint32_t kMostSubscriptionNumber = 268'435'455;

// A number from 1 to the largest for what a text names, or the next one that is not taken. The same
// text has the same number in every run, since a broker can keep messages that came for a
// subscription until the next one.
uint32_t subscription_number(std::string_view text,
                             const std::function<bool(uint32_t number)> &is_taken);

} // namespace kp::mqtt
