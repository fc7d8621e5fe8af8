// Owners of heap memory. What the library allocates comes from malloc and calloc, so that a C
// program can free what it is handed.
#pragma once

#include "layout/keep_errno.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

namespace kp {

struct FreeMemory {
    void operator()(void *memory) const
    {
        const KeepErrno keep;
        std::free(memory);
    }
};

template <typename T> using MallocPtr = std::unique_ptr<T, FreeMemory>;

// A zero-filled record, so that clean-up can tell what was never created; null when out of memory.
template <typename T> MallocPtr<T> make_zeroed()
{
    static_assert(std::is_trivially_copyable_v<T>);
    return MallocPtr<T>(static_cast<T *>(std::calloc(1, sizeof(T))));
}

// A heap copy of a string; null when out of memory.
inline MallocPtr<char> copy_text(const char *text)
{
    return MallocPtr<char>(strdup(text));
}

} // namespace kp
