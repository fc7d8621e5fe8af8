// Counts the torn values that the tools' reader of segments gives, and the looks without a value.
// One process writes a topic in the steps of the library, with values of any size, and this one
// looks at it through a mapping and through a descriptor. Measures also what a look costs at a
// topic that nobody writes.
#include "common/store/fault_guard.h"
#include "common/store/segment_reader.h"
#include "kp.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace kp;
using namespace kp::tool;
using Clock = std::chrono::steady_clock;

constexpr const char *kTopic = "bench/looks";

enum class Pace { full_speed, every_2_us, one_timestamp };
constexpr std::array<const char *, 3> kPaceNames{"full speed", "every 2 us",
                                                 "two values, one timestamp"};

// Makes a segment of our own, since the library writes no more than 4000 bytes.
Segment *make_segment(uint32_t size)
{
    Problem problem;
    TopicOpener opener;
    const auto place = opener.make_place(kTopic, problem);
    const UniqueFd fd(place ? openat(place->directory, place->name.c_str(), O_RDWR | O_CREAT, 0666)
                            : -1);
    if (!fd || ftruncate(fd.get(), kSegmentSize) != 0)
        return nullptr;
    void *memory = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED)
        return nullptr;
    auto *segment = static_cast<Segment *>(memory);
    segment->value_type = KP_TYPE_RAW;
    segment->max_value_size = size;
    segment->written_value_size = size;
    segment->state.flags = kValid | kHasValue;
    return segment;
}

// Writes in the steps of the library.
void write(Segment &segment, char byte, uint32_t size, uint64_t timestamp)
{
    store_relaxed(segment.last_write_ts, timestamp);
    store_relaxed(segment.state.writing, 1);
    order_stores();
    store_relaxed(segment.source_ts, timestamp);
    std::memset(segment.value, byte, size);
    store_relaxed(segment.written_value_size, size);
    store_release(segment.state.writing, 0);
}

[[noreturn]] void write_on(Segment &segment, uint32_t size, Pace pace)
{
    auto next = Clock::now();
    for (uint64_t number = 1;; ++number) {
        const bool flips = pace == Pace::one_timestamp;
        write(segment, static_cast<char>('a' + number % (flips ? 2 : 26)), size,
              flips ? 1 : kp_get_timestamp_us());
        next = std::max(next + std::chrono::microseconds(2), Clock::now());
        while (pace == Pace::every_2_us && Clock::now() < next)
            continue;
    }
}

struct Counts {
    int torn = 0;
    int none = 0;
};

Counts look_at_it(const SegmentReader &reader, int looks)
{
    Counts counts;
    for (int look = 0; look < looks; ++look) {
        const auto snapshot = reader.read();
        if (!snapshot || !snapshot->has_value())
            ++counts.none;
        else if (snapshot->bytes.find_first_not_of(snapshot->bytes[0]) != std::string::npos)
            ++counts.torn;
    }
    return counts;
}

// Gives the least time of a look over several rounds, so that what else runs on the machine does
// not count.
double idle_cost(const SegmentReader &reader)
{
    constexpr int looks = 2000;
    double least = 1e9;
    for (int round = 0; round < 20; ++round) {
        const auto begin = Clock::now();
        for (int look = 0; look < looks; ++look)
            (void)reader.read();
        least = std::min(least, std::chrono::duration<double>(Clock::now() - begin).count());
    }
    return least * 1e9 / looks;
}

int measure(uint32_t size, Means means, int looks)
{
    Segment *segment = make_segment(size);
    TopicOpener opener;
    Problem problem;
    const auto reader = SegmentReader::open(opener, kTopic, problem, means);
    if (!segment || !reader) {
        std::fputs("the store cannot be used\n", stderr);
        return 1;
    }
    write(*segment, 'a', size, 1);
    const double cost = idle_cost(*reader);
    for (const Pace pace : {Pace::full_speed, Pace::every_2_us, Pace::one_timestamp}) {
        const pid_t writer = fork();
        if (writer == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            write_on(*segment, size, pace);
        }
        usleep(10'000);
        const Counts counts = look_at_it(*reader, looks);
        (void)kill(writer, SIGKILL);
        (void)waitpid(writer, nullptr, 0);
        write(*segment, 'a', size, 1); // ends what the writer left unfinished
        std::printf("| %s | %u | %s | %d | %d | %d | %.0f |\n",
                    kPaceNames[static_cast<std::size_t>(pace)], size,
                    means == Means::mapping ? "mapping" : "descriptor", looks, counts.torn,
                    counts.none, cost);
        std::fflush(stdout);
    }
    (void)munmap(segment, kSegmentSize);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    int looks = 20'000;
    CLI::App app("Counts what the tools' reader of segments gives beside a writer.");
    app.add_option("--looks", looks, "at each topic")->check(CLI::Range(1, 100'000'000));
    CLI11_PARSE(app, argc, argv);

    catch_bus_errors();
    std::puts("| writer | bytes | by | looks | torn | no value | ns a look at a quiet topic |\n"
              "|---|---:|---|---:|---:|---:|---:|");
    int status = 0;
    for (const uint32_t size : {4U, 64U, 1000U, 4000U, 4004U})
        for (const Means means : {Means::mapping, Means::descriptor})
            status |= measure(size, means, looks);
    std::filesystem::remove(std::string(kStoreRoot) + "/" + kTopic);
    return status;
}
