// hz, top, bench, the help and what is installed beside the program.
#include "kp_run.h"

#include "testing/child.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace kptest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

// Writes a topic at an even pace until it is told to end.
int write_steadily(Channel &parent)
{
    kp_shm_t *shm = kp_shm_new("fast", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(shm, KP_TYPE_UINT64, 8, 0);
    (void)parent.tell("writing");
    uint64_t stamp = 1'000'000;
    while (!parent.hear(std::chrono::milliseconds(20))) {
        stamp += 20'000; // exactly even by its stamps, however late the process runs
        (void)kp_shm_write(shm, &stamp, sizeof(stamp), stamp, 1, stamp);
    }
    (void)kp_shm_destroy(shm, "fast", KP_ROLE_PROVIDER);
    return 0;
}

// Runs `kp top` in a terminal of 100 by 20, through a tmux of its own. The sanitizer does not look
// for leaks: a terminal that goes away sends SIGCONT too, which takes back the SIGSTOP for which
// this look waits, and it would spin for ever.
class TopInTerminal {
  public:
    explicit TopInTerminal(const std::string &arguments = "")
        : socket_("/run/tmux-" + std::to_string(getpid()))
    {
        tmux({"new-session", "-d", "-x", "100", "-y", "20",
              "ulimit -c 0; "
              "ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0:handle_segv=0:handle_sigfpe=0:handle_"
              "sigill=0 "
              "TSAN_OPTIONS=$TSAN_OPTIONS:handle_segv=0:handle_sigfpe=0:handle_sigill=0 "
              "TERM=screen LC_ALL=C.UTF-8 '" KP_PROGRAM "' top --delay 0.1 " +
                  arguments +
                  "; echo code $?; stty -a | grep -ow -e '-*icanon' -e '-*echo'; echo end; "
                  "sleep 60"});
    }
    TopInTerminal(const TopInTerminal &) = delete;
    TopInTerminal &operator=(const TopInTerminal &) = delete;
    ~TopInTerminal()
    {
        tmux({"kill-server"});
    }

    void type(const std::string &keys) const
    {
        tmux({"send-keys", keys});
    }
    void resize(const std::string &columns, const std::string &rows) const
    {
        tmux({"resize-window", "-x", columns, "-y", rows});
    }
    // It goes to the program alone: the terminal's first process is the shell that started it.
    void signal(int number) const
    {
        const std::string shell = tmux({"display-message", "-p", "#{pane_pid}"});
        const Ran child =
            run_program({"ps", "-o", "pid=", "--ppid", std::to_string(std::stoi(shell))});
        (void)kill(std::stoi(child.out), number);
    }
    // Says whether the full screen is left and the cursor can be seen.
    std::string state() const
    {
        return tmux({"display-message", "-p", "alternate #{alternate_on} cursor #{cursor_flag}"});
    }
    std::string screen() const
    {
        return tmux({"capture-pane", "-p"});
    }
    // Waits until the whole screen is as wanted, since only a part is while it is drawn.
    testing::AssertionResult shows(const testing::Matcher<const std::string &> &wanted) const
    {
        std::string seen;
        const auto is_wanted = [&] { return wanted.Matches(seen = screen()); };
        return wait_until(is_wanted) ? testing::AssertionSuccess()
                                     : testing::AssertionFailure() << seen;
    }

  private:
    std::string tmux(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"tmux", "-f", "/dev/null", "-S", socket_});
        return run_program(arguments).out;
    }

    std::string socket_;
};

} // namespace

TEST(KpHz, MeasuresRateAndJitterByTheStamps)
{
    ChildProcess writer(write_steadily);
    ASSERT_EQ(writer.hear(), "writing");

    const Ran ran = kp({"hz", "#", "-1", "-j", "-w", "2"});

    EXPECT_EQ(ran.code, 0);
    // A look that comes late misses a write and sees a double interval.
    EXPECT_EQ(filtered(ran.out,
                       {"jq", "-c", "[.topic, .min_us, .max_us % 20000, .hz > 5, .hz < 50.001]"}),
              "[\"fast\",20000,0,true,true]\n");
    (void)writer.tell("end");
}

