#include "race.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torn {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// What the processes share besides the topic.
struct Shared {
    std::atomic<bool> running;
    std::atomic<uint32_t> ready;
    std::atomic<uint64_t> written; // the number of the last write that is over
    std::array<Counts, kMostReaders> counts;
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
    // This number is above those of a writer that was killed.
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

// Says whether value, quality and source timestamp are those of one write.
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

bool race(const Run &run, Shared &shared, Counts &sum, Disturbances &disturbances)
{
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

} // namespace

bool measure(const Run &run, Counts &sum, Disturbances &disturbances)
{
    void *memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return false;
    const bool done = race(run, *new (memory) Shared{}, sum, disturbances);
    (void)munmap(memory, sizeof(Shared));
    return done;
}

} // namespace torn
