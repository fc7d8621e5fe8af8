#include "common/system/socket_probe.h"
#include "testing/unix_socket.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace kp::tool {

namespace {

using kptest::UnixSocket;

constexpr const char *kPath = "/run/probed/socket";

TEST(SocketProbe, IsTakenByAListener)
{
    const UnixSocket listener = UnixSocket::listening(kPath);

    EXPECT_EQ(probe_socket(kPath), 0);

    EXPECT_TRUE(listener.accept().is_closed_by_peer());
}

TEST(SocketProbe, IsRefusedWhereNobodyListens)
{
    UnixSocket::leave_dead_file(kPath);

    EXPECT_EQ(probe_socket(kPath), ECONNREFUSED);
}

TEST(SocketProbe, TellsAListenerThatHasNoRoom)
{
    const UnixSocket listener = UnixSocket::listening(kPath, 0);
    const UnixSocket waiting = UnixSocket::connected(kPath);

    EXPECT_EQ(probe_socket(kPath), EAGAIN);
}

TEST(SocketProbe, TellsAPathThatIsNoSocket)
{
    EXPECT_EQ(probe_socket("/run/none"), ENOENT);
    EXPECT_EQ(probe_socket("/run/" + std::string(200, 'x')), ENAMETOOLONG);
}

} // namespace

} // namespace kp::tool
