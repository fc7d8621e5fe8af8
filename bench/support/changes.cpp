// Writes numbers to many tags at a steady rate, with one notice for each round. Says how many it
// wrote, and how long half of the rounds and 99 of 100 took at most, in ns. Or follows these tags,
// and does no more than any peer must.
//
//   changes TOPICS ROUNDS_PER_SECOND SECONDS      0 rounds a second: as fast as they go
//   changes follow
#include "kp.h"
#include "support/clock.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

using bench::now_ns;
using bench::sleep_until;

namespace {

void say_ready_and_wait()
{
    (void)std::puts("ready");
    (void)std::fflush(stdout);
    (void)std::getchar();
}

int read_what_changed(kp_t *handle, const kp_write_info *notice, void *)
{
    kp_tag_iter_t iter = {0, nullptr};
    uint64_t value = 0;
    while (iter.bucket < KP_BUCKET_COUNT || iter.entry)
        if (kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter))
            (void)kp_tag_read(tag, &value, sizeof value);
    return 0;
}

int follow()
{
    kp_t *handle = kp_new("follower", read_what_changed);
    if (!handle || kp_sub_topic(handle, "a/#") != 0)
        return 1;
    say_ready_and_wait();
    (void)kp_unsub_topic(handle, "a/#");
    (void)kp_close(handle);
    return 0;
}

uint64_t at_most(std::vector<uint64_t> &sorted, std::size_t percent)
{
    return sorted.empty() ? 0 : sorted[sorted.size() * percent / 100];
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "follow")
        return follow();
    if (argc != 4)
        return 2;
    const int topics = std::atoi(argv[1]);
    const double rate = std::atof(argv[2]);
    const double seconds = std::atof(argv[3]);
    kp_t *handle = kp_new("changes", nullptr);
    if (!handle)
        return 1;
    (void)kp_set_new_tag_notify(handle, 1);
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
    std::vector<uint64_t> times;
    for (uint64_t round = 0; now_ns() < end; ++round) {
        const uint64_t begin = now_ns();
        for (kp_tag_t *tag : tags)
            written += kp_tag_write(handle, tag, &round, sizeof round) > 0;
        (void)kp_tag_notify(handle);
        times.push_back(now_ns() - begin);
        if (rate > 0)
            sleep_until(start + static_cast<uint64_t>(static_cast<double>(round + 1) * 1e9 / rate));
    }
    std::sort(times.begin(), times.end());
    (void)std::printf("%llu %llu %llu\n", static_cast<unsigned long long>(written),
                      static_cast<unsigned long long>(at_most(times, 50)),
                      static_cast<unsigned long long>(at_most(times, 99)));
    (void)std::fflush(stdout);
    (void)std::getchar(); // the tags stay until the measurement is done
    (void)kp_close(handle);
    return 0;
}
