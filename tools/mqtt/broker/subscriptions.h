// What the bridge has asked the broker to send: the filters that the rules want, those that are
// asked for a short time only, and which requests the broker has not answered yet. It also
// remembers what a connection that was lost has asked for, where the broker keeps that in a
// session.
#pragma once

#include "link/broker_link.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace kp::mqtt {

class Subscriptions {
  public:
    // On a new connection: asks for what the rules want, but for what is to come at last. A shared
    // tree is read at QoS 0, for which brokers do not limit how much may wait. If a broker kept
    // back some of the tree the bridge would remove tags that still exist.
    void ask_for(BrokerLink &link, std::vector<Subscription> wanted);
    // Whether a shared tree is among them.
    bool reads_tree() const
    {
        return reads_tree_;
    }
    // A shared tree has been read, and what comes from now on is to come as its rule says.
    void ask_for_good(BrokerLink &link);
    // Asks for the states of senders. Such a filter may take the bridge's own state, too, which
    // must not come before the messages that tell what the broker has kept.
    void ask_at_last(BrokerLink &link);
    // Asks for a topic that is of no rule. False when that cannot be asked.
    bool ask_shortly(BrokerLink &link, const Subscription &subscription);

    // The rules want others: asks for what is new and ends what is gone.
    void change(BrokerLink &link, std::vector<Subscription> wanted, bool at_last_too);

    // The filter that the broker has answered for; an empty text for a request that is not known.
    std::string answered(int id);
    void connection_lost()
    {
        unanswered_.clear();
    }

    // For a broker that keeps a session: what it has of this topic, or of all that is not among
    // `wanted`, is to be ended on the next connection.
    void leave_behind(const std::string &filter);
    void leave_behind_all_but(const std::vector<Subscription> &wanted);
    // Ends what was left behind, where the broker has the session.
    void end_what_is_left(BrokerLink &link);

  private:
    void ask(BrokerLink &link, const Subscription &subscription);

    std::vector<Subscription> asked_for_;             // on this connection, as the rules want them
    std::unordered_map<int, std::string> unanswered_; // filters by the id of the request
    std::vector<std::string> left_behind_;            // asked for on a connection that was lost
    bool reads_tree_ = false;
};

} // namespace kp::mqtt
