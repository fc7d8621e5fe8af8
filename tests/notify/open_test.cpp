// Opening an endpoint when nothing goes wrong in the system.
#include "notify/endpoints.h"
#include "testing/capture.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace kptest;

namespace {

class NotifyInit : public NotifyTest {};

kp_notify_t *init(const char *name, int32_t len = 129)
{
    return kp_notify_init(name, len, Inbox::receive, nullptr);
}

mode_t mode_of(const std::string &path)
{
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode;
}

bool is_decimal(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<std::string> names_in_directory()
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(kp::kEndpointDirectory))
        names.push_back(entry.path().filename());
    return names;
}

TEST_F(NotifyInit, RefusesALengthOfZeroAndMakesNothing)
{
    StderrCapture log;
    const CountCalls calls({Call::mkdir, Call::socket, Call::pthread_create, Call::calloc});

    EXPECT_EQ(init("endpoint", 0), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: kp_notify_init: notification len has to be greater than 0\n\033[0m");
    EXPECT_EQ(calls.count(), 0);
    EXPECT_FALSE(file_exists("/run/providers"));
}

TEST_F(NotifyInit, RefusesANegativeLengthAndMakesNothing)
{
    StderrCapture log;

    EXPECT_EQ(init("endpoint", -1), nullptr);

    EXPECT_EQ(log.lines(),
              Lines{"WARN: kp_notify_init: notification len has to be greater than 0"});
    EXPECT_FALSE(file_exists("/run/providers"));
}

TEST_F(NotifyInit, RefusesANullCallbackAndMakesNothing)
{
    StderrCapture log;

    EXPECT_EQ(kp_notify_init("endpoint", 129, nullptr, nullptr), nullptr);

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[93mWARN: kp_notify_init: callback should not be NULL\n\033[0m");
    EXPECT_FALSE(file_exists("/run/providers"));
}

TEST_F(NotifyInit, ChecksTheLengthBeforeTheCallback)
{
    StderrCapture log;

    EXPECT_EQ(kp_notify_init("endpoint", 0, nullptr, nullptr), nullptr);

    EXPECT_EQ(log.lines(),
              Lines{"WARN: kp_notify_init: notification len has to be greater than 0"});
}

TEST_F(NotifyInit, MakesTheDirectoryReadableAndWritableForAll)
{
    const mode_t before = umask(0);

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(mode_of("/run/providers"), S_IFDIR | 0666);
    (void)umask(before);
}

TEST_F(NotifyInit, TakesADirectoryThatIsThere)
{
    std::filesystem::create_directory("/run/providers");
    StderrCapture log;

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(names_in_directory(), std::vector<std::string>{"endpoint"});
    EXPECT_EQ(log.text(), "");
}

TEST_F(NotifyInit, ListensAtTheSocketFileOfItsName)
{
    const Endpoint endpoint("endpoint");

    EXPECT_TRUE(S_ISSOCK(mode_of("/run/providers/endpoint")));
    EXPECT_TRUE(UnixSocket::connected("/run/providers/endpoint").is_open());
    EXPECT_STREQ(endpoint->name, "endpoint");
    EXPECT_EQ(fcntl(endpoint.client(0), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(NotifyInit, StartsThreeThreads)
{
    const int threads = thread_count();

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(thread_count(), threads + 3);
}

TEST_F(NotifyInit, MakesUpADecimalNameForANullOne)
{
    kp_notify_t *endpoint = init(nullptr);

    ASSERT_NE(endpoint, nullptr);
    EXPECT_PRED1(is_decimal, endpoint->name);
    EXPECT_EQ(names_in_directory(), std::vector<std::string>{endpoint->name});
    EXPECT_EQ(kp_notify_close(&endpoint), 0);
}

TEST_F(NotifyInit, MakesUpADecimalNameForAnEmptyOne)
{
    const Endpoint endpoint("");

    EXPECT_PRED1(is_decimal, endpoint->name);
    EXPECT_EQ(names_in_directory(), std::vector<std::string>{endpoint->name});
}

TEST_F(NotifyInit, MakesUpDifferentNames)
{
    const Endpoint first("");
    const Endpoint second("");

    EXPECT_STRNE(first->name, second->name);
}

TEST_F(NotifyInit, MakesUpNoNameThatAFileHas)
{
    // Without random numbers the name comes from the clock and the process.
    FailNext random(Call::getrandom, EAGAIN);
    Before naming(Call::getrandom, [] {
        const auto now = static_cast<uint32_t>(time(nullptr));
        for (const uint32_t second : {now, now + 1, now + 2})
            make_file(socket_path(
                std::to_string((second ^ static_cast<uint32_t>(getpid())) & INT32_MAX)));
    });

    const Endpoint endpoint("");

    EXPECT_PRED1(is_decimal, endpoint->name);
    EXPECT_TRUE(S_ISSOCK(mode_of(socket_path(endpoint->name))));
    // The number before it was taken.
    const unsigned long number = std::stoul(endpoint->name);
    EXPECT_TRUE(S_ISREG(mode_of(socket_path(std::to_string(number - 1)))));
}

TEST_F(NotifyInit, MakesABufferOfTheLengthThatItIsGiven)
{
    kp_notify_t *endpoint = init("endpoint", 500);

    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->msg_buf_size, 500);
    EXPECT_EQ(kp_notify_close(&endpoint), 0);
}

TEST_F(NotifyInit, KeepsANameOf127Characters)
{
    StderrCapture log;

    const Endpoint endpoint(std::string(127, 'n'));

    EXPECT_EQ(endpoint->name, std::string(127, 'n'));
}

TEST_F(NotifyInit, CutsALongerNameTo127Characters)
{
    StderrCapture log;

    const Endpoint endpoint(std::string(200, 'n'));

    EXPECT_EQ(endpoint->name, std::string(127, 'n'));
}

TEST_F(NotifyInit, TakesAPathOf107CharactersAsItIs)
{
    StderrCapture log;

    const Endpoint endpoint(std::string(92, 'n'));

    EXPECT_TRUE(S_ISSOCK(mode_of(socket_path(std::string(92, 'n')))));
    EXPECT_EQ(log.text(), "");
}

TEST_F(NotifyInit, CutsALongerPathReportsItAndListensThere)
{
    StderrCapture log;

    const Endpoint endpoint(std::string(93, 'n'));

    EXPECT_EQ(log.lines(), Lines{"ERROR: notify_server_init: socket address name '" +
                                 std::string(93, 'n') + "' is too long"});
    EXPECT_TRUE(UnixSocket::connected(socket_path(std::string(92, 'n'))).is_open());
}

TEST_F(NotifyInit, ReplacesAFileAtItsPath)
{
    make_file("/run/providers/endpoint");

    const Endpoint endpoint("endpoint");

    EXPECT_TRUE(UnixSocket::connected("/run/providers/endpoint").is_open());
}

TEST_F(NotifyInit, ReplacesADeadSocketAtItsPath)
{
    UnixSocket::leave_dead_file("/run/providers/endpoint");

    const Endpoint endpoint("endpoint");

    EXPECT_TRUE(UnixSocket::connected("/run/providers/endpoint").is_open());
}

TEST_F(NotifyInit, RefusesANameOutsideItsDirectory)
{
    make_file("/run/precious");
    StderrCapture log;

    EXPECT_EQ(init("../precious"), nullptr);

    EXPECT_EQ(log.lines(),
              (Lines{"ERROR: notify_server_init: binding name to socket: Invalid argument",
                     "ERROR: kp_notify_init: init server failed"}));
    EXPECT_TRUE(file_exists("/run/precious"));
}

TEST_F(NotifyInit, ComesUpAloneWithAllSlotsFree)
{
    const Endpoint endpoint("endpoint");

    EXPECT_EQ(endpoint.server_count(), 0);
    EXPECT_EQ(endpoint.client_count(), 0);
    EXPECT_NE(endpoint.client(0), -1);
}

TEST_F(NotifyInit, ConnectsToEverySocketOfTheDirectory)
{
    const UnixSocket first = UnixSocket::listening("/run/providers/first");
    const UnixSocket second = UnixSocket::listening("/run/providers/second");

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(endpoint.server_count(), 2);
    EXPECT_TRUE(first.accept().is_open());
    EXPECT_TRUE(second.accept().is_open());
}

// Reads the library's stream of the directory to its end, as a system does whose streams show only
// what was there when they were opened.
void exhaust_directory_streams()
{
    for (const auto &[fd, target] : open_descriptors()) {
        std::array<char, 4096> entries;
        if (target == "/run/providers")
            while (syscall(SYS_getdents64, fd, entries.data(), entries.size()) > 0)
                continue;
    }
}

TEST_F(NotifyInit, FindsASocketThatIsMadeAfterTheDirectoryWasOpened)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    const Before scanning(Call::usleep, exhaust_directory_streams);

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(endpoint.server_count(), 1);
}

TEST_F(NotifyInit, ReportsEachConnectionAtDebugLevel)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    kp_xlog_set_user_level(KP_LEVEL_DEBUG);
    StderrCapture log;

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[92mDEBUG: notify_client_init: init endpoint connect to peer\n\033[0m");
}

TEST_F(NotifyInit, PassesOverWhatIsNoSocket)
{
    make_file("/run/providers/file");
    std::filesystem::create_directory("/run/providers/directory");
    const CountCalls connects(Call::connect);

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(connects.count(), 0);
    EXPECT_TRUE(file_exists("/run/providers/file"));
    EXPECT_TRUE(file_exists("/run/providers/directory"));
}

TEST_F(NotifyInit, RemovesADeadSocketThatItFinds)
{
    UnixSocket::leave_dead_file("/run/providers/dead");
    StderrCapture log;

    const Endpoint endpoint("endpoint");

    EXPECT_EQ(log.lines(),
              Lines{"ERROR: connect_to: connect to /run/providers/dead failed, remove it"});
    EXPECT_FALSE(file_exists("/run/providers/dead"));
}

TEST_F(NotifyInit, TakesUpTheConnectionsOfItsScan)
{
    const UnixSocket first = UnixSocket::listening("/run/providers/first");
    const UnixSocket second = UnixSocket::listening("/run/providers/second");
    Endpoint endpoint("endpoint");

    EXPECT_TRUE(first.accept().send(write_notice({1})));
    EXPECT_TRUE(second.accept().send(write_notice({2})));

    EXPECT_TRUE(endpoint.inbox().has_received(2));
    EXPECT_TRUE(endpoint.has_servers(0)); // both peers went away
}

TEST_F(NotifyInit, GivesASmallBufferRoomForWholeMessages)
{
    const UnixSocket peer = UnixSocket::listening("/run/providers/peer");
    Inbox inbox;
    kp_notify_t *endpoint = kp_notify_init("endpoint", 1, Inbox::receive, &inbox);
    ASSERT_NE(endpoint, nullptr);

    const UnixSocket connection = peer.accept();
    EXPECT_TRUE(connection.send(write_notice({0, 1023})));

    EXPECT_TRUE(inbox.has_received(1));
    EXPECT_EQ(inbox.messages(), std::vector{write_notice({0, 1023})});
    EXPECT_EQ(kp_notify_close(&endpoint), 0);
}

} // namespace
