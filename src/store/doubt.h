// What a handle counts as seen. A consistent read can be in doubt: a writer that is stopped between its
// first two stores has stored its timestamp beside the value of the write before, which is then whole
// and looks like its own. To mark that write as seen would lose it. So a handle keeps a fingerprint of
// what it was given in doubt, and takes the write for seen only as long as nothing else stands there.
#pragma once

#include "layout/field.h"
#include "store/consistent.h"
#include "store/segment_file.h"

namespace kp {

// Keeps the fingerprint of a read that was in doubt. By value, so that a caller's header can stay in
// registers.
void mark_in_doubt(kp_shm_t &shm, ValueHeader header, const uint8_t *bytes);

// Marks what a consistent read has given as seen. No doubt about a value whose source timestamp equals
// its timestamp, as every plain write stores it. `bytes` may be null: then those of the segment count.
inline void mark_seen(kp_shm_t &shm, const ValueHeader &header, const uint8_t *bytes)
{
    if (header.source_ts == header.last_write_ts) [[likely]]
        store_relaxed(shm.last_update_ts, header.last_write_ts);
    else
        mark_in_doubt(shm, header, bytes);
}

// Whether the last write counts as seen: its timestamp is not later than what the handle last saw.
bool has_seen_last_write(const kp_shm_t &shm);

// Whether the last write is another one than that which this handle has last read or written.
bool has_changed(const kp_shm_t &shm);

} // namespace kp
