// Copying and comparing the bytes of values. Most topics have a value of 1, 2, 4 or 8 bytes, for
// which the size is a constant here and no function of the C library is called.
#pragma once

#include "layout/segment.h"

#include <cstring>

namespace kp {

// Hides a size from the compiler. If the compiler saw the size's bound it would replace the C
// library's functions by string instructions, which are many times slower.
inline std::size_t unbounded(std::size_t size)
{
    asm("" : "+r"(size));
    return size;
}

[[gnu::always_inline]] inline void copy_bytes(void *to, const void *from, uint32_t size)
{
    switch (size) {
    case 1:
        std::memcpy(to, from, 1);
        return;
    case 2:
        std::memcpy(to, from, 2);
        return;
    case 4:
        std::memcpy(to, from, 4);
        return;
    case 8:
        std::memcpy(to, from, 8);
        return;
    default:
        std::memcpy(to, from, unbounded(size));
    }
}

inline bool are_equal(const void *left, const void *right, uint32_t size)
{
    switch (size) {
    case 1:
        return std::memcmp(left, right, 1) == 0;
    case 2:
        return std::memcmp(left, right, 2) == 0;
    case 4:
        return std::memcmp(left, right, 4) == 0;
    case 8:
        return std::memcmp(left, right, 8) == 0;
    default:
        return std::memcmp(left, right, unbounded(size)) == 0;
    }
}

// Stores a value with its size; the caller has checked that it fits the value area.
inline void store_value(Segment &segment, const void *value, uint32_t size)
{
    copy_bytes(segment.value, value, size);
    store_relaxed(segment.written_value_size, size);
    store_relaxed(segment.state.flags,
                  static_cast<uint8_t>(load_relaxed(segment.state.flags) | kHasValue));
}

} // namespace kp
