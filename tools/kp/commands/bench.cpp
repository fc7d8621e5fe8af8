// kp bench: what this device gives: writes, reads and notices, measured through the library on a
// topic and two endpoints of its own.
#include "commands/commands.h"
#include "common/device/endpoints.h"
#include "common/store/store_files.h"
#include "common/text/text.h"
#include "common/writing/notice_sender.h"
#include "layout/segment.h"
#include "layout/unique_fd.h"
#include "output/output.h"
#include "output/row_format.h"
#include "running/stop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr int kParts = 5; // measurements that share the time
constexpr int kBatch = 256;
constexpr int kLostAfterMs = 2000;

struct BenchOptions {
    double seconds = 10;
    bool json = false;
};

// What was not measured is left out.
struct Figure {
    std::string name;
    std::optional<double> per_second = {};
    std::optional<double> median_us = {};
    std::optional<double> p99_us = {};
    std::optional<double> most_us = {};
};

int wake(kp_t *handle, const kp_write_info *, void *)
{
    // Set before the first notice can come, and never changed while notices come.
    const auto *event = static_cast<const int *>(kp_get_user_data(handle));
    const uint64_t one = 1;
    if (event)
        (void)!write(*event, &one, sizeof(one));
    return 0;
}

// A handle that is closed properly however the command ends.
class Handle {
  public:
    Handle(const std::string &name, kp_callback_t callback)
        : handle_(kp_new(name.c_str(), callback)), error_(handle_ ? 0 : errno)
    {
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle()
    {
        if (handle_)
            (void)kp_close(handle_);
    }
    kp_t *get() const
    {
        return handle_;
    }
    // Why there is none; 0 where there is one.
    int error() const
    {
        return error_;
    }

  private:
    kp_t *handle_;
    int error_;
};

// Calls `act` in batches for so long and returns the calls in a second.
template <typename Act> Figure throughput(const char *name, uint64_t time_us, const Act &act)
{
    const uint64_t start = monotonic_us();
    uint64_t calls = 0;
    while (monotonic_us() - start < time_us && stop_signal() == 0) {
        for (int count = 0; count < kBatch; ++count)
            act();
        calls += kBatch;
    }
    if (calls == 0)
        return {name};
    const double elapsed = static_cast<double>(std::max<uint64_t>(monotonic_us() - start, 1));
    const double rate = static_cast<double>(calls) * 1e6 / elapsed;
    return {name, rate, 1e6 / rate};
}

// From the write through the notice to the consumer's callback and the read of the value.
Figure notice_latency(kp_t *provider, kp_tag_t *out, kp_tag_t *in, int event, uint64_t time_us,
                      uint64_t &lost)
{
    std::vector<double> times;
    const uint64_t start = monotonic_us();
    uint64_t value = 0;
    while (monotonic_us() - start < time_us && stop_signal() == 0) {
        const uint64_t sent = monotonic_us();
        ++value;
        (void)kp_tag_write(provider, out, &value, sizeof(value));
        (void)kp_tag_notify(provider);
        pollfd wait{event, POLLIN, 0};
        uint64_t count = 0;
        uint64_t seen = 0;
        if (poll(&wait, 1, kLostAfterMs) != 1 || read(event, &count, sizeof(count)) < 0 ||
            kp_tag_read(in, &seen, sizeof(seen)) < 0 || seen != value)
            ++lost;
        else
            times.push_back(static_cast<double>(monotonic_us() - sent));
    }
    Figure figure{"write, notice, read"};
    if (times.empty())
        return figure;
    std::sort(times.begin(), times.end());
    figure.per_second =
        static_cast<double>(times.size()) * 1e6 / static_cast<double>(monotonic_us() - start);
    figure.median_us = times[times.size() / 2];
    figure.p99_us = times[times.size() * 99 / 100];
    figure.most_us = times.back();
    return figure;
}

std::string number(const std::optional<double> &value, int decimals)
{
    std::array<char, 48> out{};
    if (value)
        (void)std::snprintf(out.data(), out.size(), "%.*f", decimals, *value);
    return out.data();
}

nlohmann::ordered_json json_number(const std::optional<double> &value)
{
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

void print(const std::vector<Figure> &figures, bool json)
{
    if (!json)
        output().line(padded("", 24) + padded_left("per second", 14) + padded_left("us each", 10) +
                      padded_left("99 %", 10) + padded_left("most", 10));
    for (const Figure &figure : figures) {
        if (json) {
            output().write(json_line({{"name", figure.name},
                                      {"per_second", json_number(figure.per_second)},
                                      {"median_us", json_number(figure.median_us)},
                                      {"p99_us", json_number(figure.p99_us)},
                                      {"max_us", json_number(figure.most_us)}}));
            continue;
        }
        output().line(padded(figure.name, 24) + padded_left(number(figure.per_second, 0), 14) +
                      padded_left(number(figure.median_us, 3), 10) +
                      padded_left(number(figure.p99_us, 0), 10) +
                      padded_left(number(figure.most_us, 0), 10));
    }
}

struct Bench {
    Handle provider;
    Handle consumer;
    std::string directory;
    kp_tag_t *small = nullptr;
    kp_tag_t *large = nullptr;
    kp_tag_t *small_in = nullptr;
    kp_tag_t *large_in = nullptr;

    explicit Bench(const std::string &name)
        : provider(name + "-provider", nullptr), consumer(name + "-consumer", wake), directory(name)
    {
    }
    ~Bench()
    {
        if (provider.get())
            (void)kp_tags_destroy(provider.get());
        if (consumer.get())
            (void)kp_tags_destroy(consumer.get());
        (void)rmdir((std::string(kStoreRoot) + "/" + directory).c_str());
    }

    bool make_tags(Problem &problem)
    {
        if (const int error = provider.error() != 0 ? provider.error() : consumer.error()) {
            problem =
                system_problem(std::string(kEndpointRoot) + ": no endpoint of its own", error);
            if (problem.kind != kPermission)
                problem.kind = kLimit;
            return false;
        }
        const std::string small_topic = directory + "/uint64";
        const std::string large_topic = directory + "/raw";
        small = kp_tag_provider_new(provider.get(), small_topic.c_str(), KP_TYPE_UINT64, 8, 0);
        large = kp_tag_provider_new(provider.get(), large_topic.c_str(), KP_TYPE_RAW,
                                    KP_MAX_VALUE_SIZE, 0);
        small_in = kp_tag_consumer_new(consumer.get(), small_topic.c_str());
        large_in = kp_tag_consumer_new(consumer.get(), large_topic.c_str());
        if (small && large && small_in && large_in)
            return true;
        // The library made its handles, so its failure is of the topics alone: their reason shows
        // when one is made without it.
        TopicOpener opener;
        if (opener.make_place(small_topic, problem))
            problem = {kLimit, "no topic of its own could be made (kp doctor)"};
        return false;
    }
};

int run_bench(const BenchOptions &options)
{
    catch_stop_signals();
    const UniqueFd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const int event_number = event.get();
    Bench bench(own_endpoint_name("bench"));
    Problem problem;
    if (!bench.make_tags(problem))
        return complain(problem);

    const auto part = static_cast<uint64_t>(options.seconds * 1e6 / kParts);
    kp_t *provider = bench.provider.get();
    std::array<char, KP_MAX_VALUE_SIZE> block{};
    uint64_t value = 0;
    std::vector<Figure> figures;
    figures.push_back(throughput("write 8 bytes", part, [&] {
        ++value;
        (void)kp_tag_write(provider, bench.small, &value, sizeof(value));
    }));
    figures.push_back(throughput(
        "read 8 bytes", part, [&] { (void)kp_tag_read(bench.small_in, &value, sizeof(value)); }));
    figures.push_back(throughput("write 4000 bytes", part, [&] {
        ++block[0];
        (void)kp_tag_write(provider, bench.large, block.data(), block.size());
    }));
    figures.push_back(throughput("read 4000 bytes", part, [&] {
        (void)kp_tag_read(bench.large_in, block.data(), block.size());
    }));
    uint64_t lost = 0;
    (void)kp_set_user_data(bench.consumer.get(), const_cast<int *>(&event_number));
    figures.push_back(
        notice_latency(provider, bench.small, bench.small_in, event_number, part, lost));
    print(figures, options.json);
    if (lost > 0)
        return complain(Problem{kLimit, std::to_string(lost) + " notices did not come"});
    return kDone;
}

} // namespace

void add_bench(Commands &commands)
{
    const auto options = std::make_shared<BenchOptions>();
    Command command = commands.add("bench", "write, read and notice figures of this device",
                                   [options] { return run_bench(*options); });
    command.add_number({"-t,--time", "seconds in all; 10 unless given", "SEC"}, options->seconds,
                       0.1, 3600.0);
    command.add_flag("-j,--json", options->json, "one JSON object a figure");
}

} // namespace kp::tool
