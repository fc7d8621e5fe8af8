// mosquitto: QoS 0 through a broker of this run on the loopback interface, without Nagle's delay.
#include "notices/channels/channel.h"
#include "support/clock.h"

#include <arpa/inet.h>
#include <fstream>
#include <mosquitto.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

constexpr const char *kHost = "127.0.0.1";
constexpr int kPort = 18830;
constexpr const char *kConfiguration = "/run/bench-mosquitto.conf";

bool broker_answers()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    (void)inet_pton(AF_INET, kHost, &address.sin_addr);
    const bool answers = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    (void)close(fd);
    return answers;
}

Child start_mosquitto()
{
    std::ofstream(kConfiguration) << "listener " << kPort << " " << kHost
                                  << "\nallow_anonymous true\nset_tcp_nodelay true\nuser root\n";
    Child broker = run_program({"/usr/sbin/mosquitto", "-c", kConfiguration});
    wait_until(broker_answers, 5000, "mosquitto");
    return broker;
}

mosquitto *connect_to_broker(void *self)
{
    (void)mosquitto_lib_init();
    mosquitto *client = mosquitto_new(nullptr, true, self);
    require(client != nullptr, "mosquitto_new");
    (void)mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    require(mosquitto_connect(client, kHost, kPort, 60) == MOSQ_ERR_SUCCESS, "mosquitto_connect");
    return client;
}

void disconnect(mosquitto *client)
{
    (void)mosquitto_disconnect(client);
    (void)mosquitto_loop_stop(client, false);
    mosquitto_destroy(client);
}

class MqttSender final : public Sender {
  public:
    explicit MqttSender(std::string topic)
        : client_(connect_to_broker(nullptr)), topic_(std::move(topic))
    {
        require(mosquitto_loop_start(client_) == MOSQ_ERR_SUCCESS, "mosquitto_loop_start");
    }
    ~MqttSender() override
    {
        disconnect(client_);
    }
    void send(const Message &message) override
    {
        (void)mosquitto_publish(client_, nullptr, topic_.c_str(), sizeof message, &message, 0,
                                false);
    }

  private:
    mosquitto *client_;
    std::string topic_;
};

class MqttReceiver final : public Receiver {
  public:
    MqttReceiver(const std::string &topic, Delivered delivered)
        : delivered_(std::move(delivered)), client_(connect_to_broker(this))
    {
        mosquitto_message_callback_set(client_, receive);
        require(mosquitto_subscribe(client_, nullptr, topic.c_str(), 0) == MOSQ_ERR_SUCCESS,
                "mosquitto_subscribe");
        require(mosquitto_loop_start(client_) == MOSQ_ERR_SUCCESS, "mosquitto_loop_start");
    }
    ~MqttReceiver() override
    {
        disconnect(client_);
    }

  private:
    static void receive(mosquitto *, void *self, const mosquitto_message *message)
    {
        static_cast<MqttReceiver *>(self)->delivered_(
            message_from(message->payload, static_cast<std::size_t>(message->payloadlen)));
    }

    Delivered delivered_;
    mosquitto *client_;
};

class MqttChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<MqttSender>(topic_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<MqttReceiver>(topic_, std::move(delivered));
    }

  private:
    std::string topic_ = "bench/" + unique_name("mqtt");
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"mosquitto", channel_of<MqttChannel>(), start_mosquitto}};
}

} // namespace bench
