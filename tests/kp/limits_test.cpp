// hz and watch with more topics than the process may map.
#include "kp_run.h"

#include "testing/child.h"
#include "testing/process.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <set>

using namespace kptest;

namespace {

constexpr std::size_t kTopics = 3000;
constexpr std::size_t kPageKib = 4;

// Writes each topic once. Each round has a timestamp of its own.
void write_all(uint64_t timestamp)
{
    for (std::size_t index = 0; index < kTopics; ++index)
        (void)kp_shm_instant_write(("t/" + std::to_string(index)).c_str(), "x", KP_TYPE_STRING, 1,
                                   timestamp, 1, timestamp, 0);
}

// Gives the address space of a `kp` that follows one topic, in KiB.
std::size_t usual_size()
{
    put_double("one", 1);
    ChildProcess watch(std::vector<std::string>{KP_PROGRAM, "watch", "one"});
    EXPECT_EQ(watch.hear(), "one\t1");
    std::size_t pages = 0;
    std::ifstream("/proc/" + std::to_string(watch.pid()) + "/statm") >> pages;
    return pages * kPageKib;
}

// Runs `kp` in an address space into which the mappings of half of the topics would fit, and
// nothing else.
std::vector<std::string> cramped(const std::string &arguments)
{
    const std::size_t room = usual_size() + kTopics * kPageKib / 2;
    return {"sh", "-c",
            "ulimit -v " + std::to_string(room) + " && exec '" KP_PROGRAM "' " + arguments};
}

} // namespace

TEST(KpManyTopics, AreWatchedWithoutMappingAllOfThem)
{
    write_all(1);

    const Ran ran = run_program(cramped("watch 't/#' --initial-only"));

    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(static_cast<std::size_t>(std::count(ran.out.begin(), ran.out.end(), '\n')), kTopics);
}

TEST(KpManyTopics, AreMeasuredWithoutMappingAllOfThem)
{
    uint64_t timestamp = 1;
    write_all(timestamp);
    ChildProcess hz(cramped("hz 't/#' --window 0.2 -j"));
    std::set<std::string> measured;

    const bool all = wait_until([&] {
        write_all(++timestamp);
        while (const auto line = hz.hear(std::chrono::milliseconds(50)))
            measured.insert(line->substr(0, line->find(',')));
        return measured.size() >= kTopics;
    });

    EXPECT_TRUE(all) << measured.size();
    hz.signal(SIGTERM);
    EXPECT_EQ(hz.wait(), 128 + SIGTERM);
}
