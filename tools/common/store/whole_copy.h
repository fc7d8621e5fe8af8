// Where the tools exclude torn values: copies of a segment in which everything belongs together.
//
// The rule. The library's own consistent read (docs/reliability.md) relies on the timestamp of a
// write where bytes alone tell nothing. A tool cannot: it shows what any program wrote, also one
// that gives all its writes the same timestamp. So an attempt is five looks: the first copies the
// segment, and four more compare it with the copy. The copy counts only if each look finds that no
// write is going on, and if all four find the same bytes in all fields and in the value. Only the
// counts may change, which are no part of a write. Two looks match on the same torn value about
// once in 50 when a writer flips between two values under one timestamp; five practically never.
// docs/reliability.md has what was measured.
//
// A look through a mapping loads the mark of a write before the bytes and again after them. A look
// through a file fetches mark and bytes with one pread(), so it knows the mark of one moment only.
// That is enough: a write that begins or ends within the call either is still going on at the next
// look, which then finds the mark, or has stored all its bytes, and the next look finds these.
//
// An attempt that a write disturbs is repeated: first at once, since the gap between two writes may
// be as short as the attempt, and then after pauses, since the writer may have lost its processor.
#pragma once

#include "layout/segment.h"
#include "layout/unique_fd.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace kp::tool {

// The fields behind the semaphore, and as much of the value as they speak of.
struct SegmentCopy {
    std::array<uint8_t, kSegmentSize + 1> bytes; // one more, in which a file that is too long shows

    Segment segment() const;
    // The value, as many bytes as the field says that were written, and at most as many as fit.
    std::string_view value() const;
};

enum class CopyOutcome {
    whole,
    disturbed,  // by writes in every attempt; the fields are those of the last one
    no_segment, // the file has another size, or the memory behind the mapping is gone
};

struct CopyTaken {
    CopyOutcome outcome = CopyOutcome::disturbed;
    bool is_written_on = false; // the timestamp changed between the first attempts and the last
};

// How long to wait for writes to leave a gap: at most about three milliseconds, or not at all.
enum class Patience { some, none };

// Takes the copy through a mapping, which needs catch_bus_errors() to have been called, or through
// an open file.
CopyTaken take_whole_copy(const Segment &mapped, SegmentCopy &copy);
CopyTaken take_whole_copy(const UniqueFd &file, SegmentCopy &copy,
                          Patience patience = Patience::some);

} // namespace kp::tool
