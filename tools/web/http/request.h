// The parts of a request that matter here.
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
    uint64_t body_bytes = 0; // as the header announces them; 0 when it does not
    std::string body = {};   // of a PUT, up to kMostBodyBytes
};

// This is enough for the longest value with each of its bytes escaped. A longer body is not taken.
constexpr std::size_t kMostBodyBytes = 65'536;

} // namespace kp::web
