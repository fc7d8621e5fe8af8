// An endpoint is opened while the system refuses something. It logs a line, gives a result and
// leaves nothing behind.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <cerrno>
#include <ostream>

using namespace kptest;

extern "C" {
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace {

// While this object lives, a block that stays allocated on purpose is no finding.
class LeaksAllowed {
  public:
    LeaksAllowed()
    {
        if (__lsan_disable)
            __lsan_disable();
    }
    LeaksAllowed(const LeaksAllowed &) = delete;
    LeaksAllowed &operator=(const LeaksAllowed &) = delete;
    ~LeaksAllowed()
    {
        if (__lsan_enable)
            __lsan_enable();
    }
};

struct Fault {
    const char *name;
    Call call;
    long number; // which of these calls fails
    int error;
    Lines lines;
    bool socket_file_stays = false;
};

void PrintTo(const Fault &fault, std::ostream *out)
{
    *out << fault.name;
}

class FailedNotifyInit : public NotifyTest, public testing::WithParamInterface<Fault> {};

TEST_P(FailedNotifyInit, SaysWhyAndLeavesNothingBehind)
{
    StderrCapture log;
    FailNth fault(GetParam().call, GetParam().number, GetParam().error);

    errno = 0;
    kp_notify_t *endpoint = kp_notify_init("endpoint", 129, Inbox::receive, nullptr);
    const int error = errno;

    EXPECT_EQ(endpoint, nullptr);
    EXPECT_TRUE(fault.fired());
    EXPECT_EQ(error, GetParam().error);
    EXPECT_EQ(log.lines(), GetParam().lines);
    EXPECT_EQ(file_exists("/run/providers/endpoint"), GetParam().socket_file_stays);
}

const Fault kFaults[] = {
    {"Directory", Call::mkdir, 1, EACCES, {}},
    {"Record",
     Call::calloc,
     1,
     ENOMEM,
     {"ERROR: kp_notify_init: MALLOC NOTIFY(): Cannot allocate memory"}},
    {"ReceiveBuffer",
     Call::calloc,
     2,
     ENOMEM,
     {"ERROR: kp_notify_init: MALLOC NOTIFICATION(): Cannot allocate memory"}},
    {"Socket",
     Call::socket,
     1,
     EMFILE,
     {"ERROR: notify_server_init: opening socket: Too many open files",
      "ERROR: kp_notify_init: init server failed"}},
    {"Bind",
     Call::bind,
     1,
     EADDRINUSE,
     {"ERROR: notify_server_init: binding name to socket: Address already in use",
      "ERROR: kp_notify_init: init server failed"}},
    {"Listen",
     Call::listen,
     1,
     EADDRINUSE,
     {"ERROR: notify_server_init: listen(): Address already in use",
      "ERROR: kp_notify_init: init server failed"},
     true},
    {"AcceptThread",
     Call::pthread_create,
     1,
     EAGAIN,
     {"ERROR: kp_notify_init: init server failed"}},
    {"PipeOfAnnouncements",
     Call::pipe2,
     2,
     EMFILE,
     {"ERROR: notify_client_init: new_server_fds pipe failed: Too many open files",
      "ERROR: kp_notify_init: client failed"}},
    {"DirectoryListing", Call::opendir, 1, EMFILE, {"ERROR: kp_notify_init: client failed"}},
    {"WatchThread", Call::pthread_create, 2, EAGAIN, {"ERROR: kp_notify_init: client failed"}},
    {"ReceiveThread", Call::pthread_create, 3, EAGAIN, {"ERROR: kp_notify_init: client failed"}},
};

INSTANTIATE_TEST_SUITE_P(Of, FailedNotifyInit, testing::ValuesIn(kFaults),
                         [](const auto &instance) { return instance.param.name; });

class NotifyInitFault : public NotifyTest {};

TEST_F(NotifyInitFault, OfTheCancelPipeKeepsTheReceiveBufferAlone)
{
    const LeaksAllowed allowed;
    expect_a_kept_block();
    StderrCapture log;
    FailNext pipe(Call::pipe2, EMFILE);

    errno = 0;
    kp_notify_t *endpoint = kp_notify_init("endpoint", 129, Inbox::receive, nullptr);
    const int error = errno;

    EXPECT_EQ(endpoint, nullptr);
    EXPECT_EQ(error, EMFILE);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_notify_init: Pipe Failed: Too many open files"});
    EXPECT_FALSE(file_exists("/run/providers/endpoint"));
}

TEST_F(NotifyInitFault, OfTheReceiveThreadEndsTheConnectionsOfTheScan)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    StderrCapture log;
    FailNth thread(Call::pthread_create, 3);

    EXPECT_EQ(kp_notify_init("endpoint", 129, Inbox::receive, nullptr), nullptr);

    EXPECT_TRUE(thread.fired());
    EXPECT_TRUE(peer.accept().is_closed_by_peer());
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_notify_init: client failed"});
}

TEST_F(NotifyInitFault, OfOnePeerLeavesTheOthersConnected)
{
    const UnixSocket first = UnixSocket::listening("/run/providers/first");
    const UnixSocket second = UnixSocket::listening("/run/providers/second");
    StderrCapture log;
    FailNth socket(Call::socket, 2); // the first one listens

    const Endpoint endpoint("endpoint");

    EXPECT_TRUE(socket.fired());
    EXPECT_EQ(endpoint.server_count(), 1);
    EXPECT_EQ(log.lines(), Lines{"ERROR: connect_to: opening socket: Too many open files"});
}

} // namespace
