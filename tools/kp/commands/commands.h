// The commands of `kp`. Each adds itself, its options and the function that runs it.
#pragma once

#include "options/command.h"
#include "running/outcome.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kp::tool {

class Commands {
  public:
    explicit Commands(CLI::App &app) : app_(app)
    {
    }

    // Adds a command. `run` is called after everything was parsed.
    Command add(const std::string &name, const std::string &summary, std::function<int()> run);

    // The words behind `--` of a command that starts another one; the parser does not see them,
    // since it would read brackets, options and names of its own into them.
    void set_words_behind_mark(std::vector<std::string> words)
    {
        words_behind_mark_ = std::move(words);
    }
    const std::vector<std::string> &words_behind_mark() const
    {
        return words_behind_mark_;
    }

    int run() const
    {
        return chosen_ ? chosen_() : kUsage;
    }

  private:
    CLI::App &app_;
    std::function<int()> chosen_;
    std::vector<std::string> words_behind_mark_;
};

void add_list(Commands &commands);
void add_get(Commands &commands);
void add_set(Commands &commands);
void add_info(Commands &commands);
void add_describe(Commands &commands);
void add_check(Commands &commands);
void add_dictionary(Commands &commands);
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
void add_sandbox(Commands &commands);

} // namespace kp::tool