TEST(KpHz, PrintsATable)
{
    ChildProcess writer(write_steadily);
    ASSERT_EQ(writer.hear(), "writing");

    EXPECT_THAT(
        kp({"hz", "fast", "-1", "-w", "2"}).out,
        testing::MatchesRegex(
            "TOPIC +WRITES +HZ +MIN +MEAN +MAX +JITTER +BYTES/S\n"
            "fast +[0-9]+ +[0-9.]+ +20.0ms +[0-9.]+ms +[0-9.]+ms +[0-9.]+[um]s +[0-9.]+\n"));
    (void)writer.tell("end");
}

TEST(KpHz, HasNothingToSayOfATopicThatRests)
{
    put_double("a", 1);

    const Ran ran = kp({"hz", "a", "-1", "-w", "0.05"});

    EXPECT_EQ(ran.out, "TOPIC                               WRITES        HZ       MIN      MEAN "
                       "      MAX    JITTER   BYTES/S\n");
    EXPECT_EQ(ran.code, 1);
}

TEST(KpHz, SaysWhichDirectoryItMayNotRead)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    put_double("closed/a", 1);
    ASSERT_EQ(chmod("/dev/shm/zu-kp/closed", 0700), 0);

    const Ran ran = kp({"hz", "#", "-1", "-w", "0.05"}, {.uid = user});

    EXPECT_EQ(ran.err, "kp: closed: Permission denied\n");
    EXPECT_EQ(ran.code, 3);
}

