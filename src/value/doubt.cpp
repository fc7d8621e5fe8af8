#include "value/doubt.h"

#include <cstring>

namespace kp {

namespace {

constexpr uint64_t kFactor = 0x9E3779B97F4A7C15; // odd, so that no step loses anything

uint64_t mix(uint64_t lane, uint64_t word)
{
    // In a register: the vectors of x86-64 have no such product, and what replaces it is slow.
    asm("" : "+r"(word));
    lane = (lane ^ word) * kFactor;
    return lane ^ lane >> 32;
}

uint64_t word_at(const uint8_t *bytes)
{
    uint64_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

uint64_t fingerprint(const ValueHeader &header, const uint8_t *bytes)
{
    // Four lanes that do not wait for each other, so that the processor overlaps them.
    uint64_t first = header.source_ts;
    uint64_t second = header.quality;
    uint64_t third = header.size();
    uint64_t fourth = header.flags;
    uint32_t rest = header.size();
    for (; rest >= 32; rest -= 32, bytes += 32) {
        first = mix(first, word_at(bytes));
        second = mix(second, word_at(bytes + 8));
        third = mix(third, word_at(bytes + 16));
        fourth = mix(fourth, word_at(bytes + 24));
    }
    for (; rest >= 8; rest -= 8, bytes += 8)
        first = mix(first, word_at(bytes));
    uint64_t last = 0;
    for (; rest > 0; --rest)
        last = last << 8 | *bytes++;
    return mix(mix(mix(mix(first, last), second), third), fourth);
}

// A handle whose last read was in doubt keeps the timestamp before the doubted one as seen. A later
// read or write without a doubt stores its own timestamp there, which ends the doubt.
bool is_in_doubt(const kp_shm_t &shm, uint64_t last_write_ts)
{
    return load_acquire(shm.doubted_ts) == last_write_ts &&
           load_relaxed(shm.last_update_ts) == last_write_ts - 1;
}

// Whether what was given in doubt is still all that stands there.
bool is_as_given(const kp_shm_t &shm)
{
    const Segment &segment = *shm.mem;
    const ValueHeader header{0, load_relaxed(segment.source_ts),
                             load_relaxed(segment.written_value_size),
                             load_relaxed(segment.quality), load_relaxed(segment.state.flags)};
    return fingerprint(header, segment.value) == load_relaxed(shm.doubted_print);
}

} // namespace

void mark_in_doubt(kp_shm_t &shm, ValueHeader header, const uint8_t *bytes)
{
    const uint64_t ts = header.last_write_ts;
    store_relaxed(shm.doubted_print, fingerprint(header, bytes ? bytes : shm.mem->value));
    store_release(shm.doubted_ts, ts);
    store_relaxed(shm.last_update_ts, ts - 1);
}

bool has_seen_last_write(const kp_shm_t &shm)
{
    const uint64_t last_write_ts = load_relaxed(shm.mem->last_write_ts);
    const uint64_t ahead = load_relaxed(shm.last_update_ts) - last_write_ts;
    return static_cast<int64_t>(ahead) >= 0 ||
           (is_in_doubt(shm, last_write_ts) && is_as_given(shm));
}

bool has_changed(const kp_shm_t &shm)
{
    const uint64_t last_write_ts = load_relaxed(shm.mem->last_write_ts);
    return load_relaxed(shm.last_update_ts) != last_write_ts &&
           !(is_in_doubt(shm, last_write_ts) && is_as_given(shm));
}

} // namespace kp
