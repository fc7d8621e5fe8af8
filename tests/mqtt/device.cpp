#include "device.h"

#include "store/store_reader.h"
#include "testing/file_text.h"
#include "testing/process.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace kptest {

namespace {

// For the bridge alone: what the suppressions are for is not called by a test.
#if defined(__SANITIZE_THREAD__)
constexpr const char *kEnvironment =
    "TSAN_OPTIONS='halt_on_error=1 suppressions=" KP_TSAN_SUPPRESSIONS "' ";
#else
constexpr const char *kEnvironment = "";
#endif

} // namespace

const char *bridge_path()
{
    return KP_MQTT;
}

Tags::Tags() : handle_(kp_new("", nullptr))
{
    EXPECT_NE(handle_, nullptr);
    (void)kp_set_new_tag_notify(handle_, 1);
}

Tags::~Tags()
{
    (void)kp_tags_destroy(handle_);
    (void)kp_destroy(handle_);
}

void Tags::declare(const std::string &topic, uint32_t type, uint32_t max_size)
{
    tags_[topic] = kp_tag_provider_new(handle_, topic.c_str(), type, max_size, 7);
    EXPECT_NE(tags_[topic], nullptr) << topic;
}

void Tags::write(const std::string &topic, const std::string &bytes, uint32_t quality,
                 uint64_t source_ts)
{
    const uint64_t time = source_ts ? source_ts : kp_get_timestamp_us();
    EXPECT_EQ(kp_tag_write_with_source_params(handle_, tags_.at(topic), bytes.data(),
                                              static_cast<uint32_t>(bytes.size()), quality, time),
              static_cast<int32_t>(bytes.size()))
        << topic;
    (void)kp_tag_notify(handle_);
}

void Tags::drop(const std::string &topic)
{
    (void)kp_tag_destroy(handle_, tags_.at(topic));
    tags_.erase(topic);
}

std::optional<kp::mqtt::Sample> read_tag(const std::string &topic)
{
    kp::mqtt::Sample sample;
    const bool read = kp::mqtt::StoreReader{}.read(topic, sample) == kp::mqtt::ReadOutcome::read;
    return read && sample.has_value ? std::optional(sample) : std::nullopt;
}

bool wait_for_tag(const std::string &topic, const std::string &bytes,
                  std::chrono::milliseconds deadline)
{
    return wait_until(
        [&] {
            const auto sample = read_tag(topic);
            return sample && sample->value == bytes;
        },
        deadline);
}

uint64_t status_number(const std::string &name)
{
    const auto sample = read_tag("bridge/mqtt/" + name);
    uint64_t number = 0;
    if (sample)
        std::memcpy(&number, sample->value.data(), std::min(sample->value.size(), sizeof number));
    return number;
}

bool wait_for_connection(bool connected)
{
    return wait_until([connected] {
        const auto sample = read_tag("bridge/mqtt/connected");
        return sample && (sample->value[0] != 0) == connected;
    });
}

std::string configuration(int port, const std::string &more, const std::string &broker,
                          const std::string &device)
{
    std::ostringstream text;
    const std::string top = more.substr(0, more.find('['));
    text << "device = \"" << device << "\"\nscan-interval = 0.2\n"
         << top << "[broker]\nhost = \"127.0.0.1\"\nport = " << port
         << "\nreconnect-min = 0.1\nreconnect-max = 0.5\nburst-rate = 0\nconnect-timeout = 2\n"
         << broker << more.substr(top.size());
    return text.str();
}

BridgeProgram::BridgeProgram(int port, const std::string &more, std::vector<std::string> options)
    : options_(std::move(options))
{
    static std::atomic<int> number = 0;
    path_ = "/run/bridge." + std::to_string(++number);
    configure(port, more);
    start();
}

void BridgeProgram::configure(int port, const std::string &more)
{
    const bool complete = more.starts_with("device = ");
    std::ofstream(path_) << (complete ? more : configuration(port, more));
}

void BridgeProgram::reload(int port, const std::string &more)
{
    configure(port, more);
    process_->signal(SIGHUP);
}

BridgeProgram::~BridgeProgram()
{
    EXPECT_EQ(log().find("Sanitizer"), std::string::npos);
    EXPECT_EQ(log().find("runtime error:"), std::string::npos);
    if (testing::Test::HasFailure())
        (void)std::fprintf(stderr, "--- the bridge said:\n%s---\n", log().c_str());
}

void BridgeProgram::start()
{
    std::vector<std::string> command{
        "/bin/sh", "-c",          kEnvironment + ("exec \"$@\" 2>>" + path_) + ".log",
        "sh",      bridge_path(), "-c",
        path_,     "-v"};
    command.insert(command.end(), options_.begin(), options_.end());
    process_ = std::make_unique<ChildProcess>(command);
}

std::optional<int> BridgeProgram::stop()
{
    process_->signal(SIGTERM);
    return process_->wait();
}

std::string BridgeProgram::log() const
{
    return file_text(path_ + ".log");
}

std::vector<std::string> BridgeProgram::output()
{
    std::vector<std::string> lines;
    while (const auto line = process_->hear())
        lines.push_back(*line);
    return lines;
}

long BridgeProgram::memory() const
{
    return status("VmRSS:");
}

long BridgeProgram::memory_at_most() const
{
    return status("VmHWM:");
}

long BridgeProgram::times_woken() const
{
    return status("voluntary_ctxt_switches:");
}

long BridgeProgram::status(const std::string &name) const
{
    std::ifstream file("/proc/" + std::to_string(process_->pid()) + "/status");
    for (std::string word; file >> word;)
        if (word == name && file >> word)
            return std::stol(word);
    ADD_FAILURE() << "no " << name << " of the bridge";
    return 0;
}

} // namespace kptest
