#include "sandbox/namespaces.h"

#include "layout/unique_fd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kp::tool {

namespace {

Problem refusal(const std::string &what)
{
    return {kPermission,
            "the system allows no sandbox: " + what + ": " + std::strerror(errno) +
                "; run kp as root, or allow user namespaces (sysctl user.max_user_namespaces, "
                "kernel.unprivileged_userns_clone, kernel.apparmor_restrict_unprivileged_userns; "
                "in a container also its seccomp profile)"};
}

bool write_file(const char *path, const std::string &text)
{
    const UniqueFd fd(open(path, O_WRONLY | O_CLOEXEC));
    return fd && write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::string own_number(unsigned number)
{
    return std::to_string(number) + " " + std::to_string(number) + " 1";
}

// In the new user namespace this process may mount; what it starts has no more rights than before.
bool enter_user_namespace(int flags, Problem &problem)
{
    const std::string uid = own_number(geteuid());
    const std::string gid = own_number(getegid());
    if (unshare(flags | CLONE_NEWUSER) != 0) {
        problem = refusal("unshare");
        return false;
    }
    for (const auto &[path, text] :
         {std::pair{"/proc/self/setgroups", std::string("deny")},
          std::pair{"/proc/self/uid_map", uid}, std::pair{"/proc/self/gid_map", gid}})
        if (!write_file(path, text)) {
            problem = refusal(path);
            return false;
        }
    return true;
}

// A new network has a loopback device that is down.
bool raise_loopback()
{
    const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::memcpy(request.ifr_name, "lo", sizeof("lo"));
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    return fd && ioctl(fd.get(), SIOCSIFFLAGS, &request) == 0;
}

} // namespace

bool enter_namespaces(Network network, Problem &problem)
{
    const int flags = CLONE_NEWNS | (network == Network::none ? CLONE_NEWNET : 0);
    // Root of a container may lack the right too, and get it in the same way as everybody.
    if (unshare(flags) != 0 && !enter_user_namespace(flags, problem))
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        problem = refusal("making the mounts private");
        return false;
    }
    if (network == Network::none && !raise_loopback()) {
        problem = refusal("the loopback device");
        return false;
    }
    return true;
}

} // namespace kp::tool
