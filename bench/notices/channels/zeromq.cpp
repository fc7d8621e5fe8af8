// ZeroMQ: PUB and SUB over ipc.
#include "notices/channels/channel.h"

#include <atomic>
#include <thread>
#include <vector>
#include <zmq.h>

namespace bench {

namespace {

class ZmqSender final : public Sender {
  public:
    explicit ZmqSender(const std::string &address)
        : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_PUB))
    {
        const int none = 0;
        (void)zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof none);
        require(zmq_bind(socket_, address.c_str()) == 0, "zmq_bind");
    }
    ~ZmqSender() override
    {
        (void)zmq_close(socket_);
        (void)zmq_ctx_term(context_);
    }
    void send(const Message &message) override
    {
        (void)zmq_send(socket_, &message, sizeof message, 0);
    }

  private:
    void *context_;
    void *socket_;
};

class ZmqReceiver final : public Receiver {
  public:
    ZmqReceiver(const std::string &address, Delivered delivered)
        : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_SUB)),
          delivered_(std::move(delivered))
    {
        const int none = 0;
        const int patience_ms = 200;
        (void)zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof none);
        (void)zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &patience_ms, sizeof patience_ms);
        (void)zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, "", 0);
        require(zmq_connect(socket_, address.c_str()) == 0, "zmq_connect");
        thread_ = std::thread([this] { run(); });
    }
    ~ZmqReceiver() override
    {
        stop_.store(true);
        thread_.join();
        (void)zmq_close(socket_);
        (void)zmq_ctx_term(context_);
    }

  private:
    void run()
    {
        Message message;
        while (!stop_.load())
            if (zmq_recv(socket_, &message, sizeof message, 0) == sizeof message)
                delivered_(message);
    }

    void *context_;
    void *socket_;
    Delivered delivered_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class ZmqChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<ZmqSender>(address_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<ZmqReceiver>(address_, std::move(delivered));
    }

  private:
    std::string address_ = "ipc:///run/" + unique_name("zeromq");
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"ZeroMQ", channel_of<ZmqChannel>()}};
}

} // namespace bench
