// Every call that can fail, fails: each test runs one operation of the interface with the driver.
#include "fault/driver.h"

#include "testing/faults.h"
#include "testing/process.h"

#include "kp.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace fs = std::filesystem;
using namespace kpfault;

extern "C" void __wrap_free(void *block);

namespace {

// So that a receiver whose thread has ended does not fill up with notices and block the sender.
constexpr std::chrono::milliseconds kBetweenNotices{5};
constexpr std::chrono::milliseconds kBetweenAnnouncements{50};

kp_t *handle;
kp_t *peer;
kp_tag_t *tag;

void open_handle()
{
    handle = kp_new("handle", nullptr);
}

void close_handle()
{
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
}

void open_with_peer()
{
    peer = kp_new("peer", nullptr);
    open_handle();
    (void)kp_set_new_tag_notify(handle, 1);
}

void close_with_peer()
{
    close_handle();
    (void)kp_tags_destroy(peer);
    (void)kp_destroy(peer);
}

void open_provider()
{
    open_handle();
    tag = kp_tag_provider_new(handle, "a/b", KP_TYPE_STRING, 100, 0);
    (void)kp_tag_write(handle, tag, "hello", 5);
}

// A tag is made, and destroyed again if it was.
bool make_and_destroy(kp_tag_t *made)
{
    if (!made)
        return false;
    return kp_tag_destroy(handle, made) == 0;
}

void count_message(const uint8_t *, int32_t, void *count)
{
    ++*static_cast<std::atomic<int> *>(count);
}

bool open_and_close_endpoint()
{
    std::atomic<int> count = 0;
    kp_notify_t *endpoint = kp_notify_init("endpoint", 129, count_message, &count);
    if (!endpoint)
        return false;
    return kp_notify_close(&endpoint) == 0;
}

bool write_in_every_way()
{
    return kp_tag_write(handle, tag, "hello", 5) == 5 &&
           kp_tag_write_with_timestamp(handle, tag, "hello", 5, 1) == 5 &&
           kp_tag_write_with_source_params(handle, tag, "hello", 5, 2, 3) == 5 &&
           kp_tag_notify(handle) == 0;
}

bool read_in_every_way()
{
    char value[100];
    uint64_t timestamp = 0;
    uint32_t quality = 0;
    return kp_tag_read(tag, value, 100) == 5 &&
           kp_tag_read_with_timestamp(tag, value, 100, &timestamp) == 5 &&
           kp_tag_read_with_source_params(tag, value, 100, &quality, &timestamp) == 5 &&
           kp_tag_read_consistent(tag, value, 100, &quality, &timestamp, nullptr) == 5;
}

bool write_by_name(const char *topic)
{
    return kp_tag_instant_write(handle, topic, "hello", KP_TYPE_STRING, 5, 1, 2, 3) == 0;
}

bool write_new_topic_by_name()
{
    const bool done = write_by_name("new/topic");
    fs::remove_all("/dev/shm/zu-kp/new");
    return done;
}

bool read_by_name()
{
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;
    const bool done =
        kp_tag_instant_read("a/b", &value, &type, &size, nullptr, nullptr, nullptr) == 0;
    __wrap_free(value); // as the library's own, so that it is counted
    return done;
}

bool query_by_name()
{
    uint32_t size = 0;
    return kp_tag_instant_get_value_info("a/b", nullptr, &size, nullptr) == 0 &&
           kp_tag_instant_get_max_value_size("a/b", &size) == 0 &&
           kp_tag_get_reference_count("a/b", &size, nullptr) == 0;
}

bool follow(const char *topic)
{
    const bool subscribed = kp_sub_topic(handle, topic) == 0;
    const bool found = kp_get_tag(handle, "a/b") != nullptr;
    (void)kp_unsub_topic(handle, topic);
    (void)kp_tags_destroy(handle);
    return subscribed && found;
}

// A provider on a handle of its own, for a handle that follows it.
void open_provider_and_follower()
{
    peer = kp_new("peer", nullptr);
    (void)kp_tag_provider_new(peer, "a/b", KP_TYPE_INT32, 4, 0);
    (void)kp_tag_provider_new(peer, "c", KP_TYPE_INT32, 4, 0);
    open_handle();
}

bool rebuild()
{
    (void)kp_sub_topic(handle, "c");
    (void)kp_sub_topic(handle, "a/+");
    (void)kp_sub_topic(handle, "#");
    (void)kp_unsub_topic(handle, "#");
    const bool done = kp_get_tag(handle, "a/b") && kp_get_tag(handle, "c");
    (void)kp_unsub_topic(handle, "a/+");
    (void)kp_unsub_topic(handle, "c");
    (void)kp_tags_destroy(handle);
    return done;
}

bool publish()
{
    const int32_t value = 5;
    const bool done = kp_pub_topic(handle, "p/q", &value, 4, KP_TYPE_INT32, 1) == 0 &&
                      kp_pub_topic_instant(handle, "p/q", &value, 4, KP_TYPE_INT32, 1) == 0;
    (void)kp_tags_destroy(handle);
    return done;
}

bool list()
{
    kp_topic_node_t *topics = kp_list_all_topics();
    const bool done = topics && std::string(topics->topic) == "a/b";
    kp_free_list_all_topics(topics);
    return done;
}

int take_notice(kp_t *receiver, const kp_write_info *notice, void *received)
{
    kp_tag_iter_t iter = {0, nullptr};
    int32_t value = 0;
    if (kp_tag_t *updated = kp_get_next_updated_tag(receiver, notice, &iter))
        if (kp_tag_read(updated, &value, 4) == 4)
            static_cast<std::atomic<int> *>(received)->store(value);
    return 0;
}

// Two handles are opened, and a value and its notice go from one to the other.
bool exchange_a_notice()
{
    std::atomic<int> received = 0;
    kp_t *consumer = kp_new("consumer", take_notice);
    kp_t *provider = kp_new("provider", nullptr);
    if (consumer && provider) {
        (void)kp_set_user_data(consumer, &received);
        kp_tag_t *source = kp_tag_provider_new(provider, "a/b", KP_TYPE_INT32, 4, 0);
        (void)kp_tag_consumer_new(consumer, "a/b");
        const int32_t value = 42;
        (void)wait_patiently([&] {
            if (source)
                (void)kp_tag_write(provider, source, &value, 4);
            (void)kp_tag_notify(provider);
            return kptest::wait_until([&] { return received == 42; }, kBetweenNotices);
        });
    }
    for (kp_t *opened : {provider, consumer}) {
        if (!opened)
            continue;
        (void)kp_tags_destroy(opened);
        (void)kp_destroy(opened);
    }
    return received == 42;
}

// Two handles are opened, and a value goes from one to the other, which takes the notice itself.
bool exchange_a_notice_by_descriptor()
{
    int32_t received = 0;
    kp_t *consumer = kp_new("consumer", nullptr);
    kp_t *provider = kp_new("provider", nullptr);
    if (consumer && provider && kp_get_fd(consumer) >= 0) {
        kp_tag_t *source = kp_tag_provider_new(provider, "a/b", KP_TYPE_INT32, 4, 0);
        kp_tag_t *sink = kp_tag_consumer_new(consumer, "a/b");
        const int32_t value = 42;
        kp_write_info notice;
        (void)kp_take_notice(consumer, &notice); // of all buckets
        (void)wait_patiently([&] {
            if (source)
                (void)kp_tag_write(provider, source, &value, 4);
            (void)kp_tag_notify(provider);
            const bool is_told = kptest::wait_until(
                [&] { return kp_take_notice(consumer, &notice) == 1; }, kBetweenNotices);
            if (is_told && sink)
                (void)kp_tag_read(sink, &received, 4);
            return received == 42;
        });
    }
    for (kp_t *opened : {provider, consumer}) {
        if (!opened)
            continue;
        (void)kp_close(opened);
    }
    return received == 42;
}

bool exists_for(kp_t *follower, const std::string &topic)
{
    return kptest::wait_until([&] { return kp_get_tag(follower, topic.c_str()) != nullptr; },
                              kBetweenAnnouncements);
}

// Two handles are opened, and one follows a topic that the other announces.
bool exchange_an_announcement()
{
    bool followed = false;
    kp_t *follower = kp_new("follower", nullptr);
    kp_t *provider = kp_new("provider", nullptr);
    if (follower && provider) {
        (void)kp_sub_topic(follower, "#");
        (void)kp_set_new_tag_notify(provider, 1);
        followed = wait_patiently([&, number = 0]() mutable {
            const std::string topic = "t/" + std::to_string(number++);
            (void)kp_tag_provider_new(provider, topic.c_str(), KP_TYPE_INT32, 4, 0);
            return exists_for(follower, topic);
        });
    }
    for (kp_t *opened : {provider, follower}) {
        if (!opened)
            continue;
        (void)kp_unsub_topic(opened, "#"); // what arrives from now on is not followed
        (void)kp_tags_destroy(opened);
        (void)kp_destroy(opened);
    }
    return followed;
}

bool fill_lists()
{
    kplist *filled = kplist_new();
    if (!filled)
        return false;
    (void)kplist_add(filled, nullptr);
    (void)kplist_append(filled, nullptr);
    const bool done = kplist_size(filled) == 2;
    kplist_free(filled, nullptr);
    return done;
}

} // namespace

