// How the library's operations grow with the number of tags, topics and patterns, in one process.
#include "support/clock.h"

#include "kp.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int64_t kMostTopics = 100'000;

// A handle is limited by the mappings that the kernel lets a process have, 65530 unless changed.
int64_t most_tags()
{
    int64_t mappings = 0;
    std::ifstream("/proc/sys/vm/max_map_count") >> mappings;
    return mappings > 110'000 ? 100'000 : 60'000;
}

std::string topic_name(const char *family, int64_t number)
{
    return std::string(family) + "/" + std::to_string(number % 100) + "/" + std::to_string(number);
}

double private_kb()
{
    std::ifstream file("/proc/self/smaps_rollup");
    double sum = 0;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("Private_") && !line.starts_with("Private_Hugetlb"))
            sum += std::stod(line.substr(line.find(':') + 1));
    return sum;
}

void check(bool condition, const char *what)
{
    if (condition)
        return;
    std::fprintf(stderr, "bench: failed: %s\n", what);
    std::exit(1);
}

// A handle with so many provider tags. Another process has written some of them, and nobody reads.
struct Tags {
    explicit Tags(int64_t count) : handle(kp_new(nullptr, nullptr))
    {
        check(handle != nullptr, "kp_new");
        const double memory = private_kb();
        const uint64_t start = bench::now_ns();
        for (int64_t i = 0; i < count; ++i) {
            const std::string topic = topic_name("tags", i);
            check(kp_tag_provider_new(handle, topic.c_str(), KP_TYPE_UINT32, 4, 0) != nullptr,
                  "kp_tag_provider_new");
        }
        create_us =
            static_cast<double>(bench::now_ns() - start) / 1000 / static_cast<double>(count);
        memory_bytes = (private_kb() - memory) * 1024 / static_cast<double>(count);
    }
    Tags(const Tags &) = delete;
    Tags &operator=(const Tags &) = delete;
    ~Tags()
    {
        (void)kp_close(handle);
    }

    kp_t *handle;
    double create_us;
    double memory_bytes;
};

// The tags of one size serve all its benchmarks, which follow one another. None are there before
// the first and after the last, for the benchmarks of the store as a whole.
std::unique_ptr<Tags> current_tags;

Tags &tags_of(int64_t count)
{
    static int64_t current_count = 0;
    if (current_count != count) {
        current_tags.reset();
        current_tags = std::make_unique<Tags>(count);
        current_count = count;
    }
    return *current_tags;
}

void get_tag(benchmark::State &state)
{
    Tags &tags = tags_of(state.range(0));
    std::vector<std::string> topics;
    for (int64_t i = 0; i < std::min<int64_t>(state.range(0), 1000); ++i)
        topics.push_back(topic_name("tags", i * 7919 % state.range(0)));
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kp_get_tag(tags.handle, topics[next].c_str()));
        next = next + 1 == topics.size() ? 0 : next + 1;
    }
    state.counters["create_us"] = tags.create_us;
    state.counters["memory_bytes"] = tags.memory_bytes;
}

// The walk of one notice with `range(1)` changed topics. The tags are not read, so that every walk
// finds the same.
void walk(benchmark::State &state)
{
    Tags &tags = tags_of(state.range(0));
    const int64_t changed = std::min(state.range(0), state.range(1));
    kp_write_info notice{};
    notice.type = KP_MSG_WRITE_INFO;
    const uint32_t value = 1;
    for (int64_t i = 0; i < changed; ++i) {
        const std::string topic = topic_name("tags", i);
        const uint64_t later = kp_get_timestamp_us() + 1'000'000;
        (void)kp_shm_instant_write(topic.c_str(), &value, KP_TYPE_UINT32, 4, later, KP_QUALITY_GOOD,
                                   later, 0);
        const uint32_t hash = kp_hash(topic.c_str());
        notice.bitmap[hash / 8] = static_cast<uint8_t>(notice.bitmap[hash / 8] | 1U << hash % 8);
    }
    int64_t found = 0;
    for (auto _ : state) {
        found = 0;
        kp_tag_iter_t iter{};
        while (iter.bucket < KP_BUCKET_COUNT || iter.entry)
            if (kp_get_next_updated_tag(tags.handle, &notice, &iter))
                ++found;
    }
    check(found >= changed, "the walk finds what changed");
}

// A store with so many topics; ten of them stand apart.
void fill_store(int64_t count)
{
    static int64_t filled = 0;
    const uint32_t value = 1;
    current_tags.reset();
    for (; filled < count - 10; ++filled)
        (void)kp_shm_instant_write(topic_name("many", filled).c_str(), &value, KP_TYPE_UINT32, 4, 1,
                                   KP_QUALITY_GOOD, 1, 0);
    for (int64_t i = 0; i < 10; ++i)
        (void)kp_shm_instant_write(("few/a/" + std::to_string(i)).c_str(), &value, KP_TYPE_UINT32,
                                   4, 1, KP_QUALITY_GOOD, 1, 0);
}

void list_topics(benchmark::State &state)
{
    fill_store(state.range(0));
    int64_t listed = 0;
    for (auto _ : state) {
        kp_topic_node_t *topics = kp_list_all_topics();
        listed = 0;
        for (const kp_topic_node_t *node = topics; node; node = node->next)
            ++listed;
        kp_free_list_all_topics(topics);
    }
    check(listed >= state.range(0), "the list is whole");
    state.counters["topics"] = static_cast<double>(listed);
}

void subscribe_pattern(benchmark::State &state)
{
    fill_store(state.range(0));
    kp_t *handle = kp_new(nullptr, nullptr);
    for (auto _ : state) {
        (void)kp_sub_topic(handle, "few/a/+");
        state.PauseTiming();
        (void)kp_unsub_topic(handle, "few/a/+");
        fill_store(state.range(0)); // the last tag of a topic removes its file
        state.ResumeTiming();
    }
    (void)kp_destroy(handle);
}

// Measures what an announced topic costs a handle with so many patterns, none of which covers it.
void match_new_tag(benchmark::State &state)
{
    kp_t *handle = kp_new(nullptr, nullptr);
    for (int64_t i = 0; i < state.range(0); ++i)
        (void)kp_sub_topic(handle, ("area" + std::to_string(i) + "/+/value").c_str());
    for (auto _ : state)
        benchmark::DoNotOptimize(kp_sub_plain_topic(handle, "elsewhere/pump/value"));
    (void)kp_destroy(handle);
}

void register_all()
{
    for (const int64_t count : {1, 10, 100, 1000})
        benchmark::RegisterBenchmark("match_new_tag", match_new_tag)->Arg(count);
    for (const int64_t count :
         {int64_t{10}, int64_t{100}, int64_t{1000}, int64_t{10'000}, most_tags()}) {
        benchmark::RegisterBenchmark("get_tag", get_tag)->Arg(count);
        benchmark::RegisterBenchmark("walk", walk)->Args({count, 1})->Args({count, 100});
    }
    for (const int64_t count :
         {int64_t{10}, int64_t{100}, int64_t{1000}, int64_t{10'000}, kMostTopics}) {
        benchmark::RegisterBenchmark("list_topics", list_topics)->Arg(count);
        benchmark::RegisterBenchmark("subscribe_pattern", subscribe_pattern)->Arg(count);
    }
}

} // namespace

int main(int argc, char **argv)
{
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    benchmark::Initialize(&argc, argv);
    register_all();
    (void)benchmark::RunSpecifiedBenchmarks();
}
