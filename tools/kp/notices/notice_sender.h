// Sends a change notice to all peers of the device. Before, it gives them a moment to connect: an
// endpoint that is opened, sends and is closed at once reaches nobody.
#pragma once

#include "kp.h"
#include "running/problem.h"

#include <string>
#include <vector>

namespace kp::tool {

class NoticeSender {
  public:
    NoticeSender() = default;
    NoticeSender(const NoticeSender &) = delete;
    NoticeSender &operator=(const NoticeSender &) = delete;
    ~NoticeSender();

    // Marks a topic as written in three spellings: its name, its name with a leading "/", and the
    // name as it was given. A new topic is announced, too.
    void mark(const std::string &topic, const std::string &spelling, bool is_new);
    // Sends what was marked since the last time. The first time it joins the device's endpoints and
    // waits for them up to `wait_us`. False with a problem when no endpoint can be made, or when
    // peers did not come in time.
    bool send(uint64_t wait_us, Problem &problem);

  private:
    bool join(Problem &problem);
    void send_marks();
    bool wait_for_peers(uint64_t wait_us, Problem &problem) const;

    std::string name_;
    kp_notify_t *endpoint_ = nullptr;
    kp_write_info marks_{KP_MSG_WRITE_INFO, {}};
    std::vector<std::string> new_topics_;
    bool has_marks_ = false;
};

// The name of the endpoint with which the tool joins. No other process has the same, not even one
// in another container.
std::string own_endpoint_name(const char *verb);

} // namespace kp::tool
