// Tells the device's other processes of what was written here. It has a thread of its own, since
// sending waits for a peer that does not read its notices, and no client shall wait for that.
#pragma once

#include "common/writing/notice_sender.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kp::web {

struct Written {
    std::string topic;
    std::string spelling; // the topic as it was given
    bool is_new = false;  // it was declared by the write
};

// Its functions are to be called by one thread.
class Announcer {
  public:
    // Joins the device's endpoints.
    Announcer();
    Announcer(const Announcer &) = delete;
    Announcer &operator=(const Announcer &) = delete;
    // Tells what it has still to tell. A peer that does not let it go on is left behind.
    ~Announcer();

    // Says why nobody would hear of a write now; empty when nothing stands in the way.
    std::string obstacle();
    void tell(Written written);
    // Gives what went wrong since the last call, for the log.
    std::vector<std::string> take_problems();

  private:
    void work(const std::stop_token &stop);
    bool join(std::unique_lock<std::mutex> &lock);
    void tell_all(std::unique_lock<std::mutex> &lock);

    tool::NoticeSender sender_{"web"}; // the thread's

    std::mutex mutex_; // guards what follows
    std::condition_variable_any changed_;
    std::vector<Written> waiting_;
    std::vector<std::string> problems_;
    std::string join_problem_;
    uint64_t busy_since_us_ = 0;                    // 0 while it does not send
    std::chrono::milliseconds join_patience_{2000}; // of the next who asks
    bool has_tried_ = false;                        // to join
    bool gives_up_ = false;                         // what is still to tell
    bool has_ended_ = false;

    std::jthread thread_;
};

} // namespace kp::web
