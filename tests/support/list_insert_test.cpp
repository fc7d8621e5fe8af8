// Making lists and inserting into them.
#include "support/lists.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/process.h"

#include "kp.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

using namespace kptest;

namespace {

// Gives the value of an element made by one of the _int functions.
uint32_t number_in(const void *element)
{
    return *static_cast<const uint32_t *>(element);
}

// Says whether a thread waits for the list's lock, which the caller holds.
bool is_waited_for(const kplist &list)
{
    return __atomic_load_n(&list.mutex.__data.__lock, __ATOMIC_RELAXED) == 2;
}

TEST(NewList, IsEmpty)
{
    const List list(kplist_new());

    EXPECT_EQ(list->count, 0U);
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->tail, nullptr);
}

TEST(NewList, IsNullWithoutAMessageWhenOutOfMemory)
{
    StderrCapture log;
    FailNext memory{Call::calloc};

    EXPECT_EQ(kplist_new(), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(NewList, IsNullAndLeavesNothingWhenItsLockCannotBeMade)
{
    const long blocks = live_blocks();
    FailNext lock{Call::pthread_mutex_init};

    EXPECT_EQ(kplist_new(), nullptr);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(NewList, HasALockThatIsNotRecursive)
{
    const List list(kplist_new());
    kplist_lock(list.get());

    EXPECT_EQ(pthread_mutex_trylock(&list->mutex), EBUSY);

    kplist_unlock(list.get());
}

TEST(Adding, PutsTheElementAtTheHead)
{
    const List list = added({one, two, three});

    EXPECT_EQ(elements_of(list), (Elements{three, two, one}));
    EXPECT_EQ(list->count, 3U);
}

TEST(Adding, MakesTheFirstNodeTheTailAndKeepsIt)
{
    const List list = added({one, two, three});

    EXPECT_EQ(list->tail->data, one);
}

TEST(Adding, SetsNoBackwardLink)
{
    const List list = added({one, two});

    EXPECT_EQ(list->head->prev, nullptr);
    EXPECT_EQ(list->head->next->prev, nullptr);
}

TEST(Adding, TakesNullForAnElement)
{
    const List list = added({nullptr});

    EXPECT_EQ(elements_of(list), Elements{nullptr});
}

TEST(Adding, InsertsNothingAndSaysNothingWhenOutOfMemory)
{
    const List list = added({one});
    StderrCapture log;
    FailNext memory{Call::calloc};

    EXPECT_EQ(kplist_add(list.get(), two), 0);
    EXPECT_EQ(elements_of(list), Elements{one});
    EXPECT_EQ(list->count, 1U);
    EXPECT_EQ(log.text(), "");
}

TEST(Adding, DoesNothingToANullList)
{
    EXPECT_EQ(kplist_add(nullptr, one), 0);
    EXPECT_EQ(kplist_append(nullptr, one), 0);
    EXPECT_EQ(kplist_add_int(nullptr, 1), 0);
    EXPECT_EQ(kplist_append_int(nullptr, 1), 0);
}

TEST(Adding, WaitsForTheLock)
{
    const List list(kplist_new());
    kplist_lock(list.get());

    std::thread adder([&list] { (void)kplist_add(list.get(), one); });
    const bool waits = wait_until([&list] { return is_waited_for(*list); });
    const uint32_t count_under_lock = list->count;
    kplist_unlock(list.get());
    adder.join();

    EXPECT_TRUE(waits);
    EXPECT_EQ(count_under_lock, 0U);
    EXPECT_EQ(list->count, 1U);
}

TEST(Appending, PutsTheElementAtTheTail)
{
    const List list = appended({one, two, three});

    EXPECT_EQ(elements_of(list), (Elements{one, two, three}));
    EXPECT_EQ(list->tail->data, three);
    EXPECT_EQ(list->count, 3U);
}

TEST(Appending, LinksTheNodeBackToTheOldTail)
{
    const List list = appended({one, two});

    EXPECT_EQ(list->head->prev, nullptr);
    EXPECT_EQ(list->tail->prev, list->head);
}

TEST(Appending, InsertsNothingAndSaysNothingWhenOutOfMemory)
{
    const List list = appended({one});
    StderrCapture log;
    FailNext memory{Call::calloc};

    EXPECT_EQ(kplist_append(list.get(), two), 0);
    EXPECT_EQ(elements_of(list), Elements{one});
    EXPECT_EQ(list->tail->data, one);
    EXPECT_EQ(log.text(), "");
}

TEST(Appending, WaitsForTheLock)
{
    const List list(kplist_new());
    kplist_lock(list.get());

    std::thread appender([&list] { (void)kplist_append(list.get(), one); });
    const bool waits = wait_until([&list] { return is_waited_for(*list); });
    const uint32_t count_under_lock = list->count;
    kplist_unlock(list.get());
    appender.join();

    EXPECT_TRUE(waits);
    EXPECT_EQ(count_under_lock, 0U);
    EXPECT_EQ(list->count, 1U);
}

TEST(InsertedNumbers, StandInBlocksOfTheirOwn)
{
    kplist *list = kplist_new();

    EXPECT_EQ(kplist_append_int(list, 7), 0);
    EXPECT_EQ(kplist_add_int(list, UINT32_MAX), 0);

    EXPECT_EQ(number_in(list->head->data), UINT32_MAX);
    EXPECT_EQ(number_in(list->tail->data), 7U);
    kplist_free(list, std::free);
}

TEST(InsertedNumbers, AreLeftOutWhenTheirBlockCannotBeMade)
{
    const List list(kplist_new());
    const long blocks = live_blocks();
    FailNext memory{Call::calloc};

    EXPECT_EQ(kplist_add_int(list.get(), 7), 0);
    EXPECT_EQ(list->count, 0U);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(InsertedNumbers, LeaveNoBlockBehindWhenTheirNodeCannotBeMade)
{
    const List list(kplist_new());
    const long blocks = live_blocks();
    FailNth memory{Call::calloc, 2};

    EXPECT_EQ(kplist_append_int(list.get(), 7), 0);
    EXPECT_TRUE(memory.fired());
    EXPECT_EQ(list->count, 0U);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(ListsOfSeveralThreads, LoseNoElement)
{
    const List list(kplist_new());
    const auto insert_many = [&list](auto insert) {
        for (int count = 0; count < 1000; ++count)
            (void)insert(list.get(), one);
    };

    std::thread adder(insert_many, kplist_add);
    std::thread appender(insert_many, kplist_append);
    adder.join();
    appender.join();

    EXPECT_EQ(list->count, 2000U);
    EXPECT_EQ(elements_of(list).size(), 2000U);
}

} // namespace
