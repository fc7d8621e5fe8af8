// The tries to connect to one peer, which the scan at an endpoint's opening makes one after another
// and the directory watch for many peers side by side.
#pragma once

#include "notify/entry.h"
#include "support/fork.h"

#include <array>
#include <cstdint>
#include <sys/un.h>

struct kp_notify_t;

namespace kp {

struct LogSite;

// A file is tried so often, and the pause after each try is so long. In this time a peer that is
// just starting can bind its socket and listen on it.
constexpr int kTries = 3;
constexpr int64_t kPauseMs = 1000;

// A socket's file appears with bind(); its owner needs a moment more to listen.
constexpr uint32_t kListenDelayUs = 1000;

// What is known of a name between its tries.
struct Attempt {
    std::array<char, kEntryNameSize> name;
    sockaddr_un address;
    Entry tried;      // the file on which the tries so far failed
    int32_t failures; // how many of them, in a row
    int32_t error;    // why the last one did
    int32_t waits;    // looks that found no fault with the file, but could not connect to it
    int64_t due_ms;   // when the next look is due, by the monotonic clock
};

// Makes an attempt that has not been tried yet. A path that is too long is cut, with a log line.
Attempt begin_attempt(const char *name, LogSite site);

enum class Tried : uint8_t { connected, known, being_connected, absent, failed };

// Tries once to connect `fd`. `known` is an entry that has its connection already. After
// `connected` the entry is claimed, which take_in() settles.
Tried try_once(kp_notify_t &endpoint, Connector connector, Attempt &attempt, const OwnFd &fd);

// Puts a connection into its slot and announces it to the receive thread.
void take_in(kp_notify_t &endpoint, Connector connector, OwnFd fd, LogSite site);

// Says whether the last try failed because the peer's backlog is full, or because a signal came
// while this thread waited for room in it. Both tell that the peer is alive.
bool is_busy(const Attempt &attempt);

// Says that the peer is alive but takes no connections.
void report_busy(const Attempt &attempt, LogSite site);

// Ends the tries on a file: logs why, and removes the file when no process can be behind it. False
// when another file has taken its name, which was not tried yet.
bool give_up(const Attempt &attempt, LogSite site);

// Connects to the peer whose socket has this file name, and waits for each try. A socket that does
// not answer is removed if nobody can be behind it any more.
void connect_to(kp_notify_t &endpoint, const char *name);

} // namespace kp
