// Connects the shared tree with the tags: in which state each tag is, what a message does with it,
// whether its value may be sent, and what differs after a connection has come back.
#pragma once

#include "config/configuration.h"
#include "messages/message.h"
#include "shared/shared_tree.h"
#include "store/local_writer.h"
#include "store/store_reader.h"
#include "topics/pending.h"
#include "topics/state_file.h"
#include "topics/topic_table.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace kp::mqtt {

// A tag as it stands in the store.
struct TagLook {
    // Something waited to be written to it, or was being written, before it was read.
    bool is_settling = false;
    ReadOutcome outcome = ReadOutcome::missing;
    Sample sample{};
};

class SharedTags {
  public:
    // `writer` may be null if nothing comes from the broker. `last_alive` is a time in microseconds
    // since the epoch: an earlier run has seen all values that were written until then.
    SharedTags(const Configuration &configuration, const StoreReader &reader,
               const LocalWriter *writer, StateFile &state, PendingNames &pending,
               TopicTable &topics, uint64_t last_alive);

    // Says whether the tag's own messages have the same topic as the messages that come for it. If
    // not, the rules connect two trees, and the order of their messages says nothing.
    bool is_one_tree(const InRule &rule, const std::string &tag, const std::string &topic) const;

    // Says whether something waits to be written to the tag, or is being written: what the store
    // holds says nothing until then. Only the bridge's own thread asks for such writes. So it has
    // to ask this before it reads the tag; afterwards the write may have been done in between.
    bool is_settling(const std::string &tag) const
    {
        return writer_ && writer_->is_busy_with(tag);
    }
    TagLook look_at(const std::string &tag) const;

    Effect received(const Message &message, const std::string &tag, const TagLook &look,
                    Clock::time_point now);
    // The value of a message has been taken for the tag, or the tag goes.
    void taken(const std::string &topic)
    {
        state_.take(topic);
    }
    void dropped(const std::string &topic)
    {
        left_over_.erase(topic);
        state_.remove(topic);
    }
    bool is_from_broker(const std::string &tag, const Sample &sample) const
    {
        return writer_ && writer_->key_of(tag, sample);
    }
    // Says whether a message that has the same value as the tag need not be written to it.
    bool has_already(const std::string &tag, const Sample &sample, MessageKey key) const
    {
        return !is_from_broker(tag, sample) || writer_->key_of(tag, sample) == key;
    }
    // Says whether the value is one that an earlier run has taken from the broker and left behind.
    bool is_left_over(const std::string &topic, const Sample &sample) const;
    // Says whether the value came from the broker, which still has it.
    bool is_known(const OutTopic &topic, const Sample &sample) const;
    // Says whether the broker's value is one that this device has sent.
    bool has_own_last(const std::string &topic) const
    {
        return tree_.has_own_last(topic);
    }
    // Says whether the broker keeps a value of another device whose tag has been removed here.
    bool is_removed(const std::string &topic) const;

    void sent(const Publication &publication, Clock::time_point now);
    void refused(const Publication &publication);
    void connection_lost()
    {
        tree_.connection_lost();
    }

    // Values that were written here and are not sent yet are this device's own, also for the next
    // run, which could take them for some that this one has got from the broker.
    void claim_unsent();

    // What the broker has kept is about to arrive.
    void start_reading()
    {
        tree_.start_reading();
    }
    // It has arrived, all of it if it is complete. Marks what the broker is to have or to lose, and
    // returns the topics that it no longer keeps and whose tags go therefore.
    std::vector<std::string> stop_reading(bool is_complete, Clock::time_point now);

  private:
    void recognise(const Message &message, const TagLook &look);
    Standing standing(const std::string &topic, const std::string &tag, const TagLook &look) const;
    std::vector<std::string> find_lost();
    void mark_live(bool is_complete, Clock::time_point now);
    void mark_gone(bool is_complete, Clock::time_point now);

    const Configuration &configuration_;
    const StoreReader &reader_;
    const LocalWriter *writer_;
    StateFile &state_;
    PendingNames &pending_;
    TopicTable &topics_;
    const uint64_t last_alive_;
    SharedTree tree_;
    // Values of an earlier run that are younger than its last sign of life, by topic.
    std::unordered_map<std::string, ValueMark> left_over_;
    bool is_first_reading_ = true; // of what the broker keeps
};

// Tells a message from every other: its origin's number for it, or what it holds.
MessageKey key_of(const Message &message);

} // namespace kp::mqtt
