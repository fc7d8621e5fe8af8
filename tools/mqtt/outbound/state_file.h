// The topics that the broker keeps a value of because of this bridge, in a small file, so that
// those that go while the bridge does not run are cleared when it does again. It also remembers
// which of them had providers, so that the next run can tell a value whose providers have left from
// one that an instant write made, and which topics of a shared tree have their value from there.
// The file is a journal: "+name", "=name" for one with providers, "<name" for one from there, and
// "-name", appended before the message goes, and written anew when it has grown stale.
#pragma once

#include "common/result.h"
#include "layout/unique_fd.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>

namespace kp::mqtt {

class StateFile {
  public:
    // Opens or makes the file and locks it: one bridge a file. An empty path keeps nothing.
    static tool::Result<std::unique_ptr<StateFile>> open(const std::string &path);

    void add(const std::string &topic, bool provided = false);
    void remove(const std::string &topic);
    // The value came from the broker, and no longer because of this bridge.
    void take(const std::string &topic);
    bool is_taken(const std::string &topic) const
    {
        return taken_.contains(topic);
    }
    const std::unordered_set<std::string> &taken() const
    {
        return taken_;
    }
    // When an earlier run last used the file, in microseconds since the epoch; 0 where none did.
    uint64_t last_used() const
    {
        return last_used_;
    }
    // Notes that this run was alive until a time, in the same unit.
    void touch(uint64_t time) const;
    bool has(const std::string &topic) const
    {
        return topics_.contains(topic);
    }
    // Whether the value that the broker keeps came from providers.
    bool is_provided(const std::string &topic) const
    {
        return provided_.contains(topic);
    }
    const std::unordered_set<std::string> &topics() const
    {
        return topics_;
    }

  private:
    explicit StateFile(std::string path) : path_(std::move(path))
    {
    }
    std::string open_and_load();
    std::string rewrite();
    void load(const std::string &text);
    bool apply(char sign, const std::string &topic);
    void append(char sign, const std::string &topic);

    std::string path_;
    UniqueFd lock_; // a file beside the state file, which itself is replaced now and then
    UniqueFd journal_;
    size_t lines_ = 0;
    bool failed_ = false; // said once
    std::unordered_set<std::string> topics_;
    std::unordered_set<std::string> provided_; // some of the topics
    std::unordered_set<std::string> taken_;    // none of the topics
    uint64_t last_used_ = 0;
};

} // namespace kp::mqtt
