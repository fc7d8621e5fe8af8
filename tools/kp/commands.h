// The subcommands of `kp`. Each adds itself, its options and the function that runs it.
#pragma once

#include "problem.h"

#include <CLI/CLI.hpp>
#include <functional>

namespace kp::tool {

class Commands {
  public:
    explicit Commands(CLI::App &app) : app_(app)
    {
    }

    // The new command's argument parser; `run` is called after everything was parsed.
    CLI::App &add(const std::string &name, const std::string &summary, std::function<int()> run)
    {
        CLI::App *command = app_.add_subcommand(name, summary);
        command->callback([this, run = std::move(run)] { chosen_ = run; });
        return *command;
    }

    int run() const
    {
        return chosen_ ? chosen_() : kUsage;
    }

  private:
    CLI::App &app_;
    std::function<int()> chosen_;
};

void add_list(Commands &commands);
void add_get(Commands &commands);
void add_set(Commands &commands);
void add_info(Commands &commands);
void add_watch(Commands &commands);
void add_wait(Commands &commands);
void add_hz(Commands &commands);
void add_top(Commands &commands);
void add_dump(Commands &commands);
void add_restore(Commands &commands);
void add_record(Commands &commands);
void add_replay(Commands &commands);
void add_export(Commands &commands);
void add_rm(Commands &commands);
void add_peers(Commands &commands);
void add_doctor(Commands &commands);
void add_gc(Commands &commands);
void add_bench(Commands &commands);

} // namespace kp::tool
