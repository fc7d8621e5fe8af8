// The directory watch: new sockets are connected, whole batches of events, malformed events.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

using namespace kptest;
using kp::handle_read_event;

namespace {

// Gives the bytes of one event as the system writes them.
std::string event(const std::string &name, uint32_t mask = IN_CREATE, uint32_t name_room = 16)
{
    inotify_event head{};
    head.mask = mask;
    head.len = name_room;
    std::string bytes(reinterpret_cast<const char *>(&head), sizeof(head));
    bytes += name;
    bytes.resize(sizeof(head) + name_room);
    return bytes;
}

// A bare record whose batches of events come from a pipe; "first" and "second" listen.
class HandleReadEvent : public NotifyTest {
  protected:
    HandleReadEvent()
    {
        EXPECT_EQ(pipe2(pipe_, O_CLOEXEC | O_NONBLOCK), 0);
    }
    ~HandleReadEvent() override
    {
        (void)close(pipe_[0]);
        (void)close(pipe_[1]);
    }

    int handle(const std::string &bytes)
    {
        EXPECT_EQ(write(pipe_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        return handle_read_event(*endpoint_, pipe_[0]);
    }
    int connections() const
    {
        return endpoint_.announced();
    }

    int pipe_[2] = {-1, -1};
    BareEndpoint endpoint_{"own"};
    const UnixSocket first_ = UnixSocket::listening("/run/providers/first");
    const UnixSocket second_ = UnixSocket::listening("/run/providers/second");
};

TEST_F(HandleReadEvent, ConnectsToEveryNewName)
{
    EXPECT_EQ(handle(event("first") + event("second")), 0);

    EXPECT_TRUE(first_.accept().is_open());
    EXPECT_TRUE(second_.accept().is_open());
}

TEST_F(HandleReadEvent, ReportsEachNameAtDebugLevel)
{
    kp_xlog_set_user_level(KP_LEVEL_DEBUG);
    StderrCapture log;

    EXPECT_EQ(handle(event("first")), 0);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[92mDEBUG: handle_read_event: event own connect to first\n\033[0m");
}

TEST_F(HandleReadEvent, WaitsAMomentBeforeEachConnect)
{
    const CountCalls pauses(Call::usleep);
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(handle(event("first") + event("second")), 0);

    EXPECT_EQ(pauses.count(), 2);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2));
}

TEST_F(HandleReadEvent, DropsTheRestOfABatchAtItsOwnName)
{
    EXPECT_EQ(handle(event("first") + event("own") + event("second")), 0);

    EXPECT_EQ(connections(), 1);
    EXPECT_TRUE(first_.is_readable());
    EXPECT_FALSE(second_.is_readable(std::chrono::milliseconds(0)));
}

TEST_F(HandleReadEvent, TakesANameThatBeginsWithItsOwnForAnotherOne)
{
    const UnixSocket longer = UnixSocket::listening("/run/providers/own2");

    EXPECT_EQ(handle(event("own2")), 0);

    EXPECT_EQ(connections(), 1);
}

TEST_F(HandleReadEvent, PassesOverEventsThatCreateNothing)
{
    EXPECT_EQ(handle(event("first", IN_DELETE) + event("second", IN_CREATE | IN_ISDIR)), 0);

    EXPECT_EQ(connections(), 1);
    EXPECT_TRUE(second_.is_readable());
}

TEST_F(HandleReadEvent, PassesOverEventsWithoutAName)
{
    EXPECT_EQ(handle(event("", IN_CREATE, 0) + event("", IN_Q_OVERFLOW, 0) + event("first")), 0);

    EXPECT_EQ(connections(), 1);
}

TEST_F(HandleReadEvent, ReadsNoNameBeyondTheBytesRead)
{
    const std::string whole = event("first");

    EXPECT_EQ(handle(whole.substr(0, whole.size() - 1)), 0);

    EXPECT_EQ(connections(), 0);
}

TEST_F(HandleReadEvent, ReadsNoEventBeyondTheBytesRead)
{
    EXPECT_EQ(handle(event("first") + event("second").substr(0, sizeof(inotify_event) - 1)), 0);

    EXPECT_EQ(connections(), 1);
}

TEST_F(HandleReadEvent, SurvivesALengthThatWouldWrapAround)
{
    std::string bytes = event("first");
    const uint32_t length = UINT32_MAX;
    std::memcpy(bytes.data() + offsetof(inotify_event, len), &length, sizeof(length));

    EXPECT_EQ(handle(bytes), 0);

    EXPECT_EQ(connections(), 0);
}

TEST_F(HandleReadEvent, CutsANameWithoutATerminatorAt255Bytes)
{
    StderrCapture log;

    EXPECT_EQ(handle(event(std::string(300, 'n'), IN_CREATE, 300)), 0);

    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: socket address name '" +
                                 std::string(255, 'n') + "' is too long"});
}

TEST_F(HandleReadEvent, EndsABatchWhenTheEndpointCloses)
{
    const Before stop(Call::usleep, [this] { endpoint_.stop(); });

    EXPECT_EQ(handle(event("first") + event("second")), 0);

    EXPECT_EQ(connections(), 0);
}

TEST_F(HandleReadEvent, SaysThatAReadFailed)
{
    FailNext read(Call::read, EIO);

    EXPECT_EQ(handle(event("first")), 1);
}

TEST_F(HandleReadEvent, TakesNothingToReadForNoFailure)
{
    EXPECT_EQ(handle(""), 0); // EAGAIN
}

TEST_F(HandleReadEvent, TakesTheEndOfFileForNoFailure)
{
    (void)close(pipe_[1]);
    pipe_[1] = -1;

    EXPECT_EQ(handle_read_event(*endpoint_, pipe_[0]), 0);
}

TEST_F(HandleReadEvent, PassesOverNamesThatHaveVanished)
{
    StderrCapture log;
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(handle(event("gone") + event("gone2") + event("gone3") + event("first")), 0);

    EXPECT_EQ(connections(), 1);
    EXPECT_EQ(endpoint_->pending.count, 0U);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(log.text(), "");
}

TEST_F(HandleReadEvent, GoesOnWithOthersBetweenTheTriesOfADeadName)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(handle(event("dead") + event("first")), 0);

