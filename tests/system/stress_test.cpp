// Several handles of one process at work at once, for ThreadSanitizer above all: each has a thread
// that writes and announces, and follows what the others announce; their callbacks read, while
// other endpoints come and go.
#include "testing/process.h"

#include "kp.h"

#include <array>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace kptest;

namespace {

constexpr int kMembers = 4;
constexpr int kTopics = 5;
constexpr std::chrono::seconds kDuration{3};

std::string topic_of(int member, int number)
{
    return "stress/" + std::to_string(member) + "/" + std::to_string(number);
}

std::string greeting_of(int member)
{
    return "stress/" + std::to_string(member) + "/hello";
}

// One handle, with the thread that alone writes and creates tags on it.
class Member {
  public:
    explicit Member(int number)
        : number_(number),
          handle_(kp_new(("member-" + std::to_string(number)).c_str(), read_updated))
    {
        (void)kp_set_user_data(handle_, this);
        (void)kp_set_new_tag_notify(handle_, 1);
        (void)kp_sub_topic(handle_, "stress/#");
    }
    Member(const Member &) = delete;
    Member &operator=(const Member &) = delete;
    ~Member()
    {
        stop();
        // What the others announce or write from now on must find no tag that is being destroyed.
        (void)kp_unsub_topic(handle_, "stress/#");
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
    }

    void start()
    {
        thread_ = std::thread([this] { write_values(); });
    }
    void stop()
    {
        running_ = false;
        if (thread_.joinable())
            thread_.join();
    }
    kp_t *handle() const
    {
        return handle_;
    }
    uint32_t written() const
    {
        return written_;
    }
    int notices() const
    {
        return notices_;
    }
    // Makes and announces a tag that nobody writes.
    void greet() const
    {
        (void)kp_tag_destroy(handle_, kp_tag_provider_new(handle_, greeting_of(number_).c_str(),
                                                          KP_TYPE_INT8, 1, 0));
    }
    bool follows(const std::string &topic) const
    {
        return kp_get_tag(handle_, topic.c_str()) != nullptr;
    }
    // Says whether this handle's tag for the topic holds the value.
    bool holds(const std::string &topic, uint32_t expected) const
    {
        uint32_t value = 0;
        kp_tag_t *tag = kp_get_tag(handle_, topic.c_str());
        return tag && kp_tag_read_consistent(tag, &value, 4, nullptr, nullptr, nullptr) == 4 &&
               value == expected;
    }

  private:
    static int read_updated(kp_t *handle, const kp_write_info *notice, void *user_data)
    {
        kp_tag_iter_t iter = {0, nullptr};
        uint32_t value = 0;
        while (iter.bucket < KP_BUCKET_COUNT)
            if (kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter))
                (void)kp_tag_read(tag, &value, 4);
        if (user_data)
            ++static_cast<Member *>(user_data)->notices_;
        return 0;
    }

    void write_values()
    {
        std::vector<kp_tag_t *> tags;
        while (running_) {
            const uint32_t next = written_ + 1;
            if (tags.size() < kTopics)
                tags.push_back(kp_tag_provider_new(
                    handle_, topic_of(number_, static_cast<int>(tags.size())).c_str(),
                    KP_TYPE_UINT32, 4, 0));
            for (kp_tag_t *tag : tags)
                (void)kp_tag_write(handle_, tag, &next, 4);
            (void)kp_tag_notify(handle_);
            written_ = next;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }

    const int number_;
    std::atomic<bool> running_ = true;
    std::atomic<uint32_t> written_ = 0;
    std::atomic<int> notices_ = 0;
    kp_t *handle_;
    std::thread thread_;
};

void ignore(const uint8_t *, int32_t, void *)
{
}

// Endpoints that come and go beside the others.
int open_and_close_endpoints(const std::atomic<bool> &running)
{
    int count = 0;
    while (running) {
        const std::string name = "visitor-" + std::to_string(count++);
        if (kp_notify_t *endpoint = kp_notify_init(name.c_str(), 129, ignore, nullptr))
            (void)kp_notify_close(&endpoint);
    }
    return count;
}

class Stress : public testing::Test {
  protected:
    void run()
    {
        for (int number = 0; number < kMembers; ++number)
            members_.push_back(std::make_unique<Member>(number));
        EXPECT_TRUE(wait_until([this] { return have_met(); }));
        std::atomic<bool> running = true;
        std::thread visitors([&] { visitors_ = open_and_close_endpoints(running); });
        for (const auto &member : members_)
            member->start();
        std::this_thread::sleep_for(kDuration);
        running = false;
        visitors.join();
        for (const auto &member : members_)
            member->stop();
    }
    // An announcement reaches those alone who are connected, so each is repeated until all know it.
    bool have_met() const
    {
        bool all = true;
        for (std::size_t greeter = 0; greeter < members_.size(); ++greeter)
            for (std::size_t other = 0; other < members_.size(); ++other)
                if (other != greeter &&
                    !members_[other]->follows(greeting_of(static_cast<int>(greeter)))) {
                    members_[greeter]->greet();
                    all = false;
                }
        return all;
    }
    // Every handle holds what every other wrote last.
    bool all_hold_the_last_values() const
    {
        for (const auto &reader : members_)
            for (std::size_t writer = 0; writer < members_.size(); ++writer)
                for (int number = 0; number < kTopics; ++number)
                    if (!reader->holds(topic_of(static_cast<int>(writer), number),
                                       members_[writer]->written()))
                        return false;
        return true;
    }
    bool all_received_notices() const
    {
        for (const auto &member : members_)
            if (member->notices() == 0)
                return false;
        return true;
    }

    std::vector<std::unique_ptr<Member>> members_;
    int visitors_ = 0;
};

} // namespace

TEST_F(Stress, LeavesEveryHandleWithTheLastValuesAndNothingBehind)
{
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    const auto descriptors = open_descriptors();
    const int threads = thread_count();

    run();

    EXPECT_TRUE(wait_until([this] { return all_hold_the_last_values(); }));
    EXPECT_TRUE(all_received_notices());
    EXPECT_GT(visitors_, 0);
    members_.clear();
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(thread_count(), threads);
}
