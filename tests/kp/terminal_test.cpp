// top in a terminal that the test holds itself: one that takes nothing, and one of no size.
#include "kp_run.h"

#include "testing/process.h"
#include "testing/readable.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <pty.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

using namespace kptest;

namespace {

// Runs `kp top` in a terminal of this size, from which nothing is read unless a test does it.
class HeldTop : public OwnProcess {
  public:
    explicit HeldTop(unsigned short rows, unsigned short columns)
    {
        const winsize size{rows, columns, 0, 0};
        (void)openpty(&master_, &terminal_, nullptr, nullptr, &size);
        (void)tcgetattr(terminal_, &before_);
        start([this] { become_top(); });
    }
    ~HeldTop()
    {
        (void)close(master_);
        (void)close(terminal_);
    }

    void type(const std::string &keys) const
    {
        EXPECT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    // Says whether it sleeps in a write that the terminal does not take.
    bool is_stuck() const
    {
        return wait_until([this] {
            int number = -1;
            std::ifstream("/proc/" + std::to_string(pid()) + "/syscall") >> number;
            return number == SYS_write;
        });
    }
    // Takes what the terminal shows until `text` was among it.
    bool prints(const std::string &text)
    {
        return wait_until([&] {
            std::array<char, 65536> buffer;
            if (is_readable(master_))
                taken_.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(
                                                 read(master_, buffer.data(), buffer.size()), 0)));
            return taken_.find(text) != std::string::npos;
        });
    }
    bool has_its_modes_back() const
    {
        termios now{};
        return tcgetattr(terminal_, &now) == 0 && now.c_lflag == before_.c_lflag &&
               now.c_iflag == before_.c_iflag && now.c_oflag == before_.c_oflag;
    }

  private:
    void become_top() const
    {
        (void)setenv("TERM", "xterm", 1);
        (void)setenv("LC_ALL", "C.UTF-8", 1);
        (void)close(master_);
        (void)login_tty(terminal_);
        (void)execl(KP_PROGRAM, KP_PROGRAM, "top", "--delay", "0.05", nullptr);
    }

    int master_ = -1;
    int terminal_ = -1;
    termios before_{};
    std::string taken_;
};

// This is more than the about 64 KiB that a terminal keeps for a reader that does not come.
void put_a_screenful()
{
    for (int index = 100; index < 400; ++index)
        put_text("t/" + std::to_string(index), std::string(400, 'x'));
}

const std::string kEntersFullScreen = "\x1b[?1049h";
const std::string kLeavesFullScreen = "\x1b[?1049l";

class KpTopUnread : public testing::TestWithParam<int> {};

} // namespace

TEST_P(KpTopUnread, EndsByASignalAllTheSame)
{
    put_a_screenful();
    HeldTop top(300, 500);
    ASSERT_TRUE(top.is_stuck());

    top.signal(GetParam());

    EXPECT_TRUE(top.dies_of(GetParam()));
    EXPECT_TRUE(top.has_its_modes_back());
    EXPECT_TRUE(top.prints(kLeavesFullScreen));
}

INSTANTIATE_TEST_SUITE_P(By, KpTopUnread, testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST(KpTopInItsTerminal, EndsByTheKeyForIt)
{
    put_a_screenful();
    HeldTop top(300, 500);
    ASSERT_TRUE(top.is_stuck());

    top.type("\x03");

    EXPECT_TRUE(top.dies_of(SIGINT));
    EXPECT_TRUE(top.has_its_modes_back());
}

TEST(KpTopInItsTerminal, GoesOnWhenItsReaderWakes)
{
    put_a_screenful();
    HeldTop top(300, 500);
    ASSERT_TRUE(top.is_stuck());

    EXPECT_TRUE(top.prints("t/397"));
    put_text("t/100", "news");
    EXPECT_TRUE(top.prints("news"));
    top.type("q");

    EXPECT_TRUE(top.prints(kLeavesFullScreen));
    EXPECT_EQ(top.status(), 0);
}

class KpTopSize : public testing::TestWithParam<std::pair<unsigned short, unsigned short>> {};

TEST_P(KpTopSize, IsNoReasonToCrash)
{
    put_text("a/long/topic/of/many/levels", "and a value of \xe4\xb8\xad\xe6\x96\x87");
    put_double("b", 1);
    HeldTop top(GetParam().first, GetParam().second);
    EXPECT_TRUE(top.prints(kEntersFullScreen));

    for (const char *keys : {"\x1b[B", "\r", "\x1b[B", "\r", "h", "h", "/", "b", "\r", "s", "r"})
        top.type(keys);
    top.type("q");

    EXPECT_TRUE(top.prints(kLeavesFullScreen));
    EXPECT_EQ(top.status(), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, KpTopSize,
                         testing::Values(std::pair{1, 1}, std::pair{1, 200}, std::pair{200, 1},
                                         std::pair{2, 2}, std::pair{3, 47}, std::pair{24, 48}));