    EXPECT_EQ(connections(), 1);
    EXPECT_EQ(endpoint_->pending.count, 1U);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(HandleReadEvent, ConnectsOnceToAnEntryThatTheScanHasFound)
{
    kp::connect_to(*endpoint_, "first");

    EXPECT_EQ(handle(event("first")), 0);

    EXPECT_EQ(connections(), 1);
    EXPECT_TRUE(first_.accept().is_open());
    EXPECT_FALSE(first_.is_readable(std::chrono::milliseconds(0)));
}

TEST_F(HandleReadEvent, ConnectsAgainToAnEntryWhoseConnectionWasDropped)
{
    kp::connect_to(*endpoint_, "first");
    const kp::OwnFd dropped(kp::free_server_slot(*endpoint_, 0));

    EXPECT_EQ(handle(event("first")), 0);

    EXPECT_EQ(connections(), 2);
}

TEST_F(HandleReadEvent, ConnectsToASecondNameOfOneSocket)
{
    ASSERT_EQ(link("/run/providers/first", "/run/providers/link"), 0);
    kp::connect_to(*endpoint_, "first");

    EXPECT_EQ(handle(event("link")), 0);

    EXPECT_EQ(connections(), 2);
}

TEST_F(HandleReadEvent, ScansTheDirectoryWhenEventsWereLost)
{
    StderrCapture log;

    EXPECT_EQ(handle(event("", IN_Q_OVERFLOW, 0)), 0);
    kp::look_at_pending(*endpoint_);

    EXPECT_EQ(connections(), 2);
    EXPECT_EQ(kp::ms_to_next_look(*endpoint_), INT_MAX);
    EXPECT_EQ(log.text(), "");
}

TEST_F(HandleReadEvent, ConnectsToALivePeerBehindMoreDeadNamesThanItKeeps)
{
    std::string batch;
    for (std::size_t index = 0; index < kp::kPendingCount + 5; ++index) {
        const std::string name = "dead" + std::to_string(index);
        UnixSocket::leave_dead_file(socket_path(name));
        batch += event(name);
    }

    EXPECT_EQ(handle(batch + event("first")), 0);

    EXPECT_EQ(connections(), 1);
    EXPECT_EQ(endpoint_->pending.count, kp::kPendingCount);
    EXPECT_TRUE(endpoint_->pending.is_scan_due); // for those that have no place
    EXPECT_LE(kp::ms_to_next_look(*endpoint_), 1000);
}

TEST_F(HandleReadEvent, KeepsANameWhileItHasNoDescriptorForIt)
{
    StderrCapture log;
    {
        FailFrom sockets(Call::socket, 1, EMFILE);
        EXPECT_EQ(handle(event("first")), 0);
        endpoint_->pending.attempts[0].due_ms = 0;
        kp::look_at_pending(*endpoint_);
    }
    endpoint_->pending.attempts[0].due_ms = 0;

    kp::look_at_pending(*endpoint_);

    EXPECT_EQ(connections(), 1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: opening socket: Too many open files"});
}

TEST_F(HandleReadEvent, WaitsForAFreeSlotBeforeItGivesANameUp)
{
    StderrCapture log;
    std::fill(endpoint_->server_fds, endpoint_->server_fds + 32, 1'000'000);
    EXPECT_EQ(handle(event("first") + event("second")), 0);
    endpoint_->server_fds[7] = -1;
    endpoint_->pending.attempts[0].due_ms = 0;
    endpoint_->pending.attempts[1].due_ms = 0;

    kp::look_at_pending(*endpoint_);

    EXPECT_EQ(connections(), 1);
    EXPECT_EQ(endpoint_->pending.count, 1U);
    endpoint_->pending.attempts[0].due_ms = 0;
    kp::look_at_pending(*endpoint_);
    EXPECT_EQ(endpoint_->pending.count, 0U);
    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: Cannot find free socket in server_fds poll"});
    const kp::OwnFd connection(endpoint_->server_fds[7]);
    std::fill(endpoint_->server_fds, endpoint_->server_fds + 32, -1);
}

class WatchThread : public NotifyTest {};

TEST_F(WatchThread, ConnectsToASocketThatAppears)
{
    kp_xlog_set_user_level(KP_LEVEL_DEBUG);
    Endpoint endpoint;
    StderrCapture log;

    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    const UnixSocket connection = peer.accept();
    EXPECT_TRUE(connection.send(write_notice({5})));

    EXPECT_TRUE(endpoint.inbox().has_received(1));
    EXPECT_EQ(log.lines(), Lines{"DEBUG: handle_read_event: event endpoint connect to peer"});
    EXPECT_EQ(endpoint.server_count(), 1);
}

TEST_F(WatchThread, WatchesBeforeTheDirectoryIsScanned)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    const CountCalls connects(Call::connect);
    bool scanned_early = true;
    const Before watching(Call::inotify_add_watch, [&] {
        scanned_early =
            wait_until([&] { return connects.count() > 0; }, std::chrono::milliseconds(100));
    });

    const Endpoint endpoint;

    EXPECT_FALSE(scanned_early);
    EXPECT_EQ(endpoint.server_count(), 1);
}

TEST_F(WatchThread, ConnectsAgainWhenASocketIsCreatedAnew)
{
    const Endpoint endpoint;
    {
        const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
        const UnixSocket connection = peer.accept();
        ASSERT_TRUE(endpoint.has_servers(1));
    }
    ASSERT_TRUE(endpoint.has_servers(0));
    EXPECT_EQ(unlink("/run/providers/peer"), 0);

    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");

    const UnixSocket connection = peer.accept();
    EXPECT_TRUE(connection.is_open());
    EXPECT_TRUE(endpoint.has_servers(1));
}

TEST_F(WatchThread, RemovesAFileThatIsNoSocket)
{
    const Endpoint endpoint;
    StderrCapture log;
    const CountCalls tries(Call::connect);

    make_file("/run/providers/file");

    EXPECT_TRUE(wait_until([&] { return log.has_log_lines(1); })); // the last that happens
    EXPECT_FALSE(file_exists("/run/providers/file"));
    EXPECT_EQ(tries.count(), 3);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: connect_to: connect to /run/providers/file failed, remove it"});
}

TEST_F(WatchThread, GivesEachDeadNameItsTriesWithoutHoldingUpOthers)
{
    const Endpoint endpoint;
    StderrCapture log;
    const auto start = std::chrono::steady_clock::now();

    make_file("/run/providers/a");
    make_file("/run/providers/b");
    make_file("/run/providers/c");

    EXPECT_TRUE(wait_until([&] { return log.lines().size() == 3; }));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    EXPECT_FALSE(file_exists("/run/providers/c"));
}

TEST_F(WatchThread, NeverLosesAPeerThatIsStoppedWithAFullBacklog)
{
    const Endpoint endpoint;
    StderrCapture log;
    {
        const UnixSocket busy = UnixSocket::listening("/run/busy", 0);
        const std::vector<UnixSocket> waiting = fill_backlog("/run/busy");
        ASSERT_EQ(rename("/run/busy", "/run/providers/unseen"), 0);
        ASSERT_EQ(link("/run/providers/unseen", "/run/providers/busy"), 0);
        ASSERT_TRUE(wait_until([&] { return !log.text().empty(); })); // three looks

        for (std::size_t index = 0; index < waiting.size(); ++index)
            EXPECT_TRUE(
                busy.accept(std::chrono::milliseconds(index + 1 < waiting.size() ? 1000 : 0))
                    .is_open() ||
                index + 1 == waiting.size());

        EXPECT_TRUE(endpoint.has_servers(1));
    }
    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: connect to /run/providers/busy timed out"});
}

TEST_F(WatchThread, LeavesTheFilesOfPendingNamesWhenItCloses)
{
    Endpoint endpoint;
    const CountCalls tries(Call::connect);
    StderrCapture log;
    make_file("/run/providers/file");
    ASSERT_TRUE(wait_until([&] { return tries.count() == 1; }));
    const auto start = std::chrono::steady_clock::now();

    endpoint.close();

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_TRUE(file_exists("/run/providers/file"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(WatchThread, EndsWithoutAWatchAndTheEndpointGoesOn)
{
    StderrCapture log;
    FailNext watch(Call::inotify_add_watch, ENOSPC);
    const int threads = thread_count();
    Endpoint endpoint;
    EXPECT_TRUE(wait_until([&] { return log.has_log_lines(1) && thread_count() == threads + 2; }));

    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");

    EXPECT_TRUE(endpoint.has_clients(1));
    EXPECT_TRUE(std::ranges::any_of(
        open_descriptors(), [](const auto &one) { return one.second == "anon_inode:inotify"; }));
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: publisher_linkup_listener: add_watch_topic failed (-1)\n\033[0m");
}

TEST_F(WatchThread, EndsWithoutAnInotifyInstanceAndTheEndpointGoesOn)
{
    StderrCapture log;
    FailNext inotify(Call::inotify_init1, EMFILE);
    Endpoint endpoint;
    EXPECT_TRUE(wait_until([&] { return log.has_log_lines(1); }));

    const UnixSocket peer = UnixSocket::connected("/run/providers/endpoint");

    EXPECT_TRUE(endpoint.has_clients(1));
    EXPECT_EQ(log.lines(), Lines{"ERROR: publisher_linkup_listener: add_watch_topic failed (-1)"});
}

} // namespace
