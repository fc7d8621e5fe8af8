#include "providers/segment_holders.h"

#include "testing/child.h"
#include "testing/readable.h"
#include "testing/store_provider.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace kp::mqtt;
using namespace kptest;

namespace {

int hold_until_told(Channel &parent)
{
    kp_shm_t *shm = kp_shm_new("a/1", KP_ROLE_PROVIDER);
    (void)parent.tell(shm ? "open" : "failed");
    (void)parent.hear(std::chrono::minutes(2));
    return 0;
}

ino_t file_of(const std::string &topic)
{
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/zu-kp/" + topic).c_str(), &status), 0);
    return status.st_ino;
}

} // namespace

TEST(SegmentHolders, FindTheHandlesOfEachProcess)
{
    ChildProcess other(hold_until_told);
    ASSERT_EQ(other.hear(), "open");
    StoreProvider one("a/1");
    StoreProvider two("a/1");
    SegmentHolders holders(true);

    const auto found = holders.take().of(file_of("a/1"));

    ASSERT_EQ(found.size(), 2u);
    const bool own_first = found[0].process.pid == getpid();
    const Holder &own = found[own_first ? 0 : 1];
    const Holder &others = found[own_first ? 1 : 0];
    EXPECT_EQ(own.process.pid, getpid());
    EXPECT_EQ(own.handles, 2u);
    EXPECT_EQ(others.process.pid, other.pid());
    EXPECT_EQ(others.handles, 1u);
    EXPECT_GT(others.process.started, 0u);
}

TEST(SegmentHolders, HearTheEndOfAProcessOnce)
{
    ChildProcess other(hold_until_told);
    ASSERT_EQ(other.hear(), "open");
    SegmentHolders holders(true);
    (void)holders.take();
    EXPECT_FALSE(is_readable(holders.fd()));
    EXPECT_FALSE(holders.some_ended());

    other.signal(SIGKILL);

    EXPECT_TRUE(is_readable(holders.fd(), kDeadline));
    EXPECT_TRUE(holders.some_ended());
    EXPECT_FALSE(holders.some_ended());
    EXPECT_TRUE(holders.take().of(file_of("a/1")).empty());
}

TEST(SegmentHolders, ListenToNobodyWhoHasClosed)
{
    ChildProcess other([](Channel &parent) {
        kp_shm_t *shm = kp_shm_new("a/1", KP_ROLE_PROVIDER);
        (void)parent.tell("open");
        (void)parent.hear();
        (void)kp_shm_destroy(shm, "a/1", KP_ROLE_PROVIDER);
        (void)parent.tell("closed");
        (void)parent.hear(std::chrono::minutes(2));
        return 0;
    });
    ASSERT_EQ(other.hear(), "open");
    SegmentHolders holders(true);
    (void)holders.take();
    (void)other.tell("close");
    ASSERT_EQ(other.hear(), "closed");
    (void)holders.take();

    other.signal(SIGKILL);
    (void)other.wait();

    EXPECT_FALSE(is_readable(holders.fd()));
}

TEST(SegmentHolders, DoNotSeeAllAsAnOrdinaryUser)
{
    constexpr uid_t kNobody = 65534;
    ChildProcess user([](Channel &) {
        if (setresuid(kNobody, kNobody, kNobody) != 0)
            return 77; // in a user namespace there is nobody else
        return SegmentHolders(false).sight() == Sight::partial ? 0 : 1;
    });

    const auto status = user.wait();

    if (status == 77)
        GTEST_SKIP() << "this user namespace has no other user";
    EXPECT_EQ(status, 0);
}

TEST(SegmentHolders, FindNobodyWhereThereIsNoStore)
{
    SegmentHolders holders(true);

    EXPECT_TRUE(holders.take().of_file.empty());
}