// The writer is far faster than any look, and each write has the present time.
static int write_fast(Channel &parent)
{
    kp_shm_t *shm = kp_shm_new("fast", KP_ROLE_PROVIDER);
    (void)kp_shm_set_provider_info(shm, KP_TYPE_UINT64, 8, 0);
    (void)parent.tell("writing");
    while (!parent.hear(std::chrono::milliseconds(0)))
        for (int count = 0; count < 50; ++count) {
            const uint64_t now = kp_shm_get_timestamp_us();
            (void)kp_shm_write(shm, &now, sizeof(now), now, 1, now);
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    (void)kp_shm_destroy(shm, "fast", KP_ROLE_PROVIDER);
    return 0;
}

TEST(KpTop, MarksARateThatIsOnlyALowerBound)
{
    ChildProcess writer(write_fast);
    ASSERT_EQ(writer.hear(), "writing");
    const TopInTerminal top;

    EXPECT_TRUE(top.shows(testing::ContainsRegex("fast +uint64 .* >=(9|10)\\.[0-9]")));
    (void)writer.tell("end");
}

TEST(KpTop, SeesNoTopicWrittenInTheFuture)
{
    ChildProcess writer(write_fast);
    ASSERT_EQ(writer.hear(), "writing");
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(HasSubstr("fast")));

    int in_the_future = 0;
    for (int look = 0; look < 30; ++look) {
        in_the_future += top.screen().find("future") != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    EXPECT_EQ(in_the_future, 0);
    (void)writer.tell("end");
}

// Each of many topics is written about once between two looks. So again and again a write comes
// between the look at a topic and the reading of its value, and none follows before the next look.
static int write_many(Channel &parent)
{
    constexpr int count = 200;
    std::vector<kp_shm_t *> topics;
    for (int index = 0; index < count; ++index) {
        topics.push_back(kp_shm_new(("many/" + std::to_string(index)).c_str(), KP_ROLE_PROVIDER));
        (void)kp_shm_set_provider_info(topics.back(), KP_TYPE_UINT64, 8, 0);
    }
    (void)parent.tell("writing");
    uint64_t stamp = 1;
    while (!parent.hear(std::chrono::milliseconds(0)))
        for (kp_shm_t *topic : topics) {
            ++stamp;
            (void)kp_shm_write(topic, &stamp, sizeof(stamp), stamp, 1, stamp);
            const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(8);
            while (std::chrono::steady_clock::now() < end) { // no sleep is as short as this
            }
        }
    for (int index = 0; index < count; ++index)
        (void)kp_shm_destroy(topics[static_cast<std::size_t>(index)],
                             ("many/" + std::to_string(index)).c_str(), KP_ROLE_PROVIDER);
    return 0;
}

TEST(KpRecord, PrintsNoWriteTwice)
{
    ChildProcess writer(write_many);
    ASSERT_EQ(writer.hear(), "writing");

    const Ran ran = kp({"record", "many/#", "--rate", "10000", "-t", "1"});

    std::istringstream lines(ran.out);
    std::set<std::string> writes;
    std::size_t printed = 0;
    for (std::string line; std::getline(lines, line); ++printed)
        writes.insert(line.substr(0, line.find(",\"seen\"")));
    EXPECT_GT(printed, 200U);
    EXPECT_EQ(printed - writes.size(), 0U);
    (void)writer.tell("end");
}

TEST(KpTop, CountsWhatItCannotRead)
{
    put_double("a", 1);
    SegmentFile("short").create(3);
    const TopInTerminal top;

    EXPECT_TRUE(top.shows(
        AllOf(HasSubstr("CONS"), HasSubstr("kp top  1 topics, 1 cannot be read  by topic"))));
}

TEST(KpTop, ShowsWhatItCanOfATopicWhoseWriterDiedInAWrite)
{
    put_double("stuck", 1);
    SegmentFile("stuck").put_u8(at::writing, 1);
    const TopInTerminal top;

    EXPECT_TRUE(top.shows(AllOf(HasSubstr("stuck"), testing::ContainsRegex("stuck +double"))));
}

TEST(KpTop, ShowsTopicsAndFollowsThem)
{
    put_double("plant/speed", 21.5);
    put_text("plant/name", "north");
    const TopInTerminal top;

    EXPECT_TRUE(top.shows(testing::StartsWith(
        "kp top  2 topics  by topic  (h: help)\n"
        "TOPIC            TYPE      VALUE                                 QUAL      AGE      RATE  "
        "PROV  CONS\n"
        "plant/name       string    north                                    1   future       0.0  "
        "   0     0\n"
        "plant/speed      double    21.5                                     1   future       0.0  "
        "   0     0")));
    put_double("plant/speed", 22.5);
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("22.5"), HasSubstr("double    22.5"))));
    put_double("plant/third", 1);
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("plant/third"), HasSubstr("kp top  3 topics"))));
}

TEST(KpTop, FiltersSortsFreezesAndHelps)
{
    put_double("a/one", 1);
    put_double("b/two", 2);
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("b/two"), HasSubstr("a/one"))));

    top.type("/");
    top.type("b/#");
    top.type("Enter");
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("1 match b/#"), Not(HasSubstr("a/one")))));
    top.type("/");
    top.type("Enter");
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("a/one"), HasSubstr("b/two"))));
    top.type("r");
    EXPECT_TRUE(top.shows(
        AllOf(HasSubstr("by topic, reversed"), testing::ContainsRegex("b/two.*\na/one"))));
    top.type("s");
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("by rate"), HasSubstr("a/one"))));
    top.type("h");
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("reverse the order"), Not(HasSubstr("a/one")))));
    top.type("h");
    top.type("Space");
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("FROZEN"), HasSubstr("a/one"))));
    put_double("c/three", 3);
    top.type("Space");
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("c/three"), Not(HasSubstr("FROZEN")))));
}

