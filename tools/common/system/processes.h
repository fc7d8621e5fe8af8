// The processes of the device with their programs and users, the segments that they map and the
// sockets that they hold. All this comes from /proc, which shows processes of other users only to
// root.
#pragma once

#include "common/system/file_id.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kp::tool {

struct Process {
    pid_t pid = 0;
    uid_t uid = 0;
    std::string program;
    std::string user;
    char state = '?'; // R S D T Z ...
};

Process process_of(pid_t pid);
// When a process started, in clock ticks since the boot; 0 if it has ended. The time tells it from
// a later process with the same number.
uint64_t start_of(pid_t pid);
std::string user_name(uid_t uid);
std::string group_name(gid_t gid);
// The permission bits in octal.
std::string mode_text(mode_t mode);

// The present children of a process, with those that have ended but that nobody has waited for.
std::vector<pid_t> children_of(pid_t parent);

// The groups that a process's rights come from; nothing when it has ended.
std::optional<std::set<gid_t>> groups_of(pid_t pid);

// "1234 program (user)"
std::string process_text(const Process &process);

// "1 process shows only to root", "3 processes show only to root"
std::string hidden_processes_text(std::size_t count);

// One process's mappings of one segment. The library maps a segment, writable, once for each open
// handle.
struct Mapper {
    pid_t pid;
    unsigned writable = 0;
    unsigned read_only = 0;
    bool deleted = false;  // the file has been removed since
    bool is_store = false; // the file lies, or lay, in the store
};

struct Mappers {
    std::map<FileId, std::vector<Mapper>> of_file; // files of `device` only
    std::map<pid_t, std::size_t> mappings;         // all of a process's, whatever they map
    std::vector<pid_t> unreadable;                 // processes that only root may look into

    // Who maps a file; nobody where it is not among those seen. Valid as long as this is unchanged.
    std::span<const Mapper> of(const FileId &file) const;

    // The handles that all processes have open on a segment, as far as can be seen.
    unsigned open_handles(const FileId &file) const;
};

// Every process's mappings of files on one file system.
Mappers find_mappers(dev_t device);

// What the processes hold open.
struct Descriptors {
    struct Use {
        std::size_t open = 0;
        std::size_t inotify = 0; // instances of it
    };
    std::map<ino_t, std::vector<pid_t>> of_socket; // who holds it, by its inode
    std::map<pid_t, Use> of_process;
    std::vector<pid_t> unreadable; // processes that only root may look into
};
Descriptors find_descriptors();

// How many descriptors a process may have open; nothing for one that has ended or has no limit.
std::optional<std::size_t> descriptor_limit(pid_t pid);

// Says whether every process that could share files with this one has a number here.
bool sees_all_processes();
// Says whether this process may look into all of them.
bool may_look_into_all_processes();

} // namespace kp::tool