TEST(EveryCallFails, InOpeningAnEndpoint)
{
    fail_every_call({.name = "open and close an endpoint", .run = open_and_close_endpoint});
}

TEST(EveryCallFails, InOpeningAnEndpointOnAnyOfItsThreads)
{
    fail_every_call({.name = "open and close an endpoint, all threads",
                     .run = open_and_close_endpoint,
                     .has_threads = true});
}

TEST(EveryCallFails, InOpeningAnEndpointBesideAPeer)
{
    fail_every_call({.name = "open and close an endpoint beside a peer",
                     .set_up = [] { peer = kp_new("peer", nullptr); },
                     .tear_down = [] { (void)kp_destroy(peer); },
                     .run = open_and_close_endpoint});
}

TEST(EveryCallFails, InCreatingAHandle)
{
    fail_every_call({.name = "create and destroy a handle", .run = [] {
                         kp_t *made = kp_new(nullptr, nullptr);
                         return made && kp_destroy(made) == 0;
                     }});
}

TEST(EveryCallFails, InCreatingAProvider)
{
    fail_every_call({"create and destroy a provider tag", open_handle, close_handle, [] {
                         return make_and_destroy(
                             kp_tag_provider_new(handle, "a/b/c", KP_TYPE_INT32, 4, 0));
                     }});
}

