// nng: pub0 and sub0 over ipc.
#include "notices/channels/channel.h"

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <thread>
#include <vector>

namespace bench {

namespace {

class NngSender final : public Sender {
  public:
    explicit NngSender(const std::string &address)
    {
        require(nng_pub0_open(&socket_) == 0, "nng_pub0_open");
        require(nng_listen(socket_, address.c_str(), nullptr, 0) == 0, "nng_listen");
    }
    ~NngSender() override
    {
        (void)nng_close(socket_);
    }
    void send(const Message &message) override
    {
        Message copy = message; // the call takes a pointer to what it may change
        (void)nng_send(socket_, &copy, sizeof copy, 0);
    }

  private:
    nng_socket socket_{};
};

class NngReceiver final : public Receiver {
  public:
    NngReceiver(const std::string &address, Delivered delivered) : delivered_(std::move(delivered))
    {
        require(nng_sub0_open(&socket_) == 0, "nng_sub0_open");
        (void)nng_socket_set(socket_, NNG_OPT_SUB_SUBSCRIBE, "", 0);
        (void)nng_socket_set_ms(socket_, NNG_OPT_RECONNMINT, 10);
        (void)nng_socket_set_ms(socket_, NNG_OPT_RECONNMAXT, 20);
        require(nng_dial(socket_, address.c_str(), nullptr, NNG_FLAG_NONBLOCK) == 0, "nng_dial");
        thread_ = std::thread([this] { run(); });
    }
    ~NngReceiver() override
    {
        (void)nng_close(socket_); // ends the receive call
        thread_.join();
    }

  private:
    void run()
    {
        Message message;
        std::size_t size = sizeof message;
        while (nng_recv(socket_, &message, &size, 0) == 0) {
            delivered_(message);
            size = sizeof message;
        }
    }

    nng_socket socket_{};
    Delivered delivered_;
    std::thread thread_;
};

class NngChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<NngSender>(address_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<NngReceiver>(address_, std::move(delivered));
    }

  private:
    std::string address_ = "ipc:///run/" + unique_name("nng");
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"nng", channel_of<NngChannel>()}};
}

} // namespace bench
