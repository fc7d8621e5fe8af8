// The topics that the broker keeps a value of because of this bridge, in a small file, so that
// those that go while the bridge does not run are cleared when it does again. It also remembers
// which of them had providers, so that the next run can tell a value whose providers have left from
// one that an instant write made, and which topics of a shared tree have their value from there.
//
// The file is a journal. A line is appended before the message goes, and the file is written anew
// when it has grown stale. The sign that begins a line says what is so from then on:
//   +name  the broker keeps a value of the topic
//   =name  the same, and the topic had providers
//   <name  the topic of a shared tree has its value from there
//   -name  nothing of these any more
//   @time  until then a run that has not left knew where every value of the store came from, but it
//          never caught up with what came before it
//   ~time  the same of a run that had caught up
//   @      that run has left in order
#pragma once

#include "base/journal.h"
#include "common/result.h"
#include "layout/unique_fd.h"

#include <cstdint>
#include <memory>
#include <optional>
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
    // Until when an earlier run knew where every value of the store came from: from the broker, or
    // from this device. In microseconds since the epoch; 0 where there was none. One that was
    // killed may have known it until its last sign of life, but not if it had not caught up.
    uint64_t last_used() const
    {
        return last_used_;
    }
    bool had_caught_up() const
    {
        return had_caught_up_;
    }
    // This run begins, and knows what was known until a time, in the same unit.
    void start(uint64_t known_until);
    // It has caught up with what came before it.
    void catch_up(uint64_t time);
    // It leaves in order.
    void leave(uint64_t time);
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
    explicit StateFile(const std::string &path) : path_(path), journal_(path)
    {
    }
    std::string open_and_load();
    Journal::Whole whole() const;
    size_t size() const
    {
        return topics_.size() + taken_.size();
    }
    void load(const std::string &line);
    bool apply(char sign, const std::string &topic);
    void append(char sign, const std::string &topic);
    void touch(uint64_t time) const;

    const std::string path_;
    UniqueFd lock_; // a file beside the state file, which itself is replaced now and then
    Journal journal_;
    bool failed_ = false; // said once
    std::unordered_set<std::string> topics_;
    std::unordered_set<std::string> provided_; // some of the topics
    std::unordered_set<std::string> taken_;    // none of the topics
    uint64_t last_used_ = 0;
    bool had_caught_up_ = true;
    // Of this run, before it leaves.
    struct Knowledge {
        uint64_t until;
        bool has_caught_up;
    };
    std::optional<Knowledge> knowledge_;
};

} // namespace kp::mqtt