TEST(EveryCallFails, InCreatingAProviderThatIsAnnounced)
{
    fail_every_call(
        {"create, announce and destroy a provider tag", open_with_peer, close_with_peer,
         [] { return make_and_destroy(kp_tag_provider_new(handle, "a/b", KP_TYPE_RAW, 9, 0)); }});
}

TEST(EveryCallFails, InCreatingAConsumer)
{
    fail_every_call({"create and destroy a consumer tag", open_handle, close_handle,
                     [] { return make_and_destroy(kp_tag_consumer_new(handle, "a/b/c")); }});
}

TEST(EveryCallFails, InWriting)
{
    fail_every_call({.name = "write in every way and send the notice",
                     .set_up =
                         [] {
                             open_with_peer();
                             tag = kp_tag_provider_new(handle, "a/b", KP_TYPE_STRING, 100, 0);
                         },
                     .tear_down = close_with_peer,
                     .run = write_in_every_way,
                     .has_threads = false});
}

TEST(EveryCallFails, InWritingByName)
{
    fail_every_call(
        {"write a new topic by name", open_handle, close_handle, write_new_topic_by_name});
    fail_every_call({"write a topic by name", open_provider, close_handle,
                     [] { return write_by_name("a/b"); }});
}

TEST(EveryCallFails, InReadingByName)
{
    fail_every_call({"read a topic by name", open_provider, close_handle, read_by_name});
    fail_every_call({"query a topic by name", open_provider, close_handle, query_by_name});
}

TEST(EveryCallFails, InSubscribing)
{
    fail_every_call({"subscribe to a topic", open_provider_and_follower, close_with_peer,
                     [] { return follow("a/b"); }});
    fail_every_call({"subscribe to a pattern", open_provider_and_follower, close_with_peer,
                     [] { return follow("a/#"); }});
}

TEST(EveryCallFails, InRebuildingTheSubscriptions)
{
    fail_every_call(
        {"rebuild the subscriptions", open_provider_and_follower, close_with_peer, rebuild});
}

TEST(EveryCallFails, InPublishing)
{
    fail_every_call({"publish a topic", open_handle, close_handle, publish});
}

TEST(EveryCallFails, InListingTheTopics)
{
    fail_every_call({"list the topics", open_provider, close_handle, list});
}

TEST(EveryCallFails, InReceivingANotice)
{
    fail_every_call({.name = "exchange a notice", .run = exchange_a_notice, .has_threads = true});
}

TEST(EveryCallFails, InMakingADescriptorToWaitOn)
{
    fail_every_call({.name = "make a handle and its descriptor", .run = [] {
                         kp_t *made = kp_new(nullptr, nullptr);
                         if (!made)
                             return false;
                         const bool done = kp_get_fd(made) >= 0;
                         return kp_destroy(made) == 0 && done;
                     }});
}

TEST(EveryCallFails, InTakingANotice)
{
    fail_every_call({.name = "exchange a notice by a descriptor",
                     .run = exchange_a_notice_by_descriptor,
                     .has_threads = true});
}

TEST(EveryCallFails, InReceivingAnAnnouncement)
{
    fail_every_call(
        {.name = "exchange an announcement", .run = exchange_an_announcement, .has_threads = true});
}

TEST(EveryCallFails, InFillingLists)
{
    fail_every_call({.name = "fill lists", .run = fill_lists});
}

// Reading a tag makes no call that can fail, so there is nothing to drive.
TEST(ReadingATag, MakesNoCallThatCanFail)
{
    open_provider();
    kptest::CountCalls calls{kptest::kFallibleCalls, kptest::Threads::this_one};

    EXPECT_TRUE(read_in_every_way());

    EXPECT_EQ(calls.count(), 0);
    close_handle();
}
