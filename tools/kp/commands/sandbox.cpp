// kp sandbox: runs a command with a store and a socket directory of its own.
#include "commands/commands.h"
#include "common/text/text.h"
#include "layout/unique_fd.h"
#include "sandbox/namespaces.h"
#include "sandbox/own_directory.h"
#include "sandbox/store_copy.h"
#include "sandbox/supervisor.h"

#include <array>
#include <climits>
#include <cstdlib>
#include <memory>
#include <optional>
#include <unistd.h>

namespace kp::tool {

namespace {

// The variable by which a program knows that it runs in a sandbox. Its value is the name of the
// mount namespace; a variable that somebody inherited from elsewhere has the name of another one.
constexpr const char *kMark = "KP_SANDBOX";

struct SandboxOptions {
    bool no_network = false;
    std::optional<std::string> keep;
    std::optional<std::string> log_level; // the command's, which `kp` takes away from itself
};

bool mark_sandbox()
{
    std::array<char, PATH_MAX> name{};
    return readlink("/proc/self/ns/mnt", name.data(), name.size() - 1) > 0 &&
           setenv(kMark, name.data(), 1) == 0;
}

// A working directory below the covered ones is still the machine's, in which the command would
// work on the machine's store. So the process enters what the sandbox has by that name.
bool enter_covered_directory(const std::string &name, Problem &problem)
{
    if (!name.starts_with("/dev/shm/") && !name.starts_with("/run/") && name != "/dev/shm" &&
        name != "/run")
        return true;
    if (chdir(name.c_str()) == 0)
        return true;
    problem = system_problem(escaped(name) + ": the working directory, in the sandbox", errno);
    return false;
}

std::string working_directory()
{
    std::array<char, PATH_MAX> name{};
    return getcwd(name.data(), name.size()) ? name.data() : "";
}

bool make_sandbox(const SandboxOptions &options, Problem &problem)
{
    const std::string directory = working_directory();
    if (!enter_namespaces(options.no_network ? Network::none : Network::shared, problem) ||
        !give_own_directory("/dev/shm", "zu-kp", problem) ||
        !give_own_directory("/run", "providers", problem) ||
        !enter_covered_directory(directory, problem))
        return false;
    if (!mark_sandbox()) {
        problem = system_problem("/proc/self/ns/mnt", errno);
        return false;
    }
    if (options.log_level)
        (void)setenv("KP_XLOG_USER_LEVEL", options.log_level->c_str(), 1);
    return true;
}

int run_sandbox(const SandboxOptions &options, const std::vector<std::string> &words)
{
    if (words.empty() || words[0].empty())
        return complain(Problem{kUsage, "sandbox: no command to run; put it behind --"});
    if (options.keep && options.keep->empty())
        return complain(Problem{kUsage, "sandbox: --keep needs the name of a directory"});
    Problem problem;
    StoreCopy copy;
    if (options.keep && !copy.open(*options.keep, problem))
        return complain(problem);
    if (!make_sandbox(options, problem)) {
        complain(problem);
        return kNoSandbox;
    }
    const int status = run_to_the_end(words);
    Outcome outcome;
    if (options.keep)
        copy.take(outcome);
    if (status == 0 && outcome.code() != kDone)
        return outcome.code();
    end_like(status);
}

} // namespace

void add_sandbox(Commands &commands)
{
    const auto options = std::make_shared<SandboxOptions>();
    if (const char *level = std::getenv("KP_XLOG_USER_LEVEL"))
        options->log_level = level;
    Command command =
        commands.add("sandbox", "run a command with a store of its own", [options, &commands] {
            return run_sandbox(*options, commands.words_behind_mark());
        });
    command.footer("The command stands behind --, as in: kp sandbox -- make test");
    command.add_flag("--network-none", options->no_network,
                     "with no network but the loopback device");
    command.add_text({"--keep", "copy the store to DIR when the command has ended", "DIR"},
                     options->keep);
}

} // namespace kp::tool
