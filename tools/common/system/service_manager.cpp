#include "common/system/service_manager.h"

#include "layout/unique_fd.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kp::tool {

namespace {

std::string environment(const char *name)
{
    const char *value = std::getenv(name);
    return value ? value : "";
}

} // namespace

ServiceManager::ServiceManager() : socket_(environment("NOTIFY_SOCKET"))
{
    const std::string pid = environment("WATCHDOG_PID");
    const std::string timeout = environment("WATCHDOG_USEC");
    if (!timeout.empty() && (pid.empty() || pid == std::to_string(getpid())))
        interval_ = std::chrono::microseconds(std::strtoll(timeout.c_str(), nullptr, 10) / 2);
}

void ServiceManager::ready() const
{
    tell("READY=1");
}

void ServiceManager::stopping() const
{
    tell("STOPPING=1");
}

void ServiceManager::reloading() const
{
    const auto since_boot = std::chrono::steady_clock::now().time_since_epoch();
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(since_boot);
    tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds.count()));
}

void ServiceManager::status(const std::string &text) const
{
    tell("STATUS=" + text);
}

void ServiceManager::keep_watchdog_quiet(std::chrono::steady_clock::time_point now)
{
    if (interval_.count() == 0 || now - told_at_ < interval_ / 2)
        return;
    told_at_ = now;
    tell("WATCHDOG=1");
}

void ServiceManager::tell(const std::string &text) const
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_.empty() || socket_.size() >= sizeof address.sun_path)
        return;
    std::memcpy(address.sun_path, socket_.data(), socket_.size());
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0'; // of the abstract name space
    const auto length = offsetof(sockaddr_un, sun_path) + socket_.size();
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    (void)sendto(fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr *>(&address), static_cast<socklen_t>(length));
}

} // namespace kp::tool
