#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <utility>

namespace kp::tool {

Command Commands::add(const std::string &name, const std::string &summary, std::function<int()> run)
{
    CLI::App *command = app_.add_subcommand(name, summary);
    command->callback([this, run = std::move(run)] { chosen_ = run; });
    return Command(*command);
}

} // namespace kp::tool
