#include "live_store.h"

#include "time_text.h"

#include <algorithm>

namespace kp::tool {

namespace {

// Directory times move in steps of the kernel's clock tick, at most 10 ms.
constexpr uint64_t kClockTickUs = 20'000;

uint64_t to_us(const timespec &time)
{
    return static_cast<uint64_t>(time.tv_sec) * kUsPerSecond +
           static_cast<uint64_t>(time.tv_nsec) / 1000;
}

bool same_time(const timespec &a, const timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace

void LiveStore::refresh()
{
    opener_ = TopicOpener(); // the directory that it kept may be another one by now
    refresh_directory("");
}

void LiveStore::refresh_directory(const std::string &directory)
{
    Problem problem;
    struct stat status;
    const UniqueFd fd = open_store_directory(directory, problem);
    if (!fd || fstat(fd.get(), &status) != 0) {
        forget_directory(directory);
        if (problem.code != kNothing)
            report(problem);
        return;
    }
    DirectoryState &state = directories_[directory];
    if (!state.settled || !same_time(status.st_mtim, state.changed)) {
        state.changed = status.st_mtim;
        state.settled = to_us(status.st_mtim) + kClockTickUs < now_us();
        scan(directory, state);
    }
    const std::vector<std::string> children = state.children;
    for (const std::string &child : children)
        refresh_directory(child);
}

void LiveStore::scan(const std::string &directory, DirectoryState &state)
{
    Problem problem;
    auto entries = list_directory(directory, problem);
    if (!entries) {
        if (problem.code != kNothing)
            report(problem);
        return;
    }
    std::erase_if(entries->files,
                  [this](const StoreFile &file) { return !selection_.covers(file.topic); });
    drop_files(state, entries->files);
    state.files.clear();
    for (const StoreFile &file : entries->files) {
        follow(file);
        state.files.push_back(file.topic);
    }
    std::erase_if(entries->directories,
                  [this](const std::string &child) { return !selection_.may_cover_below(child); });
    for (const std::string &child : state.children)
        if (std::find(entries->directories.begin(), entries->directories.end(), child) ==
            entries->directories.end())
            forget_directory(child);
    state.children = std::move(entries->directories);
}

void LiveStore::forget_directory(const std::string &directory)
{
    const auto below = [&directory](const auto &entry) {
        return directory.empty() || entry.first == directory ||
               entry.first.starts_with(directory + "/");
    };
    std::erase_if(topics_, below);
    std::erase_if(directories_, below);
}

void LiveStore::follow(const StoreFile &file)
{
    const auto known = topics_.find(file.topic);
    if (known != topics_.end() && known->second.view.inode() == file.inode)
        return;
    Problem problem;
    auto view = SegmentView::open(opener_, file.topic, problem);
    if (!view) {
        if (problem.code == kNothing || refused_[file.topic] == file.inode)
            return;
        refused_[file.topic] = file.inode;
        report(problem);
        return;
    }
    LiveTopic &live = topics_[file.topic];
    live = {file.topic, std::move(*view), {}, true, false};
}

void LiveStore::drop_files(const DirectoryState &state, const std::vector<StoreFile> &now)
{
    std::set<std::string_view> there;
    for (const StoreFile &file : now)
        there.insert(file.topic);
    for (const std::string &topic : state.files)
        if (!there.contains(topic))
            topics_.erase(topic);
}

void LiveStore::drop_lost()
{
    for (const std::string &topic : lost_)
        topics_.erase(topic);
    lost_.clear();
}

void LiveStore::report(const Problem &problem)
{
    if (told_.insert(problem.text).second)
        problems_.push_back(problem);
}

std::vector<Problem> LiveStore::take_problems()
{
    return std::exchange(problems_, {});
}

} // namespace kp::tool
