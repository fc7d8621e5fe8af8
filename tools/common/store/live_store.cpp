#include "common/store/live_store.h"

#include "common/clock.h"
#include "common/store/store_levels.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <limits>
#include <sys/resource.h>
#include <unistd.h>

namespace kp::tool {

namespace {

// Directory times move in steps of the kernel's clock tick, at most 10 ms.
constexpr uint64_t kClockTickUs = 20'000;
// A program keeps so many of its mappings for its own memory, and so many of its descriptors for
// other files.
constexpr std::size_t kOwnMappings = 5'000;
constexpr std::size_t kOwnDescriptors = 200;
constexpr std::size_t kUsualMappings = 65'530;
// Nothing in its directory tells that a file can be opened again.
constexpr uint64_t kRetryUs = kUsPerSecond;
constexpr char kBehindSlash = '/' + 1; // in the order of names

bool same_time(const timespec &a, const timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// How many segments fit into half of the address space that a limit of it (ulimit -v) leaves. The
// other half is for the program's own memory.
std::size_t mappings_in_address_space()
{
    rlimit space{};
    if (getrlimit(RLIMIT_AS, &space) != 0 || space.rlim_cur == RLIM_INFINITY)
        return std::numeric_limits<std::size_t>::max();
    std::size_t used = 0;
    std::ifstream("/proc/self/statm") >> used; // in pages, and a segment takes one
    const std::size_t all = space.rlim_cur / static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return all > used ? (all - used) / 2 : 0;
}

} // namespace

LiveStore::Limits LiveStore::system_limits()
{
    std::size_t mappings = kUsualMappings;
    std::ifstream("/proc/sys/vm/max_map_count") >> mappings;
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
        descriptors.rlim_cur = descriptors.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &descriptors);
        (void)getrlimit(RLIMIT_NOFILE, &descriptors);
    }
    const auto less = [](std::size_t all, std::size_t own) { return all > own ? all - own : 0; };
    return {std::min(less(mappings, kOwnMappings), mappings_in_address_space()),
            less(descriptors.rlim_cur, kOwnDescriptors)};
}

Means LiveStore::means_left() const
{
    if (SegmentReader::count_by(Means::mapping) < limits_.mappings)
        return Means::mapping;
    return SegmentReader::count_by(Means::descriptor) < limits_.descriptors ? Means::descriptor
                                                                            : Means::name;
}

void LiveStore::refresh()
{
    opener_.start_round();
    walk_store(*this);
    if (monotonic_us() >= retry_at_)
        retry_refused();
}

void LiveStore::retry_refused()
{
    retry_at_ = monotonic_us() + kRetryUs;
    for (const std::string &topic : std::set(refused_))
        open(topic);
}

std::vector<std::string> LiveStore::enter(const std::string &directory, int fd,
                                          const struct stat &status)
{
    DirectoryState &state = directories_[directory];
    if (state.settled && same_time(status.st_mtim, state.changed))
        return state.children;
    state.changed = status.st_mtim;
    state.settled = to_us(status.st_mtim) + kClockTickUs < now_us();
    if (auto entries = read_directory(fd, directory, selection_)) {
        take(state, std::move(*entries));
    } else {
        state.settled = false;
        report(topic_problem(directory, errno));
    }
    return state.children;
}

void LiveStore::miss(const std::string &directory, const Problem &problem)
{
    forget_directory(directory);
    if (problem.kind != kNothing)
        report(problem);
}

void LiveStore::take(DirectoryState &state, StoreDirectory now)
{
    drop_files(state, now.files);
    state.files.clear();
    for (const StoreFile &file : now.files) {
        follow(file);
        state.files.push_back(file.topic);
    }
    std::ranges::sort(now.directories);
    for (const std::string &child : state.children)
        if (!std::ranges::binary_search(now.directories, child))
            forget_directory(child);
    state.children = std::move(now.directories);
}

void LiveStore::forget_directory(const std::string &directory)
{
    const auto forget_in = [&directory](auto &kept) {
        if (directory.empty())
            return kept.clear();
        kept.erase(directory);
        // Sorted, the names below it stand together.
        kept.erase(kept.lower_bound(directory + '/'), kept.lower_bound(directory + kBehindSlash));
    };
    row_.clear();
    forget_in(topics_);
    forget_in(directories_);
    forget_in(refused_);
}

void LiveStore::follow(const StoreFile &file)
{
    const auto known = topics_.find(file.topic);
    if (known != topics_.end() && known->second.reader.inode() == file.inode)
        return;
    forget(file.topic); // another file took its name
    open(file.topic);
}

void LiveStore::open(const std::string &topic)
{
    Problem problem;
    auto reader = SegmentReader::open(opener_, topic, problem, means_left());
    if (reader) {
        refused_.erase(topic);
        row_.clear();
        topics_.insert_or_assign(topic, LiveTopic{topic, std::move(*reader), {}, true, false});
    } else if (problem.kind == kNothing) {
        refused_.erase(topic); // its directory will show it, should it come back
    } else {
        refused_.insert(topic);
        report(problem);
    }
}

void LiveStore::drop_files(const DirectoryState &state, const std::vector<StoreFile> &now)
{
    std::set<std::string_view> there;
    for (const StoreFile &file : now)
        there.insert(file.topic);
    for (const std::string &topic : state.files)
        if (!there.contains(topic)) {
            forget(topic);
            refused_.erase(topic);
        }
}

void LiveStore::drop_lost()
{
    for (const std::string &topic : std::exchange(lost_, {})) {
        forget(topic);
        refused_.insert(topic);
    }
}

void LiveStore::forget(const std::string &topic)
{
    row_.clear();
    topics_.erase(topic);
}

const std::vector<LiveTopic *> &LiveStore::in_a_row()
{
    if (row_.empty())
        for (auto &[name, live] : topics_)
            row_.push_back(&live);
    return row_;
}

void LiveStore::report_if_stuck(LiveTopic &live)
{
    if (std::exchange(live.was_stuck, true))
        return;
    const auto snapshot = live.reader.read();
    if (snapshot && snapshot->condition == Condition::busy)
        report(value_problem(live.topic, *snapshot));
    else
        live.was_stuck = false; // only written often
}

void LiveStore::report(const Problem &problem)
{
    if (told_.insert(problem.text).second)
        problems_.push_back(problem);
}

std::vector<Problem> LiveStore::take_problems()
{
    std::ranges::sort(problems_, {}, &Problem::text);
    return std::exchange(problems_, {});
}

} // namespace kp::tool
