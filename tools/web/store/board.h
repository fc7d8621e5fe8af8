// The topics that the page and the programs may see, each with the number of its last change.
// Whoever follows them only has to remember one number, so a client costs next to nothing, however
// many topics there are, and a slow one is given the newest value and nothing in between.
#pragma once

#include "common/clock.h"
#include "common/dictionary/live_dictionary.h"
#include "common/store/live_store.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <set>
#include <string>

namespace kp::web {

class Board {
  public:
    struct Entry {
        std::string topic = {};
        uint64_t sequence = 0; // of the last change
        std::size_t id = 0;    // small, for a bit in a client's memory
        bool is_gone = false;
        std::shared_ptr<const std::string> event = nullptr; // made when somebody wants it
    };

    Board(tool::Selection shown, tool::DictionaryPlace dictionary);

    // Finds the topics that are new or gone, without a look at their values.
    void refresh();
    // Does the same, and finds what was written since the last look.
    void look();

    // A client that follows changes says how often with follow(), and takes it back with
    // unfollow().
    void follow(uint64_t interval_us)
    {
        intervals_.insert(interval_us);
    }
    void unfollow(uint64_t interval_us)
    {
        intervals_.erase(intervals_.find(interval_us));
    }
    std::size_t follower_count() const
    {
        return intervals_.size();
    }
    // Says after how long the next look is due, or the next refresh when nobody follows.
    uint64_t interval_us() const
    {
        return intervals_.empty() ? kIdleUs : std::min(kIdleUs, *intervals_.begin());
    }

    // Gives the number of the newest change.
    uint64_t sequence() const
    {
        return sequence_;
    }
    // Gives the number of the last change that is forgotten: a topic that went is remembered only
    // for some time.
    uint64_t forgotten() const
    {
        return forgotten_;
    }
    // Gives the change that comes after one, or null.
    const Entry *next_after(uint64_t sequence) const;
    // Gives the change as a server-sent event.
    std::shared_ptr<const std::string> event_of(const Entry &entry);
    // Goes up whenever a topic comes or goes, or the dictionary is another one.
    uint64_t generation() const
    {
        return generation_;
    }
    // Changes when the entries get other ids, which happens seldom.
    uint64_t numbering() const
    {
        return numbering_;
    }
    std::size_t refused_count() const
    {
        return store_.refused_count();
    }
    // Gives a text that tells this run of the program from others.
    const std::string &instance() const
    {
        return instance_;
    }
    // Gives the topics that the last refresh found.
    const std::map<std::string, tool::LiveTopic> &topics() const
    {
        return store_.topics();
    }
    bool shows(std::string_view topic) const
    {
        return shown_.covers(topic);
    }
    const tool::Dictionary &dictionary() const
    {
        return *dictionary_.current();
    }
    // Gives what could not be read, or not be understood in the dictionary, since the last call.
    std::vector<std::string> take_problems();

  private:
    // Often enough that the memory of topics that were removed is not held for long.
    static constexpr uint64_t kIdleUs = 2 * tool::kUsPerSecond;

    void note_change(const std::string &topic);
    void move_to_end(Entry &entry);
    void follow_topics();
    void let_go(Entry &entry);
    void forget_oldest();
    void number_anew();

    const tool::Selection shown_;
    tool::LiveStore store_;
    tool::LiveDictionary dictionary_;
    const std::string instance_;
    std::map<std::string, Entry> entries_;
    std::map<uint64_t, Entry *> order_; // by sequence
    std::deque<std::pair<uint64_t, std::string>> gone_;
    std::size_t alive_ = 0;
    std::size_t next_id_ = 0;
    uint64_t sequence_ = 0;
    uint64_t forgotten_ = 0;
    uint64_t generation_ = 0;
    uint64_t numbering_ = 0;
    std::multiset<uint64_t> intervals_;
};

} // namespace kp::web
