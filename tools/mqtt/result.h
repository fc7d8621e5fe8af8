// A value, or the reason why there is none.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace kp::mqtt {

template <typename T> struct Result {
    std::optional<T> value;
    std::string problem; // a phrase for a message; empty when there is a value

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

} // namespace kp::mqtt
