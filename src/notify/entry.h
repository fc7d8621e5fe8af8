// The entries of the endpoint directory: telling a socket that was made anew from the one that had
// its name before, and connecting to each of them only once.
#pragma once

#include <array>
#include <cstdint>
#include <sys/stat.h>
#include <time.h>

struct kp_notify_t;

namespace kp {

constexpr std::size_t kEntryNameSize = 256; // of a directory entry, with its terminator

enum class Presence : uint8_t { unknown, absent, present };

// What one look found at a path. Device, inode and change time name the file, whatever path it has;
// some file systems give the next socket the inode of the last one.
struct Entry {
    Presence presence;
    dev_t device;
    ino_t inode;
    timespec changed;
    mode_t mode;
    uid_t owner;
};

// Looks at the entry itself, not at what a link there points to.
Entry look_at(const char *path);

// Whether two looks found the same file, or both found none.
bool is_same(const Entry &one, const Entry &other);

// Says whether a connect may follow this entry. It may, unless the entry is a link that another
// user has put there.
bool may_follow(const Entry &entry);

// Who connects: the thread that opens the endpoint, with its scan of the directory, and the
// directory watch.
enum class Connector : uint8_t { opening, watch };
constexpr std::size_t kConnectorCount = 2;

// An entry that is connected, which stands at the place of its slot, or one that is just being
// connected, which stands at the place of its connector. A zero-filled one is free.
struct Claim {
    bool is_taken;
    Entry entry;
    std::array<char, kEntryNameSize> name;
};

enum class Claimed { now, being_connected, connected };

// Claims an entry for a connector, or says who has it. One that could not be looked at can be
// claimed again and again: two connections to a peer do less harm than none.
Claimed claim_entry(kp_notify_t &endpoint, Connector connector, const char *name,
                    const Entry &entry);

// Gives up the claim of a connector.
void drop_claim(kp_notify_t &endpoint, Connector connector);

// Puts a connection into the first free slot of `server_fds`, and the connector's claim with it.
// Returns the slot, or kSlotCount when none is free; the claim is then given up.
std::size_t settle_claim(kp_notify_t &endpoint, Connector connector, int fd);

// Empties a slot of `server_fds` with its claim. Returns its descriptor, the caller's now, or -1.
int free_server_slot(kp_notify_t &endpoint, std::size_t slot);

} // namespace kp
