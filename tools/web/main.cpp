// kp-web: shows the tags of a device to browsers and programs. See kp-web(1) and kp-web.conf(5).
#include "common/store/fault_guard.h"
#include "common/system/signals.h"
#include "server/server.h"

#include <CLI/CLI.hpp>
#include <iostream>

using namespace kp::web;

namespace {

constexpr int kFailed = 1;
constexpr int kWrong = 2; // the command line or the configuration
constexpr const char *kUsualFile = "/etc/kp-web/kp-web.conf";

struct Options {
    std::string file;
    bool check = false;
};

void say(const std::string &line)
{
    std::cerr << "kp-web: " << line << '\n';
}

// Without a file the defaults hold, which show all topics to this machine alone.
ConfigurationResult load(const Options &options)
{
    if (!options.file.empty())
        return load_configuration(options.file);
    return access(kUsualFile, F_OK) == 0 ? load_configuration(kUsualFile)
                                         : parse_configuration("", kUsualFile);
}

void show(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines)
        say(line);
}

Ending serve(const Configuration &configuration, const Listeners &listeners,
             const kp::tool::Signals &signals, kp::tool::ServiceManager &manager)
{
    Counters counters;
    Board board(configuration.shown(), kp::tool::dictionary_place(configuration.dictionary));
    Site site(configuration, board, counters);
    Server server(configuration, listeners, board, site, counters);
    manager.ready();
    return server.run(signals, manager);
}

// The listeners stay as they are at a reload; only a restart opens others.
int run(const Options &options, Configuration configuration)
{
    const auto signals = kp::tool::Signals::take();
    kp::tool::catch_bus_errors();
    Listeners inherited = Listeners::inherited();
    auto opened = inherited.fds().empty() ? Listeners::open(configuration.listen)
                                          : kp::tool::Result<Listeners>::of(std::move(inherited));
    if (!opened) {
        say("error: " + opened.problem);
        return kFailed;
    }
    for (const std::string &name : opened.value->names())
        say("listening on " + name);
    kp::tool::ServiceManager manager;
    while (serve(configuration, *opened.value, signals, manager) == Ending::reload) {
        manager.reloading();
        auto [fresh, problems] = load(options);
        show(problems);
        say(problems.empty() ? "has read its configuration again"
                             : "goes on with the configuration that it had");
        if (problems.empty())
            configuration = std::move(fresh);
    }
    manager.stopping();
    return 0;
}

int act(const Options &options)
{
    auto [configuration, problems] = load(options);
    show(problems);
    if (!problems.empty())
        return kWrong;
    if (!options.check)
        return run(options, std::move(configuration));
    std::cout << (options.file.empty() ? kUsualFile : options.file) << ": good\n";
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    CLI::App app{"Shows the tags of this device to browsers and programs.", "kp-web"};
    app.set_version_flag("--version", "kp-web " KP_WEB_VERSION);
    app.add_option("-c,--config", options.file,
                   std::string("the configuration, see kp-web.conf(5); ") + kUsualFile +
                       " where there is one");
    app.add_flag("--check", options.check, "check the configuration and leave");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kWrong;
    }
    return act(options);
}
