// The helpers themselves, as far as other tests would pass when these did nothing.
#include "testing/capture.h"
#include "testing/child.h"
#include "testing/faults.h"
#include "testing/mounts.h"
#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/unix_socket.h"

#include "kp.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace kptest;

namespace {

TEST(Surroundings, HaveAnEmptyStoreAndNoEndpointFolder)
{
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm"));
    EXPECT_TRUE(std::filesystem::is_empty("/run"));
}

TEST(Shims, FailTheNextCallOnly)
{
    FailNext fault{Call::calloc};

    kp_dict *first = kp_dict_new();
    kp_dict *second = kp_dict_new();

    EXPECT_EQ(first, nullptr);
    EXPECT_NE(second, nullptr);
    kp_dict_destroy(second);
}

TEST(Shims, FailTheNthCallOnly)
{
    FailNth fault{Call::calloc, 2};

    kp_dict *first = kp_dict_new();
    kp_dict *second = kp_dict_new();
    kp_dict *third = kp_dict_new();

    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    kp_dict_destroy(first);
    kp_dict_destroy(third);
}

TEST(Shims, FailEveryCallFromTheNthOn)
{
    FailFrom fault{Call::calloc, 1};

    EXPECT_EQ(kp_dict_new(), nullptr);
    EXPECT_EQ(kp_dict_new(), nullptr);
    EXPECT_EQ(fault.count(), 2);
}

TEST(Shims, SayOnWhichCallOfASetTheyFired)
{
    StderrCapture log;
    FailNth fault{{Call::ftruncate, Call::fallocate, Call::mmap}, 2};

    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);

    EXPECT_EQ(shm, nullptr);
    EXPECT_STREQ(name_of(fault.fired_on()), "fallocate");
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: ftruncate: No space left on device"});
}

TEST(Shims, LeaveTheCallsOfTheTestAlone)
{
    FailFrom fault{kFallibleCalls, 1};

    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(fault.count(), 0);
}

TEST(Shims, ForTheirOwnThreadLeaveOtherThreadsAlone)
{
    FailFrom fault{Call::calloc, 1, ENOMEM, Threads::this_one};
    kp_dict *dict = nullptr;

    std::thread([&dict] { dict = kp_dict_new(); }).join();

    EXPECT_NE(dict, nullptr);
    EXPECT_EQ(fault.count(), 0);
    kp_dict_destroy(dict);
}

TEST(Shims, CountLiveBlocksOfTheLibrary)
{
    const long before = live_blocks();

    kp_dict *dict = kp_dict_new();

    EXPECT_EQ(live_blocks(), before + 1);
    kp_dict_destroy(dict);
    EXPECT_EQ(live_blocks(), before);
}

TEST(Shims, RunAHookRightBeforeACall)
{
    StderrCapture log;
    bool existed = true;
    Before opening{Call::syscall, [&existed] { existed = SegmentFile("a").exists(); }};

    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);

    EXPECT_FALSE(existed);
    EXPECT_EQ(kp_shm_destroy(shm, "a", KP_ROLE_PROVIDER), 0);
}

TEST(Shims, GiveErrnoToTheLibrary)
{
    StderrCapture log;
    FailNext fault{Call::mmap, EAGAIN};

    (void)kp_shm_new("a", KP_ROLE_PROVIDER);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_new: mmap: Resource temporarily unavailable"});
}

TEST(OpenDescriptors, ShowALeakedOne)
{
    const auto before = open_descriptors();

    const UnixSocket leaked = UnixSocket::listening("/run/test/socket");

    EXPECT_NE(open_descriptors(), before);
}

TEST(Children, ExchangeLinesWithTheTest)
{
    ChildProcess child([](Channel &parent) {
        const auto said = parent.hear();
        return said && parent.tell("heard " + *said) ? 7 : 1;
    });

    EXPECT_TRUE(child.tell("hello"));

    EXPECT_EQ(child.hear(), "heard hello");
    EXPECT_EQ(child.wait(), 7);
}

TEST(Children, ExecuteProgramsBuiltLikeTheTest)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    ChildProcess child({self, "--gtest_list_tests"});

    EXPECT_EQ(child.wait(), 0);
}

TEST(Children, CanBeKilled)
{
    ChildProcess child({"sleep", "1000"});

    child.signal(SIGKILL);

    EXPECT_EQ(child.wait(), 128 + SIGKILL);
}

TEST(Children, CanStartThreads)
{
    ChildProcess child([](Channel &) {
        std::thread([] {}).join();
        return 0;
    });

    EXPECT_EQ(child.wait(), 0);
}

TEST(Sockets, CarryBytesBothWays)
{
    const UnixSocket server = UnixSocket::listening("/run/test/socket");
    UnixSocket client = UnixSocket::connected("/run/test/socket");
    const UnixSocket peer = server.accept();

    EXPECT_TRUE(client.send("abc"));
    EXPECT_EQ(peer.recv(3), "abc");
    client.close();
    EXPECT_TRUE(peer.is_closed_by_peer());
}

TEST(TinyFileSystem, RefusesAPageWhenItIsFull)
{
    const TinyTmpfs store("/dev/shm/zu-kp", 4);
    store.fill();
    StderrCapture log;

    kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);

    EXPECT_EQ(shm, nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: ftruncate: No space left on device"});
}

} // namespace
