// The options of the commands that store what records say.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace kp::tool {

struct RecordOptions {
    std::string file = "-";
    double peer_wait = 0.3; // seconds
    bool force = false;
};

void add_peer_wait(CLI::App &command, double &seconds);

void add_record_options(CLI::App &command, RecordOptions &options);

} // namespace kp::tool
