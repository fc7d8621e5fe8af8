// Processes without root, where the two directories are prepared for their group and where they are
// not. Every child gives up the test's rights before it touches the library.
#include "kp.h"
#include "testing/capture.h"
#include "testing/child.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kptest;

namespace {

constexpr gid_t kGroup = 4711; // what zu-kp is to the files of packaging/
constexpr gid_t kOwnGroup = 4712;
constexpr uid_t kProviderUser = 4713;
constexpr uid_t kConsumerUser = 4714;

// Makes the process an ordinary user; false where the system does not let it.
bool become(uid_t user, bool is_member)
{
    (void)umask(0002);
    return setgroups(is_member ? 1 : 0, &kGroup) == 0 &&
           setresgid(kOwnGroup, kOwnGroup, kOwnGroup) == 0 && setresuid(user, user, user) == 0;
}

bool can_become_another_user()
{
    return ChildProcess([](Channel &) { return become(kProviderUser, false) ? 0 : 1; }).wait() == 0;
}

bool prepare(const char *directory, mode_t mode)
{
    return mkdir(directory, 0700) == 0 && chown(directory, 0, kGroup) == 0 &&
           chmod(directory, mode) == 0;
}

// Opens and closes a handle as an ordinary user; what became of it.
std::string opening_a_handle(bool is_member)
{
    ChildProcess child([is_member](Channel &parent) {
        if (!become(kProviderUser, is_member))
            return 1;
        errno = 0;
        kp_t *handle = kp_new("ordinary", nullptr);
        const int error = errno;
        (void)parent.tell(handle ? "opened" : std::strerror(error));
        return handle ? kp_destroy(handle) : 0;
    });
    return child.hear().value_or("nothing");
}

// Writes a value whenever the test says a line.
int provide(Channel &parent)
{
    if (!become(kProviderUser, true))
        return 1;
    kp_t *handle = kp_new("provider", nullptr);
    kp_tag_t *tag = kp_tag_provider_new(handle, "plant/pump", KP_TYPE_INT32, 4, 0);
    if (!tag)
        return 2;
    (void)parent.tell("ready");
    for (int32_t value = 42; parent.hear(std::chrono::minutes(1));)
        if (kp_tag_write(handle, tag, &value, sizeof(value)) != 4 || kp_tag_notify(handle) != 0)
            return 3;
    return 0;
}

// Tells the value of each change notice.
int consume(Channel &parent)
{
    if (!become(kConsumerUser, true))
        return 1;
    static std::atomic<bool> notified;
    kp_t *handle = kp_new("consumer", [](kp_t *, const kp_write_info *, void *) {
        notified = true;
        return 0;
    });
    kp_tag_t *tag = kp_tag_consumer_new(handle, "plant/pump");
    if (!tag)
        return 2;
    (void)parent.tell("ready");
    (void)wait_until([] { return notified.load(); });
    int32_t value = 0;
    const int32_t size = kp_tag_read(tag, &value, sizeof(value));
    (void)parent.tell(size == 4 ? std::to_string(value) : "unreadable");
    return 0;
}

class OrdinaryUser : public testing::Test {
  protected:
    void SetUp() override
    {
        if (!can_become_another_user())
            GTEST_SKIP() << "only root can become another user";
    }
};

TEST_F(OrdinaryUser, GetsNoHandleWhereNothingIsPrepared)
{
    StderrCapture log;

    const std::string outcome = opening_a_handle(true);

    EXPECT_EQ(outcome, "Permission denied");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(OrdinaryUser, GetsNoHandleOutsideTheGroup)
{
    ASSERT_TRUE(prepare("/run/providers", 03770));
    StderrCapture log;

    const std::string outcome = opening_a_handle(false);

    EXPECT_EQ(outcome, "Permission denied");
    EXPECT_EQ(log.lines(),
              (Lines{"ERROR: notify_server_init: binding name to socket: Permission denied",
                     "ERROR: kp_notify_init: init server failed"}));
}

TEST_F(OrdinaryUser, GetsAHandleWithinTheGroup)
{
    ASSERT_TRUE(prepare("/run/providers", 03770));

    EXPECT_EQ(opening_a_handle(true), "opened");
}

TEST_F(OrdinaryUser, ExchangesAValueWithAnotherUserOfTheGroup)
{
    ASSERT_TRUE(prepare("/run/providers", 03770));
    ASSERT_TRUE(prepare("/dev/shm/zu-kp", 02775));
    ChildProcess provider(provide);
    ASSERT_EQ(provider.hear(), "ready");
    ChildProcess consumer(consume);
    ASSERT_EQ(consumer.hear(), "ready");

    std::string told = "nothing";
    (void)wait_until([&] {
        EXPECT_TRUE(provider.tell("write"));
        told = consumer.hear(std::chrono::milliseconds(200)).value_or("nothing");
        return told != "nothing";
    });

    EXPECT_EQ(told, "42");
}

} // namespace
