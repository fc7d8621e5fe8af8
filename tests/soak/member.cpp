#include "soak/member.h"

#include "kp.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace soak {

namespace {

constexpr useconds_t kVisitorPauseUs = 300'000;
constexpr useconds_t kExhaustionUs = 100'000;

volatile std::sig_atomic_t asked_to_end = 0;

// Gives the member that a topic belongs to, or -1 for junk.
int number_of(const char *topic)
{
    const std::string text(topic);
    if (!text.starts_with("soak/m"))
        return -1;
    const int number = std::atoi(text.c_str() + 6);
    return number < kMembers ? number : -1;
}

int take_notice(kp_t *handle, const kp_write_info *notice, void *user_data)
{
    if (!user_data)
        return 0;
    auto &report = *static_cast<Report *>(user_data);
    ++report.notices;
    kp_tag_iter_t iter = {0, nullptr};
    while (iter.bucket < KP_BUCKET_COUNT) {
        kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter);
        uint32_t value = 0;
        if (!tag || kp_tag_read_consistent(tag, &value, 4, nullptr, nullptr, nullptr) != 4)
            continue;
        if (const int number = number_of(kp_tag_get_topic(tag)); number >= 0)
            report.held[static_cast<std::size_t>(number)] = value;
    }
    return 0;
}

// Each third of the members follows the others in its own way.
void subscribe(kp_t *handle, int number)
{
    if (number % 3 == 0)
        (void)kp_sub_topic(handle, "#");
    if (number % 3 == 1)
        (void)kp_sub_topic(handle, "soak/+");
    if (number % 3 == 2)
        for (int other = 0; other < kMembers; ++other)
            if (other != number)
                (void)kp_sub_topic(handle, topic_of(other).c_str());
}

void use_up_descriptors()
{
    std::vector<int> fds;
    for (int fd = dup(0); fd >= 0; fd = dup(0))
        fds.push_back(fd);
    (void)usleep(kExhaustionUs);
    for (const int fd : fds)
        (void)close(fd);
}

} // namespace

std::string topic_of(int number)
{
    return "soak/m" + std::to_string(number);
}

int run_member(int number, Board &board)
{
    struct sigaction end {};
    end.sa_handler = [](int) { asked_to_end = 1; };
    (void)sigaction(SIGTERM, &end, nullptr);
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    Report &report = board.reports[static_cast<std::size_t>(number)];
    kp_t *handle = kp_new(("soak-" + std::to_string(number)).c_str(), take_notice);
    if (!handle)
        return 1;
    (void)kp_set_user_data(handle, &report);
    (void)kp_set_new_tag_notify(handle, 1);
    subscribe(handle, number);
    (void)usleep(board.connection_us);
    kp_tag_t *tag = kp_tag_provider_new(handle, topic_of(number).c_str(), KP_TYPE_UINT32, 4, 0);
    while (tag && !asked_to_end) {
        ++report.heartbeat;
        if (report.fill_descriptors.exchange(false))
            use_up_descriptors();
        if (board.writing) {
            const uint32_t value = report.written + 1;
            if (kp_tag_write(handle, tag, &value, 4) == 4)
                report.written = value;
            (void)kp_tag_notify(handle);
            ++report.updates;
        }
        (void)usleep(number < kMembers ? board.pause_us : kVisitorPauseUs);
    }
    (void)kp_unsub_topic(handle, "#");
    (void)kp_tags_destroy(handle);
    (void)kp_destroy(handle);
    return tag ? 0 : 1;
}

} // namespace soak
