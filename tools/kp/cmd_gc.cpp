// kp gc: removes or corrects what is provably dead, and shows what it does.
#include "checks.h"
#include "commands.h"
#include "endpoints.h"
#include "common/encoding.h"
#include "common/text.h"
#include "output.h"
#include "row_format.h"
#include "common/segment_reader.h"
#include "time_text.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kp::tool {

namespace {

struct CollectOptions {
    bool dry_run = false;
    bool orphans = false;
    bool trust_visible = false;
    bool json = false;
    double older_than = 60;
};

// What was found, and the deed that it calls for.
struct Dead {
    bool is_topic;
    std::string name; // a topic, or a path
    const char *what; // a word that stays the same
    std::string text;
    const char *action; // remove, correct or leave
};

nlohmann::ordered_json dead_json(const Dead &dead, bool dry_run)
{
    const std::string key = dead.is_topic ? "topic" : "path";
    nlohmann::ordered_json object;
    object[key] = dead.name;
    object["what"] = dead.what;
    object["text"] = dead.text;
    object["action"] = dead.action;
    object["dry_run"] = dry_run;
    if (!is_utf8(dead.name))
        object[key + "_b64"] = to_base64(dead.name);
    return object;
}

std::string deed_text(const Dead &dead, bool dry_run)
{
    const std::string_view action = dead.action;
    if (action == "leave")
        return "left alone, since either may be gone";
    return std::string(dry_run ? "would be " : "") + (action == "remove" ? "removed" : "corrected");
}

class Collector {
  public:
    explicit Collector(const CollectOptions &options) : options_(options)
    {
    }

    int run()
    {
        collect_sockets();
        Selection everything;
        const StoreListing listing = list_store(everything);
        for (const Problem &problem : listing.problems)
            outcome_.note(problem);
        for (const StoreFile &file : listing.files)
            collect_topic(file.topic);
        if (options_.orphans)
            for (auto directory = listing.directories.rbegin();
                 directory != listing.directories.rend(); ++directory)
                collect_directory(*directory);
        return outcome_.code();
    }

  private:
    // Prints the finding; says whether to act on it.
    bool acts_on(const Dead &dead)
    {
        if (options_.json)
            output().write(json_line(dead_json(dead, options_.dry_run)));
        else
            output().line(escaped(dead.name) + ": " + dead.text + "; " +
                          deed_text(dead, options_.dry_run));
        (void)output().flush();
        return !options_.dry_run;
    }

    void note_failure(const std::string &what)
    {
        outcome_.note(system_problem(escaped(what), errno));
    }

    void collect_sockets()
    {
        const Mesh mesh = look_at_mesh();
        if (mesh.error != 0 && mesh.error != ENOENT)
            outcome_.note(system_problem(kProvidersRoot, mesh.error));
        for (const Endpoint &endpoint : mesh.endpoints) {
            const std::string path = std::string(kProvidersRoot) + "/" + endpoint.file.name;
            if (endpoint.liveness == Liveness::live || endpoint.liveness == Liveness::foreign ||
                !refuses_connections(endpoint.file.name))
                continue;
            if (acts_on(
                    {false, path, "dead-socket", "a socket that refuses connections", "remove"}) &&
                unlink(path.c_str()) != 0 && errno != ENOENT)
                note_failure(path);
        }
    }

    // Whether nobody out of sight can have a topic open.
    bool sees_everybody(const Mappers &mappers)
    {
        if (options_.trust_visible || (mappers.unreadable.empty() && sees_all_processes()))
            return true;
        if (!told_blindness_)
            outcome_.note(Problem{kPermission,
                                  "not every process can be seen, so counts are left alone: run "
                                  "as root outside containers, or with --trust-visible"});
        told_blindness_ = true;
        return false;
    }

    void collect_topic(const std::string &topic)
    {
        TopicOpener opener;
        struct stat status;
        Problem problem;
        if (!opener.status(topic, status, problem) || !is_segment_file(status, topic, problem)) {
            if (problem.code != kNothing)
                outcome_.note(problem);
            return;
        }
        const auto snapshot = read_topic(opener, topic, problem);
        if (!snapshot)
            return;
        const unsigned counted = static_cast<unsigned>(snapshot->providers) + snapshot->consumers;
        if (counted == 0 && !options_.orphans)
            return;
        const FileId file{status.st_dev, status.st_ino};
        if (!first_look_)
            first_look_ = find_mappers(status.st_dev);
        if (counted > 0 && first_look_->open_handles(file) >= counted)
            return;
        // Once more for each topic that is left, so that the proof is as fresh as can be.
        const Mappers mappers = find_mappers(status.st_dev);
        const unsigned open = mappers.open_handles(file);
        const bool is_mapped = mappers.of_file.contains(file);
        if (counted == 0)
            collect_orphan(topic, *snapshot, is_mapped, mappers);
        else if (open < counted && sees_everybody(mappers))
            correct(topic, *snapshot, open, is_mapped);
    }

