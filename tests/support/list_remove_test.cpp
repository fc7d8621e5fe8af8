// Finding elements of lists and taking them out.
#include "support/lists.h"
#include "testing/faults.h"

#include "kp.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>

using namespace kptest;

namespace {

int is_same(const void *key, const void *element)
{
    return key == element;
}

TEST(Finding, ReturnsTheFirstMatchFromTheHead)
{
    const List list = appended({one, two, another_two});

    EXPECT_EQ(kplist_find(list.get(), is_text, "2"), two);
    EXPECT_EQ(list->count, 3U);
}

TEST(Finding, ReturnsNullWithoutAMatch)
{
    const List list = appended({one});

    EXPECT_EQ(kplist_find(list.get(), is_text, "2"), nullptr);
}

TEST(Finding, ReturnsNullForANullList)
{
    EXPECT_EQ(kplist_find(nullptr, is_text, "1"), nullptr);
}

TEST(Finding, TakesNoLock)
{
    const List list = appended({one});
    kplist_lock(list.get());

    EXPECT_EQ(kplist_find(list.get(), is_text, "1"), one);

    kplist_unlock(list.get());
}

TEST(Removing, ReturnsTheFirstMatchAndLeavesASecondOne)
{
    const List list = appended({one, two, another_two});

    EXPECT_EQ(kplist_remove(list.get(), is_text, "2"), two);
    EXPECT_EQ(elements_of(list), (Elements{one, another_two}));
    EXPECT_EQ(list->count, 2U);
}

TEST(Removing, TheOnlyNodeLeavesTheListEmpty)
{
    const List list = added({one});

    EXPECT_EQ(kplist_remove(list.get(), is_text, "1"), one);
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->tail, nullptr);
    EXPECT_EQ(list->count, 0U);
}

TEST(Removing, TheFirstNodeMovesTheHead)
{
    const List list = appended({one, two});

    EXPECT_EQ(kplist_remove(list.get(), is_text, "1"), one);
    EXPECT_EQ(list->head->data, two);
    EXPECT_EQ(list->head->prev, nullptr);
    EXPECT_EQ(list->tail, list->head);
}

TEST(Removing, AMiddleNodeLinksItsNeighboursToEachOther)
{
    const List list = added({three, two, one});

    EXPECT_EQ(kplist_remove(list.get(), is_text, "2"), two);
    EXPECT_EQ(elements_of(list), (Elements{one, three}));
    EXPECT_EQ(list->tail->prev, list->head);
}

TEST(Removing, TheLastNodeOfAnAppendedListMakesTheOneBeforeItTheTail)
{
    const List list = appended({one, two});

    EXPECT_EQ(kplist_remove(list.get(), is_text, "2"), two);
    EXPECT_EQ(list->tail, list->head);
    EXPECT_EQ(list->head->next, nullptr);
}

TEST(Removing, TheLastNodeOfAnAddedListLeavesItWithoutATail)
{
    const List list = added({two, one});

    EXPECT_EQ(kplist_remove(list.get(), is_text, "2"), two);
    EXPECT_EQ(elements_of(list), Elements{one});
    EXPECT_EQ(list->tail, nullptr);
    EXPECT_EQ(list->count, 1U);
}

TEST(Removing, TheLastNodeOfAnAddedListLetsTheNextAddedOneBecomeTheTail)
{
    const List list = added({two, one});
    (void)kplist_remove(list.get(), is_text, "2");

    (void)kplist_add(list.get(), three);

    EXPECT_EQ(elements_of(list), (Elements{three, one}));
    EXPECT_EQ(list->tail, list->head);
}

TEST(Removing, TheLastNodeOfAnAddedListLetsTheNextOneStartAfresh)
{
    const List list = added({two, one});
    (void)kplist_remove(list.get(), is_text, "2");
    kplist_node *unreachable = list->head;

    (void)kplist_append(list.get(), three);

    EXPECT_EQ(elements_of(list), Elements{three});
    EXPECT_EQ(list->count, 2U);
    std::free(unreachable);
}

