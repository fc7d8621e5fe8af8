// Entries of the directory: which two looks found the same file, which links are followed, and who
// may connect to an entry.
#include "notify/endpoints.h"
#include "testing/child.h"
#include "testing/locks.h"

#include <sys/wait.h>
#include <unistd.h>

using namespace kptest;
using kp::Claimed;
using kp::Connector;

namespace {

constexpr kp::Entry kFile{kp::Presence::present, 1, 2, {3, 4}, S_IFSOCK | 0600, 0};

kp::Entry link_of(uid_t owner)
{
    kp::Entry link = kFile;
    link.mode = S_IFLNK | 0777;
    link.owner = owner;
    return link;
}

TEST(LookAtAnEntry, IsTheSameWhateverModeAndOwnerItHas)
{
    EXPECT_TRUE(kp::is_same(kFile, link_of(5)));
}

TEST(LookAtAnEntry, IsTheSameOnlyIfAllThatNamesTheFileIs)
{
    kp::Entry absent = kFile;
    kp::Entry other_device = kFile;
    kp::Entry other_inode = kFile;
    kp::Entry other_second = kFile;
    kp::Entry other_nanosecond = kFile;
    absent.presence = kp::Presence::absent;
    ++other_device.device;
    ++other_inode.inode;
    ++other_second.changed.tv_sec;
    ++other_nanosecond.changed.tv_nsec;

    EXPECT_FALSE(kp::is_same(kFile, absent));
    EXPECT_FALSE(kp::is_same(kFile, other_device));
    EXPECT_FALSE(kp::is_same(kFile, other_inode));
    EXPECT_FALSE(kp::is_same(kFile, other_second));
    EXPECT_FALSE(kp::is_same(kFile, other_nanosecond));
}

TEST(FollowingAnEntry, IsAllowedForASocketOfAnybody)
{
    kp::Entry socket = kFile;
    socket.owner = geteuid() + 1;

    EXPECT_TRUE(kp::may_follow(socket));
}

TEST(FollowingAnEntry, IsAllowedForALinkOfTheOwnUserAndOfRootAlone)
{
    const auto judge_as_another_user = [] {
        if (seteuid(7) != 0)
            return 2;
        return kp::may_follow(link_of(7)) && kp::may_follow(link_of(0)) &&
                       !kp::may_follow(link_of(8))
                   ? 0
                   : 1;
    };
    const pid_t child = fork();
    if (child == 0)
        _exit(judge_as_another_user());
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == 2)
        GTEST_SKIP() << "only root can become another user";

    EXPECT_EQ(status, 0);
}

class ClaimedEntry : public NotifyTest {
  protected:
    Claimed claim(Connector connector)
    {
        return kp::claim_entry(*endpoint_, connector, "peer", kFile);
    }

    BareEndpoint endpoint_;
};

TEST_F(ClaimedEntry, IsBeingConnectedByTheScanUntilItGivesItUp)
{
    EXPECT_EQ(claim(Connector::opening), Claimed::now);
    EXPECT_EQ(claim(Connector::watch), Claimed::being_connected);

    kp::drop_claim(*endpoint_, Connector::opening);

    EXPECT_EQ(claim(Connector::watch), Claimed::now);
}

TEST_F(ClaimedEntry, IsBeingConnectedByTheWatchUntilItGivesItUp)
{
    EXPECT_EQ(claim(Connector::watch), Claimed::now);
    EXPECT_EQ(claim(Connector::opening), Claimed::being_connected);

    kp::drop_claim(*endpoint_, Connector::watch);

    EXPECT_EQ(claim(Connector::opening), Claimed::now);
}

TEST_F(ClaimedEntry, IsConnectedAsLongAsItsSlotIsTaken)
{
    constexpr int kNumber = 1'000'000; // no descriptor's
    EXPECT_EQ(claim(Connector::watch), Claimed::now);
    EXPECT_EQ(kp::settle_claim(*endpoint_, Connector::watch, kNumber), 0U);
    EXPECT_EQ(claim(Connector::opening), Claimed::connected);
    EXPECT_EQ(claim(Connector::watch), Claimed::connected);

    EXPECT_EQ(kp::free_server_slot(*endpoint_, 0), kNumber);

    EXPECT_EQ(claim(Connector::opening), Claimed::now);
}

TEST_F(ClaimedEntry, ChangesHandsUnderTheLock)
{
    pthread_mutex_t &mutex = endpoint_->claims_mutex;

    EXPECT_TRUE(waits_for(mutex, [this] { EXPECT_EQ(claim(Connector::watch), Claimed::now); }));
    EXPECT_TRUE(waits_for(mutex, [this] { kp::drop_claim(*endpoint_, Connector::watch); }));
    EXPECT_TRUE(waits_for(
        mutex, [this] { (void)kp::settle_claim(*endpoint_, Connector::watch, 1'000'000); }));
    EXPECT_TRUE(waits_for(mutex, [this] { (void)kp::free_server_slot(*endpoint_, 0); }));
}

TEST_F(ClaimedEntry, IsAnotherOneUnderAnotherName)
{
    EXPECT_EQ(claim(Connector::watch), Claimed::now);

    EXPECT_EQ(kp::claim_entry(*endpoint_, Connector::opening, "link", kFile), Claimed::now);
}

} // namespace
