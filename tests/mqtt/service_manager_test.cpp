#include "common/system/service_manager.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using kp::tool::ServiceManager;

namespace {

// The manager's end.
class Manager {
  public:
    Manager() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/run/notify");
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        (void)setenv("NOTIFY_SOCKET", "/run/notify", 1);
    }
    ~Manager()
    {
        (void)close(fd_);
    }
    std::string hear() const
    {
        std::array<char, 256> room{};
        const ssize_t size = recv(fd_, room.data(), room.size(), 0);
        return {room.data(), static_cast<size_t>(std::max<ssize_t>(size, 0))};
    }

  private:
    int fd_;
};

const std::chrono::steady_clock::time_point kBegin{std::chrono::hours(1)};

} // namespace

TEST(ServiceManager, HearsReadyStatusAndStopping)
{
    const Manager manager;
    const ServiceManager bridge;

    bridge.ready();
    bridge.status("connected");
    bridge.stopping();

    EXPECT_EQ(manager.hear(), "READY=1");
    EXPECT_EQ(manager.hear(), "STATUS=connected");
    EXPECT_EQ(manager.hear(), "STOPPING=1");
}

TEST(ServiceManager, HearsThatTheConfigurationIsReadAgain)
{
    const Manager manager;
    const ServiceManager bridge;

    bridge.reloading();

    EXPECT_TRUE(manager.hear().starts_with("RELOADING=1\nMONOTONIC_USEC="));
}

TEST(ServiceManager, HearsOfTheWatchdogOftenEnoughAndNoMore)
{
    const Manager manager;
    (void)setenv("WATCHDOG_USEC", "4000000", 1);
    ServiceManager bridge;

    bridge.keep_watchdog_quiet(kBegin);
    bridge.keep_watchdog_quiet(kBegin + std::chrono::milliseconds(500));
    EXPECT_EQ(manager.hear(), "WATCHDOG=1");
    EXPECT_EQ(manager.hear(), "");

    bridge.keep_watchdog_quiet(kBegin + std::chrono::milliseconds(1500));
    EXPECT_EQ(manager.hear(), "WATCHDOG=1");
}
