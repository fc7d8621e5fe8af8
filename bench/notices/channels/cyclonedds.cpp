// Cyclone DDS over the loopback interface: a reliable topic that keeps the last sample; the
// listener's callback takes it.
#include "notices/channels/channel.h"

#include "message.h"
#include <cstdlib>
#include <dds/dds.h>
#include <vector>

namespace bench {

namespace {

constexpr const char *kLoopbackOnly =
    "<CycloneDDS><Domain><General><Interfaces><NetworkInterface name=\"lo\" multicast=\"true\"/>"
    "</Interfaces></General><Discovery><ParticipantIndex>none</ParticipantIndex></Discovery>"
    "</Domain></CycloneDDS>";

struct Topic {
    explicit Topic(const std::string &name)
    {
        (void)setenv("CYCLONEDDS_URI", kLoopbackOnly, 1);
        participant = dds_create_participant(DDS_DOMAIN_DEFAULT, nullptr, nullptr);
        require(participant >= 0, dds_strretcode(participant));
        qos = dds_create_qos();
        dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
        dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, 1);
        topic = dds_create_topic(participant, &bench_Notice_desc, name.c_str(), qos, nullptr);
        require(topic >= 0, dds_strretcode(topic));
    }
    Topic(const Topic &) = delete;
    Topic &operator=(const Topic &) = delete;
    ~Topic()
    {
        (void)dds_delete(participant); // and with it all that belongs to it
        dds_delete_qos(qos);
    }

    dds_entity_t participant;
    dds_qos_t *qos;
    dds_entity_t topic;
};

class DdsSender final : public Sender {
  public:
    explicit DdsSender(const std::string &name)
        : topic_(name),
          writer_(dds_create_writer(topic_.participant, topic_.topic, topic_.qos, nullptr))
    {
        require(writer_ >= 0, "dds_create_writer");
    }
    void send(const Message &message) override
    {
        bench_Notice notice;
        std::memcpy(notice.bytes, &message, sizeof message);
        (void)dds_write(writer_, &notice);
    }

  private:
    Topic topic_;
    dds_entity_t writer_;
};

class DdsReceiver final : public Receiver {
  public:
    DdsReceiver(const std::string &name, Delivered delivered)
        : delivered_(std::move(delivered)), topic_(name), listener_(dds_create_listener(this))
    {
        dds_lset_data_available(listener_, receive);
        require(dds_create_reader(topic_.participant, topic_.topic, topic_.qos, listener_) >= 0,
                "dds_create_reader");
    }
    ~DdsReceiver() override
    {
        dds_delete_listener(listener_);
    }

  private:
    static void receive(dds_entity_t reader, void *self)
    {
        bench_Notice notice;
        void *sample = &notice;
        dds_sample_info_t info;
        while (dds_take(reader, &sample, &info, 1, 1) > 0)
            if (info.valid_data)
                static_cast<DdsReceiver *>(self)->delivered_(
                    message_from(notice.bytes, sizeof notice.bytes));
    }

    Delivered delivered_;
    Topic topic_;
    dds_listener_t *listener_;
};

class DdsChannel final : public Channel {
  public:
    std::unique_ptr<Sender> open_sender() override
    {
        return std::make_unique<DdsSender>(name_);
    }
    std::unique_ptr<Receiver> open_receiver(unsigned, Delivered delivered) override
    {
        return std::make_unique<DdsReceiver>(name_, std::move(delivered));
    }

  private:
    std::string name_ = unique_name("notice");
};

} // namespace

std::vector<NoticeContestant> notice_contestants()
{
    return {{"Cyclone DDS", channel_of<DdsChannel>()}};
}

} // namespace bench
