// Owns the bridge's only handle. Both directions pass through it:
//  - Inwards it writes to the store, on a thread of its own: values from the broker, and the
//    bridge's own state. Sending a notice waits for a local peer that does not read. Such a peer
//    then delays what comes in, but never what goes out, nor the connection. What waits is a map
//    with the newest value of each tag.
//  - Outwards the way of a value begins here: the handle's callback, changed(), marks the buckets
//    of each notice in NoticeMarks, from which the bridge's own thread takes them.
//
// Topic `a` cannot be both a file and the directory of `a/b`. Its value is stored as `a/_` then.
// Which of the two a value goes to is decided here, when it is written, since the other topic can
// come in between.
#pragma once

#include "base/clock.h"
#include "base/counters.h"
#include "base/when_done.h"
#include "common/notice_marks.h"
#include "shared/shared_tree.h"
#include "store/brought_values.h"
#include "store/made_directories.h"
#include "store/sample.h"
#include "store/store_reader.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

namespace kp::mqtt {

struct WriteRequest {
    Sample sample;            // type, maximum, extra information, quality, source time, value
    bool is_declared = false; // by somebody: an instant write; else the bridge provides the tag
    unsigned messages = 0;    // how many messages it stands for; the last one has its value
    MessageKey key = 0;       // of the message, in a shared tree
    // If it is set, the value replaces only this one, or one from the broker. Any other value was
    // written here meanwhile: it is newer, stays and goes to the broker.
    std::optional<ValueMark> only_over;
    WhenDone when_done{}; // for this value, or a later one in its place
};

class LocalWriter {
  public:
    // Joins the device's endpoints; null with a log line when that fails.
    static std::unique_ptr<LocalWriter> start(const std::string &endpoint, tool::NoticeMarks &marks,
                                              Counters &counters);
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

    // From now on the value of the tag is not the broker's: the broker has lost it.
    void forget(const std::string &tag)
    {
        brought_.forget(tag);
    }

    // The message whose value stands in the store; nothing when it is not what put() has brought
    // there.
    std::optional<MessageKey> key_of(const std::string &tag, const Sample &sample) const
    {
        return brought_.key_of(tag, sample);
    }
    // Whether something waits to be written to the tag, or is being written.
    bool is_busy_with(const std::string &tag) const;

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
    struct Own {
        kp_tag_t *tag;
        uint32_t type;
    };

    LocalWriter(tool::NoticeMarks &marks, Counters &counters) : marks_(marks), counters_(counters)
    {
    }
    static int changed(kp_t *, const kp_write_info *notice, void *self);
    void run();
    void carry_out(const Requests &requests);
    void drop_now(const std::string &name, bool left_over);
    void set_quality_now(const std::string &name, uint8_t quality);
    void take_value_out(const std::string &tag, bool left_over);
    void close_own(const std::string &tag);
    bool may_write(const std::string &tag, const WriteRequest &request) const;
    bool write_value(const std::string &tag, const WriteRequest &request);
    void write(const std::string &name, const WriteRequest &request);
    bool write_in_place(const std::string &name, const WriteRequest &request);
    bool write_tag(const std::string &tag, const WriteRequest &request);
    struct Moving {
        std::string name;
        WriteRequest request;
    };
    std::optional<Moving> make_room(const std::string &name);
    kp_tag_t *provider(const std::string &tag, const WriteRequest &request);

    tool::NoticeMarks &marks_;
    Counters &counters_;
    StoreReader reader_;
    BroughtValues brought_;
    kp_t *handle_ = nullptr;
    std::unordered_map<std::string, Own> own_; // the thread's
    MadeDirectories made_;                     // the thread's
    bool must_notify_ = false;                 // the thread's: a provider's tag was written

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable ended_;
    bool stop_ = false;
    bool has_ended_ = false;
    std::optional<Clock::time_point> busy_since_;
    Requests waiting_;
    const Requests *in_work_ = nullptr; // the thread's present round
    std::set<std::string> dropping_;
    std::thread thread_;
};

} // namespace kp::mqtt
