// The surroundings: directories that the wrong user owns, modes that lock others out, room and
// limits.
#include "common/device/free_space.h"
#include "common/device/unix_sockets.h"
#include "common/doctor/finding.h"
#include "common/system/processes.h"
#include "common/text/text.h"
#include "layout/segment.h"

#include <cerrno>
#include <fstream>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>

namespace kp::tool {

namespace {

constexpr rlim_t kFewDescriptors = 256; // 31 peers twice, and what the application needs
constexpr long kFewInotifyInstances = 64;
constexpr unsigned kFewShare = 10; // a tenth

bool is_open_to_all(mode_t mode)
{
    return (mode & S_IWOTH) && !(mode & S_ISVTX);
}

// A directory that all processes of the device share.
struct SharedDirectory {
    std::string path;
    const char *check;
    const char *mode_check;
    const char *mode;     // as it should be
    const char *contents; // what users who cannot list the directory miss
};

const SharedDirectory &store_directory()
{
    static const SharedDirectory store = {kStoreRoot, "store", "store-mode", "2775", "topics"};
    return store;
}

const SharedDirectory &providers_directory()
{
    static const SharedDirectory providers = {kEndpointRoot, "providers", "providers-mode", "3770",
                                              "peers"};
    return providers;
}

// Gives the directory's status, or nothing with a finding. If it cannot be looked at, the finding
// says what stays unknown because of that.
std::optional<struct stat> status_of(const SharedDirectory &directory, Finding missing,
                                     Findings &findings)
{
    struct stat status;
    const bool is_there = stat(directory.path.c_str(), &status) == 0;
    if (is_there && S_ISDIR(status.st_mode))
        return status;
    if (is_there || errno == ENOTDIR)
        findings.push_back(
            {Severity::error, directory.check, directory.path,
             "is not a directory, so there can be no " + std::string(directory.contents),
             "rm " + directory.path});
    else if (errno == ENOENT)
        findings.push_back(std::move(missing));
    return std::nullopt;
}

// Users of a class can list the directory if they may read it, and reach its entries if they may
// search it.
void check_access(const SharedDirectory &directory, const struct stat &status, Findings &findings)
{
    const mode_t mode = status.st_mode;
    const bool group_lists = (mode & S_IRGRP) && (mode & S_IXGRP);
    const bool others_list = (mode & S_IROTH) && (mode & S_IXOTH);
    if (group_lists || others_list)
        return;
    const bool is_closed = !(mode & (S_IXGRP | S_IXOTH));
    findings.push_back({Severity::warning, directory.mode_check, directory.path,
                        "mode " + mode_text(mode) +
                            (is_closed ? " keeps all users but " + user_name(status.st_uid) + " out"
                                       : " lets only " + user_name(status.st_uid) +
                                             " list it: others find no " + directory.contents),
                        std::string("chmod ") + directory.mode + " " + directory.path});
}

void check_store_directory(Findings &findings)
{
    const std::string path = kStoreRoot;
    const auto found = status_of(
        store_directory(),
        {Severity::note, "store", path, "does not exist: no topic was made yet", ""}, findings);
    if (!found)
        return;
    const struct stat &status = *found;
    if (status.st_uid != 0)
        findings.push_back({Severity::warning, "store-owner", path,
                            "belongs to " + user_name(status.st_uid) +
                                ", at whose logout systemd may remove every topic (RemoveIPC)",
                            "chown root " + path});
    if (status.st_mode & S_ISVTX)
        findings.push_back({Severity::warning, "store-sticky", path,
                            "has the sticky bit, so users cannot remove each other's topics",
                            "chmod -t " + path});
    if (is_open_to_all(status.st_mode))
        findings.push_back(
            {Severity::warning, "store-mode", path,
             "mode " + mode_text(status.st_mode) + " lets every user remove any topic",
             "chmod 2775 " + path});
    check_access(store_directory(), status, findings);
}

void check_providers_directory(Findings &findings)
{
    const std::string path = kEndpointRoot;
    const auto found = status_of(providers_directory(),
                                 {Severity::note, "providers", path,
                                  "does not exist: only root can start the first endpoint",
                                  "install -d -m 3770 " + path},
                                 findings);
    if (!found)
        return;
    const struct stat &status = *found;
    if (status.st_uid != 0)
        findings.push_back({Severity::warning, "providers-owner", path,
                            "belongs to " + user_name(status.st_uid) +
                                ", who can remove and replace the socket of every endpoint",
                            "chown root " + path});
    if (is_open_to_all(status.st_mode))
        findings.push_back({Severity::warning, "providers-mode", path,
                            "mode " + mode_text(status.st_mode) +
                                " lets every user remove the socket of a live endpoint",
                            "chmod 3770 " + path});
    check_access(providers_directory(), status, findings);
}

// Reports that less than a tenth is left, and of what. A total of 0 means that there is no limit.
void check_share(Findings &findings, const char *check, const std::string &directory,
                 unsigned long free, unsigned long all, const std::string &what,
                 const std::string &fix)
{
    if (all == 0 || free * kFewShare >= all)
        return;
    findings.push_back(
        {free == 0 ? Severity::error : Severity::warning, check, directory,
         std::to_string(free) + " of " + std::to_string(all) + " " + what + " are free", fix});
}

void check_room(Findings &findings)
{
    const auto room = free_space_for_topics();
    if (!room) {
        findings.push_back({Severity::error, "tmpfs", "/dev/shm", "does not exist",
                            "mount -t tmpfs tmpfs /dev/shm"});
        return;
    }
    const std::string &directory = room->directory;
    if (room->is_read_only)
        findings.push_back({Severity::error, "store-read-only", directory,
                            "is mounted read-only: no topic can be opened, made or written, and "
                            "the library cannot read any either",
                            "mount -o remount,rw " + directory});
    check_share(findings, "tmpfs-size", directory, room->free_pages, room->pages,
                "pages (one for each topic)",
                "mount -o remount,size=" + std::to_string(room->pages * room->page_size / 512) +
                    "k " + directory); // twice as much
    check_share(findings, "tmpfs-inodes", directory, room->free_inodes, room->inodes, "inodes",
                "mount -o remount,nr_inodes=" + std::to_string(room->inodes * 2) + " " + directory);
}

void check_limits(Findings &findings)
{
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0 && descriptors.rlim_cur < kFewDescriptors)
        findings.push_back({Severity::warning, "descriptors", "ulimit -n",
                            std::to_string(descriptors.rlim_cur) + " open files are few for a mesh",
                            "ulimit -n 1024"});
    long instances = kFewInotifyInstances;
    std::ifstream("/proc/sys/fs/inotify/max_user_instances") >> instances;
    if (instances < kFewInotifyInstances)
        findings.push_back({Severity::warning, "inotify", "fs.inotify.max_user_instances",
                            std::to_string(instances) + " for each user; every endpoint takes one",
                            "sysctl fs.inotify.max_user_instances=128"});
}

} // namespace

Finding unseen(const std::string &subject, std::string text, int code)
{
    return {Severity::warning,
            "unreadable",
            subject,
            std::move(text),
            code == kPermission ? "sudo kp doctor" : "",
            code};
}

void check_system(Findings &findings)
{
    check_store_directory(findings);
    check_providers_directory(findings);
    check_room(findings);
    check_limits(findings);
}

} // namespace kp::tool
