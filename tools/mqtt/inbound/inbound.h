// From the broker to tags: what becomes of a message. What cannot become a value is refused with a
// line in the log and counted.
#pragma once

#include "base/counters.h"
#include "base/when_done.h"
#include "config/configuration.h"
#include "inbound/inbound_rules.h"
#include "inbound/staleness.h"
#include "messages/message.h"
#include "names/topic_names.h"
#include "outbound/shared_tags.h"
#include "store/local_writer.h"
#include "store/store_reader.h"

#include <functional>
#include <string>
#include <vector>

namespace kp::mqtt {

// What the writer of values is asked to do, and what it knows. All names are those that a topic
// gives; the writer finds their place in the store.
struct InboundEvents {
    std::function<void(const std::string &tag, WriteRequest request)> put;
    // With `left_over` also a value that an earlier run has left behind.
    std::function<void(const std::string &tag, bool left_over)> drop;
    // The broker has lost the value of a shared tag that lives on here.
    std::function<void(const std::string &tag)> cleared;
    // The value is as before, but its sender has gone or come back.
    std::function<void(const std::string &tag, uint8_t quality)> set_quality;
    // Whether a tag that can still be read is about to go.
    std::function<bool(const std::string &tag)> is_dropping;
    // Whether a run that was killed may still be counted as a provider of the tag.
    std::function<bool(const std::string &tag)> is_left = [](const std::string &) { return false; };
    // Who is to hear what becomes of a message.
    std::function<WhenDone(const Message &message, const InRule &rule)> listeners_for;
};

class Inbound {
  public:
    Inbound(const Configuration &configuration, const StoreReader &reader, SharedTags &shared,
            InboundEvents events, Counters &counters);

    std::vector<Subscription> subscriptions() const;

    // To be called when the rules have changed, while the old ones are still in memory. Values that
    // came through a rule that is gone are removed.
    void reload();
    // The broker has made a subscription, or refuses it.
    void answered_for(const std::string &filter, bool is_made);

    void receive(const Message &message);

    // Says whether there is a connection. Without one, values become stale if their rules say so.
    // When it is back, review() gives them the quality of their messages again.
    void set_connected(bool is_connected);
    void review();

    // Leaves a tag to the programs of this device that provide it. False where the bridge does not
    // provide it itself.
    bool give_over(const std::string &tag);

    // Gives up the tags of these topics, which the broker no longer keeps.
    void give_up(const std::vector<std::string> &topics);

  private:
    bool is_own(const Message &message) const;
    Name name_for(const InboundRule &rule, const std::string &topic) const;
    void take(InboundRule &rule, const std::string &name, const Message &message,
              WhenDone when_done);
    void ignore_own(const Message &message, const InRule &rule, const WhenDone &when_done);
    void take_shared(InboundRule &rule, const std::string &name, const Message &message);
    void write(InboundRule &rule, const std::string &name, const Message &message,
               ReadOutcome outcome, const Sample &current, WriteRequest request);
    void lose(InboundRule &rule, const std::string &name, const std::string &tag,
              const std::string &topic, const Sample &current);
    void drop(InboundRule &rule, const std::string &name, bool left_over);
    ReadOutcome look(const std::string &name, const std::string &tag, Sample &current) const;
    bool is_ours_alone(const InboundRule &rule, const std::string &name,
                       const Sample &current) const;
    bool is_superfluous(const std::string &tag, const Message &message, const Sample &current,
                        const WriteRequest &request) const;
    void refuse(const std::string &topic, const std::string &why, const WhenDone &when_done);

    const Configuration &configuration_;
    const StoreReader &reader_;
    SharedTags &shared_;
    const InboundEvents events_;
    Counters &counters_;
    InboundRules rules_;
    Staleness staleness_;
};

} // namespace kp::mqtt
