#include "link/attempt.h"

#include "messages/property_list.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace kp::mqtt {

namespace {

void connect_to_broker(const std::shared_ptr<Attempt> &attempt, const Destination &destination)
{
    PropertyList limits;
    limits.add_number(MQTT_PROP_MAXIMUM_PACKET_SIZE, destination.most_packet_bytes);
    if (destination.session_expiry_s)
        limits.add_number(MQTT_PROP_SESSION_EXPIRY_INTERVAL, destination.session_expiry_s);
    attempt->result =
        mosquitto_connect_bind_v5(attempt->client, destination.host.c_str(), destination.port,
                                  destination.keep_alive_s, nullptr, limits.get());
    attempt->error = errno;
    attempt->is_done = true;
    const uint64_t one = 1;
    (void)!write(attempt->done.get(), &one, sizeof one);
}

} // namespace

Attempt::Attempt() : done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

Attempt::~Attempt()
{
    mosquitto_destroy(client);
}

void start_connecting(std::shared_ptr<Attempt> attempt, Destination destination)
{
    std::thread(connect_to_broker, std::move(attempt), std::move(destination)).detach();
}

} // namespace kp::mqtt
