// Memory that a process and the children it forks later share.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <sys/mman.h>

namespace bench {

template <typename T> struct Unmap {
    void operator()(T *object) const
    {
        (void)munmap(static_cast<void *>(object), sizeof(T));
    }
};

template <typename T> using SharedPtr = std::unique_ptr<T, Unmap<T>>;

template <typename T> SharedPtr<T> make_shared_memory()
{
    void *memory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("mmap");
        std::exit(1);
    }
    return SharedPtr<T>(new (memory) T());
}

} // namespace bench
