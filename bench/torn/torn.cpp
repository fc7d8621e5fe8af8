// Counts torn, failed and stale reads of one topic: one process writes it, others read it as fast
// as they can, with the plain and the consistent read. Every write fills its value with its own
// number, which is its source timestamp as well, so that a reader can tell whether all of it
// belongs together. Measures first what a read costs on a topic that nobody writes. With --disturb
// the writer is stopped and killed all the time, and started again after a kill.
#include "kp.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr const char *kTopic = "bench/torn";
constexpr uint32_t kMostReaders = 8;
constexpr uint32_t kSampleReads = 200'000;

struct Counts {
    uint64_t reads;
    uint64_t torn; // bytes of two writes, or a quality or source timestamp of another one
    uint64_t failed;
    uint64_t stale; // older than a write that was over when the read began
};

// What the processes share beside the topic.
struct Shared {
    std::atomic<bool> running;
    std::atomic<uint32_t> ready;
    std::atomic<uint64_t> written; // the number of the last write that is over
    std::array<Counts, kMostReaders> counts;
};

enum class Pace { full_speed, every_2_us, at_1_khz, flipping };
enum class Read { plain, consistent };

constexpr std::array<const char *, 4> kPaceNames{"full speed", "every 2 us", "1 kHz",
                                                 "two values, one timestamp"};

uint8_t quality_of(uint32_t number)
{
    return static_cast<uint8_t>(number % 200 + 1);
}

// A topic as one process sees it.
class Tag {
  public:
    explicit Tag(const std::string &name) : handle_(kp_new(name.c_str(), nullptr))
    {
    }
    Tag(const Tag &) = delete;
    Tag &operator=(const Tag &) = delete;
    ~Tag()
    {
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
    }

    bool provide(uint32_t size)
    {
        tag_ = kp_tag_provider_new(handle_, kTopic, KP_TYPE_RAW, size, 0);
        return tag_ != nullptr;
    }
    bool consume()
    {
        tag_ = kp_tag_consumer_new(handle_, kTopic);
        return tag_ != nullptr;
    }
    void write(const std::vector<uint32_t> &value, uint32_t number)
    {
        (void)kp_tag_write_with_source_params(handle_, tag_, value.data(),
                                              static_cast<uint32_t>(value.size() * 4),
                                              quality_of(number), number);
    }
    void write_plainly(const std::vector<uint32_t> &value)
    {
        (void)kp_tag_write(handle_, tag_, value.data(), static_cast<uint32_t>(value.size() * 4));
    }
    void write_at(const std::vector<uint32_t> &value, uint64_t timestamp)
    {
        (void)kp_tag_write_with_timestamp(handle_, tag_, value.data(),
                                          static_cast<uint32_t>(value.size() * 4), timestamp);
    }
    int32_t read(Read kind, std::vector<uint32_t> &value, uint32_t &quality, uint64_t &source_ts)
    {
        const auto size = static_cast<uint32_t>(value.size() * 4);
        if (kind == Read::plain)
            return kp_tag_read_with_source_params(tag_, value.data(), size, &quality, &source_ts);
        return kp_tag_read_consistent(tag_, value.data(), size, &quality, nullptr, &source_ts);
    }

  private:
    kp_t *handle_;
    kp_tag_t *tag_ = nullptr;
};

void pause_until(Clock::time_point &next, Clock::duration step)
{
    next += step;
    if (step >= std::chrono::microseconds(100)) {
        const auto left = next - Clock::now();
        if (left.count() > 0)
            usleep(static_cast<useconds_t>(left / std::chrono::microseconds(1)));
        return;
    }
    while (Clock::now() < next)
        continue;
    next = std::max(next, Clock::now() - step); // don't make up for lost time
}

// Two values by turns under one timestamp of the caller's own: the worst case, since neither the
// timestamps nor, after two writes, the bytes tell that something was written.
void write_flipping(Tag &tag, std::vector<uint32_t> &value, Shared &shared)
{
    for (uint32_t number = 1; shared.running; number = 3 - number) {
        std::ranges::fill(value, number);
        tag.write_at(value, 1);
    }
}

void write_values(Tag &tag, std::vector<uint32_t> &value, Pace pace, Shared &shared)
{
    const Clock::duration step =
        pace == Pace::every_2_us ? std::chrono::microseconds(2) : std::chrono::microseconds(1000);
    auto next = Clock::now();
    // Behind what a writer that was killed may have left.
    auto number = static_cast<uint32_t>(shared.written.load()) + 2;
    for (; shared.running; ++number) {
        std::ranges::fill(value, number);
        tag.write(value, number);
        shared.written.store(number, std::memory_order_release);
        if (pace != Pace::full_speed)
            pause_until(next, step);
    }
}

