// What a reader finds at the moment at which a writer copies its value: the mark, and the fields in
// the order that a consistent read relies on. The value lies in memory that cannot be read yet, so
// that the copy itself stops.
#include "store/opened_segment.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>

using namespace kptest;

namespace {

constexpr std::size_t kPage = 4096;

// A value whose first reader calls a function before it gets the bytes.
class StoppingValue {
  public:
    explicit StoppingValue(std::function<void()> look)
        : memory_(static_cast<char *>(
              mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))),
          look_(std::move(look))
    {
        (void)std::memset(memory_, 'n', kPage);
        EXPECT_EQ(mprotect(memory_, kPage, PROT_NONE), 0);
        current = this;
        struct sigaction action = {};
        action.sa_handler = stop;
        (void)sigaction(SIGSEGV, &action, &before_);
    }
    StoppingValue(const StoppingValue &) = delete;
    StoppingValue &operator=(const StoppingValue &) = delete;
    ~StoppingValue()
    {
        (void)sigaction(SIGSEGV, &before_, nullptr);
        (void)munmap(memory_, kPage);
    }

    const char *data() const
    {
        return memory_;
    }

  private:
    static void stop(int)
    {
        (void)mprotect(current->memory_, kPage, PROT_READ);
        (void)sigaction(SIGSEGV, &current->before_, nullptr); // a second one is a real one
        current->look_();
    }

    static inline StoppingValue *current;
    char *memory_;
    std::function<void()> look_;
    struct sigaction before_ = {};
};

// What stands in a segment while a value is copied into it.
struct Seen {
    int writing = -1;
    uint64_t timestamp = 0;
    uint32_t size = 0;
    std::string bytes;
};

Seen look_at(const SegmentFile &file)
{
    return {file.u8(at::writing), file.u64(at::last_write_ts), file.u32(at::written_value_size),
            file.bytes(at::value, 4)};
}

// The old value was still whole when its copy began, and the new one is whole at the end.
void expect_marked_copy(const Seen &seen, const SegmentFile &file)
{
    EXPECT_EQ(seen.writing, 1);
    EXPECT_EQ(seen.timestamp, 2U);
    EXPECT_EQ(seen.size, 4U);
    EXPECT_EQ(seen.bytes, "old!");
    EXPECT_EQ(file.u8(at::writing), 0);
    EXPECT_EQ(file.u32(at::written_value_size), 100U);
    EXPECT_EQ(file.bytes(at::value, 4), "nnnn");
}

} // namespace

TEST(AValueThatIsCopied, IsMarkedAndHasItsTimestampAlready)
{
    const DeclaredSegment shm("a", KP_TYPE_RAW, 1000);
    ASSERT_EQ(kp_shm_write(shm, "old!", 4, 1, 1, 1), 4);
    const SegmentFile file("a");
    Seen seen;
    const StoppingValue value([&] { seen = look_at(file); });

    EXPECT_EQ(kp_shm_write(shm, value.data(), 100, 2, 2, 2), 100);

    expect_marked_copy(seen, file);
}

TEST(AValueThatIsCopied, IsMarkedByAnInstantWriteToo)
{
    ASSERT_EQ(kp_shm_instant_write("a", "old!", KP_TYPE_RAW, 4, 1, 1, 1, 0), 0);
    const SegmentFile file("a");
    Seen seen;
    const StoppingValue value([&] { seen = look_at(file); });

    EXPECT_EQ(kp_shm_instant_write("a", value.data(), KP_TYPE_RAW, 100, 2, 2, 2, 0), 0);

    expect_marked_copy(seen, file);
}
