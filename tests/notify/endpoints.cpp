#include "notify/endpoints.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kptest {

namespace fs = std::filesystem;

std::string socket_path(const std::string &name)
{
    return kp::kEndpointDirectory + name;
}

bool file_exists(const std::string &path)
{
    return fs::exists(fs::symlink_status(path));
}

std::vector<UnixSocket> fill_backlog(const std::string &path)
{
    std::vector<UnixSocket> waiting;
    bool room = true;
    while (room) {
        waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        room = connect(waiting.back().fd(), reinterpret_cast<const sockaddr *>(&address),
                       sizeof(address)) == 0;
    }
    return waiting;
}

void make_file(const std::string &path)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << "content";
}

NotifyTest::NotifyTest()
{
    fs::remove_all(kp::kEndpointDirectory);
    kp_xlog_set_user_level(KP_LEVEL_WARN);
}

void Inbox::receive(const uint8_t *message, int32_t length, void *inbox)
{
    auto &self = *static_cast<Inbox *>(inbox);
    std::unique_lock lock(self.mutex_);
    self.messages_.emplace_back(reinterpret_cast<const char *>(message),
                                static_cast<std::size_t>(length));
    self.thread_ = std::this_thread::get_id();
    self.is_holding_ = self.hold_;
    self.resumed_.wait(lock, [&self] { return !self.hold_; });
    self.is_holding_ = false;
}

std::vector<std::string> Inbox::messages() const
{
    const std::lock_guard lock(mutex_);
    return messages_;
}

std::size_t Inbox::count() const
{
    return messages().size();
}

std::thread::id Inbox::receiving_thread() const
{
    const std::lock_guard lock(mutex_);
    return thread_;
}

bool Inbox::has_received(std::size_t count) const
{
    return wait_until([this, count] { return this->count() >= count; });
}

void Inbox::hold()
{
    const std::lock_guard lock(mutex_);
    hold_ = true;
}

bool Inbox::is_holding() const
{
    const std::lock_guard lock(mutex_);
    return is_holding_;
}

void Inbox::resume()
{
    const std::lock_guard lock(mutex_);
    hold_ = false;
    resumed_.notify_all();
}

Endpoint::Endpoint(const std::string &name)
    : endpoint_(kp_notify_init(name.c_str(), 129, Inbox::receive, &inbox_))
{
    if (!endpoint_)
        std::abort(); // what the test wants to do with it makes no sense
}

Endpoint::~Endpoint()
{
    close();
}

void Endpoint::send(const std::string &message) const
{
    EXPECT_EQ(kp_notify_send(endpoint_, message.data(), static_cast<uint32_t>(message.size())), 0);
}

void Endpoint::close()
{
    inbox_.resume();
    EXPECT_EQ(kp_notify_close(&endpoint_), 0);
    endpoint_ = nullptr;
}

void Endpoint::forget()
{
    endpoint_ = nullptr;
}

int Endpoint::client(std::size_t slot) const
{
    return kp::load_ordered(endpoint_->client_fds[slot]);
}

int Endpoint::server(std::size_t slot) const
{
    return kp::load_ordered(endpoint_->server_fds[slot]);
}

int Endpoint::client_count() const
{
    int count = 0;
    for (std::size_t slot = 1; slot < 32; ++slot)
        count += client(slot) != -1;
    return count;
}

int Endpoint::server_count() const
{
    int count = 0;
    for (std::size_t slot = 0; slot < 32; ++slot)
        count += server(slot) != -1;
    return count;
}

bool Endpoint::has_clients(int count) const
{
    return wait_until([this, count] { return client_count() == count; });
}

bool Endpoint::has_servers(int count) const
{
    return wait_until([this, count] { return server_count() == count; });
}

SettledEndpoint::SettledEndpoint()
{
    EXPECT_TRUE(wait_until([this] { return waits_.count() >= 3; }));
    waits_.disarm();
}

BareEndpoint::BareEndpoint(const std::string &name)
    : endpoint_(static_cast<kp_notify_t *>(std::calloc(1, sizeof(kp_notify_t))))
{
    std::ranges::fill(endpoint_->server_fds, -1);
    std::ranges::fill(endpoint_->client_fds, -1);
    endpoint_->watch_fd = -1;
    std::strncpy(endpoint_->name, name.c_str(), sizeof(endpoint_->name) - 1);
    endpoint_->msg_buf = static_cast<uint8_t *>(std::calloc(1, 132));
    endpoint_->msg_buf_size = 129;
    endpoint_->callback = Inbox::receive;
    endpoint_->cb_obj = &inbox_;
    (void)sem_init(&endpoint_->stop_cleared, 0, 0);
    (void)sem_init(&endpoint_->watch_tried, 0, 0);
    endpoint_->claims_mutex = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_EQ(pipe2(endpoint_->cancel_fds, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(endpoint_->new_server_fds, O_CLOEXEC), 0);
}

BareEndpoint::~BareEndpoint()
{
    const kp::OwnFd watch(endpoint_->watch_fd);
    for (std::size_t slot = 0; slot < 32; ++slot) {
        const kp::OwnFd client(endpoint_->client_fds[slot]);
        const kp::OwnFd server(endpoint_->server_fds[slot]);
    }
    for (std::size_t end = 0; end < 2; ++end) {
        const kp::OwnFd cancel(endpoint_->cancel_fds[end]);
        const kp::OwnFd announcements(endpoint_->new_server_fds[end]);
    }
    (void)sem_destroy(&endpoint_->stop_cleared);
    (void)sem_destroy(&endpoint_->watch_tried);
    std::free(endpoint_->msg_buf);
    std::free(endpoint_);
}

UnixSocket BareEndpoint::connect(int32_t &slot)
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    kp::store_release(slot, ends[0]);
    return UnixSocket(ends[1]);
}

void BareEndpoint::listen() const
{
    UnixSocket socket = UnixSocket::listening(socket_path(endpoint_->name));
    endpoint_->client_fds[0] = fcntl(socket.fd(), F_DUPFD_CLOEXEC, 0);
}

void BareEndpoint::announce() const
{
    EXPECT_EQ(write(endpoint_->new_server_fds[1], "", 1), 1);
}

void BareEndpoint::stop() const
{
    kp::store_release(endpoint_->stop, 255);
    EXPECT_EQ(write(endpoint_->cancel_fds[1], "", 1), 1);
}

int BareEndpoint::announced() const
{
    return readable_bytes(endpoint_->new_server_fds[0]);
}

int readable_bytes(int fd)
{
    int count = -1;
    EXPECT_EQ(ioctl(fd, FIONREAD, &count), 0);
    return count;
}

BeforeEach::BeforeEach(CallSet calls, std::function<void()> hook)
    : Shim({calls, 1, LONG_MAX, 0, Threads::all, std::move(hook)})
{
}

void run_in_steps(void *(*body)(void *), const BareEndpoint &endpoint, std::vector<Step> steps)
{
    std::size_t next = 0;
    const BeforeEach before_each_wait(Call::epoll_wait, [&] {
        if (next < steps.size())
            steps[next]();
        else if (next == steps.size())
            endpoint.stop();
        ++next;
    });
    EXPECT_EQ(body(&*endpoint), nullptr);
    EXPECT_GE(next, steps.size()) << "the thread ended before its last step";
}

} // namespace kptest
