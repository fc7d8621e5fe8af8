#include "store/doubt.h"

#include <array>
#include <cstring>

namespace kp {

namespace {

constexpr uint64_t kFactor = 0x9E3779B97F4A7C15; // odd, so that no step loses anything
constexpr std::size_t kLanes = 4;                // independent, so that the processor overlaps them

using Block = std::array<uint64_t, kLanes>;

uint64_t mix(uint64_t lane, uint64_t word)
{
    lane = (lane ^ word) * kFactor;
    return lane ^ lane >> 32;
}

void mix_block(Block &lanes, const uint8_t *bytes)
{
    Block words;
    std::memcpy(words.data(), bytes, sizeof(words));
    for (std::size_t lane = 0; lane < kLanes; ++lane)
        lanes[lane] = mix(lanes[lane], words[lane]);
}

uint64_t fingerprint(const ValueHeader &header, const uint8_t *bytes)
{
    Block lanes{header.source_ts, header.quality, header.size(), header.flags};
    uint32_t rest = header.size();
    for (; rest >= sizeof(Block); rest -= static_cast<uint32_t>(sizeof(Block))) {
        mix_block(lanes, bytes);
        bytes += sizeof(Block);
    }
    std::array<uint8_t, sizeof(Block)> last{};
    std::memcpy(last.data(), bytes, rest);
    mix_block(lanes, last.data());
    return mix(mix(mix(lanes[0], lanes[1]), lanes[2]), lanes[3]);
}

// A handle whose last read was in doubt is marked with the timestamp before, so that reads and writes
// that are in none leave the mark by storing their own.
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
