// kp-mqtt: joins the tags of a device to an MQTT 5 broker. See kp-mqtt(1) and kp-mqtt.conf(5).
#include "base/log.h"
#include "bridge.h"
#include "common/device/unix_sockets.h"
#include "common/system/signals.h"
#include "common/system/socket_probe.h"
#include "config/file_problems.h"
#include "connection_check.h"
#include "mapping.h"
#include "providers/left_handles.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <mosquitto.h>
#include <optional>
#include <sched.h>
#include <sys/stat.h>

using namespace kp::mqtt;

namespace {

constexpr int kFailed = 1;
constexpr int kWrong = 2; // the command line or the configuration

using Load = std::function<ConfigurationResult()>;

struct Options {
    std::string file = "/etc/kp-mqtt/kp-mqtt.conf";
    bool check = false;
    bool connect = false; // beside checking
    bool dry_run = false;
    bool verbose = false;
};

// A thread that wakes up takes the processor from the one that runs there, which is often the
// writer that has just sent the notice. As batch work the bridge waits until that writer has done
// its part. Threads inherit this, also those of the library.
void let_writers_go_first()
{
    const sched_param none{};
    if (sched_setscheduler(0, SCHED_BATCH, &none) != 0)
        log(Level::debug, std::string("writers are not let go first: ") + std::strerror(errno));
}

// A bridge that takes the name of a live endpoint would cut that one off, and nobody would notice.
bool is_endpoint_taken(const std::string &name)
{
    const int refusal = kp::tool::probe_socket(kp::tool::endpoint_path(name));
    return refusal == 0 || refusal == EAGAIN;
}

// When an earlier run that knew where all values came from was last alive, in microseconds since
// the epoch. The state file tells, or, if that run was killed, its heartbeat.
uint64_t last_alive(const Configuration &configuration, const StateFile &state)
{
    if (!state.had_caught_up())
        return state.last_used();
    Sample heartbeat;
    const std::string tag = configuration.status_prefix + '/' + kHeartbeat;
    const bool was_left = StoreReader{}.read(tag, heartbeat) == ReadOutcome::read;
    return std::max(state.last_used(), was_left ? heartbeat.source_ts : 0);
}

// How a bridge has ended, and the configuration for the next one, if another must take its place.
struct Ended {
    int status;
    std::optional<Configuration> successor;
};

Ended run_one(const Configuration &configuration, const kp::tool::Signals &signals,
              const Load &load)
{
    auto state = StateFile::open(configuration.state_file);
    if (!state) {
        log(Level::error, state.problem);
        return {kFailed, {}};
    }
    if (is_endpoint_taken(configuration.endpoint)) {
        log(Level::error, "a live process has the endpoint " + configuration.endpoint +
                              " already; give this bridge another with endpoint = \"...\"");
        return {kFailed, {}};
    }
    const uint64_t alive_until = last_alive(configuration, **state.value);
    (*state.value)->start(alive_until);
    HandleRecord handles(configuration.state_file.empty() ? ""
                                                          : configuration.state_file + ".handles");
    if (const std::string problem = handles.load(); !problem.empty()) {
        log(Level::error, problem);
        return {kFailed, {}};
    }
    give_back_left_handles(handles, configuration.trust_visible);
    kp::tool::NoticeMarks marks;
    Counters counters;
    auto writer = LocalWriter::start(configuration.endpoint, marks, counters, &handles);
    if (!writer)
        return {kFailed, {}};
    Bridge bridge(configuration, **state.value, marks, *writer, counters, alive_until);
    auto successor = bridge.run(signals, load);
    if (!writer->stop(std::chrono::seconds(2))) {
        log(Level::warning, "a local peer does not read its notices; leaving without it");
        (void)unlink(kp::tool::endpoint_path(configuration.endpoint).c_str());
        std::_Exit(successor ? kFailed : 0);
    }
    bridge.leave_behind();
    return {0, std::move(successor)};
}

// If no bridge can start with the new configuration the one before is used again.
int run(Configuration configuration, const Load &load)
{
    const auto signals = kp::tool::Signals::take();
    let_writers_go_first();
    (void)mosquitto_lib_init();
    std::optional<Configuration> before;
    while (true) {
        Ended ended = run_one(configuration, signals, load);
        if (ended.successor) {
            log(Level::info, "the configuration has been read again: " +
                                 ended.successor->summary() + "; starting anew");
            before = std::exchange(configuration, std::move(*ended.successor));
        } else if (ended.status != 0 && before) {
            log(Level::error, "the configuration stays as it was");
            configuration = *std::exchange(before, {});
        } else {
            return ended.status;
        }
    }
}

// Whether standard error goes to the journal, by the device and inode that systemd names.
bool logs_to_journal()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream && fstat(STDERR_FILENO, &status) == 0 &&
           std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

// Looks also at the files that the configuration names; at the state file only if it is asked to,
// since at a start it is opened anyway.
ConfigurationResult load(const std::string &file, bool state_file_too)
{
    ConfigurationResult result = load_configuration(file);
    if (result.problems.empty())
        result.problems = file_problems(result.configuration);
    const std::string problem =
        state_file_too ? state_file_problem(result.configuration.state_file) : "";
    if (!problem.empty())
        result.problems.push_back(problem);
    return result;
}

bool try_brokers(const Configuration &configuration)
{
    (void)mosquitto_lib_init();
    bool all_went_well = true;
    for (const BrokerSettings *broker : configuration.brokers())
        all_went_well = ConnectionCheck(configuration, *broker, std::cout).run() && all_went_well;
    return all_went_well;
}

int act(const Options &options)
{
    if (options.verbose)
        log_debug_too();
    if (logs_to_journal())
        log_for_journal();
    auto [configuration, problems] = load(options.file, options.check);
    if (options.check) {
        for (std::string &problem : date_problems(configuration))
            problems.push_back(std::move(problem));
        for (const std::string &mistake : dictionary_mistakes(configuration.dictionary))
            std::cerr << "kp-mqtt: " << mistake << '\n';
    }
    for (const std::string &line : problems)
        std::cerr << "kp-mqtt: " << line << '\n';
    if (!problems.empty())
        return kWrong;
    if (options.check) {
        std::cout << options.file << ": good, " << configuration.summary() << std::endl;
        return options.connect && !try_brokers(configuration) ? kFailed : 0;
    }
    if (options.dry_run) {
        print_mapping(configuration, std::cout);
        return std::cout.flush() ? 0 : kFailed;
    }
    return run(configuration, [&options] { return load(options.file, true); });
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    CLI::App app{"Joins the tags of this device to an MQTT 5 broker.", "kp-mqtt"};
    app.set_version_flag("--version", "kp-mqtt " KP_MQTT_VERSION);
    app.add_option("-c,--config", options.file, "the configuration, see kp-mqtt.conf(5)")
        ->capture_default_str();
    auto *check = app.add_flag("--check", options.check, "check the configuration and leave");
    app.add_flag("--connect", options.connect,
                 "with --check: try the broker, too, and print how each step goes")
        ->needs(check);
    app.add_flag("--dry-run", options.dry_run,
                 "print what the live topics map to, one JSON line each, and leave")
        ->excludes(check);
    app.add_flag("-v,--verbose", options.verbose, "log debugging lines too");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kWrong;
    }
    return act(options);
}
