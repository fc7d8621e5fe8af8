// What goes over the connection, in both directions.
#pragma once

#include "base/clock.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kp::mqtt {

using UserProperties = std::vector<std::pair<std::string, std::string>>;

// The names of the user properties, in both directions.
namespace property {
constexpr const char *kQuality = "q";
constexpr const char *kSourceTime = "sts";
constexpr const char *kWriteTime = "ts";
constexpr const char *kType = "type";
constexpr const char *kExtraInfo = "xi";
constexpr const char *kUnit = "unit"; // of the value, as the dictionary says; outbound alone
constexpr const char *kOrigin = "origin";
constexpr const char *kNumber =
    "n"; // the number by which an origin knows its own messages in a shared tree
} // namespace property

// The payloads of the message that says whether a device is there.
inline constexpr const char *kOnline = "online";
inline constexpr const char *kOffline = "offline";

// The value of the first property of that name, or an empty text.
std::string property_of(const UserProperties &properties, std::string_view name);

// A message to the broker.
struct Publication {
    std::string topic;
    std::string payload;
    int qos = 1;
    bool retain = false;
    const char *content_type = nullptr; // of static storage, or null
    bool is_utf8 = false;
    uint32_t expiry_s = 0;
    UserProperties properties;
    std::string correlation{}; // of an answer: what the question has said of itself
    uint64_t number = 0;       // the number in the properties; 0: none
    Clock::time_point since{}; // when the oldest change that it stands for was seen
};

// A message from the broker.
struct Message {
    std::string topic;
    std::string payload;
    bool retain = false; // the broker has kept it from before the subscription, or keeps it now
    UserProperties properties;
    std::vector<uint32_t> subscriptions; // the numbers of those that it came for; none: not known
    std::string response_topic{};        // where its sender wants an answer, or an empty text
    std::string correlation{};           // what is to be sent with the answer
    size_t left_out = 0;                 // bytes of a payload that is too large to be looked at
};

// The device that has sent a message, as its origin says it, or an empty text.
std::string sender_of(const Message &message);

struct Subscription {
    std::string filter;
    int qos = 1;
    bool retained = false; // also what the broker has kept
    bool own_too = false;  // also the messages of this connection
    uint32_t number = 0;   // what its messages carry where the broker can do that; 0: none
    bool at_last = false;  // it is made last, when values may be sent

    bool operator==(const Subscription &) const = default;
};

// The broker's answer to a message or a subscription.
struct Answer {
    int reason = 0;
    std::string text; // the reason in words, with what the broker says itself

    bool is_refusal() const
    {
        constexpr int first_refusal = 0x80;
        return reason >= first_refusal;
    }
};

// The reasons that the bridge treats in a special way.
constexpr int kQuotaExceeded = 0x97;
constexpr int kRetainNotSupported = 0x9a;
constexpr int kQosNotSupported = 0x9b;

} // namespace kp::mqtt
