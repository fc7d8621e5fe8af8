// kp rm: takes a topic out of the store, unless somebody has it open.
#include "commands.h"
#include "common/text.h"
#include "common/processes.h"
#include "common/segment_reader.h"

#include <cerrno>
#include <unistd.h>

namespace kp::tool {

namespace {

struct RemoveOptions {
    std::vector<std::string> topics;
    bool force = false;
};

// Why the file must stay: somebody maps it, or may do so unseen.
std::optional<Problem> reason_to_keep(const std::string &topic, const struct stat &status)
{
    const Mappers all = find_mappers(status.st_dev);
    const auto found = all.of_file.find({status.st_dev, status.st_ino});
    const std::string name = escaped(topic);
    if (found != all.of_file.end())
        return Problem{kLimit, name + ": in use by " +
                                   process_text(process_of(found->second.front().pid)) +
                                   " (--force removes it all the same)"};
    TopicOpener opener;
    Problem ignored;
    const auto snapshot = read_topic(opener, topic, ignored);
    const bool is_counted = snapshot && (snapshot->providers > 0 || snapshot->consumers > 0);
    if (is_counted && !all.unreadable.empty())
        return Problem{kPermission, name + ": counted as open, and " +
                                        std::to_string(all.unreadable.size()) +
                                        " processes show only to root (--force removes it)"};
    return std::nullopt;
}

bool remove_topic(const std::string &text, bool force, Problem &problem)
{
    const auto topic = normal_topic(text, problem);
    if (!topic)
        return false;
    TopicOpener opener;
    struct stat status;
    if (!opener.status(*topic, status, problem))
        return false;
    if (S_ISDIR(status.st_mode)) {
        problem = {kInvalid, escaped(*topic) + ": not a topic, others lie below it"};
        return false;
    }
    if (!force) {
        if (auto reason = reason_to_keep(*topic, status)) {
            problem = std::move(*reason);
            return false;
        }
    }
    return opener.remove(*topic, problem);
}

int run_rm(const RemoveOptions &options)
{
    Outcome outcome;
    for (const std::string &topic : options.topics) {
        Problem problem;
        if (remove_topic(topic, options.force, problem))
            continue;
        if (is_pattern(topic) && problem.code == kNothing) // else it is a topic's name all the same
            problem = {kUsage, "\"" + escaped(topic) + "\" is a pattern; name each topic"};
        outcome.note(problem);
    }
    return outcome.code();
}

} // namespace

void add_rm(Commands &commands)
{
    const auto options = std::make_shared<RemoveOptions>();
    CLI::App &command = commands.add("rm", "remove topics that nobody has open",
                                     [options] { return run_rm(*options); });
    command.add_option("topics", options->topics, "the topics")->type_name("TOPIC")->required();
    command.add_flag("-f,--force", options->force,
                     "also what somebody has open, who then keeps the dead file");
}

} // namespace kp::tool
