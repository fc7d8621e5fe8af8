// sdbus-c++: a signal on a session bus whose broker (dbus-daemon) the run starts, received on the
// connection's own event loop. An engineer on Linux would otherwise take this for changes on a
// loop.
#include "notices/channels/channel.h"

#include <fstream>
#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

constexpr const char *kObject = "/bench/notice";
constexpr const char *kInterface = "bench.Notice";
constexpr const char *kSignal = "changed";
constexpr const char *kSender = "bench.Sender";
constexpr const char *kSocket = "/run/bench-bus";

std::string bus_address()
{
    return std::string("unix:path=") + kSocket;
}

Child start_bus()
{
    const char *configuration = "/run/bench-bus.conf";
    std::ofstream(configuration)
        << "<busconfig><type>session</type><listen>" << bus_address()
        << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow "
           "send_destination=\"*\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    Child bus = run_program(
        {"dbus-daemon", std::string("--config-file=") + configuration, "--nofork", "--nopidfile"});
    wait_until([] { return access(kSocket, F_OK) == 0; }, 5000, "dbus-daemon");
    return bus;
}

class SdbusSender final : public Sender {
  public:
    SdbusSender() : connection_(sdbus::createSessionBusConnectionWithAddress(bus_address()))
    {
        connection_->requestName(kSender);
        object_ = sdbus::createObject(*connection_, kObject);
        object_->registerSignal(kSignal)
            .onInterface(kInterface)
            .withParameters<std::vector<uint8_t>>();
        object_->finishRegistration();
    }
    void send(const Message &message) override
    {
        const auto *bytes = reinterpret_cast<const uint8_t *>(&message);
        object_->emitSignal(kSignal)
            .onInterface(kInterface)
            .withArguments(std::vector<uint8_t>(bytes, bytes + sizeof message));
    }

  private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
};

class SdbusReceiver final : public Receiver {
  public:
    explicit SdbusReceiver(Delivered delivered)
        : connection_(sdbus::createSessionBusConnectionWithAddress(bus_address())),
          proxy_(sdbus::createProxy(*connection_, kSender, kObject))
    {
        proxy_->uponSignal(kSignal)
            .onInterface(kInterface)
            .call([delivered = std::move(delivered)](const std::vector<uint8_t> &bytes) {
                delivered(message_from(bytes.data(), bytes.size()));
            });
        proxy_->finishRegistration();
        connection_->enterEventLoopAsync();
    }
    ~SdbusReceiver() override
    {
        connection_->leaveEventLoop();
    }

  private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

class SdbusChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<SdbusSender>();
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<SdbusReceiver>(std::move(delivered));
    }
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"sdbus-c++", channel_of<SdbusChannel>(), start_bus}};
}

} // namespace bench
