// Writes numbers to many tags at a steady rate, one notice a round, and says how many it wrote.
//
//   mqtt-changes TOPICS ROUNDS_PER_SECOND SECONDS      0 rounds a second: as fast as they go
#include "kp.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <time.h>
#include <vector>

namespace {

void sleep_until(uint64_t time_ns)
{
    const timespec until{static_cast<time_t>(time_ns / 1'000'000'000),
                         static_cast<long>(time_ns % 1'000'000'000)};
    (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

uint64_t now_ns()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    const int topics = std::atoi(argv[1]);
    const double rate = std::atof(argv[2]);
    const double seconds = std::atof(argv[3]);
    kp_t *handle = kp_new("mqtt-changes", nullptr);
    if (!handle)
        return 1;
    std::vector<kp_tag_t *> tags;
    for (int topic = 0; topic < topics; ++topic) {
        const std::string name =
            "a/" + std::to_string(topic / 100) + "/" + std::to_string(topic % 100);
        tags.push_back(kp_tag_provider_new(handle, name.c_str(), KP_TYPE_UINT64, 8, 0));
    }
    (void)std::puts("ready");
    (void)std::fflush(stdout);
    const uint64_t start = now_ns();
    const auto end = start + static_cast<uint64_t>(seconds * 1e9);
    uint64_t written = 0;
    for (uint64_t round = 0; now_ns() < end; ++round) {
        for (kp_tag_t *tag : tags)
            written += kp_tag_write(handle, tag, &round, sizeof round) > 0;
        (void)kp_tag_notify(handle);
        if (rate > 0)
            sleep_until(start + static_cast<uint64_t>(static_cast<double>(round + 1) * 1e9 / rate));
    }
    (void)std::printf("%llu\n", static_cast<unsigned long long>(written));
    (void)std::fflush(stdout);
    (void)std::getchar(); // the tags stay until the measurement is done
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
    return 0;
}
