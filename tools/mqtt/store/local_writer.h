// Owns the bridge's only handle. Both directions pass through it:
//  - Inwards it writes to the store, on a thread of its own: values from the broker, and the
//    bridge's own state. Sending a notice waits for a local peer that does not read. Such a peer
//    then delays what comes in, but never what goes out, nor the connection. What waits is a map
//    with the newest value of each tag.
//  - Outwards the way of a value begins here: the handle's callback, changed(), marks the buckets
//    of each notice in NoticeMarks, from which the bridge's own thread takes them.
#pragma once

#include "base/clock.h"
#include "base/counters.h"
#include "common/device/notice_marks.h"
#include "store/store_writer.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

namespace kp::mqtt {

class LocalWriter {
  public:
    // Joins the device's endpoints; null with a log line when that fails. The record of the tags
    // that the bridge provides may be null.
    static std::unique_ptr<LocalWriter> start(const std::string &endpoint, tool::NoticeMarks &marks,
                                              Counters &counters, HandleRecord *record = nullptr);
    // The same without a thread: what waits is written when work_off() is called.
    static std::unique_ptr<LocalWriter> join(const std::string &endpoint, tool::NoticeMarks &marks,
                                             Counters &counters, HandleRecord *record = nullptr);
    void work_off();
    ~LocalWriter();
    LocalWriter(const LocalWriter &) = delete;
    LocalWriter &operator=(const LocalWriter &) = delete;

    void put(const std::string &tag, WriteRequest request);

    // Gives the value of the tag another quality if it is one that put() has brought, or is about
    // to bring. What was written here since keeps its own.
    void set_quality(const std::string &tag, uint8_t quality);

    // Closes the bridge's own provider tag, if it has one, so that the topic is removed. If others
    // have the topic open its value is removed, unless one of them may be its provider. With
    // `left_over` it is removed even if a provider is counted: the count may come from a bridge
    // that was killed.
    void drop(const std::string &tag, bool left_over = false);
    // Says whether drop() was called for the tag and is not carried out yet.
    bool is_dropping(const std::string &tag) const;

    // Closes the bridge's own provider tag, since a program of this device provides the topic. From
    // then on it lives and goes with that one. A value that is put later is written as to any tag
    // of others.
    void give_over(const std::string &tag);

    // From now on the value of the tag is not the broker's: the broker has lost it.
    void forget(const std::string &tag)
    {
        store_.forget(tag);
    }

    // Says whether a run that was killed may still be counted as a provider of the name's tag.
    bool is_left(const std::string &name) const
    {
        return store_.is_left(name);
    }

    // The message whose value stands in the store; nothing when it is not what put() has brought
    // there.
    std::optional<MessageKey> key_of(const std::string &tag, const Sample &sample) const
    {
        return store_.key_of(tag, sample);
    }
    // Whether something waits to be written to the tag, or is being written.
    bool is_busy_with(const std::string &tag) const;

    // The tags of a shared tree whose last value was not written, since they had a newer one of
    // this device by then. That one may be gone again before anybody has seen it.
    std::vector<std::string> take_outrun();

    // Says how long the thread has been working on its present round of writes.
    std::chrono::milliseconds busy_for(Clock::time_point now) const;

    // Writes what waits and ends the thread. False when a peer keeps it from ending: the process
    // must then leave without destroying this object, which the thread still uses.
    bool stop(std::chrono::milliseconds patience);

  private:
    struct Request {
        std::optional<WriteRequest> write;
        std::optional<uint8_t> quality; // without `write`; without both the tag is dropped
        bool left_over = false;
    };
    using Requests = std::unordered_map<std::string, Request>;

    LocalWriter(kp_t *handle, tool::NoticeMarks &marks, Counters &counters, HandleRecord *record)
        : marks_(marks), counters_(counters), handle_(handle), store_(handle, counters, record)
    {
    }
    static int changed(kp_t *, const kp_write_info *notice, void *self);
    void run();
    void carry_out(const std::string &name, const Request &request);

    tool::NoticeMarks &marks_;
    Counters &counters_;
    kp_t *const handle_;
    StoreWriter store_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable ended_;
    bool stop_ = false;
    bool has_ended_ = false;
    std::optional<Clock::time_point> busy_since_;
    Requests waiting_;
    std::vector<std::string> giving_over_;
    const Requests *in_work_ = nullptr; // the thread's present round
    std::set<std::string> dropping_;
    std::vector<std::string> outrun_;
    std::thread thread_;
};

} // namespace kp::mqtt