int run_writer(uint32_t size, Pace pace, Shared &shared)
{
    Tag tag("torn-writer"); // one name, so that who follows a killed one takes its socket's place
    if (!tag.provide(size))
        return 1;
    std::vector<uint32_t> value(size / 4, 1);
    if (shared.written == 0)
        tag.write(value, 1);
    ++shared.ready;
    if (pace == Pace::flipping)
        write_flipping(tag, value, shared);
    else
        write_values(tag, value, pace, shared);
    return 0;
}

// Whether value, quality and source timestamp are those of one write.
bool is_whole(const std::vector<uint32_t> &value, uint32_t quality, uint64_t source_ts, Pace pace)
{
    uint32_t difference = 0;
    for (const uint32_t word : value)
        difference |= word ^ value[0];
    // A provider that declares the topic again sets these to 0 beside the value that stands there.
    const bool is_declared_again = quality == 0 || source_ts == 0;
    if (difference != 0 || pace == Pace::flipping || is_declared_again)
        return difference == 0;
    return source_ts == value[0] && quality == quality_of(value[0]);
}

int run_reader(uint32_t size, Pace pace, Read kind, Shared &shared, Counts &result)
{
    Tag tag("torn-reader-" + std::to_string(getpid()));
    if (!tag.consume())
        return 1;
    ++shared.ready;
    std::vector<uint32_t> value(size / 4);
    Counts counts{};
    while (shared.running) {
        uint32_t quality = 0;
        uint64_t source_ts = 0;
        const uint64_t written = shared.written.load(std::memory_order_acquire);
        ++counts.reads;
        if (tag.read(kind, value, quality, source_ts) == -1)
            ++counts.failed;
        else if (!is_whole(value, quality, source_ts, pace))
            ++counts.torn;
        else if (source_ts < written && source_ts != 0 && quality != 0)
            ++counts.stale;
    }
    result = counts;
    return 0;
}

template <typename Body> pid_t start(Body body)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(body());
}

struct Run {
    uint32_t size;
    Pace pace;
    Read kind;
    uint32_t readers;
    double seconds;
    bool disturb;
};

struct Disturbances {
    uint64_t stops = 0;
    uint64_t kills = 0;
};

// Stops or kills the writer every few milliseconds that it writes, for as long as the run lasts; a
// killed one is replaced. Returns the writer that is left, which may have been killed in the middle
// of a write.
pid_t disturb(pid_t writer, const Run &run, Shared &shared, Disturbances &done)
{
    static std::mt19937 dice(3);
    const auto finish =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(run.seconds));
    while (Clock::now() < finish) {
        const uint64_t written = shared.written;
        while (shared.written == written && Clock::now() < finish)
            usleep(100);
        usleep(static_cast<useconds_t>(dice() % 10'000));
        if (dice() % 2 == 0) {
            ++done.stops;
            (void)kill(writer, SIGSTOP);
            usleep(static_cast<useconds_t>(dice() % 3'000));
            (void)kill(writer, SIGCONT);
            continue;
        }
        ++done.kills;
        (void)kill(writer, SIGKILL);
        (void)waitpid(writer, nullptr, 0);
        writer = start([&] { return run_writer(run.size, run.pace, shared); });
    }
    return writer;
}

// False when a process could not do its part.
bool measure(const Run &run, Shared &shared, Counts &sum, Disturbances &disturbances)
{
    new (&shared) Shared{};
    shared.running = true;
    std::vector<pid_t> children{start([&] { return run_writer(run.size, run.pace, shared); })};
    while (shared.ready < 1 && waitpid(children[0], nullptr, WNOHANG) == 0)
        usleep(1000);
    for (uint32_t reader = 0; reader < run.readers; ++reader)
        children.push_back(start([&, reader] {
            return run_reader(run.size, run.pace, run.kind, shared, shared.counts[reader]);
        }));
    if (run.disturb)
        children[0] = disturb(children[0], run, shared, disturbances);
    else
        usleep(static_cast<useconds_t>(run.seconds * 1e6));
    shared.running = false;
    bool done = true;
    for (const pid_t child : children) {
        int status = 0;
        done &= waitpid(child, &status, 0) == child && status == 0;
    }
    sum = {};
    for (const Counts &counts : shared.counts) {
        sum.reads += counts.reads;
        sum.torn += counts.torn;
        sum.failed += counts.failed;
        sum.stale += counts.stale;
    }
    return done;
}

// The least time of a read in nanoseconds over several rounds, so that what else runs on the
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
    void *memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return 1;
    auto &shared = *static_cast<Shared *>(memory);
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
                if (!measure(run, shared, sum, disturbances)) {
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
