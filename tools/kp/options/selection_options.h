// The arguments with which the user of a command chooses topics.
#pragma once

#include "common/pattern.h"

#include <CLI/CLI.hpp>

namespace kp::tool {

struct SelectionOptions {
    std::vector<std::string> wanted;
    std::vector<std::string> excluded;
};

inline CLI::Option *add_selection(CLI::App &command, SelectionOptions &options)
{
    command.add_option("-x,--exclude", options.excluded, "leave out what matches; may be repeated")
        ->type_name("PATTERN")
        ->take_all()
        ->allow_extra_args(false);
    return command.add_option("topics", options.wanted, "topics and patterns")
        ->type_name("TOPIC|PATTERN");
}

} // namespace kp::tool
