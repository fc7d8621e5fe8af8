// Sequences of interface calls on two handles, compared with a model: segments, tags and
// subscriptions in plain containers.
#include "fuzz/fuzz.h"

#include "kp.h"
#include "testing/segment_file.h"

#include <array>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <poll.h>

using namespace kpfuzz;

namespace {

constexpr std::array<const char *, 6> kTopics{"a", "b/c", "b/d/e", "x/y/z/w", "Aa/1", "BB/1"};
constexpr std::array<const char *, 6> kPatterns{"#", "b/#", "+/+", "b/+/e", "+", "x/#"};

bool is_variable(uint32_t type)
{
    return type >= KP_TYPE_STRING && type <= KP_TYPE_RAW;
}

uint32_t size_of(uint32_t type, uint32_t size)
{
    constexpr std::array<uint32_t, 11> kFixed{1, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    if (type < kFixed.size())
        return kFixed[type];
    return is_variable(type) ? std::min(size, 4000U) : 0;
}

// What the file of a topic holds.
struct Segment {
    bool valid = false;
    bool has_value = false;
    uint32_t type = 0;
    uint32_t most = 0;
    uint32_t extra = 0;
    uint8_t quality = 0;
    uint64_t source_ts = 0;
    uint64_t ts = 0;
    std::string bytes = std::string(4004, '\0');
    uint32_t size = 0;
    uint32_t providers = 0;
    uint32_t consumers = 0;
};

struct Tag {
    kp_tag_t *real;
    std::string topic;
    uint32_t role;
    uint64_t seen;
};

struct Handle {
    kp_t *real;
    std::list<Tag> tags;              // newest first
    std::deque<std::string> plain;    // newest first
    std::deque<std::string> patterns; // newest first
};

std::map<std::string, Segment> store;
std::array<Handle, 2> handles;

bool is_covered(const Handle &handle, const std::string &topic)
{
    return std::any_of(handle.patterns.begin(), handle.patterns.end(),
                       [&](const std::string &pattern) { return naive_match(pattern, topic); });
}

Tag *find(Handle &handle, const std::string &topic)
{
    for (Tag &tag : handle.tags)
        if (tag.topic == topic)
            return &tag;
    return nullptr;
}

uint64_t last_write_ts(const Tag &tag)
{
    uint64_t ts = 0;
    check(kp_tag_get_last_write_timestamp(tag.real, &ts) == 0, "the time of the last write");
    return ts;
}

// Enters a tag that the library has just made.
Tag &enter(Handle &handle, kp_tag_t *real, const std::string &topic, uint32_t role)
{
    check(real != nullptr, "a tag is made");
    Segment &segment = store[topic];
    const bool is_first = segment.providers + segment.consumers == 0;
    handle.tags.push_front({real, topic, role, 0});
    Tag &tag = handle.tags.front();
    if (is_first)
        segment.ts = last_write_ts(tag); // the time of the opening
    tag.seen = UINT64_MAX;               // what is there counts as seen
    (role == KP_ROLE_PROVIDER ? segment.providers : segment.consumers) += 1;
    return tag;
}

void forget(Handle &handle, const std::string &topic, const kp_tag_t *real)
{
    const auto tag = std::find_if(handle.tags.begin(), handle.tags.end(),
                                  [&](const Tag &candidate) { return candidate.real == real; });
    check(tag != handle.tags.end(), "a tag of the model");
    Segment &segment = store[topic];
    (tag->role == KP_ROLE_PROVIDER ? segment.providers : segment.consumers) -= 1;
    if (segment.providers + segment.consumers == 0)
        store.erase(topic);
    handle.tags.erase(tag);
}

void declare(Segment &segment, uint32_t type, uint32_t most, uint32_t extra)
{
    segment.quality = 0;
    segment.source_ts = 0;
    segment.valid = true;
    segment.has_value = false;
    segment.type = type;
    segment.most = most;
    segment.extra = extra;
    segment.size = size_of(type, 0);
    segment.bytes.replace(0, most, most, '\0');
}

void provide(Handle &handle, const std::string &topic, uint32_t type, uint32_t size, uint32_t extra)
{
    kp_tag_t *real = kp_tag_provider_new(handle.real, topic.c_str(), type, size, extra);
    if (type > KP_TYPE_RAW || size > 4000 || size_of(type, size) == 0) {
        check(!real, "an impossible provider is refused");
        return;
    }
    (void)enter(handle, real, topic, KP_ROLE_PROVIDER);
    declare(store[topic], type, size_of(type, size), extra);
}

void store_value(Segment &segment, const std::string &value, uint8_t quality, uint64_t source_ts)
{
    if (quality != KP_QUALITY_KEEP)
        segment.quality = quality;
    segment.source_ts = source_ts;
    segment.bytes.replace(0, value.size(), value);
    segment.size = static_cast<uint32_t>(value.size());
    segment.has_value = true;
}

bool fits(const Segment &segment, uint32_t size)
{
    return is_variable(segment.type) ? size <= segment.most : size == segment.most;
}

void write(Handle &handle, Tag &tag, const std::string &bytes, uint8_t quality, uint64_t source_ts)
{
    Segment &segment = store[tag.topic];
    const auto size = static_cast<uint32_t>(bytes.size());
    std::string padded = bytes; // a fixed size reads its own number of bytes
    padded.resize(std::max<std::size_t>(bytes.size(), 8));
    const int32_t result = kp_tag_write_with_source_params(handle.real, tag.real, padded.data(),
                                                           size, quality, source_ts);
    const uint32_t count = segment.valid ? size_of(segment.type, size) : 0;
    if (count == 0 || !fits(segment, count)) {
        check(result == -1, "an impossible write fails");
        return;
    }
    check(result == static_cast<int32_t>(count), "a write is whole");
    store_value(segment, padded.substr(0, count), quality, source_ts);
    segment.ts = last_write_ts(tag);
    tag.seen = segment.ts;
}

void read(Tag &tag, uint32_t room, bool consistent)
{
    const Segment &segment = store[tag.topic];
    std::string buffer(room, '\0');
    uint32_t quality = 77;
    uint64_t source_ts = 0;
    const int32_t result =
        consistent
            ? kp_tag_read_consistent(tag.real, buffer.data(), room, &quality, nullptr, &source_ts)
            : kp_tag_read_with_source_params(tag.real, buffer.data(), room, &quality, &source_ts);
    if (!segment.valid || segment.size == 0 || segment.size > room) {
        check(result == -1 && quality == 0, "a read without a value that fits fails");
        return;
    }
    check(result == static_cast<int32_t>(segment.size), "a read gives the size");
    check(buffer.compare(0, segment.size, segment.bytes, 0, segment.size) == 0, "and the bytes");
    check(quality == segment.quality && source_ts == segment.source_ts, "and what belongs to them");
    tag.seen = segment.ts;
}

void query(const Tag &tag)
{
    const Segment &segment = store[tag.topic];
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t extra = 0;
    const int32_t result = kp_tag_get_value_info(tag.real, &type, &size, &extra);
    check((result == 0) == segment.valid, "only a declared topic has information");
    check(result == -1 || (type == segment.type && size == segment.size && extra == segment.extra),
          "the information is the declared one");
    check(kp_tag_has_value(tag.real) == (segment.has_value ? 1 : 0), "whether there is a value");
    check(last_write_ts(tag) == segment.ts, "the time of the last write");
    if (tag.seen != UINT64_MAX)
        check(kp_tag_has_read(tag.real) == (tag.seen >= segment.ts ? 1 : 0), "whether it was seen");
    if (segment.quality == 0)
        check(kp_tag_need_read(tag.real) == 0, "quality 0 needs no read");
    uint32_t providers = 0;
    uint32_t consumers = 0;
    const int32_t counted = kp_tag_get_reference_count(tag.topic.c_str(), &providers, &consumers);
    check((counted == 0) == segment.valid, "only a declared topic has counts");
    check(counted == -1 || (providers == segment.providers && consumers == segment.consumers),
          "the counts are those of the open tags");
}

// A consumer tag for a topic that a subscription covers, unless the handle has one.
void follow(Handle &handle, const std::string &topic)
{
    if (find(handle, topic))
        return;
    Tag &tag = enter(handle, kp_get_tag(handle.real, topic.c_str()), topic, KP_ROLE_CONSUMER);
    tag.seen = UINT64_MAX; // some time in the past
}

// The library has subscribed already; this makes the model follow.
void subscribed(Handle &handle, const std::string &text)
{
    if (is_covered(handle, text))
        return;
    if (text.find_first_of("+#") == std::string::npos) {
        handle.plain.push_front(text);
        follow(handle, text);
        return;
    }
    handle.patterns.push_front(text);
    const auto depth = std::count(text.begin(), text.end(), '/');
    std::vector<std::string> found;
    for (const auto &[topic, segment] : store) {
        const auto level = std::count(topic.begin(), topic.end(), '/');
        if ((level == depth || (level > depth && text.back() == '#')) && naive_match(text, topic))
            found.push_back(topic);
    }
    for (const std::string &topic : found)
        follow(handle, topic);
}

void subscribe(Handle &handle, const std::string &text)
{
    const bool can_fail = text.find_first_of("+#") != std::string::npos;
    const int32_t result = kp_sub_topic(handle.real, text.c_str());
    check(result == 0 || can_fail, "a subscription is taken");
    subscribed(handle, text);
}

void unsubscribe_pattern(Handle &handle, const std::string &pattern)
{
    const auto place = std::find(handle.patterns.begin(), handle.patterns.end(), pattern);
    (void)kp_unsub_topic(handle.real, pattern.c_str());
    if (place == handle.patterns.end())
        return;
    handle.patterns.erase(place);
    while (!handle.tags.empty())
        forget(handle, handle.tags.front().topic, handle.tags.front().real);
    const auto patterns = std::exchange(handle.patterns, {});
    for (const std::string &text : patterns)
        subscribed(handle, text);
    const auto plain = std::exchange(handle.plain, {});
    for (const std::string &text : plain)
        subscribed(handle, text);
}

void unsubscribe_plain(Handle &handle, const std::string &topic)
{
    const Tag *tag = find(handle, topic);
    (void)kp_unsub_topic(handle.real, topic.c_str());
    if (const auto place = std::find(handle.plain.begin(), handle.plain.end(), topic);
        place != handle.plain.end())
        handle.plain.erase(place);
    if (tag && !is_covered(handle, topic))
        forget(handle, topic, tag->real);
}

void write_by_name(Handle &handle, const std::string &topic, uint32_t type,
                   const std::string &bytes)
{
    std::string padded = bytes;
    padded.resize(std::max<std::size_t>(bytes.size(), 8));
    const auto size = static_cast<uint32_t>(bytes.size());
    const int32_t result =
        kp_tag_instant_write(handle.real, topic.c_str(), padded.data(), type, size, 9, 10, 11);
    const uint32_t count = size > 4000 ? 0 : size_of(type, size);
    if (count == 0) {
        check(result == -1, "an impossible write by name fails");
        return;
    }
    check(result == 0, "a write by name succeeds");
    Segment &segment = store[topic];
    store_value(segment, padded.substr(0, count), 9, 10);
    segment.valid = true;
    segment.type = type;
    segment.extra = 11;
    segment.ts = kptest::SegmentFile(topic).u64(kptest::at::last_write_ts);
}

void read_by_name(const std::string &topic)
{
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;
    uint8_t quality = 0;
    uint64_t source_ts = 0;
    uint32_t extra = 0;
    const int32_t result =
        kp_tag_instant_read(topic.c_str(), &value, &type, &size, &quality, &source_ts, &extra);
    const std::unique_ptr<void, decltype(&std::free)> owner(value, std::free);
    const auto found = store.find(topic);
    if (found == store.end() || !found->second.valid) {
        check(result == -1, "a missing or undeclared topic cannot be read by name");
        return;
    }
    const Segment &segment = found->second;
    check(result == 0 && type == segment.type && size == segment.size &&
              quality == segment.quality && source_ts == segment.source_ts &&
              extra == segment.extra &&
              segment.bytes.compare(0, size, static_cast<char *>(value), size) == 0,
          "a read by name gives the segment");
}

void publish(Handle &handle, const std::string &topic, uint32_t type, const std::string &bytes)
{
    std::string padded = bytes;
    padded.resize(std::max<std::size_t>(bytes.size(), 8));
    const auto given = static_cast<uint32_t>(bytes.size());
    const bool has_tag = find(handle, topic) != nullptr;
    const int32_t result =
        kp_pub_topic_instant(handle.real, topic.c_str(), padded.data(), given, type, 12);
    const uint32_t size = size_of(type, given);
    if (size == 0) {
        check(result == -1, "an impossible publication fails");
        return;
    }
    if (!has_tag) {
        (void)enter(handle, kp_get_tag(handle.real, topic.c_str()), topic, KP_ROLE_PROVIDER);
        declare(store[topic], type, size_of(type, 4000), 2);
    }
    Tag &tag = *find(handle, topic);
    Segment &segment = store[topic];
    const uint32_t count = segment.valid ? size_of(segment.type, size) : 0;
    if (count == 0 || !fits(segment, count)) {
        check(result == -1, "a publication that does not fit fails");
        return;
    }
    check(result == 0, "a publication succeeds");
    // What the value is too short for is padded with zeros.
    std::string value = padded.substr(0, size);
    value.resize(count);
    store_value(segment, value, 1, 12);
    segment.ts = last_write_ts(tag);
    tag.seen = segment.ts;
}

bool has_bit(const kp_write_info &notice, const std::string &topic)
{
    const uint32_t hash = kp_hash(topic.c_str());
    return (notice.bitmap[hash >> 3] >> (hash & 7) & 1) != 0;
}

// Takes what waits; says whether the topic's bit was there.
bool take_notice(Handle &handle, const std::string &topic)
{
    kp_write_info notice;
    const int32_t result = kp_take_notice(handle.real, &notice);
    const bool any = std::any_of(std::begin(notice.bitmap), std::end(notice.bitmap),
                                 [](uint8_t byte) { return byte != 0; });
    check(notice.type == KP_MSG_WRITE_INFO && result == (any ? 1 : 0), "a notice is whole");
    check(kp_get_fd(handle.real) >= 0, "there is a descriptor");
    return has_bit(notice, topic);
}

// Says whether a notice of the topic comes to a handle in time.
bool is_told(Handle &handle, const std::string &topic, int timeout_ms)
{
    pollfd ready{kp_get_fd(handle.real), POLLIN, 0};
    while (!take_notice(handle, topic))
        if (poll(&ready, 1, timeout_ms) != 1)
            return false;
    return true;
}

// What one handle sends, the other one finds waiting.
void tell(Handle &sender, Handle &receiver, const std::string &topic)
{
    kp_write_info none;
    check(kp_take_notice(nullptr, &none) == -1, "no handle, no notice");
    write_by_name(sender, topic, KP_TYPE_INT32, "four");
    check(is_told(receiver, topic, 5000), "a notice comes to the other handle");
}

void compare_handle(Handle &handle)
{
    std::multiset<std::string> real;
    for (uint32_t bucket = 0; bucket < KP_BUCKET_COUNT; ++bucket)
        for (const kp_dict_entry *entry = kp_lookup_head(handle.real, bucket); entry;
             entry = entry->next)
            real.insert(kp_tag_get_topic(entry->tag));
    std::multiset<std::string> model;
    for (const Tag &tag : handle.tags)
        model.insert(tag.topic);
    check(real == model, "the dictionary holds the tags of the model");
    for (const char *topic : kTopics) {
        const Tag *tag = find(handle, topic);
        check(kp_get_tag(handle.real, topic) == (tag ? tag->real : nullptr),
              "the newest tag of a topic is found");
    }
}

void compare_store()
{
    std::multiset<std::string> expected;
    for (const auto &[topic, segment] : store)
        if (std::count(topic.begin(), topic.end(), '/') <= 2)
            expected.insert(topic);
    check(listed_topics() == expected, "the store holds the topics of the model");
}

void call(FuzzedDataProvider &input)
{
    Handle &handle = handles[input.ConsumeIntegralInRange<std::size_t>(0, 1)];
    const std::string topic = input.PickValueInArray(kTopics);
    const std::string pattern = input.PickValueInArray(kPatterns);
    Tag *tag = find(handle, topic);
    switch (input.ConsumeIntegralInRange<int>(0, 14)) {
    case 0:
        provide(handle, topic, input.ConsumeIntegralInRange<uint32_t>(0, 14),
                input.ConsumeIntegralInRange<uint32_t>(0, 4001), 3);
        return;
    case 1:
        (void)enter(handle, kp_tag_consumer_new(handle.real, topic.c_str()), topic,
                    KP_ROLE_CONSUMER);
        return;
    case 2:
        if (tag) {
            kp_tag_t *real = tag->real;
            check(kp_tag_destroy(handle.real, real) == 0, "a tag is destroyed");
            forget(handle, topic, real);
        }
        return;
    case 3:
    case 4:
        if (tag)
            write(handle, *tag, input.ConsumeRandomLengthString(4001),
                  input.ConsumeIntegral<uint8_t>(), input.ConsumeIntegral<uint64_t>());
        return;
    case 5:
    case 6:
        if (tag)
            read(*tag, input.ConsumeIntegralInRange<uint32_t>(0, 4001), input.ConsumeBool());
        return;
    case 7:
        if (tag)
            query(*tag);
        return;
    case 8:
        subscribe(handle, input.ConsumeBool() ? topic : pattern);
        return;
    case 9:
        unsubscribe_pattern(handle, pattern);
        return;
    case 10:
        unsubscribe_plain(handle, topic);
        return;
    case 11:
        write_by_name(handle, topic, input.ConsumeIntegralInRange<uint32_t>(0, 14),
                      input.ConsumeRandomLengthString(4001));
        return;
    case 12:
        read_by_name(topic);
        return;
    case 13:
        tell(handle, &handle == &handles[0] ? handles[1] : handles[0], topic);
        return;
    default:
        publish(handle, topic, input.ConsumeIntegralInRange<uint32_t>(0, 14),
                input.ConsumeRandomLengthString(4001));
    }
}

void start_anew()
{
    for (Handle &handle : handles) {
        (void)kp_tags_destroy(handle.real);
        for (const auto *list : {&handle.patterns, &handle.plain})
            for (const std::string &text : *list)
                (void)kp_unsub_topic(handle.real, text.c_str());
        handle = {handle.real, {}, {}, {}};
    }
    store.clear();
    std::error_code ignored;
    std::filesystem::remove_all("/dev/shm/zu-kp", ignored);
    std::filesystem::create_directories("/dev/shm/zu-kp");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    prepare();
    handles[0].real = kp_new("first", nullptr);
    handles[1].real = kp_new("second", nullptr);
    check(handles[0].real && handles[1].real, "two handles");
    // They take up their connections meanwhile; a notice before that could be lost.
    for (std::size_t sender = 0; sender < handles.size(); ++sender)
        for (int tries = 0;; ++tries) {
            check(tries < 1000, "the handles find each other");
            write_by_name(handles[sender], "a", KP_TYPE_INT32, "four");
            if (is_told(handles[1 - sender], "a", 20))
                break;
        }
    start_anew();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    for (int count = 0; input.remaining_bytes() > 0 && count < 100; ++count) {
        call(input);
        for (Handle &handle : handles)
            compare_handle(handle);
        compare_store();
    }
    start_anew();
    return 0;
}
