// The options of the commands that store what records say.
#pragma once

#include "options/command.h"

#include <string>

namespace kp::tool {

struct RecordOptions {
    std::string file = "-";
    double peer_wait = 0.3; // seconds
    bool force = false;
};

void add_peer_wait(Command &command, double &seconds);

void add_record_options(Command &command, RecordOptions &options);

} // namespace kp::tool
