#include "broker/state_message.h"

#include "base/log.h"

namespace kp::mqtt {

namespace {

constexpr const char *kBroker = "broker"; // a property: the one in use

} // namespace

Publication StateMessage::with(const char *text, const std::string &connection,
                               const std::string &broker) const
{
    Publication state;
    state.topic = configuration_.state_topic;
    state.payload = text;
    state.qos = qos_;
    state.retain = is_retained_;
    state.content_type = "text/plain";
    state.is_utf8 = true;
    state.properties = {{property::kOrigin, origin_}, {kConnection, connection}, {kBroker, broker}};
    return state;
}

bool StateMessage::ask_for_less(int refusal)
{
    if (refusal == kQosNotSupported && qos_ > 0) {
        qos_ = 0;
        log(Level::warning, "the broker has no QoS 1; messages and the will go at QoS 0");
        return true;
    }
    if (refusal == kRetainNotSupported && is_retained_) {
        is_retained_ = false;
        log(Level::warning, "the broker keeps no messages; who subscribes later sees no value, nor "
                            "whether this device is there, until the next message");
        return true;
    }
    return false;
}

void StateMessage::ask_for_all()
{
    qos_ = 1;
    is_retained_ = true;
}

} // namespace kp::mqtt
