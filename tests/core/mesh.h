// What the tests of handles, tags and topics stand on: handles that clean up after themselves, the
// bytes of the two notices, sockets that the test itself holds at both ends of a handle's mesh, and
// a writer that is none of the handle's tags.
#pragma once

#include "core/handle.h"
#include "core/tag.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/notices.h"
#include "testing/process.h"
#include "testing/segment_file.h"
#include "testing/unix_socket.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace kptest {

// Gives the same character `count` times.
std::string repeated(char character, std::size_t count);

// Gives a notice as the library receives it.
const uint8_t *bytes_of(const std::string &notice);
const kp_write_info *as_write_info(const std::string &notice);

// What a handle's change callback was given. A callback while no recorder exists is ignored.
class CallbackRecorder {
  public:
    struct Call {
        kp_t *handle;
        std::string notice;
        void *user_data;
    };

    CallbackRecorder();
    CallbackRecorder(const CallbackRecorder &) = delete;
    CallbackRecorder &operator=(const CallbackRecorder &) = delete;
    ~CallbackRecorder();

    // The callback to give to kp_new().
    static int callback(kp_t *handle, const kp_write_info *notice, void *user_data);

    // Runs in each callback, after it was recorded.
    void on_call(std::function<void(kp_t *, const kp_write_info *)> action);

    std::vector<Call> calls() const;
    bool wait_for(std::size_t count) const;

  private:
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    std::function<void(kp_t *, const kp_write_info *)> action_;
};

// A handle whose threads have all started. At its end it destroys its tags and itself.
class Handle {
  public:
    explicit Handle(const char *name = "self", kp_callback_t callback = CallbackRecorder::callback);
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle();

    operator kp_t *() const
    {
        return handle_;
    }
    kp_t *operator->() const
    {
        return handle_;
    }
    // Destroys the handle early, and leaves its tags alone.
    int32_t destroy();

  private:
    kp_t *handle_;
};

// A listening socket beside the handles', to which each of them connects. Made before a handle, it
// is found while the handle starts, so accept() finds the connection waiting.
class Peer {
  public:
    explicit Peer(const std::string &name = "peer");
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    ~Peer();

    // Gives the connection on which the next handle receives.
    UnixSocket accept() const
    {
        return listener_.accept();
    }

  private:
    std::string path_;
    UnixSocket listener_;
};

// Makes a connection on which the test receives what a handle sends; the handle has accepted it.
UnixSocket listen_to(kp_t *handle);

// Stops the next opening of a segment in its middle, whichever thread it is on: until release(), or
// for 300 ms if somebody waits for that thread meanwhile.
class HeldOpening {
  public:
    // Waits until a thread is held.
    bool has_begun() const;
    void release();

  private:
    void hold();

    std::atomic<bool> begun_{false};
    std::atomic<bool> released_{false};
    Before mapping_{Call::mmap, [this] { hold(); }};
};

// Subscribes to a pattern, which takes effect whether there is a store to scan or not.
void follow(kp_t *handle, const char *pattern);

// Gives every tag of a handle by its topic, newest first within a bucket.
std::vector<std::string> topics_of(kp_t *handle);

// Gives the subscriptions of a handle, from the head of each list.
std::vector<std::string> plain_subscriptions_of(kp_t *handle);
std::vector<std::string> patterns_of(kp_t *handle);

// Gives the buckets marked in a handle's outgoing notice.
std::vector<uint32_t> marks_of(kp_t *handle);

// Another process's provider, as far as a segment can tell: declares a topic and writes it without
// a tag. Every write is newer than the ones before and than any tag's opening.
class Writer {
  public:
    explicit Writer(std::string topic, uint32_t value_type = KP_TYPE_INT32,
                    uint32_t max_value_size = 4);
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    ~Writer();

    void write(int32_t value, uint8_t quality = KP_QUALITY_GOOD);

  private:
    std::string topic_;
    kp_shm_t *shm_;
};

// Gives the first bytes of a segment's value as a number.
int32_t stored_int(const std::string &topic);

} // namespace kptest
