#include "common/device/notice_marks.h"

#include <cstdint>
#include <sys/eventfd.h>

namespace kp::tool {

NoticeMarks::NoticeMarks() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

void NoticeMarks::add(const kp_write_info &notice)
{
    for (std::size_t byte = 0; byte < bits_.size(); ++byte)
        if (notice.bitmap[byte])
            bits_[byte].fetch_or(notice.bitmap[byte]);
    const uint64_t one = 1;
    if (!woken_.exchange(true))
        (void)!write(wake_.get(), &one, sizeof one);
}

Buckets NoticeMarks::take()
{
    uint64_t count = 0;
    (void)!read(wake_.get(), &count, sizeof count);
    woken_ = false; // before the bits, so that a notice that comes now wakes again
    Buckets buckets;
    for (std::size_t byte = 0; byte < bits_.size(); ++byte) {
        const uint8_t bits = bits_[byte].exchange(0);
        for (std::size_t bit = 0; bit < 8 && bits; ++bit)
            buckets[byte * 8 + bit] = bits >> bit & 1;
    }
    return buckets;
}

} // namespace kp::tool
