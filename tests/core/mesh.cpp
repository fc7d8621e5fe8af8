#include "core/mesh.h"

#include "layout/field.h"
#include "notify/endpoint.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace kptest {

namespace {

std::mutex current_mutex;
CallbackRecorder *current = nullptr;

std::ptrdiff_t accepted_peers(const kp_t *handle)
{
    return std::ranges::count_if(handle->notify->client_fds, [](const int32_t &fd) {
        return kp::load_acquire(fd) != kp::kFreeSlot;
    });
}

// Each thread of an endpoint makes itself a set of descriptors to wait for, last of all.
std::ptrdiff_t waiting_threads()
{
    return std::ranges::count_if(open_descriptors(), [](const auto &descriptor) {
        return descriptor.second == "anon_inode:[eventpoll]";
    });
}

std::vector<std::string> strings_of(kplist *list)
{
    std::vector<std::string> strings;
    kplist_lock(list);
    for (const kplist_node *node = list->head; node; node = node->next)
        strings.emplace_back(static_cast<const char *>(node->data));
    kplist_unlock(list);
    return strings;
}

uint64_t next_timestamp()
{
    static uint64_t last = 0;
    last = std::max(last, kp_get_timestamp_us()) + 1;
    return last;
}

} // namespace

std::string repeated(char character, std::size_t count)
{
    return std::string(count, character);
}

const uint8_t *bytes_of(const std::string &notice)
{
    return reinterpret_cast<const uint8_t *>(notice.data());
}

const kp_write_info *as_write_info(const std::string &notice)
{
    return reinterpret_cast<const kp_write_info *>(notice.data());
}

CallbackRecorder::CallbackRecorder()
{
    const std::lock_guard lock(current_mutex);
    current = this;
}

CallbackRecorder::~CallbackRecorder()
{
    const std::lock_guard lock(current_mutex);
    current = nullptr;
}

int CallbackRecorder::callback(kp_t *handle, const kp_write_info *notice, void *user_data)
{
    const std::lock_guard lock(current_mutex);
    if (!current)
        return 0;
    std::function<void(kp_t *, const kp_write_info *)> action;
    std::string bytes(sizeof(*notice), '\0');
    std::memcpy(bytes.data(), notice, bytes.size());
    {
        const std::lock_guard calls_lock(current->mutex_);
        current->calls_.push_back({handle, std::move(bytes), user_data});
        action = current->action_;
    }
    if (action)
        action(handle, notice);
    return 0;
}

void CallbackRecorder::on_call(std::function<void(kp_t *, const kp_write_info *)> action)
{
    const std::lock_guard lock(mutex_);
    action_ = std::move(action);
}

std::vector<CallbackRecorder::Call> CallbackRecorder::calls() const
{
    const std::lock_guard lock(mutex_);
    return calls_;
}

bool CallbackRecorder::wait_for(std::size_t count) const
{
    return wait_until([this, count] { return calls().size() >= count; });
}

Handle::Handle(const char *name, kp_callback_t callback)
{
    const auto before = waiting_threads();
    handle_ = kp_new(name, callback);
    if (!handle_)
        throw std::runtime_error("no handle");
    EXPECT_TRUE(wait_until([before] { return waiting_threads() == before + 3; }));
}

Handle::~Handle()
{
    if (!handle_)
        return;
    EXPECT_EQ(kp_tags_destroy(handle_), 0);
    (void)destroy();
}

int32_t Handle::destroy()
{
    return kp_destroy(std::exchange(handle_, nullptr));
}

Peer::Peer(const std::string &name)
    : path_("/run/providers/" + name), listener_(UnixSocket::listening(path_))
{
}

Peer::~Peer()
{
    std::filesystem::remove(path_);
}

UnixSocket listen_to(kp_t *handle)
{
    const auto before = accepted_peers(handle);
    UnixSocket socket =
        UnixSocket::connected(std::string("/run/providers/") + handle->notify->name);
    EXPECT_TRUE(socket.is_open());
    EXPECT_TRUE(wait_until([handle, before] { return accepted_peers(handle) > before; }));
    return socket;
}

bool HeldOpening::has_begun() const
{
    return wait_until([this] { return begun_.load(); });
}

void HeldOpening::release()
{
    released_ = true;
}

void HeldOpening::hold()
{
    begun_ = true;
    (void)wait_until([this] { return released_.load(); }, std::chrono::milliseconds(300));
}

void follow(kp_t *handle, const char *pattern)
{
    (void)kp_sub_topic(handle, pattern);
}

std::vector<std::string> topics_of(kp_t *handle)
{
    std::vector<std::string> topics;
    for (uint32_t bucket = 0; bucket < KP_BUCKET_COUNT; ++bucket)
        for (const kp_dict_entry *entry = kp_lookup_head(handle, bucket); entry;
             entry = entry->next)
            topics.emplace_back(kp_tag_get_topic(entry->tag));
    return topics;
}

std::vector<std::string> plain_subscriptions_of(kp_t *handle)
{
    return strings_of(handle->sub_topics);
}

std::vector<std::string> patterns_of(kp_t *handle)
{
    return strings_of(handle->sub_patterns);
}

std::vector<uint32_t> marks_of(kp_t *handle)
{
    std::vector<uint32_t> marks;
    for (uint32_t bucket = 0; bucket < KP_BUCKET_COUNT; ++bucket)
        if (handle->write_info.bitmap[bucket / 8] & 1 << bucket % 8)
            marks.push_back(bucket);
    return marks;
}

Writer::Writer(std::string topic, uint32_t value_type, uint32_t max_value_size)
    : topic_(std::move(topic)), shm_(kp_shm_new(topic_.c_str(), KP_ROLE_PROVIDER))
{
    EXPECT_EQ(kp_shm_set_provider_info(shm_, value_type, max_value_size, 0), 0);
}

Writer::~Writer()
{
    EXPECT_EQ(kp_shm_destroy(shm_, topic_.c_str(), KP_ROLE_PROVIDER), 0);
}

void Writer::write(int32_t value, uint8_t quality)
{
    const uint64_t now = next_timestamp();
    EXPECT_EQ(kp_shm_write(shm_, &value, sizeof(value), now, quality, now), 4);
}

int32_t stored_int(const std::string &topic)
{
    return static_cast<int32_t>(SegmentFile(topic).u32(at::value));
}

} // namespace kptest
