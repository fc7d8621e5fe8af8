// Counts torn, failed and stale reads of one topic. One process writes it, and others read it as
// fast as they can, with the plain and the consistent read. Every write fills its value with its
// own number, which is its source timestamp as well, so that a reader can tell whether all of it
// belongs together. Measures first what a read costs on a topic that nobody writes. With --disturb
// the writer is stopped and killed all the time, and started again after a kill.
#include "race.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace torn;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr uint32_t kSampleReads = 200'000;

// Gives the least time of a read in nanoseconds over several rounds, so that what else runs on the
// machine does not count.
double idle_cost(Tag &tag, Read kind, uint32_t size)
{
    std::vector<uint32_t> value(size / 4);
    double least = 1e9;
    for (int round = 0; round < 20; ++round) {
        const auto begin = Clock::now();
        uint32_t quality = 0;
        uint64_t source_ts = 0;
        for (uint32_t count = 0; count < kSampleReads; ++count)
            (void)tag.read(kind, value, quality, source_ts);
        least = std::min(least, Seconds(Clock::now() - begin).count() * 1e9 / kSampleReads);
    }
    return least;
}

// A value whose source timestamp is not that of the write costs a consistent read a fingerprint.
void print_idle_costs(const std::vector<uint32_t> &sizes)
{
    std::puts(
        "| bytes | plain, ns | consistent, ns | ratio | of another source time, ns | ratio |\n"
        "|---:|---:|---:|---:|---:|---:|");
    for (const uint32_t size : sizes) {
        Tag tag("torn-idle-" + std::to_string(getpid()));
        if (!tag.provide(size))
            return;
        const std::vector<uint32_t> value(size / 4, 1);
        tag.write_plainly(value);
        const double plain = idle_cost(tag, Read::plain, size);
        const double consistent = idle_cost(tag, Read::consistent, size);
        tag.write(value, 1);
        const double other = idle_cost(tag, Read::consistent, size);
        std::printf("| %u | %.1f | %.1f | %.2f | %.1f | %.2f |\n", size, plain, consistent,
                    consistent / plain, other, other / plain);
    }
    std::puts("");
}

void print(const Run &run, const Counts &sum)
{
    const auto per_million = [&](uint64_t count) {
        return static_cast<double>(count) * 1e6 /
               static_cast<double>(std::max<uint64_t>(sum.reads, 1));
    };
    std::printf("| %u | %s | %s | %" PRIu64 " | %" PRIu64 " | %.1f | %.1f | %.1f |\n", run.size,
                kPaceNames[static_cast<std::size_t>(run.pace)],
                run.kind == Read::plain ? "plain" : "consistent", sum.reads, sum.torn,
                per_million(sum.torn), per_million(sum.failed), per_million(sum.stale));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<uint32_t> sizes{4, 64, 1000, 4000};
    std::vector<std::string> kinds{"plain", "consistent"};
    std::vector<uint32_t> paces{0, 1, 2, 3};
    double seconds = 2;
    uint32_t readers = 2;
    bool disturb = false;
    CLI::App app("Counts torn, failed and stale reads of one topic.");
    app.add_option("--size", sizes, "bytes of the value")->check(CLI::Range(4, 4000));
    app.add_option("--read", kinds, "plain, consistent")
        ->check(CLI::IsMember({"plain", "consistent"}));
    app.add_option("--pace", paces,
                   "0 full speed, 1 every 2 us, 2 1 kHz, 3 two values under one timestamp")
        ->check(CLI::Range(0, 3));
    app.add_option("--seconds", seconds, "of each run");
    app.add_option("--readers", readers, "reading processes")->check(CLI::Range(1U, kMostReaders));
    app.add_flag("--disturb", disturb, "stop and kill the writer all the time");
    CLI11_PARSE(app, argc, argv);

    kp_xlog_set_user_level(KP_LEVEL_OFF);
    print_idle_costs(sizes);
    std::puts(
        "| bytes | writer | read | reads | torn | torn in 10^6 | failed in 10^6 | stale in 10^6 "
        "|\n|---:|---|---|---:|---:|---:|---:|---:|");
    Disturbances disturbances;
    for (const uint32_t pace : paces)
        for (const uint32_t size : sizes)
            for (const std::string &kind : kinds) {
                const Run run{size,
                              static_cast<Pace>(pace),
                              kind == "plain" ? Read::plain : Read::consistent,
                              readers,
                              seconds,
                              disturb};
                Counts sum;
                if (!measure(run, sum, disturbances)) {
                    std::fputs("a process failed: are /run/providers and /dev/shm usable?\n",
                               stderr);
                    return 1;
                }
                print(run, sum);
            }
    if (disturb)
        std::printf("\nThe writers were stopped %" PRIu64 " times and killed %" PRIu64 " times.\n",
                    disturbances.stops, disturbances.kills);
    return 0;
}
