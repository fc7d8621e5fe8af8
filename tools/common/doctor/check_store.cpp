// The topics: files that are no segments, writes that never ended, counts without owners,
// semaphores that nobody gives back, times that cannot be.
#include "common/device/counts_lock.h"
#include "common/doctor/finding.h"
#include "common/doctor/spelled_tags.h"
#include "common/store/segment_reader.h"
#include "common/store/store_walk.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "common/values/time_text.h"
#include "kp.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sys/stat.h>

namespace kp::tool {

namespace {

constexpr uint64_t kClockSlackUs = kUsPerSecond;
constexpr std::size_t kListedLevels = 3; // the library lists no deeper
constexpr unsigned kManyHandles = 200;   // the counts have 8 bits
constexpr std::size_t kManyMappingsPercent = 90;

// Findings that are the same for every topic. They are reported once, with one topic as an example.
struct Repeated {
    std::size_t count = 0;
    std::string example;

    void add(const std::string &topic)
    {
        if (count++ == 0)
            example = topic;
    }
    // "and 2 more", in a sentence that begins with the example
    std::string others() const
    {
        return "and " + std::to_string(count - 1) + " more";
    }
};

// A finding has its subject in front already.
std::string text_behind(const std::string &name, const Problem &problem)
{
    return problem.text.substr(problem.text.starts_with(name + ": ") ? name.size() + 2 : 0);
}

// A topic as an argument of kp, which takes a leading minus sign for the start of an option.
std::string argument(const std::string &topic)
{
    return (topic.starts_with('-') ? "-- " : "") + shell_word(topic);
}

class StoreCheck {
  public:
    explicit StoreCheck(Findings &findings) : findings_(findings)
    {
    }

    std::size_t run()
    {
        Selection everything;
        const StoreListing listing = list_store(everything);
        report_closed(listing);
        struct stat root {};
        if (stat(kStoreRoot, &root) == 0)
            mappers_ = find_mappers(root.st_dev);
        for (const StoreFile &file : listing.files)
            check_topic(file.topic);
        report_locked(listing);
        for (const auto *directories : {&listing.directories, &listing.closed})
            for (const std::string &directory : *directories)
                check_directory(directory);
        report_unreadable(listing.files.size());
        report_repeated();
        report_dead_files(listing);
        report_mappings();
        report_spellings(root.st_dev);
        return listing.files.size();
    }

  private:
    void add(Severity severity, const char *check, const std::string &subject, std::string text,
             std::string fix)
    {
        findings_.push_back({severity, check, subject, std::move(text), std::move(fix)});
    }

    void check_topic(const std::string &topic)
    {
        const std::string name = escaped(topic);
        struct stat status;
        Problem problem;
        if (!opener_.status(topic, status, problem)) {
            if (problem.kind == kPermission)
                unreadable_.add(name);
            return;
        }
        if (is_segment_file(status, topic, problem))
            check_mode(name, status);
        const auto snapshot = read_topic(opener_, topic, problem);
        if (!snapshot) {
            if (problem.kind == kPermission)
                unreadable_.add(name);
            if (problem.kind == kInvalid)
                add(Severity::error, "not-a-segment", name, text_behind(name, problem),
                    "kp rm " + argument(topic));
            return;
        }
        check_condition(name, topic, *snapshot);
        check_stamps(name, *snapshot);
        check_counts(name, topic, *snapshot, status);
        if (split_levels(topic).size() > kListedLevels)
            deep_.add(name);
    }

    // The library opens a topic for writing, also to read it.
    void check_mode(const std::string &name, const struct stat &status)
    {
        users_.insert(status.st_uid);
        if (!(status.st_mode & (S_IWGRP | S_IWOTH)))
            private_.add(name);
    }

    void report_locked(const StoreListing &listing)
    {
        std::vector<std::string> topics;
        for (const StoreFile &file : listing.files)
            topics.push_back(file.topic);
        for (const std::string &topic : topics_that_stay_locked(opener_, std::move(topics)))
            add(Severity::warning, "semaphore", escaped(topic),
                "its semaphore stays taken: who holds it was killed or is stopped, and each close "
                "of the topic waits a second, until some process opens it anew",
                "kp info " + argument(topic));
    }

    void check_directory(const std::string &directory)
    {
        struct stat status;
        Problem problem;
        if (directory.empty() || !opener_.status(directory, status, problem) ||
            (status.st_mode & (S_IXGRP | S_IXOTH)))
            return;
        users_.insert(status.st_uid);
        private_directories_.add(directory);
    }

    void check_condition(const std::string &name, const std::string &topic,
                         const Snapshot &snapshot)
    {
        if (snapshot.condition == Condition::busy)
            add(Severity::error, "writing", name,
                "a write has begun and does not end (last write " +
                    age_text(snapshot.last_write_ts, now_us()) + " ago); nobody can read it",
                "kp set " + argument(topic) + " VALUE");
        if (snapshot.condition == Condition::corrupt)
            add(Severity::error, "corrupt", name, text_behind(name, value_problem(topic, snapshot)),
                "kp rm " + argument(topic));
        if (snapshot.reserved_in_use)
            add(Severity::warning, "foreign-layout", name,
                "bytes are in use that must be zero: another version or program wrote it", "");
        if (snapshot.providers > 1)
            add(Severity::warning, "providers", name,
                std::to_string(snapshot.providers) + " providers have it open",
                "kp info " + argument(topic));
    }

    void check_stamps(const std::string &name, const Snapshot &snapshot)
    {
        if (snapshot.last_write_ts > now_us() + kClockSlackUs)
            add(Severity::warning, "future", name,
                "was written at " + iso_utc(snapshot.last_write_ts) +
                    ", which is to come: new values look as if they had been read",
                "date");
    }

