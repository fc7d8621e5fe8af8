// The names that the directory watch has not connected yet: when it looks at them again, when it
// gives them up, and what it says. The clock moves only as far as the test says.
#include "notify/endpoints.h"
#include "testing/capture.h"
#include "testing/pauses.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>

using namespace kptest;
using kp::look_at_pending;
using kp::meet_name;
using kp::ms_to_next_look;
using std::chrono::milliseconds;

namespace {

class PendingName : public NotifyTest {
  protected:
    // Lets time pass and does what is due then.
    void look_after(milliseconds time)
    {
        clock_.advance(time);
        look_at_pending(*endpoint_);
    }

    const StoppedClock clock_{CLOCK_MONOTONIC};
    const UnixSocket peer_ = UnixSocket::listening("/run/providers/peer");
    BareEndpoint endpoint_{"own"};
    kp::Pending &pending_ = endpoint_->pending;
};

TEST_F(PendingName, IsLookedAtOnceASecond)
{
    const FailFrom connects(Call::connect, 1, EACCES);

    meet_name(*endpoint_, "peer");
    EXPECT_EQ(ms_to_next_look(*endpoint_), 1000);
    look_after(milliseconds(999));
    EXPECT_EQ(connects.count(), 1);
    EXPECT_EQ(ms_to_next_look(*endpoint_), 1);
    look_after(milliseconds(1));

    EXPECT_EQ(connects.count(), 2);
    EXPECT_EQ(ms_to_next_look(*endpoint_), 1000);
}

TEST_F(PendingName, IsGivenUpOnceAfterThreeTriesAndLeftWhereItIs)
{
    StderrCapture log;
    const FailFrom connects(Call::connect, 1, EACCES);
    meet_name(*endpoint_, "peer");
    look_after(milliseconds(1000));
    look_after(milliseconds(1000));
    EXPECT_EQ(log.text(), "");

    look_after(milliseconds(1000));
    look_after(milliseconds(1000));

    EXPECT_EQ(connects.count(), 3);
    EXPECT_EQ(pending_.count, 0U);
    EXPECT_EQ(ms_to_next_look(*endpoint_), INT_MAX);
    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: connect to /run/providers/peer failed: "
                                 "Permission denied"});
    EXPECT_TRUE(file_exists("/run/providers/peer"));
}

TEST_F(PendingName, OfABusyPeerIsReportedAtTheThirdLookAndKept)
{
    StderrCapture log;
    const FailFrom connects(Call::connect, 1, EAGAIN);

    meet_name(*endpoint_, "peer");
    look_after(milliseconds(1000));
    EXPECT_EQ(log.text(), "");
    look_after(milliseconds(1000));
    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: connect to /run/providers/peer timed out"});
    look_after(milliseconds(1000));
    look_after(milliseconds(1000));

    EXPECT_EQ(connects.count(), 5);
    EXPECT_EQ(pending_.count, 1U);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(PendingName, ForWhichThereIsNoDescriptorIsReportedAtTheFirstLookAlone)
{
    StderrCapture log;
    const FailFrom sockets(Call::socket, 1, EMFILE);

    meet_name(*endpoint_, "peer");
    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: opening socket: Too many open files"});
    look_after(milliseconds(1000));
    look_after(milliseconds(1000));

    EXPECT_EQ(sockets.count(), 3);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(pending_.count, 1U);
}

TEST_F(PendingName, ThatIsAnnouncedAgainIsLookedAtAtOnce)
{
    FailFrom connects(Call::connect, 1, EACCES);
    meet_name(*endpoint_, "peer");
    connects.disarm();

    meet_name(*endpoint_, "peer");
    EXPECT_EQ(ms_to_next_look(*endpoint_), 0);
    look_at_pending(*endpoint_);

    EXPECT_EQ(endpoint_.announced(), 1);
    EXPECT_EQ(pending_.count, 0U);
}

TEST_F(PendingName, WithoutAPlaceAsksForAScanInThreeSeconds)
{
    const FailFrom connects(Call::connect, 1, EACCES);
    pending_.count = kp::kPendingCount;
    for (kp::Attempt &attempt : pending_.attempts)
        attempt.due_ms = INT64_MAX;

    meet_name(*endpoint_, "peer");
    EXPECT_EQ(ms_to_next_look(*endpoint_), 3000);
    clock_.advance(milliseconds(1000));
    meet_name(*endpoint_, "peer");
    EXPECT_EQ(ms_to_next_look(*endpoint_), 2000) << "the earlier of two scans";
    kp::scan_again(*endpoint_);

    EXPECT_EQ(ms_to_next_look(*endpoint_), 0);
    EXPECT_EQ(pending_.count, kp::kPendingCount);
}

TEST_F(PendingName, WaitsASecondForAScanThatCannotReadTheDirectory)
{
    kp::scan_again(*endpoint_);
    {
        const FailNext opening(Call::opendir);
        look_at_pending(*endpoint_);
    }
    EXPECT_EQ(ms_to_next_look(*endpoint_), 1000);
    look_after(milliseconds(999));
    EXPECT_EQ(endpoint_.announced(), 0);

    look_after(milliseconds(1));

    EXPECT_EQ(endpoint_.announced(), 1);
    EXPECT_EQ(ms_to_next_look(*endpoint_), INT_MAX);
}

TEST_F(PendingName, OfAScanIsNeitherTheOwnNorAFileNorKnown)
{
    const UnixSocket own = UnixSocket::listening("/run/providers/own");
    make_file("/run/providers/file");
    UnixSocket::leave_dead_file("/run/providers/dead");
    meet_name(*endpoint_, "dead");
    clock_.advance(milliseconds(400));
    kp::scan_again(*endpoint_);

    look_at_pending(*endpoint_);

    EXPECT_EQ(endpoint_.announced(), 1); // the peer
    EXPECT_FALSE(own.is_readable(milliseconds(0)));
    EXPECT_EQ(pending_.count, 1U);
    EXPECT_EQ(ms_to_next_look(*endpoint_), 600) << "the scan leaves what is pending alone";
}

TEST_F(PendingName, IsReadFromTheWatchIn32768BytesAtATime)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const kp::UniqueFd read_end(ends[0]);
    const kp::UniqueFd write_end(ends[1]);
    const std::string events(40'000, '\0'); // of no kind and without a name
    ASSERT_EQ(write(write_end.get(), events.data(), events.size()), 40'000);

    EXPECT_EQ(kp::handle_read_event(*endpoint_, read_end.get()), 0);

    EXPECT_EQ(readable_bytes(read_end.get()), 40'000 - 32'768);
}

} // namespace
