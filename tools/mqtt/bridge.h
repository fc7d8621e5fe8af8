// Joins the parts: one loop that waits for changes of tags, for the broker and for signals.
#pragma once

#include "answers/answers.h"
#include "broker/broker_session.h"
#include "common/system/service_manager.h"
#include "config/configuration.h"
#include "inbound/inbound.h"
#include "mesh/unheard_endpoints.h"
#include "outbound/publications.h"
#include "outbound/settled_dictionary.h"
#include "outbound/shared_tags.h"
#include "status_tags.h"
#include "store/local_writer.h"
#include "store/store_reader.h"
#include "topics/state_file.h"
#include "topics/store_changes.h"
#include "topics/topic_table.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kp::tool {
class Signals;
} // namespace kp::tool

namespace kp::mqtt {

// DEVICE/BOOT: who a message comes from.
std::string make_origin(const std::string &device);

class Bridge {
  public:
    // Everything given by reference must outlive the bridge. `last_alive` says when an earlier run
    // was, in microseconds since the epoch.
    Bridge(Configuration configuration, StateFile &state, tool::NoticeMarks &marks,
           LocalWriter &writer, Counters &counters, uint64_t last_alive);
    Bridge(const Bridge &) = delete;
    Bridge &operator=(const Bridge &) = delete;

    // Runs until a signal says to leave. A signal that says to reload takes over what `load` gives.
    // Returns a configuration where that needs another bridge in place of this one.
    std::optional<Configuration> run(const tool::Signals &signals,
                                     const std::function<ConfigurationResult()> &load);

    // To be called after run(), when nothing is written to the store any more: notes which values
    // are this device's own and were not sent.
    void leave_behind();

  private:
    SessionEvents session_events();
    InboundEvents inbound_events();
    void go_online(bool kept, bool has_read);
    int poll_timeout(Clock::time_point now) const;
    // Says whether a signal has come.
    bool wait(int signal_fd);
    void reload(ConfigurationResult loaded, Clock::time_point now);
    void take_over(Configuration configuration, bool connects_anew, Clock::time_point now);
    void turn(Clock::time_point now);
    void look_for_changes(Clock::time_point now);
    void send_answers();
    void send_values(Clock::time_point now);
    void give_over_tags();
    void tick(Clock::time_point now);
    void take_over_dictionary(Clock::time_point now);
    void use_dictionary(Clock::time_point now);
    void show_status(Clock::time_point now, bool is_connected);

    Configuration configuration_; // the parts refer to it, and are told when it changes
    StateFile &state_;
    LocalWriter &writer_;
    Counters &counters_;
    const std::string origin_;
    StoreReader reader_;
    PendingNames pending_;
    SettledDictionary dictionary_;
    TopicTable topics_;
    SharedTags shared_;
    Publications publications_;
    const std::shared_ptr<Answers> answers_;
    Inbound inbound_;
    StoreChanges changes_;
    BrokerSession session_;
    UnheardEndpoints unheard_;
    StatusTags status_;
    tool::ServiceManager manager_;

    Clock::time_point next_tick_{};
    std::optional<Configuration> successor_; // a configuration for which another bridge is needed
    // Before, nobody knows which values an earlier run that was killed has got from the broker.
    bool has_been_online_ = false;
    bool more_to_send_ = false;
    bool reported_stuck_ = false;
};

} // namespace kp::mqtt
