// Sends a change notice to all peers of the device. Before, it gives them a moment to connect: an
// endpoint that is opened, sends and is closed at once reaches nobody.
#pragma once

#include "common/problem.h"
#include "kp.h"

#include <string>
#include <utility>
#include <vector>

namespace kp::tool {

class NoticeSender {
  public:
    // The verb stands in the name of its endpoint.
    explicit NoticeSender(std::string verb = "set") : verb_(std::move(verb))
    {
    }
    NoticeSender(const NoticeSender &) = delete;
    NoticeSender &operator=(const NoticeSender &) = delete;
    ~NoticeSender();

    // Marks a topic as written in three spellings: its name, its name with a leading "/", and the
    // name as it was given. A new topic is announced, too.
    void mark(const std::string &topic, const std::string &spelling, bool is_new);
    // Joins the device's endpoints, if that has not been done. Whoever knows early that there will
    // be something to send gives the peers the time to connect. False with a problem when no
    // endpoint can be made.
    bool join(Problem &problem);
    // Sends what was marked since the last time. The first time it joins, and waits for the peers
    // up to `wait_us`. False with a problem when no endpoint can be made, or when peers did not
    // come in time. A peer that does not read its notices holds it up.
    bool send(uint64_t wait_us, Problem &problem);

  private:
    bool open(const char *what, Problem &problem);
    void send_marks();
    bool wait_for_peers(uint64_t wait_us, Problem &problem) const;

    const std::string verb_;
    std::string name_;
    kp_notify_t *endpoint_ = nullptr;
    kp_write_info marks_{KP_MSG_WRITE_INFO, {}};
    std::vector<std::string> new_topics_;
    bool has_marks_ = false;
    bool has_waited_ = false;
};

// The name of the endpoint with which the tool joins. No other process has the same, not even one
// in another container.
std::string own_endpoint_name(const char *verb);

} // namespace kp::tool
