#include "inbound/subscription_number.h"

namespace kp::mqtt {

// It is a hash (FNV-1a) in the range of such numbers.
uint32_t subscription_number(std::string_view text,
                             const std::function<bool(uint32_t number)> &is_taken)
{
    uint64_t hash = 14'695'981'039'346'656'037u;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1'099'511'628'211u;
    auto number = static_cast<uint32_t>(hash % kMostSubscriptionNumber);
    do
        number = number % kMostSubscriptionNumber + 1;
    while (is_taken(number));
    return number;
}

} // namespace kp::mqtt
