// Named accesses to plain fields that another thread or process may touch at the same time. The
// order is part of the name, so that a reader sees at the call what is guaranteed. On x86-64 and
// AArch64 the relaxed ones are ordinary loads and stores. store_relaxed() is always inline, since
// the compiler would make a call of that single instruction where it compiles for size.
#pragma once

#include <atomic>
#include <type_traits>

namespace kp {

template <typename T> T load_relaxed(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}

template <typename T> T load_acquire(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_acquire);
}

template <typename T>
[[gnu::always_inline]] inline void store_relaxed(T &field, std::type_identity_t<T> value)
{
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

template <typename T> void store_release(T &field, std::type_identity_t<T> value)
{
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

// This one is sequentially consistent: the slots of an endpoint change hands by exchange alone, and
// no access to the counts beside them may move across it.
template <typename T> T load_ordered(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_seq_cst);
}

template <typename T> T exchange(T &field, std::type_identity_t<T> value)
{
    return std::atomic_ref<T>(field).exchange(value, std::memory_order_seq_cst);
}

// Stores `value` if the field still holds `expected`. Says whether it did.
template <typename T>
bool replace_if(T &field, std::type_identity_t<T> expected, std::type_identity_t<T> value)
{
    return std::atomic_ref<T>(field).compare_exchange_strong(expected, value,
                                                             std::memory_order_seq_cst);
}

template <typename T> void add_ordered(T &field, std::type_identity_t<T> amount)
{
    std::atomic_ref<T>(field).fetch_add(amount, std::memory_order_seq_cst);
}

template <typename T> void subtract_ordered(T &field, std::type_identity_t<T> amount)
{
    std::atomic_ref<T>(field).fetch_sub(amount, std::memory_order_seq_cst);
}

template <typename T> void set_bits_relaxed(T &field, std::type_identity_t<T> bits)
{
    std::atomic_ref<T>(field).fetch_or(bits, std::memory_order_relaxed);
}

// Changes a field as a whole through `change`, a function of its old value; returns the new one.
template <typename T, typename Change> T update(T &field, Change change)
{
    const std::atomic_ref<T> shared(field);
    T old_value = shared.load(std::memory_order_relaxed);
    T new_value = change(old_value);
    while (!shared.compare_exchange_weak(old_value, new_value, std::memory_order_acq_rel,
                                         std::memory_order_relaxed))
        new_value = change(old_value);
    return new_value;
}

#pragma GCC diagnostic push
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wtsan" // no shared field is ordered by these fences alone
#endif

// Every store before this one is visible before any store that follows it. A release store does not
// give that: it holds back the stores before it, not those after.
inline void order_stores()
{
    std::atomic_thread_fence(std::memory_order_release);
}

// Every load before this one is done before any load that follows it.
inline void order_loads()
{
    std::atomic_thread_fence(std::memory_order_acquire);
}

#pragma GCC diagnostic pop

} // namespace kp