TEST(KpTop, FollowsTheSizeOfItsTerminal)
{
    put_double("a", 1);
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("CONS"), HasSubstr("a  "))));

    top.resize("130", "10");

    EXPECT_TRUE(wait_until([&] {
        return top.screen().find("VALUE" + std::string(63, ' ') + "QUAL") != std::string::npos;
    })) << top.screen();
}

TEST(KpTop, RestoresTheTerminalHoweverItEnds)
{
    put_double("a", 1);
    const TopInTerminal quit;
    ASSERT_TRUE(quit.shows(AllOf(HasSubstr("CONS"), HasSubstr("kp top"))));
    quit.type("q");
    EXPECT_TRUE(quit.shows(AllOf(HasSubstr("code 0"), Not(HasSubstr("CONS")))));
}

TEST(KpTop, RestoresTheTerminalWhenASignalEndsIt)
{
    put_double("a", 1);
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("CONS"), HasSubstr("kp top"))));

    top.signal(SIGTERM);

    EXPECT_TRUE(top.shows(AllOf(HasSubstr("code 143"), Not(HasSubstr("CONS")))));
}

class KpTopEnded : public testing::TestWithParam<int> {};

TEST_P(KpTopEnded, RestoresTheTerminalAndTellsTheSignal)
{
    put_double("a", 1);
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("CONS"), HasSubstr("kp top"))));
    ASSERT_EQ(top.state(), "alternate 1 cursor 0\n");

    top.signal(GetParam());

    EXPECT_TRUE(top.shows(
        AllOf(HasSubstr("end"),
              HasSubstr("code " + std::to_string(128 + GetParam()) + "\nicanon\necho\nend\n"))));
    EXPECT_THAT(top.screen(), Not(HasSubstr("CONS")));
    EXPECT_EQ(top.state(), "alternate 0 cursor 1\n");
}

INSTANTIATE_TEST_SUITE_P(ByRequest, KpTopEnded,
                         testing::Values(SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGPROF, SIGXCPU));
INSTANTIATE_TEST_SUITE_P(ByACrash, KpTopEnded,
                         testing::Values(SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGTRAP, SIGBUS));

TEST(KpTop, QuitsByF10WhateverItIsDoing)
{
    put_double("a", 1);
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("CONS"), HasSubstr("kp top"))));
    top.type("/");
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("filter: _"), HasSubstr("CONS"))));

    top.type("F10");

    EXPECT_TRUE(top.shows(AllOf(HasSubstr("code 0"), Not(HasSubstr("CONS")))));
}

TEST(KpTop, ShowsTheWholeValueAndItsUsersOnEnter)
{
    kp_shm_t *shm = kp_shm_new("b", KP_ROLE_CONSUMER);
    put_double("a", 1);
    put_text("b", std::string(300, 'x') + "the end");
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("CONS"), HasSubstr("xxx"), Not(HasSubstr("the end")))));

    top.type("Down");
    top.type("Down");
    top.type("Enter");

    EXPECT_TRUE(top.shows(AllOf(HasSubstr("the end"), HasSubstr("quality    1"),
                                HasSubstr("0 providers, 1 consumers"), HasSubstr(shown(getpid())),
                                Not(HasSubstr("CONS")))));
    top.type("Escape");
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("CONS"), Not(HasSubstr("the end")))));
    (void)kp_shm_destroy(shm, "b", KP_ROLE_CONSUMER);
}

TEST(KpTop, DrawsTheLastMinuteOfANumber)
{
    ChildProcess writer([](Channel &parent) {
        for (double value = 1; !parent.hear(std::chrono::milliseconds(200)); value += 1)
            put_double("rising", value);
        return 0;
    });
    const TopInTerminal top;

    EXPECT_TRUE(top.shows(testing::ContainsRegex("rising +double +[0-9.]+ .*\u2581.*\u2588")));
    (void)writer.tell("end");
}

