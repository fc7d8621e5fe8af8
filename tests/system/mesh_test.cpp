// The library's main job between real processes: values written in one arrive in the callbacks of
// others, whoever starts first, is killed or comes back.
#include "testing/child.h"
#include "testing/process.h"

#include "kp.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

using namespace kptest;

namespace {

constexpr const char *kTopic = "plant/pump/speed";

// Tells the parent "TOPIC VALUE" for every update.
int report_updates(kp_t *handle, const kp_write_info *notice, void *parent)
{
    kp_tag_iter_t iter = {0, nullptr};
    while (iter.bucket < KP_BUCKET_COUNT) {
        kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter);
        int32_t value = 0;
        if (tag && kp_tag_read(tag, &value, sizeof(value)) == sizeof(value) && parent)
            static_cast<Channel *>(parent)->tell(std::string(kp_tag_get_topic(tag)) + " " +
                                                 std::to_string(value));
    }
    return 0;
}

// A consumer process: follows the topic or pattern, says "ready" and goes on until told to end.
ChildProcess consumer(const std::string &name, const std::string &topic)
{
    return ChildProcess([name, topic](Channel &parent) {
        kp_t *handle = kp_new(name.c_str(), report_updates);
        if (!handle)
            return 1;
        kp_set_user_data(handle, &parent);
        (void)kp_sub_topic(handle, topic.c_str());
        parent.tell("ready");
        (void)parent.hear(std::chrono::seconds(60));
        (void)kp_tags_destroy(handle);
        return kp_destroy(handle) == 0 ? 0 : 1;
    });
}

// A provider in the test's own process. Consumers are forked before it starts its threads.
class Provider {
  public:
    explicit Provider(bool announces = false) : handle_(kp_new("provider", nullptr))
    {
        (void)kp_set_new_tag_notify(handle_, announces);
    }
    ~Provider()
    {
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
    }
    Provider(const Provider &) = delete;
    Provider &operator=(const Provider &) = delete;

    void declare(const char *topic)
    {
        tag_ = kp_tag_provider_new(handle_, topic, KP_TYPE_INT32, 0, 0);
    }
    void write(int32_t value)
    {
        EXPECT_EQ(kp_tag_write(handle_, tag_, &value, sizeof(value)), 4);
        EXPECT_EQ(kp_tag_notify(handle_), 0);
    }
    // Writes until the consumer reports this value: its connection may come later than the first.
    bool reaches(ChildProcess &consumer, int32_t value, const std::string &topic = kTopic)
    {
        return wait_until([&] {
            write(value);
            const auto line = consumer.hear(std::chrono::milliseconds(200));
            return line == topic + " " + std::to_string(value);
        });
    }

  private:
    kp_t *handle_;
    kp_tag_t *tag_ = nullptr;
};

std::string segment_file(const std::string &topic)
{
    return "/dev/shm/zu-kp/" + topic;
}

} // namespace

TEST(Mesh, CarriesAValueToAConsumerThatStartedFirst)
{
    ChildProcess display = consumer("display", kTopic);
    ASSERT_EQ(display.hear(), "ready");
    Provider provider;
    provider.declare(kTopic);

    EXPECT_TRUE(provider.reaches(display, 41));
    EXPECT_TRUE(provider.reaches(display, 42));
}

TEST(Mesh, CarriesAnAnnouncedTopicToAPatternThatWasThereBefore)
{
    ChildProcess everything = consumer("everything", "#");
    ChildProcess pumps = consumer("pumps", "plant/+/speed");
    ASSERT_EQ(everything.hear(), "ready");
    ASSERT_EQ(pumps.hear(), "ready");
    Provider provider(true);
    ASSERT_TRUE(wait_until([] { return std::filesystem::exists("/run/providers/provider"); }));

    EXPECT_TRUE(wait_until([&] {
        provider.declare(kTopic);
        provider.write(7);
        return everything.hear(std::chrono::milliseconds(200)) == "plant/pump/speed 7";
    }));
    EXPECT_TRUE(provider.reaches(pumps, 8));
}

