#include "notices/channels/socket_channel.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

constexpr std::size_t kNoticeSize = 129;

class SocketSender final : public Sender {
  public:
    explicit SocketSender(std::vector<int> fds) : fds_(std::move(fds))
    {
    }
    void send(const Message &message) override
    {
        notice_[0] = std::byte{1};
        std::memcpy(&notice_[1], &message, sizeof message);
        for (const int fd : fds_)
            (void)::send(fd, notice_.data(), notice_.size(), MSG_NOSIGNAL);
    }

  private:
    std::vector<int> fds_;
    std::array<std::byte, kNoticeSize> notice_{};
};

class SocketReceiver final : public Receiver {
  public:
    SocketReceiver(int fd, bool two_receives, Delivered delivered)
        : fd_(fd), stop_(eventfd(0, EFD_CLOEXEC)), two_receives_(two_receives),
          delivered_(std::move(delivered)), thread_([this] { run(); })
    {
    }
    ~SocketReceiver() override
    {
        const uint64_t one = 1;
        (void)!write(stop_, &one, sizeof one);
        thread_.join();
        (void)close(stop_);
    }

  private:
    void run()
    {
        const int poll = epoll_create1(EPOLL_CLOEXEC);
        for (const int fd : {fd_, stop_}) {
            epoll_event interest{EPOLLIN, {.fd = fd}};
            (void)epoll_ctl(poll, EPOLL_CTL_ADD, fd, &interest);
        }
        std::array<epoll_event, 2> events{};
        while (true) {
            const int count = epoll_wait(poll, events.data(), 2, -1);
            for (int i = 0; i < count; ++i) {
                if (events[static_cast<unsigned>(i)].data.fd == stop_) {
                    (void)close(poll);
                    return;
                }
                receive();
            }
        }
    }
    void receive()
    {
        std::array<std::byte, kNoticeSize> notice;
        const std::size_t first = two_receives_ ? 1 : kNoticeSize;
        require(recv(fd_, notice.data(), first, MSG_DONTWAIT) == static_cast<ssize_t>(first),
                "a notice arrives");
        if (two_receives_)
            require(recv(fd_, notice.data() + 1, kNoticeSize - 1, MSG_DONTWAIT) == kNoticeSize - 1,
                    "a notice arrives whole");
        delivered_(message_from(&notice[1], sizeof(Message)));
    }

    int fd_;
    int stop_;
    bool two_receives_;
    Delivered delivered_;
    std::thread thread_;
};

class SocketChannel final : public Channel {
  public:
    explicit SocketChannel(bool two_receives) : two_receives_(two_receives)
    {
    }
    ~SocketChannel() override
    {
        for (const int fd : sending_)
            (void)close(fd);
        for (const int fd : receiving_)
            (void)close(fd);
    }
    void prepare(unsigned receivers) override
    {
        for (unsigned i = 0; i < receivers; ++i) {
            int pair[2];
            require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
            sending_.push_back(pair[0]);
            receiving_.push_back(pair[1]);
        }
    }
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<SocketSender>(sending_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned index, Delivered delivered) override
    {
        return std::make_unique<SocketReceiver>(receiving_[index], two_receives_,
                                                std::move(delivered));
    }

  private:
    bool two_receives_;
    std::vector<int> sending_;
    std::vector<int> receiving_;
};

} // namespace

std::unique_ptr<Channel> make_socket_channel(bool two_receives)
{
    return std::make_unique<SocketChannel>(two_receives);
}

} // namespace bench
