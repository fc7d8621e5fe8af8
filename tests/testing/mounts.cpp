#include "testing/mounts.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace kptest {

namespace {

[[noreturn]] void give_up(const char *what)
{
    (void)std::fprintf(stderr,
                       "The tests need a private mount namespace, which the system refuses: %s: "
                       "%s.\nRun them as root, or allow user namespaces "
                       "(sysctl kernel.unprivileged_userns_clone=1).\n",
                       what, std::strerror(errno));
    std::_Exit(EXIT_FAILURE);
}

void write_file(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        give_up(path);
    (void)close(fd);
}

void become_root_of_a_user_namespace()
{
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        give_up("unshare");
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + uid + " 1");
    write_file("/proc/self/gid_map", "0 " + gid + " 1");
}

} // namespace

void enter_private_mounts()
{
    if (geteuid() != 0)
        become_root_of_a_user_namespace();
    else if (unshare(CLONE_NEWNS) != 0)
        give_up("unshare");
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        give_up("making the mounts private");
    if (mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
        give_up("a new /dev/shm");
    if (mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") != 0)
        give_up("a new /run");
}

TinyTmpfs::TinyTmpfs(std::string directory, unsigned pages) : directory_(std::move(directory))
{
    std::filesystem::create_directories(directory_);
    const std::string size = "size=" + std::to_string(pages * static_cast<unsigned>(getpagesize()));
    EXPECT_EQ(mount("tmpfs", directory_.c_str(), "tmpfs", 0, size.c_str()), 0)
        << std::strerror(errno);
}

TinyTmpfs::~TinyTmpfs()
{
    (void)umount2(directory_.c_str(), MNT_DETACH);
}

void TinyTmpfs::fill() const
{
    const std::string path = directory_ + "/.filling";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string page(static_cast<std::size_t>(getpagesize()), 'x');
    while (write(fd, page.data(), page.size()) > 0) {
    }
    EXPECT_EQ(errno, ENOSPC);
    (void)close(fd);
}

} // namespace kptest
