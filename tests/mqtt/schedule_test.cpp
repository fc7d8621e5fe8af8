#include "outbound/schedule.h"

#include "testing/store_provider.h"

#include <gtest/gtest.h>
#include <memory>

using namespace kp::mqtt;
using kptest::StoreProvider;
using std::chrono::seconds;

namespace {

const Clock::time_point kStart{std::chrono::hours(1)};

// A schedule beside the topic `a/1`, of which nothing waits yet. It goes to `p/a/1`.
class ScheduleOf {
  public:
    explicit ScheduleOf(const std::string &rule = "")
        : configuration_(
              parse_configuration(
                  "device = \"d\"\n[broker]\n[[out]]\npattern = \"a/#\"\nprefix = \"p\"\n" + rule,
                  "f")
                  .configuration),
          state_(std::move(*StateFile::open("").value)),
          topics_(configuration_, reader_, *state_, pending_), schedule_(topics_, *state_, pending_)
    {
        topics_.scan(kStart);
        (void)pending_.take(true);
    }

    OutTopic &topic()
    {
        return *topics_.of_tag("a/1");
    }
    // As if the newest message of the topic had gone at that time.
    void sent(Clock::time_point when)
    {
        topic().gate.sent({}, when);
        topic().must_send = false;
    }
    StateFile &state()
    {
        return *state_;
    }
    PendingNames &pending()
    {
        return pending_;
    }
    Schedule *operator->()
    {
        return &schedule_;
    }

  private:
    StoreProvider provider_{"a/1"};
    Configuration configuration_;
    StoreReader reader_;
    std::unique_ptr<StateFile> state_;
    PendingNames pending_;
    TopicTable topics_;
    Schedule schedule_;
};

} // namespace

TEST(Schedule, HasNothingDueWhileNothingWaits)
{
    ScheduleOf schedule;

    schedule->take_deferred(Clock::time_point::max());
    schedule->take_reminders(Clock::time_point::max());

    EXPECT_EQ(schedule.pending().size(), 0u);
    EXPECT_EQ(schedule->due(), std::nullopt);
    EXPECT_EQ(schedule->oldest(), std::nullopt);
}

TEST(Schedule, PutsATopicInLineAtItsTimeAndNotBefore)
{
    ScheduleOf schedule;
    schedule->defer(schedule.topic(), kStart + seconds(2), kStart);

    schedule->take_deferred(kStart + seconds(2) - Clock::duration(1));
    EXPECT_FALSE(schedule.pending().has("p/a/1"));
    schedule->take_deferred(kStart + seconds(2));

    EXPECT_TRUE(schedule.pending().has_change("p/a/1"));
    EXPECT_EQ(schedule->due(), std::nullopt);
}

TEST(Schedule, KeepsTheAgeOfWhatItDefers)
{
    ScheduleOf schedule;
    schedule->defer(schedule.topic(), kStart + seconds(2), kStart + seconds(1));

    schedule->take_deferred(kStart + seconds(9));

    EXPECT_EQ(schedule.pending().oldest(), kStart + seconds(1));
}

TEST(Schedule, DefersATopicOnce)
{
    ScheduleOf schedule;
    schedule->defer(schedule.topic(), kStart + seconds(2), kStart);
    schedule->defer(schedule.topic(), kStart + seconds(1), kStart);
    schedule->defer("p/a/1", kStart + seconds(3), kStart);

    EXPECT_EQ(schedule->due(), kStart + seconds(2));
    schedule->take_deferred(kStart + seconds(2));

    EXPECT_FALSE(schedule.topic().is_deferred);
    EXPECT_EQ(schedule->due(), std::nullopt);
}

TEST(Schedule, DefersATopicAgainOnceItWasInLine)
{
    ScheduleOf schedule;
    schedule->defer(schedule.topic(), kStart + seconds(1), kStart);
    schedule->take_deferred(kStart + seconds(1));

    schedule->defer(schedule.topic(), kStart + seconds(5), kStart);

    EXPECT_EQ(schedule->due(), kStart + seconds(5));
}

TEST(Schedule, PutsInLineWhatIsNoTagsWhileTheBrokerKeepsIt)
{
    ScheduleOf schedule;
    schedule.state().add("p/kept");
    schedule->defer("p/kept", kStart, kStart);
    schedule->defer("p/unknown", kStart, kStart);

    schedule->take_deferred(kStart);

    EXPECT_TRUE(schedule.pending().has_change("p/kept"));
    EXPECT_FALSE(schedule.pending().has("p/unknown"));
    EXPECT_EQ(schedule->due(), std::nullopt);
}

TEST(Schedule, TellsTheOldestChangeThatIsDeferred)
{
    ScheduleOf schedule("max-interval = 10\n");
    schedule.sent(kStart - seconds(9));
    schedule->remind(schedule.topic());
    schedule->defer("p/new", kStart + seconds(5), kStart + seconds(4));
    schedule->defer("p/old", kStart + seconds(6), kStart + seconds(3));

    EXPECT_EQ(schedule->oldest(), kStart + seconds(3));
    EXPECT_EQ(schedule->due(), kStart + seconds(1));
}

TEST(Schedule, RemindsOfATopicWhenItsIntervalIsOver)
{
    ScheduleOf schedule("max-interval = 10\n");
    schedule.sent(kStart);
    schedule->remind(schedule.topic());

    schedule->take_reminders(kStart + seconds(10) - Clock::duration(1));
    EXPECT_FALSE(schedule.pending().has("p/a/1"));
    EXPECT_FALSE(schedule.topic().must_send);
    schedule->take_reminders(kStart + seconds(10));

    EXPECT_TRUE(schedule.pending().has_change("p/a/1"));
    EXPECT_TRUE(schedule.topic().must_send);
}

TEST(Schedule, HasOneReminderOfATopicHoweverOftenItIsSent)
{
    ScheduleOf schedule("max-interval = 10\n");
    schedule.sent(kStart);
    schedule->remind(schedule.topic());
    schedule.sent(kStart + seconds(4));
    schedule->remind(schedule.topic());
    schedule.sent(kStart + seconds(8));
    schedule->remind(schedule.topic());

    EXPECT_EQ(schedule->due(), kStart + seconds(10));
    schedule->take_reminders(kStart + seconds(10));
    EXPECT_EQ(schedule->due(), kStart + seconds(18));
    schedule->take_reminders(kStart + seconds(18));

    EXPECT_EQ(schedule->due(), std::nullopt);
}

TEST(Schedule, WaitsOnWithATopicThatWasSentMeanwhile)
{
    ScheduleOf schedule("max-interval = 10\n");
    schedule.sent(kStart);
    schedule->remind(schedule.topic());
    schedule.sent(kStart + seconds(4));

    schedule->take_reminders(kStart + seconds(10));

    EXPECT_FALSE(schedule.pending().has("p/a/1"));
    EXPECT_EQ(schedule->due(), kStart + seconds(14));
}

TEST(Schedule, RemindsOfNoTopicThatWasNeverSent)
{
    ScheduleOf schedule("max-interval = 10\n");

    schedule->remind(schedule.topic());

    EXPECT_EQ(schedule->due(), std::nullopt);
}

TEST(Schedule, RemindsOfNoTopicWhoseRuleHasNoInterval)
{
    ScheduleOf schedule;
    schedule.sent(kStart);

    schedule->remind(schedule.topic());

    EXPECT_EQ(schedule->due(), std::nullopt);
}
