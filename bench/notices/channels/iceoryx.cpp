// iceoryx: a publisher, and a subscriber attached to a listener.
#include "notices/channels/channel.h"
#include "support/roudi.h"

#include <iceoryx_posh/popo/listener.hpp>
#include <iceoryx_posh/popo/publisher.hpp>
#include <iceoryx_posh/popo/subscriber.hpp>

namespace bench {

namespace {

iox::capro::ServiceDescription service_of(const std::string &name)
{
    return {"bench", "notice", iox::capro::IdString_t(iox::cxx::TruncateToCapacity, name.c_str())};
}

struct Registration {
    explicit Registration(const char *role)
    {
        join_roudi(role);
    }
};

class IceoryxSender final : public Sender {
  public:
    explicit IceoryxSender(const std::string &name)
        : registration_("sender"), publisher_(service_of(name))
    {
    }
    void send(const Message &message) override
    {
        (void)publisher_.publishCopyOf(message);
    }

  private:
    Registration registration_;
    iox::popo::Publisher<Message> publisher_;
};

class IceoryxReceiver final : public Receiver {
  public:
    IceoryxReceiver(const std::string &name, Delivered delivered)
        : registration_("receiver"), delivered_(std::move(delivered)), subscriber_(service_of(name))
    {
        listener_
            .attachEvent(subscriber_, iox::popo::SubscriberEvent::DATA_RECEIVED,
                         iox::popo::createNotificationCallback(receive, *this))
            .or_else([](auto) { require(false, "attachEvent"); });
    }
    ~IceoryxReceiver() override
    {
        listener_.detachEvent(subscriber_, iox::popo::SubscriberEvent::DATA_RECEIVED);
    }

  private:
    static void receive(iox::popo::Subscriber<Message> *subscriber, IceoryxReceiver *self)
    {
        (void)subscriber->take().and_then(
            [self](const auto &sample) { self->delivered_(*sample); });
    }

    Registration registration_;
    Delivered delivered_;
    iox::popo::Subscriber<Message> subscriber_;
    iox::popo::Listener listener_;
};

class IceoryxChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<IceoryxSender>(name_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<IceoryxReceiver>(name_, std::move(delivered));
    }

  private:
    std::string name_ = unique_name("iceoryx");
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"iceoryx", channel_of<IceoryxChannel>(), start_roudi}};
}

} // namespace bench
