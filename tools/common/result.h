// A value, or a phrase that says why there is none. Where the caller has to tell kinds of problems
// apart, functions give a Problem instead.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace kp::tool {

template <typename T> struct Result {
    std::optional<T> value;
    std::string problem; // part of a sentence; empty when there is a value

    static Result of(T value)
    {
        return {std::move(value), {}};
    }
    static Result failed(std::string why)
    {
        return {std::nullopt, std::move(why)};
    }
    explicit operator bool() const
    {
        return value.has_value();
    }
};

} // namespace kp::tool