TEST(KpTop, KeepsItsCursorOnItsTopic)
{
    for (int index = 10; index < 50; ++index)
        put_double("t/" + std::to_string(index), index);
    const TopInTerminal top;
    ASSERT_TRUE(top.shows(AllOf(HasSubstr("t/10"), Not(HasSubstr("t/49")))));

    top.type("End");
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("t/49"), Not(HasSubstr("t/10")))));
    top.type("r");
    EXPECT_TRUE(top.shows(AllOf(HasSubstr("reversed"), HasSubstr("t/49"))));
    top.type("Enter");

    EXPECT_TRUE(top.shows(HasSubstr("topic      t/49")));
}

TEST(KpTop, EscapesWhatCouldSteerTheTerminal)
{
    put_text("a\x1b[2J", "x\x1b]0;title\x07");
    const TopInTerminal top;

    EXPECT_TRUE(top.shows(AllOf(HasSubstr("title"), HasSubstr("a\\x1b[2J"))));
}

TEST(KpTop, NeedsATerminal)
{
    const Ran ran = kp({"top"});

    EXPECT_EQ(ran.err, "kp: top needs a terminal; watch serves pipes\n");
    EXPECT_EQ(ran.code, 2);
}

TEST(KpBench, MeasuresAndLeavesNothingBehind)
{
    const Ran ran = kp({"bench", "-t", "0.5", "-j"});

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(filtered(ran.out, {"jq", "-c", "[.name, .per_second > 0, .median_us > 0]"}),
              "[\"write 8 bytes\",true,true]\n"
              "[\"read 8 bytes\",true,true]\n"
              "[\"write 4000 bytes\",true,true]\n"
              "[\"read 4000 bytes\",true,true]\n"
              "[\"write, notice, read\",true,true]\n");
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm/zu-kp"));
    EXPECT_TRUE(std::filesystem::is_empty("/run/providers"));
}

TEST(KpBench, SaysWhatItMayNotMake)
{
    const uid_t user = other_user();
    if (user == 0)
        GTEST_SKIP() << "this test needs a second user";
    std::filesystem::create_directories("/run/providers");
    std::filesystem::create_directories("/dev/shm/zu-kp");
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 0777), 0);
    ASSERT_EQ(chmod("/run/providers", 0755), 0);
    const Ran no_endpoint = kp({"bench", "-t", "0.5"}, {.uid = user});
    ASSERT_EQ(chmod("/run/providers", 0777), 0);
    ASSERT_EQ(chmod("/dev/shm/zu-kp", 0755), 0);

    const Ran no_topic = kp({"bench", "-t", "0.5"}, {.uid = user});

    EXPECT_EQ(no_endpoint.err, "kp: /run/providers: no endpoint of its own: Permission denied\n");
    EXPECT_EQ(no_endpoint.code, 3);
    EXPECT_THAT(no_topic.err, testing::MatchesRegex("kp: kp-bench-.*/uint64: Permission denied\n"));
    EXPECT_EQ(no_topic.code, 3);
    EXPECT_TRUE(std::filesystem::is_empty("/run/providers"));
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm/zu-kp"));
}

TEST(KpHelp, ExplainsEveryCommand)
{
    const Ran all = kp({"help"});
    const Ran one = kp({"help", "watch"});

    EXPECT_EQ(all.code, 0);
    EXPECT_THAT(all.out, HasSubstr("128+n  signal n"));
    EXPECT_EQ(one.out, kp({"watch", "--help"}).out);
    EXPECT_THAT(one.out, HasSubstr("--mesh"));
    EXPECT_EQ(kp({"help", "nonsense"}).err, "kp: unknown command nonsense (see kp help)\n");
    EXPECT_EQ(kp({"help", "nonsense"}).code, 2);
    EXPECT_EQ(kp({}).code, 2);
    EXPECT_EQ(kp({"nonsense"}).code, 2);
    EXPECT_EQ(kp({"--version"}).code, 0);
}

