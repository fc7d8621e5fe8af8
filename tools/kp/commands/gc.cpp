// kp gc: removes or corrects what is provably dead, and shows what it did.
#include "collecting/dead_sockets.h"
#include "collecting/dead_topics.h"
#include "collecting/empty_directories.h"
#include "commands/commands.h"
#include "common/device/endpoints.h"
#include "common/store/segment_reader.h"
#include "common/text/encoding.h"
#include "common/text/text.h"
#include "common/values/time_text.h"
#include "looking/noted_listing.h"
#include "output/output.h"
#include "output/row_format.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_set>

namespace kp::tool {

namespace {

struct CollectOptions {
    bool dry_run = false;
    bool orphans = false;
    bool trust_visible = false;
    bool json = false;
    double older_than = 60;
};

// What was found, and what has to be done about it.
struct Dead {
    bool is_topic;
    std::string name; // a topic, or a path
    const char *what; // a word that stays the same
    std::string text;
    const char *action; // remove, correct or leave
};

// What came of it; nothing on a dry run, or where nothing can be done.
using Result = std::optional<Deed>;

nlohmann::ordered_json dead_json(const Dead &dead, const Result &result, bool dry_run)
{
    const std::string key = dead.is_topic ? "topic" : "path";
    nlohmann::ordered_json object;
    object[key] = dead.name;
    object["what"] = dead.what;
    object["text"] = dead.text;
    object["action"] = result == Deed::changed ? "leave" : dead.action;
    object["dry_run"] = dry_run;
    object["done"] = result == Deed::done;
    if (!is_utf8(dead.name))
        object[key + "_b64"] = to_base64(dead.name);
    return object;
}

std::string deed_text(const Dead &dead, const Result &result)
{
    const std::string_view action = dead.action;
    const std::string done = action == "remove" ? "removed" : "corrected";
    if (action == "leave")
        return "left alone, since either may be gone";
    if (!result)
        return "would be " + done;
    return *result == Deed::done      ? done
           : *result == Deed::changed ? "left alone, since it changed meanwhile"
                                      : "not " + done;
}

class Collector {
  public:
    explicit Collector(const CollectOptions &options)
        : options_(options),
          old_us_(now_us() - std::min(now_us(), static_cast<uint64_t>(options.older_than * 1e6)))
    {
    }

    int run()
    {
        collect_sockets();
        const StoreListing listing = list_store({}, outcome_);
        collect_topics(listing);
        if (options_.orphans)
            collect_directories(listing.directories);
        return outcome_.code();
    }

  private:
    // Looks only at those in which no other one lies: a directory with another one in it is not
    // empty, and no longer old when that one has just gone.
    void collect_directories(const std::vector<std::string> &directories)
    {
        std::unordered_set<std::string_view> above;
        for (const std::string_view directory : directories)
            if (const auto end = directory.rfind('/'); end != directory.npos)
                above.insert(directory.substr(0, end));
        for (auto directory = directories.rbegin(); directory != directories.rend(); ++directory)
            if (!above.contains(*directory))
                collect_directory(*directory);
    }

    // Printed only after the work is done: so a slow reader of this output delays nothing, and what
    // it reads is true.
    void tell(const Dead &dead, const Result &result)
    {
        if (options_.json)
            output().write(json_line(dead_json(dead, result, options_.dry_run)));
        else
            output().line(escaped(dead.name) + ": " + dead.text + "; " + deed_text(dead, result));
    }

    void tell(const Dead &dead, Deed deed, const Problem &problem)
    {
        tell(dead, deed);
        if (deed == Deed::failed)
            outcome_.note(problem);
    }

    void collect_sockets()
    {
        const DeadSockets found = find_dead_sockets();
        if (found.error != 0 && found.error != ENOENT)
            outcome_.note(system_problem(kEndpointRoot, found.error));
        std::vector<DeedResult> deeds;
        if (!options_.dry_run)
            deeds = remove_dead_sockets(found.files);
        for (std::size_t index = 0; index < found.files.size(); ++index) {
            const Dead dead{false, endpoint_path(found.files[index].name), "dead-socket",
                            "a socket that refuses connections", "remove"};
            if (options_.dry_run)
                tell(dead, std::nullopt);
            else
                tell(dead, deeds[index].deed, deeds[index].problem);
        }
    }

    void collect_topics(const StoreListing &listing)
    {
        const TopicSearch search{options_.orphans, old_us_, options_.trust_visible};
        const DeadTopics found = find_dead_topics(listing, search);
        outcome_.note(found.problems);
        if (!found.sees_everybody)
            outcome_.note(Problem{kPermission,
                                  "not every process can be seen, so counts are left alone: run "
                                  "as root outside containers, or with --trust-visible"});
        std::vector<DeedResult> deeds;
        if (!options_.dry_run)
            deeds = bury_topics(found.topics);
        for (std::size_t index = 0; index < found.topics.size(); ++index) {
            const Dead dead = described(found.topics[index]);
            if (options_.dry_run || found.topics[index].is_ambiguous())
                tell(dead, std::nullopt);
            else
                tell(dead, deeds[index].deed, deeds[index].problem);
        }
    }

    static Dead described(const DeadTopic &dead)
    {
        if (dead.is_orphan())
            return {true, dead.topic, "orphan",
                    "an orphan, written " + age_text(dead.last_write_ts, now_us()) + " ago",
                    "remove"};
        return {true, dead.topic, "dead-counts",
                "counts " + std::to_string(dead.counted.providers) + " providers and " +
                    std::to_string(dead.counted.consumers) + " consumers, " +
                    std::to_string(dead.open) + " are open",
                dead.is_ambiguous() ? "leave"
                : dead.is_removed() ? "remove"
                                    : "correct"};
    }

    void collect_directory(const std::string &directory)
    {
        if (directory.empty() || !is_empty_and_unused(directory, old_us_))
            return;
        // People read it beside topics, programs take it as a path.
        const Dead dead{false,
                        options_.json ? std::string(kStoreRoot) + "/" + directory : directory + "/",
                        "empty-directory", "an empty directory", "remove"};
        Problem problem;
        if (options_.dry_run)
            tell(dead, std::nullopt);
        else
            tell(dead, remove_empty_directory(directory, problem), problem);
    }

    const CollectOptions &options_;
    const uint64_t old_us_; // what was not touched since then is old
    Outcome outcome_;
};

} // namespace

void add_gc(Commands &commands)
{
    const auto options = std::make_shared<CollectOptions>();
    Command command = commands.add("gc", "remove what is provably dead and correct dead counts",
                                   [options] { return Collector(*options).run(); });
    command.add_flag("-n,--dry-run", options->dry_run, "only show what would be done");
    command.add_flag("--orphans", options->orphans,
                     "also topics that only instant writes touched, and empty directories");
    command.add_number({"--older-than", "orphans not touched for so long; 60 unless given", "SEC"},
                       options->older_than, 0.0, 1e9);
    command.add_flag("-j,--json", options->json, "one JSON object for each");
    command.add_flag("--trust-visible", options->trust_visible,
                     "take the processes that can be seen for all there are");
}

} // namespace kp::tool
