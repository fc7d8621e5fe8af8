// Joins the parts: one loop that waits for changes of tags, for the broker and for signals, and a
// connection that comes back.
//
// After a connection the order is: subscriptions, the state "online", then values. On a connection
// after the first, the retained state is read back before: where it is the will of the connection
// before, the broker has kept what it had, and only changes are sent; else everything is. Where it is
// the will of an attempt since then, it counts when the broker also has the last value that it took.
#pragma once

#include "broker/broker_link.h"
#include "change_marks.h"
#include "config/configuration.h"
#include "inbound/inbound.h"
#include "inbound/local_writer.h"
#include "outbound/outbound.h"
#include "outbound/state_file.h"
#include "providers/lost_providers.h"
#include "service_manager.h"
#include "status_tags.h"
#include "store_reader.h"

#include <memory>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

// DEVICE/BOOT: who a message comes from.
std::string make_origin(const std::string &device);

class Bridge final : private BrokerEvents {
  public:
    Bridge(const Configuration &configuration, Credentials credentials, StateFile &state,
           ChangeMarks &marks, LocalWriter &writer, Counters &counters);

    // Runs until a signal arrives at the descriptor. Returns the exit status.
    int run(int signal_fd);

  private:
    enum class Phase { waiting, connecting, asking, online };

    void connected() override;
    void acknowledged(int id, int reason) override;
    void subscribed(int id, const std::string &refusal) override;
    void received(Message message) override;
    void closed(const std::string &why, int refusal) override;

    bool can_send() const;
    int poll_timeout(Clock::time_point now) const;
    void wait(int signal_fd, bool &stop);
    void turn(Clock::time_point now);
    void look_at_marks(Clock::time_point now);
    void look_for_changes(Clock::time_point now);
    void keep_connection(Clock::time_point now);
    void connect(Clock::time_point now);
    void drop_connection(Clock::time_point now);
    bool asked_too_much(int refusal);
    void subscribe_all();
    bool is_subscribed(const std::string &filter) const;
    void ask_for_witness();
    bool tells_that_all_is_kept(const Message &state) const;
    void go_online(bool kept);
    void send_state(const char *text, bool wait_for_it);
    void send_values(Clock::time_point now);
    void tick(Clock::time_point now);
    void leave();
    Publication state_message(const char *text) const;

    const Configuration &configuration_;
    const Credentials credentials_;
    ChangeMarks &marks_;
    LocalWriter &writer_;
    Counters &counters_;
    const std::string origin_;
    StoreReader reader_;
    Outbound outbound_;
    Inbound inbound_;
    LostProviders lost_providers_;
    StatusTags status_;
    ServiceManager manager_;

    std::unique_ptr<BrokerLink> link_;
    Phase phase_ = Phase::waiting;
    Backoff backoff_;
    Clock::time_point phase_ends_{}; // when to connect, or to stop waiting for an answer
    Clock::time_point online_since_{};
    bool was_online_ = false;
    std::string connection_;      // names this one in the state topic, and the attempts before it
    std::string last_connection_; // the last one that was online
    std::optional<Publication> witness_; // what a broker that has kept everything must have
    bool has_witness_ = false;
    std::string close_reason_;
    int refusal_ = 0;
    bool is_closed_ = false;
    int state_qos_ = 1;          // both as far as the broker
    bool state_retained_ = true; // has not refused them
    std::string reported_;       // the last reason that was logged
    std::unordered_map<int, std::string> subscribing_;
    int state_id_ = 0; // the state message that leave() waits for

    Clock::time_point next_scan_{};
    Clock::time_point last_scan_{};
    Clock::time_point next_tick_{};
    bool more_to_send_ = false;
    bool reported_stuck_ = false;
};

} // namespace kp::mqtt
