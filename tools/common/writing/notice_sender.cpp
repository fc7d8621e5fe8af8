#include "common/writing/notice_sender.h"

#include "common/clock.h"
#include "common/device/unix_sockets.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr long kPauseNs = 2'000'000;

struct Connections {
    std::size_t live_peers = 0;
    std::size_t connected = 0;
};

Connections count_connections(const std::string &own_name)
{
    Connections count;
    const UnixSockets all = list_unix_sockets();
    for (const EndpointFile &file : list_endpoint_files()) {
        const bool own = file.name == own_name;
        for (const UnixSocket &socket : all.sockets) {
            if (!file.is_bound_by(socket))
                continue;
            count.live_peers += !own && socket.state == UnixSocket::State::listening;
            count.connected += own && socket.state == UnixSocket::State::connected;
        }
    }
    return count;
}

void pause_briefly()
{
    const timespec pause{0, kPauseNs};
    (void)nanosleep(&pause, nullptr);
}

void ignore_message(const uint8_t *, int32_t, void *)
{
}

} // namespace

// A process number is unique in its container only, and containers may share the directory.
std::string own_endpoint_name(const char *verb)
{
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) != sizeof(number))
        number = monotonic_us();
    std::array<char, 17> unique{};
    (void)std::snprintf(unique.data(), unique.size(), "%08x", static_cast<unsigned>(number));
    return std::string("kp-") + verb + "-" + std::to_string(getpid()) + "-" + unique.data();
}

NoticeSender::~NoticeSender()
{
    if (endpoint_)
        (void)kp_notify_close(&endpoint_);
}

// The bucket is that of the name as an application spells it, of which the file's name tells
// nothing: a tag `/a/b` has the file of `a/b` and another bucket.
void NoticeSender::mark(const std::string &topic, const std::string &spelling, bool is_new)
{
    for (const std::string &name : {topic, "/" + topic, spelling}) {
        const uint32_t bucket = kp_hash(name.c_str());
        marks_.bitmap[bucket >> 3] =
            static_cast<uint8_t>(marks_.bitmap[bucket >> 3] | 1U << (bucket & 7));
    }
    has_marks_ = true;
    if (is_new && topic.size() < KP_NEW_TAG_TOPIC_SIZE)
        new_topics_.push_back(topic);
}

bool NoticeSender::wait_for_peers(uint64_t wait_us, Problem &problem) const
{
    const uint64_t deadline = monotonic_us() + wait_us;
    for (;;) {
        const Connections count = count_connections(name_);
        const bool complete =
            count.connected >= std::min<std::size_t>(count.live_peers, KP_MAX_PEERS);
        pause_briefly(); // also between a connection's acceptance and its being used
        if (complete)
            return true;
        if (monotonic_us() >= deadline) {
            problem = {kLimit, std::to_string(count.live_peers - count.connected) + " of " +
                                   std::to_string(count.live_peers) +
                                   " peers did not connect in time and did not see the notice of "
                                   "what was stored (see kp peers)"};
            return false;
        }
    }
}

bool NoticeSender::join(Problem &problem)
{
    return open("the mesh cannot be joined", problem);
}

// `what` says what it means when that fails.
bool NoticeSender::open(const char *what, Problem &problem)
{
    if (endpoint_)
        return true;
    name_ = own_endpoint_name(verb_.c_str());
    endpoint_ = kp_notify_init(name_.c_str(), sizeof(kp_write_info), ignore_message, nullptr);
    if (endpoint_)
        return true;
    problem = system_problem(std::string(kEndpointRoot) + ": " + what, errno);
    if (problem.kind != kPermission)
        problem.kind = kLimit;
    return false;
}

void NoticeSender::send_marks()
{
    for (const std::string &topic : new_topics_) {
        kp_new_tag_info announcement{KP_MSG_NEW_TAG, {}};
        (void)std::snprintf(announcement.topic, sizeof(announcement.topic), "%s", topic.c_str());
        (void)kp_notify_send(endpoint_, &announcement, sizeof(announcement));
    }
    (void)kp_notify_send(endpoint_, &marks_, sizeof(marks_));
    new_topics_.clear();
    marks_ = {KP_MSG_WRITE_INFO, {}};
    has_marks_ = false;
}

bool NoticeSender::send(uint64_t wait_us, Problem &problem)
{
    if (!has_marks_)
        return true;
    if (!open("stored, but nobody could be told", problem))
        return false;
    const bool all_connected = std::exchange(has_waited_, true) || wait_for_peers(wait_us, problem);
    send_marks();
    return all_connected;
}

} // namespace kp::tool