TEST(Removing, ChangesNothingWithoutAMatch)
{
    const List list = appended({one, two});

    EXPECT_EQ(kplist_remove(list.get(), is_text, "3"), nullptr);
    EXPECT_EQ(elements_of(list), (Elements{one, two}));
    EXPECT_EQ(list->count, 2U);
}

TEST(Removing, ReturnsNullForANullList)
{
    EXPECT_EQ(kplist_remove(nullptr, is_text, "1"), nullptr);
}

TEST(Removing, TakesNoLock)
{
    const List list = appended({one});
    kplist_lock(list.get());

    EXPECT_EQ(kplist_remove(list.get(), is_text, "1"), one);

    kplist_unlock(list.get());
}

TEST(Removing, AsksWithTheKeyFirst)
{
    const List list = appended({one, two});

    EXPECT_EQ(kplist_remove(list.get(), is_same, two), two);
}

TEST(RemovingAndFreeing, FreesTheFirstMatchOnly)
{
    freed.clear();
    const List list = appended({one, two, another_two});

    kplist_remove_free(list.get(), is_text, "2", note_freed);

    EXPECT_EQ(freed, Elements{two});
    EXPECT_EQ(elements_of(list), (Elements{one, another_two}));
}

TEST(RemovingAndFreeing, FreesNothingWithoutAMatch)
{
    freed.clear();
    const List list = appended({one});

    kplist_remove_free(list.get(), is_text, "2", note_freed);

    EXPECT_EQ(freed, Elements{});
    EXPECT_EQ(list->count, 1U);
}

TEST(RemovingAndFreeing, CallsBackUnderTheLockAndGivesItBack)
{
    const List list = appended({one});
    watched_list = list.get();

    kplist_remove_free(list.get(), is_text, "1", try_the_lock);

    EXPECT_EQ(lock_result_in_callback, EBUSY);
    EXPECT_EQ(pthread_mutex_trylock(&list->mutex), 0);
    kplist_unlock(list.get());
}

TEST(RemovingAndFreeing, DoesNothingToANullList)
{
    freed.clear();

    kplist_remove_free(nullptr, is_text, "1", note_freed);

    EXPECT_EQ(freed, Elements{});
}

TEST(Dequeuing, FromAnAddedListReturnsTheNewestElement)
{
    const List list = added({one, two, three});

    EXPECT_EQ(kplist_dequeue(list.get()), three);
    EXPECT_EQ(kplist_dequeue(list.get()), two);
    EXPECT_EQ(kplist_dequeue(list.get()), one);
}

TEST(Dequeuing, FromAnAppendedListReturnsTheOldestElement)
{
    const List list = appended({one, two, three});

    EXPECT_EQ(kplist_dequeue(list.get()), one);
    EXPECT_EQ(kplist_dequeue(list.get()), two);
    EXPECT_EQ(kplist_dequeue(list.get()), three);
}

TEST(Dequeuing, ClearsTheNewHeadsBackwardLink)
{
    const List list = appended({one, two});

    (void)kplist_dequeue(list.get());

    EXPECT_EQ(list->head->prev, nullptr);
    EXPECT_EQ(list->tail, list->head);
    EXPECT_EQ(list->count, 1U);
}

TEST(Dequeuing, TheOnlyNodeLeavesTheListEmpty)
{
    const List list = appended({one});

    (void)kplist_dequeue(list.get());

    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->tail, nullptr);
    EXPECT_EQ(list->count, 0U);
}

TEST(Dequeuing, ReturnsNullForAnEmptyOrNullList)
{
    const List list(kplist_new());

    EXPECT_EQ(kplist_dequeue(list.get()), nullptr);
    EXPECT_EQ(kplist_dequeue(nullptr), nullptr);
    EXPECT_EQ(list->count, 0U);
}

TEST(Dequeuing, TakesNoLock)
{
    const List list = appended({one});
    kplist_lock(list.get());

    EXPECT_EQ(kplist_dequeue(list.get()), one);

    kplist_unlock(list.get());
}

TEST(Dequeuing, FreesTheNodeAndNotTheElement)
{
    const List list = appended({one, two});
    const long blocks = live_blocks();

    EXPECT_EQ(kplist_dequeue(list.get()), one);

    EXPECT_EQ(live_blocks(), blocks - 1);
}

} // namespace
