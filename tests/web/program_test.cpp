// The program as a service: its configuration, its sockets, its end.
#include "testing/child.h"
#include "web/client.h"
#include "web/web_program.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kptest;
using testing::HasSubstr;

namespace {

// Says whether a connection is taken. The file of the socket is there before its owner listens.
bool is_served(const std::string &path)
{
    return Client(path).ask("/healthz");
}

TEST(WebProgram, GoesOnAfterAReloadOfABrokenConfiguration)
{
    const WebProgram web;

    web.configure("colour = 1\n");
    web.signal(SIGHUP);

    EXPECT_TRUE(web.wait_for_log("goes on with the configuration that it had"));
    EXPECT_THAT(web.log(), HasSubstr("kp-web.conf:2: colour: unknown setting"));
    EXPECT_EQ(web.get("/healthz").status, 200);
}

TEST(WebProgram, LeavesNoDescriptorBehindAtReloads)
{
    const WebProgram web;
    (void)web.get("/tags");
    web.signal(SIGHUP);
    ASSERT_TRUE(web.wait_for_log("has read its configuration again"));
    ASSERT_EQ(web.get("/healthz").status, 200);
    const std::size_t before = web.descriptor_count();

    for (int round = 0; round < 5; ++round) {
        web.signal(SIGHUP);
        ASSERT_EQ(web.get("/healthz").status, 200);
    }

    EXPECT_TRUE(wait_until([&] { return web.descriptor_count() <= before; }));
}

TEST(WebProgram, ServesAUnixSocketAndRemovesItAtItsEnd)
{
    const std::string path = "/run/kp-web.socket";
    {
        std::ofstream("/run/unix.conf") << "listen = [\"unix:" << path << "\"]\n";
        ChildProcess program({KP_WEB, "-c", "/run/unix.conf"});
        ASSERT_TRUE(wait_until([&] { return is_served(path); }));
        Client client(path);
        ASSERT_TRUE(client.ask("/healthz"));
        EXPECT_TRUE(client.wait_for("ok\n"));
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0660));
        program.signal(SIGTERM);
        EXPECT_EQ(program.wait(), 0);
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(WebProgram, ReplacesTheSocketOfOneThatWasKilled)
{
    const std::string path = "/run/kp-web.socket";
    std::ofstream("/run/unix.conf") << "listen = [\"unix:" << path << "\"]\n";
    {
        ChildProcess killed({KP_WEB, "-c", "/run/unix.conf"});
        ASSERT_TRUE(wait_until([&] { return is_served(path); }));
        Client client(path);
        ASSERT_TRUE(client.ask("/healthz"));
        ASSERT_TRUE(client.wait_for("ok\n"));
        killed.signal(SIGKILL);
        EXPECT_EQ(killed.wait(), 128 + SIGKILL);
    }
    ASSERT_TRUE(std::filesystem::exists(path));

    ChildProcess program({KP_WEB, "-c", "/run/unix.conf"});

    EXPECT_TRUE(wait_until([&] {
        Client client(path);
        return client.ask("/healthz") && client.wait_for("ok\n");
    }));
}

TEST(WebProgram, EndsWhenItsTerminalCloses)
{
    const std::string path = "/run/kp-web.socket";
    std::ofstream("/run/unix.conf") << "listen = [\"unix:" << path << "\"]\n";
    ChildProcess terminal(
        {"/usr/bin/script", "-qc", "exec '" KP_WEB "' -c /run/unix.conf", "/dev/null"});
    ASSERT_TRUE(wait_until([&] { return is_served(path); }));

    terminal.signal(SIGKILL);

    EXPECT_TRUE(wait_until([&] { return !std::filesystem::exists(path); }));
}

TEST(WebProgram, EndsWithAReasonWhereItCannotListen)
{
    const WebProgram first;
    std::ofstream("/run/taken.conf") << "listen = [\"127.0.0.1:" << first.port() << "\"]\n";

    ChildProcess second({"/bin/sh", "-c", "exec '" KP_WEB "' -c /run/taken.conf 2>/run/said"});

    EXPECT_EQ(second.wait(), 1);
    std::string said;
    std::getline(std::ifstream("/run/said"), said);
    EXPECT_EQ(said, "kp-web: error: 127.0.0.1:" + std::to_string(first.port()) +
                        ": Address already in use");
}

TEST(WebProgram, ChecksAConfigurationAndLeaves)
{
    std::ofstream("/run/good.conf") << "rate = 5\n";
    std::ofstream("/run/bad.conf") << "rate = 0\n";

    ChildProcess good({KP_WEB, "--check", "-c", "/run/good.conf"});
    ChildProcess bad({KP_WEB, "--check", "-c", "/run/bad.conf"});
    ChildProcess usage({KP_WEB, "--nonsense"});

    EXPECT_EQ(good.hear(), "/run/good.conf: good");
    EXPECT_EQ(good.wait(), 0);
    EXPECT_EQ(bad.wait(), 2);
    EXPECT_EQ(usage.wait(), 2);
}

// Hands over a socket as a service manager does: it is the descriptor 3, and two variables say so.
TEST(WebProgram, TakesTheSocketOfAServiceManager)
{
    const std::string script = "import os, socket, sys\n"
                               "listener = socket.socket(socket.AF_UNIX)\n"
                               "listener.bind('/run/activated')\n"
                               "listener.listen()\n"
                               "os.dup2(listener.fileno(), 3)\n"
                               "os.set_inheritable(3, True)\n"
                               "os.environ['LISTEN_PID'] = str(os.getpid())\n"
                               "os.environ['LISTEN_FDS'] = '1'\n"
                               "os.execv(sys.argv[1], sys.argv[1:])\n";
    ChildProcess program({"/usr/bin/python3", "-c", script, KP_WEB});

    EXPECT_TRUE(wait_until([] {
        Client client("/run/activated");
        return client.ask("/healthz") && client.wait_for("ok\n");
    }));
}

} // namespace