    void check_counts(const std::string &name, const std::string &topic, const Snapshot &snapshot,
                      const struct stat &status)
    {
        const unsigned counted = static_cast<unsigned>(snapshot.providers) + snapshot.consumers;
        if (snapshot.providers >= kManyHandles || snapshot.consumers >= kManyHandles)
            add(Severity::warning, "counts-full", name,
                std::to_string(snapshot.providers) + " providers and " +
                    std::to_string(snapshot.consumers) +
                    " consumers have it open; a count that passes 255 begins at 0 again, and the "
                    "topic is then removed under its users",
                "kp info " + argument(topic));
        const unsigned open = mappers_.open_handles({status.st_dev, status.st_ino});
        if (open >= counted)
            return;
        const bool is_sure = mappers_.unreadable.empty() && sees_all_processes();
        add(is_sure ? Severity::warning : Severity::note, "counts", name,
            std::to_string(counted) + " handles are counted, " + std::to_string(open) +
                (is_sure ? " are open" : " are open as far as can be seen"),
            "kp gc");
    }

    // A part of the store may be closed on purpose. But if the whole store is closed, nothing can
    // be said about it.
    void report_closed(const StoreListing &listing)
    {
        for (std::size_t index = 0; index < listing.closed.size(); ++index) {
            const Problem &problem = listing.problems[index];
            if (!listing.closed[index].empty())
                add(Severity::note, "unreadable", "store", problem.text, "sudo kp doctor");
            else if (problem.kind != kInvalid) // which is told of the directory
                findings_.push_back(
                    unseen(kStoreRoot, "cannot be read, so no topic was checked", problem.kind));
        }
    }

    void report_unreadable(std::size_t topics)
    {
        if (unreadable_.count == 0)
            return;
        const std::string text = unreadable_.others() + " cannot be read by this user";
        if (unreadable_.count < topics)
            add(Severity::note, "unreadable", unreadable_.example, text, "sudo kp doctor");
        else
            findings_.push_back(
                unseen(unreadable_.example, text + ", so no topic was checked", kPermission));
    }

    void report_repeated()
    {
        if (private_directories_.count > 0 && users_.size() > 1)
            add(Severity::warning, "directory-mode", escaped(private_directories_.example) + "/",
                private_directories_.others() +
                    " let their owner in only, while several users have topics",
                "chmod 2775 " +
                    shell_word(std::string(kStoreRoot) + "/" + private_directories_.example));
        if (private_.count > 0 && users_.size() > 1)
            add(Severity::warning, "umask", private_.example,
                private_.others() +
                    " can be opened by their owner only, while several users have topics",
                "systemctl edit UNIT (UMask=0002 and one Group= for all)");
        if (deep_.count > 0)
            add(Severity::note, "deep", deep_.example,
                deep_.others() + " lie deeper than the three levels that the library lists", "");
    }

    // Processes that still map a topic's file after it was removed see no new value.
    void report_dead_files(const StoreListing &listing)
    {
        std::set<ino_t> alive;
        for (const StoreFile &file : listing.files)
            alive.insert(file.inode);
        std::set<pid_t> told;
        for (const auto &[id, mappers] : mappers_.of_file)
            for (const Mapper &mapper : mappers)
                if (mapper.is_store && mapper.deleted && !alive.contains(id.inode) &&
                    told.insert(mapper.pid).second)
                    add(Severity::error, "dead-file", process_text(process_of(mapper.pid)),
                        "has a topic open whose file was removed, and sees no new values", "");
    }

    // The bucket of a change notice is that of the topic as its writer spells it.
    void report_spellings(dev_t store)
    {
        std::set<std::string> told;
        for (const auto &[file, tags] : find_spelled_tags(store))
            for (const SpelledTag &consumer : tags)
                for (const SpelledTag &provider : tags)
                    if (consumer.role == KP_ROLE_CONSUMER && provider.role == KP_ROLE_PROVIDER &&
                        kp_hash(consumer.topic.c_str()) != kp_hash(provider.topic.c_str()) &&
                        told.insert(std::to_string(consumer.pid) + consumer.topic).second)
                        add(Severity::warning, "spelling", escaped(consumer.topic),
                            process_text(process_of(consumer.pid)) +
                                " follows it under this name and never hears of a change: its "
                                "provider " +
                                process_text(process_of(provider.pid)) + " calls it " +
                                escaped(provider.topic),
                            "");
    }

    // Each open topic is a mapping, of which a process can have so many.
    void report_mappings()
    {
        std::size_t limit = 0;
        if (!(std::ifstream("/proc/sys/vm/max_map_count") >> limit))
            return;
        std::set<pid_t> users;
        for (const auto &[id, mappers] : mappers_.of_file)
            for (const Mapper &mapper : mappers)
                if (mapper.is_store)
                    users.insert(mapper.pid);
        for (const pid_t pid : users) {
            const std::size_t count = mappers_.mappings[pid];
            if (count >= limit / 100 * kManyMappingsPercent)
                add(Severity::warning, "mappings", process_text(process_of(pid)),
                    "has " + std::to_string(count) + " of " + std::to_string(limit) +
                        " mappings; each open topic takes one",
                    "sysctl vm.max_map_count=" + std::to_string(limit * 4));
        }
    }

    Findings &findings_;
    TopicOpener opener_;
    Mappers mappers_;
    std::set<uid_t> users_;
    Repeated private_;
    Repeated private_directories_; // by their names, not escaped
    Repeated unreadable_;
    Repeated deep_;
};

} // namespace

std::size_t check_store(Findings &findings)
{
    return StoreCheck(findings).run();
}

} // namespace kp::tool
