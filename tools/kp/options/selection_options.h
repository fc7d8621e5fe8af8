// The arguments with which the user of a command chooses topics.
#pragma once

#include "common/names/selection.h"
#include "options/command.h"
#include "running/outcome.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kp::tool {

struct SelectionOptions {
    std::vector<std::string> wanted;
    std::vector<std::string> excluded;
};

Option add_selection(Command &command, SelectionOptions &options);

// Gives the function that runs a command on the topics that its user chose. It calls `run` with
// `*options` and the selection. If one of the topics cannot exist, it complains instead, and gives
// the exit code.
template <typename Options, typename Run>
std::function<int()> on_selection(std::shared_ptr<Options> options, Run run)
{
    return [options = std::move(options), run] {
        Problem problem;
        Selection selection;
        const SelectionOptions &chosen = options->selection;
        if (!selection.set(chosen.wanted, chosen.excluded, problem))
            return complain(problem);
        return run(*options, selection);
    };
}

} // namespace kp::tool