TEST(Mesh, GivesALateConsumerTheValueThatItFindsInTheStore)
{
    ChildProcess late([](Channel &parent) {
        (void)parent.hear();
        kp_t *handle = kp_new("late", nullptr);
        kp_tag_t *tag = kp_tag_consumer_new(handle, kTopic);
        int32_t value = 0;
        const int32_t size = kp_tag_read(tag, &value, sizeof(value));
        parent.tell(std::to_string(size) + " " + std::to_string(value));
        (void)kp_tags_destroy(handle);
        return kp_destroy(handle);
    });
    Provider provider;
    provider.declare(kTopic);
    provider.write(99);

    late.tell("start");

    EXPECT_EQ(late.hear(), "4 99");
    EXPECT_EQ(late.wait(), 0);
}

TEST(Mesh, ServesTheOthersWhenAConsumerIsKilled)
{
    ChildProcess victim = consumer("victim", kTopic);
    ChildProcess survivor = consumer("survivor", kTopic);
    ASSERT_EQ(victim.hear(), "ready");
    ASSERT_EQ(survivor.hear(), "ready");
    Provider provider;
    provider.declare(kTopic);
    ASSERT_TRUE(provider.reaches(victim, 1));

    victim.signal(SIGKILL);

    EXPECT_EQ(victim.wait(), 128 + SIGKILL);
    EXPECT_TRUE(provider.reaches(survivor, 2));
}

TEST(Mesh, HearsAgainFromAConsumerThatComesBackUnderItsName)
{
    ChildProcess first = consumer("display", kTopic);
    ChildProcess second([](Channel &parent) {
        (void)parent.hear();
        kp_t *handle = kp_new("display", report_updates);
        kp_set_user_data(handle, &parent);
        (void)kp_sub_topic(handle, kTopic);
        (void)parent.hear(std::chrono::seconds(60));
        (void)kp_tags_destroy(handle);
        return kp_destroy(handle);
    });
    ASSERT_EQ(first.hear(), "ready");
    Provider provider;
    provider.declare(kTopic);
    ASSERT_TRUE(provider.reaches(first, 1));
    first.signal(SIGKILL);
    ASSERT_EQ(first.wait(), 128 + SIGKILL);

    second.tell("start");

    EXPECT_TRUE(provider.reaches(second, 2));
}

TEST(Mesh, KeepsTheValueOfAProviderThatWasKilled)
{
    ChildProcess killed([](Channel &parent) {
        kp_t *handle = kp_new("killed", nullptr);
        kp_tag_t *tag = kp_tag_provider_new(handle, kTopic, KP_TYPE_INT32, 0, 0);
        const int32_t value = 5;
        parent.tell(std::to_string(kp_tag_write(handle, tag, &value, sizeof(value))));
        (void)parent.hear(std::chrono::seconds(60));
        return 0;
    });
    ASSERT_EQ(killed.hear(), "4");

    killed.signal(SIGKILL);
    ASSERT_EQ(killed.wait(), 128 + SIGKILL);

    kp_shm_t *segment = kp_shm_new(kTopic, KP_ROLE_CONSUMER);
    int32_t value = 0;
    EXPECT_EQ(kp_shm_read(segment, &value, sizeof(value), nullptr, nullptr, nullptr), 4);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(kp_shm_destroy(segment, kTopic, KP_ROLE_CONSUMER), 0);
    EXPECT_TRUE(std::filesystem::exists(segment_file(kTopic))) << "the killed one's count stays";
}

TEST(Mesh, RemovesTheSegmentWithItsLastUserInAnyProcess)
{
    ChildProcess display = consumer("display", kTopic);
    ASSERT_EQ(display.hear(), "ready");
    {
        Provider provider;
        provider.declare(kTopic);
    }
    EXPECT_TRUE(std::filesystem::exists(segment_file(kTopic)));

    display.tell("end");

    EXPECT_EQ(display.wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(segment_file(kTopic)));
    EXPECT_TRUE(std::filesystem::is_directory("/dev/shm/zu-kp/plant/pump"));
}

TEST(Mesh, LeavesNoSocketFileWhenItsProcessesEnd)
{
    ChildProcess display = consumer("display", kTopic);
    ASSERT_EQ(display.hear(), "ready");
    ASSERT_TRUE(std::filesystem::exists("/run/providers/display"));

    display.tell("end");

    EXPECT_EQ(display.wait(), 0);
    EXPECT_TRUE(std::filesystem::is_empty("/run/providers"));
}
