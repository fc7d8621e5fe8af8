// Says how a problem with a topic is answered.
#pragma once

#include "common/problem.h"

#include <string_view>

namespace kp::web {

// This stands in front of a topic in an address.
constexpr std::string_view kTagsPath = "/tags/";

// Gives the status that tells of a problem with the store.
inline unsigned status_of(const tool::Problem &problem)
{
    return problem.kind == tool::kNothing      ? 404
           : problem.kind == tool::kUsage      ? 400
           : problem.kind == tool::kPermission ? 403
                                               : 500;
}

} // namespace kp::web