TEST(KpTop, ShowsUnitsStatesAndMistakesOfTheDictionary)
{
    std::filesystem::create_directory("/run/tags");
    std::ofstream("/run/tags/a.toml") << "[plant]\nunit = \"bar\"\nlimits = { high = 5 }\n";
    put_double("plant", 7);

    const TopInTerminal top("--dictionary /run/tags");

    EXPECT_TRUE(top.shows(testing::ContainsRegex("STATE +QUAL")));
    EXPECT_TRUE(top.shows(testing::ContainsRegex("plant +double +7 bar +high +1 ")));
    top.type("Down");
    top.type("Enter");
    EXPECT_TRUE(top.shows(HasSubstr("dictionary unit bar  [/run/tags/a.toml:2:1]")));
    std::ofstream("/run/tags/b.toml") << "[plant]\nunits = 1\n";
    EXPECT_TRUE(top.shows(HasSubstr("/run/tags/b.toml:2:1: \"units\" is not known")));
}

TEST(KpCompletion, InsertsNamesSoThatTheShellTakesThemForNothingElse)
{
    put_double("y;touch $(touch x)", 1);
    put_double("z\n", 1);
    const std::string program = KP_PROGRAM;
    const std::string socket = "/run/tmux-" + std::to_string(getpid());
    const auto tmux = [&socket](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"tmux", "-f", "/dev/null", "-S", socket});
        return run_program(arguments).out;
    };
    tmux({"new-session", "-d", "-x", "100", "-y", "20",
          "cd /run; PS1='> ' PATH='" + program.substr(0, program.rfind('/')) +
              "':$PATH bash --norc --noprofile -i"});

    tmux({"send-keys", "source '" KP_COMPLETION "'; echo rea''dy", "Enter"});
    const auto screen_shows = [&tmux](const std::string &text) {
        return wait_until([&] {
            return tmux({"capture-pane", "-p"}).find(text) != std::string::npos;
        });
    };
    ASSERT_TRUE(screen_shows("\nready"));
    tmux({"send-keys", "kp get y", "Tab"});

    EXPECT_TRUE(screen_shows(R"(> kp get y\;touch\ \$\(touch\ x\))"))
        << tmux({"capture-pane", "-p"});
    tmux({"send-keys", "Enter"});
    EXPECT_TRUE(screen_shows("\n1\n"));
    EXPECT_FALSE(exists("/run/x"));
    tmux({"send-keys", "kp get z", "Tab", "Tab", "!"});
    EXPECT_TRUE(screen_shows("> kp get z!")) << tmux({"capture-pane", "-p"});
    tmux({"kill-server"});
}

TEST(KpCompletion, KnowsCommandsAndLiveTopics)
{
    put_double("plant/pump/speed", 1);
    put_double("plant/name", 1);
    const std::string program = KP_PROGRAM;
    const auto completed = [&](const std::string &words, int index) {
        const std::string script =
            "PATH='" + program.substr(0, program.rfind('/')) +
            "':$PATH; source '" KP_COMPLETION "'; compopt() { :; }; COMP_WORDS=(" + words +
            "); COMP_CWORD=" + std::to_string(index) + "; _kp; printf '%s ' \"${COMPREPLY[@]}\"";
        return run_program({"bash", "-c", script}).out;
    };

    EXPECT_EQ(completed("kp wa", 1), "watch wait ");
    EXPECT_EQ(completed("kp --dictionary /tmp che", 3), "check ");
    EXPECT_EQ(completed("kp dictionary ''", 2), "init ");
    EXPECT_EQ(completed("kp get plant/", 2), "plant/name plant/pump/ ");
    EXPECT_EQ(completed("kp get plant/pump/", 2), "plant/pump/speed ");
    EXPECT_THAT(completed("kp set --", 2), HasSubstr("--source-time"));
    EXPECT_EQ(completed("kp set x --type u", 4), "uint8 uint16 uint32 uint64 ");
}
