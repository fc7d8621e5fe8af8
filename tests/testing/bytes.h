// A value as the bytes that the store holds.
#pragma once

#include <string>

namespace kptest {

template <typename T> std::string bytes_of(T value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

} // namespace kptest