    // A topic that only one-shot writes touched: nobody counts it, so nobody will ever remove it.
    void collect_orphan(const std::string &topic, const Snapshot &snapshot, bool is_mapped,
                        const Mappers &mappers)
    {
        const auto age = static_cast<uint64_t>(options_.older_than * 1e6);
        if (is_mapped || snapshot.last_write_ts + age > now_us() || !sees_everybody(mappers))
            return;
        if (acts_on({true, topic, "orphan",
                     "an orphan, written " + age_text(snapshot.last_write_ts, now_us()) + " ago",
                     "remove"}))
            remove(topic);
    }

    void remove(const std::string &topic)
    {
        TopicOpener opener;
        Problem problem;
        if (!opener.remove(topic, problem))
            outcome_.note(problem);
    }

    // Nobody left: the counts go to 0 and the file goes with them. Some left: only a count of one
    // role alone tells whose handles are gone.
    void correct(const std::string &topic, const Snapshot &snapshot, unsigned open, bool is_mapped)
    {
        const ReferenceCounts counted{snapshot.providers, snapshot.consumers};
        const std::string finding = "counts " + std::to_string(counted.providers) +
                                    " providers and " + std::to_string(counted.consumers) +
                                    " consumers, " + std::to_string(open) + " are open";
        ReferenceCounts right{};
        if (open > 0 && counted.providers > 0 && counted.consumers > 0) {
            (void)acts_on({true, topic, "dead-counts", finding, "leave"});
            return;
        }
        if (open > 0)
            (counted.providers > 0 ? right.providers : right.consumers) =
                static_cast<uint8_t>(open);
        const bool dead = !is_mapped;
        if (acts_on({true, topic, "dead-counts", finding, dead ? "remove" : "correct"}) &&
            replace_counts(topic, counted, right) && dead)
            close_last_handle(topic);
    }

    // Changes the counts unless they have changed since the look.
    bool replace_counts(const std::string &topic, ReferenceCounts counted, ReferenceCounts right)
    {
        const std::string path = std::string(kStoreRoot) + "/" + topic;
        const UniqueFd fd(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        Segment *segment = fd ? map_for_counts(fd) : nullptr;
        if (!segment) {
            note_failure(topic);
            return false;
        }
        const bool replaced = replace_if(segment->refs, counted, right);
        (void)munmap(segment, kSegmentSize);
        return replaced;
    }

    static Segment *map_for_counts(const UniqueFd &fd)
    {
        void *memory = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        return memory == MAP_FAILED ? nullptr : static_cast<Segment *>(memory);
    }

    // Opening and closing through the library removes the file by the library's own rule: only if
    // nobody has opened it meanwhile.
    static void close_last_handle(const std::string &topic)
    {
        if (kp_shm_t *shm = kp_shm_new(topic.c_str(), KP_ROLE_CONSUMER))
            (void)kp_shm_destroy(shm, topic.c_str(), KP_ROLE_CONSUMER);
    }

    // People read it beside topics, programs take it as a path.
    std::string shown_path(const std::string &path, const std::string &directory) const
    {
        return options_.json ? path : directory + "/";
    }

    // An empty directory that is nobody's in particular: like its parent in owner, group and mode.
    void collect_directory(const std::string &directory)
    {
        if (directory.empty())
            return;
        const std::string path = std::string(kStoreRoot) + "/" + directory;
        const std::string parent = path.substr(0, path.rfind('/'));
        struct stat own;
        struct stat above;
        if (lstat(path.c_str(), &own) != 0 || lstat(parent.c_str(), &above) != 0 ||
            own.st_nlink > 2 || own.st_uid != above.st_uid || own.st_gid != above.st_gid ||
            own.st_mode != above.st_mode)
            return;
        const auto changed = static_cast<uint64_t>(own.st_mtim.tv_sec) * kUsPerSecond;
        const auto age = static_cast<uint64_t>(options_.older_than * 1e6);
        Problem problem;
        const auto entries = list_directory(directory, problem);
        if (changed + age > now_us() || !entries || !entries->files.empty())
            return;
        if (acts_on({false, shown_path(path, directory), "empty-directory", "an empty directory",
                     "remove"}) &&
            rmdir(path.c_str()) != 0 && errno != ENOTEMPTY && errno != ENOENT)
            note_failure(directory);
    }

    const CollectOptions &options_;
    std::optional<Mappers> first_look_;
    Outcome outcome_;
    bool told_blindness_ = false;
};

} // namespace

void add_gc(Commands &commands)
{
    const auto options = std::make_shared<CollectOptions>();
    CLI::App &command = commands.add("gc", "remove what is provably dead and correct dead counts",
                                     [options] { return Collector(*options).run(); });
    command.add_flag("-n,--dry-run", options->dry_run, "only show what would be done");
    command.add_flag("--orphans", options->orphans,
                     "also topics that only one-shot writes touched, and empty directories");
    command
        .add_option("--older-than", options->older_than,
                    "orphans not touched for so long; 60 unless given")
        ->type_name("SEC")
        ->check(in_range(0.0, 1e9));
    command.add_flag("-j,--json", options->json, "one JSON object for each");
    command.add_flag("--trust-visible", options->trust_visible,
                     "take the processes that can be seen for all there are");
}

} // namespace kp::tool
