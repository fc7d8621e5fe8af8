// Who takes a lease on a topic's file delays an open of it for a moment and no longer.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace kptest;

namespace {

// A lease on a topic's file. Its holder gives it up when told to, and not when the system asks.
class Lease {
  public:
    explicit Lease(const std::string &topic)
    {
        (void)std::signal(SIGIO, SIG_IGN); // the system asks with this signal
        SegmentFile(topic).create();
        fd_ = open(segment_file_path(topic).c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(fcntl(fd_, F_SETLEASE, F_WRLCK), 0);
    }
    Lease(const Lease &) = delete;
    Lease &operator=(const Lease &) = delete;
    ~Lease()
    {
        (void)close(fd_);
    }

    void give_up() const
    {
        (void)fcntl(fd_, F_SETLEASE, F_UNLCK);
    }

  private:
    int fd_ = -1;
};

TEST(ALease, HoldsAnOpenUpForATenthOfASecondAtMost)
{
    const Lease lease("a");
    StderrCapture log;
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(kp_shm_instant_get_max_value_size("a", nullptr), -1);

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): "
                                  "Resource temporarily unavailable",
                                  "ERROR: kp_shm_instant_get_max_value_size: "
                                  "fd '/dev/shm/zu-kp/a' create fail"}));
}

TEST(ALease, ThatIsGivenUpInTimeIsNotNoticed)
{
    const Lease lease("a");
    StderrCapture log;
    Before third_pause{Call::usleep, [&lease] { lease.give_up(); }, 3};

    const OpenedSegment shm("a");

    EXPECT_EQ(log.text(), "");
}

} // namespace
