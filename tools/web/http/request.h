// A request as far as it matters here.
#pragma once

#include "http/target.h"

#include <cstdint>
#include <string>

namespace kp::web {

struct Request {
    std::string method = {};
    Target target = {};
    std::string last_event_id = {};
    std::string authorization = {};
    std::string content_type = {};
    std::string content_encoding = {};
    uint64_t body_bytes = 0; // as announced; 0 where it is not
    std::string body = {};   // of a PUT, up to kMostBodyBytes
};

// Enough for the longest value with each of its bytes escaped. A body that is longer is not taken.
constexpr std::size_t kMostBodyBytes = 65'536;

} // namespace kp::web
