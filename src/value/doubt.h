// What a handle counts as seen. A consistent read can be in doubt: a writer that is stopped between
// its first two stores has stored its timestamp beside the value of the write before, which is then
// whole and looks like its own. To mark that write as seen would lose it. So a handle keeps a
// fingerprint of what it was given in doubt, and takes the write for seen only as long as nothing
// else stands there.
#pragma once

#include "layout/field.h"
#include "store/segment_file.h"
#include "value/consistent.h"

namespace kp {

// Keeps the fingerprint of a read that was in doubt. Takes the header by value, so that the
// caller's can stay in registers.
void mark_in_doubt(kp_shm_t &shm, ValueHeader header, const uint8_t *bytes);

// Marks as seen what a consistent read has given. There is no doubt about a value whose source
// timestamp equals its timestamp, and every plain write stores it so. `bytes` may be null: then the
// bytes of the segment count.
inline void mark_seen(kp_shm_t &shm, const ValueHeader &header, const uint8_t *bytes)
{
    if (header.source_ts == header.last_write_ts) [[likely]]
        store_relaxed(shm.last_update_ts, header.last_write_ts);
    else
        mark_in_doubt(shm, header, bytes);
}

// Says whether the last write counts as seen: its timestamp is not later than what the handle last
// saw.
bool has_seen_last_write(const kp_shm_t &shm);

// Says whether the last write is another one than the write that this handle has last read or made.
bool has_changed(const kp_shm_t &shm);

} // namespace kp
