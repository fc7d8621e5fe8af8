// kp rm: takes topics out of the store, unless somebody has them open.
#include "commands/commands.h"
#include "common/store/segment_reader.h"
#include "common/system/file_lock.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "looking/noted_listing.h"
#include "output/output.h"

#include <algorithm>
#include <cerrno>
#include <memory>

namespace kp::tool {

namespace {

struct RemoveOptions {
    std::vector<std::string> topics;
    bool force = false;
    bool dry_run = false;
};

// A topic to be removed, held so that nobody can open it meanwhile; not where it cannot be read.
struct Victim {
    std::string topic;
    FileId file;
    LockedFile held = {};
};

class Removal {
  public:
    explicit Removal(const RemoveOptions &options) : options_(options)
    {
    }

    int run()
    {
        for (const std::string &text : options_.topics)
            if (const auto problem = add(text))
                return complain(*problem);
        // A topic that is named twice would wait for its own lock.
        std::ranges::sort(topics_);
        topics_.erase(std::unique(topics_.begin(), topics_.end()), topics_.end());
        for (std::size_t first = 0; first < topics_.size(); first += kMostLockedFiles)
            remove_some(first, std::min(first + kMostLockedFiles, topics_.size()));
        return outcome_.code();
    }

  private:
    // A pattern may be a topic's name all the same. Gives the reason why nothing must be removed.
    std::optional<Problem> add(const std::string &text)
    {
        Problem problem;
        const auto topic = normal_topic(text, problem);
        struct stat status;
        if (topic && opener_.status(*topic, status, problem)) {
            if (S_ISDIR(status.st_mode))
                outcome_.note(
                    Problem{kInvalid, escaped(*topic) + ": not a topic, others lie below it"});
            else
                topics_.push_back(*topic);
        } else if (is_pattern(text)) {
            return add_pattern(text);
        } else {
            outcome_.note(problem);
        }
        return std::nullopt;
    }

    // Of a level that begins with a wildcard, as in "+x", the library looks at nothing else. Who
    // writes that means less than it covers.
    std::optional<Problem> add_pattern(const std::string &text)
    {
        const std::string why =
            has_wildcard(text) ? pattern_problem(text, Dialect::tags) : std::string();
        if (!why.empty())
            return Problem{kUsage, "\"" + escaped(text) + "\": " + escaped(why) +
                                       ", and would remove more than it says; nothing was removed"};
        Problem problem;
        Selection selection;
        if (!selection.set({text}, {}, problem)) {
            outcome_.note(problem);
            return std::nullopt;
        }
        const StoreListing listing = list_store(selection, outcome_);
        if (listing.files.empty())
            outcome_.note(Problem{kNothing, "\"" + escaped(text) + "\": no topic matches"});
        for (const StoreFile &file : listing.files)
            topics_.push_back(file.topic);
        return std::nullopt;
    }

    void remove_some(std::size_t first, std::size_t end)
    {
        std::vector<Victim> victims;
        for (std::size_t index = first; index < end; ++index)
            open(topics_[index], victims);
        if (victims.empty())
            return;
        lock_all(victims, &Victim::held);
        const Mappers all = options_.force ? Mappers() : find_mappers(victims.front().file.device);
        opener_.start_round();
        for (Victim &victim : victims)
            remove(victim, all);
    }

    void open(const std::string &topic, std::vector<Victim> &victims)
    {
        struct stat status;
        Problem problem;
        if (!opener_.status(topic, status, problem))
            return outcome_.note(problem);
        Victim victim{topic, file_id(status)};
        if (S_ISREG(status.st_mode) && !options_.dry_run && !options_.force) {
            victim.held.fd.reset(opener_.open_any(topic, problem).release());
            if (!victim.held.fd && problem.kind != kPermission) // such as no descriptor left
                return outcome_.note(problem);
        }
        victims.push_back(std::move(victim));
    }

    void remove(const Victim &victim, const Mappers &all)
    {
        if (const auto reason = options_.force ? std::nullopt : reason_to_keep(victim, all))
            return outcome_.note(*reason);
        Problem problem;
        if (options_.dry_run)
            output().line(escaped(victim.topic) + ": would be removed");
        else if (!opener_.remove_same(victim.topic, victim.file, problem))
            outcome_.note(problem);
    }

    // Why the file must stay: somebody maps it, or may do so unseen.
    std::optional<Problem> reason_to_keep(const Victim &victim, const Mappers &all)
    {
        if (victim.held.fd && !victim.held.lock.is_held())
            return locked_problem(victim.topic);
        const std::string name = escaped(victim.topic);
        const auto mappers = all.of(victim.file);
        if (!mappers.empty())
            return Problem{kLimit, name + ": in use by " +
                                       process_text(process_of(mappers.front().pid)) +
                                       " (--force removes it all the same)"};
        Problem problem;
        const auto snapshot = read_topic(opener_, victim.topic, problem);
        const bool may_be_open =
            snapshot ? snapshot->providers > 0 || snapshot->consumers > 0 : problem.kind == kLimit;
        if (may_be_open && !all.unreadable.empty())
            return Problem{kPermission, name + ": counted as open, and " +
                                            hidden_processes_text(all.unreadable.size()) +
                                            " (--force removes it)"};
        return std::nullopt;
    }

    const RemoveOptions &options_;
    TopicOpener opener_;
    std::vector<std::string> topics_;
    Outcome outcome_;
};

} // namespace

void add_rm(Commands &commands)
{
    const auto options = std::make_shared<RemoveOptions>();
    Command command = commands.add("rm", "remove topics that nobody has open",
                                   [options] { return Removal(*options).run(); });
    command.add_words({"topics", "topics and patterns", "TOPIC|PATTERN"}, options->topics)
        .required();
    command.add_flag("-f,--force", options->force,
                     "also what somebody has open, who then keeps the dead file");
    command.add_flag("-n,--dry-run", options->dry_run, "only show what would be removed");
}

} // namespace kp::tool
