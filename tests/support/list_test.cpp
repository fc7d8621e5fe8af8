// Lists as a whole: freeing, dumping, counting and locking them.
#include "support/list.h"
#include "support/lists.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/locks.h"

#include "kp.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

using namespace kptest;

namespace {

// Gives the value of an element made by one of the _int functions.
uint32_t number_in(const void *element)
{
    return *static_cast<const uint32_t *>(element);
}

void print_line(const void *element)
{
    (void)std::fprintf(stderr, "element %s\n", static_cast<const char *>(element));
}

TEST(FreeingAList, FreesItsElementsFromTheHead)
{
    freed.clear();
    const long blocks = live_blocks();
    List list = added({one, two, three});

    kplist_free(list.release(), note_freed);

    EXPECT_EQ(freed, (Elements{three, two, one}));
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(FreeingAList, WithoutACallbackLeavesTheElements)
{
    const long blocks = live_blocks();
    kplist *list = kplist_new();
    (void)kplist_append_int(list, 7);
    void *element = kplist_peek(list);

    kplist_free(list, nullptr);

    EXPECT_EQ(live_blocks(), blocks + 1);
    EXPECT_EQ(number_in(element), 7U);
    std::free(element);
}

TEST(FreeingAList, CallsBackUnderTheLock)
{
    List list = appended({one});
    watched_list = list.get();

    kplist_free(list.release(), try_the_lock);

    EXPECT_EQ(lock_result_in_callback, EBUSY);
}

TEST(FreeingAList, DoesNothingForNull)
{
    freed.clear();

    kplist_free(nullptr, note_freed);

    EXPECT_EQ(freed, Elements{});
}

TEST(ChainOfAList, IsTakenOutOfIt)
{
    const List list = appended({one, two});

    kplist_node *chain = kp::take_chain(*list);

    EXPECT_EQ(kplist_size(list.get()), 0U);
    EXPECT_EQ(kplist_peek(list.get()), nullptr);
    ASSERT_NE(chain, nullptr);
    EXPECT_EQ(chain->data, one);
    EXPECT_EQ(chain->next->data, two);
    std::free(chain->next);
    std::free(chain);
}

TEST(ChainOfAList, IsTakenUnderTheLock)
{
    const List list(kplist_new());

    EXPECT_TRUE(waits_for(list->mutex, [&list] { (void)kp::take_chain(*list); }));
}

TEST(ChainOfAList, LeavesAListThatCanBeFilledAgain)
{
    const List list = appended({one});
    kplist_node *chain = kp::take_chain(*list);

    EXPECT_EQ(kplist_append(list.get(), two), 0);

    EXPECT_EQ(chain->next, nullptr);
    EXPECT_EQ(elements_of(list), Elements{two});
    EXPECT_EQ(list->tail, list->head);
    std::free(chain);
}

TEST(DumpingAList, PrintsItsElementsBetweenTwoLines)
{
    const List list = appended({one, two});
    StderrCapture output;

    kplist_dump(list.get(), print_line, "numbers");

    EXPECT_EQ(output.text(), "=== dump numbers START ===\n"
                             "element 1\n"
                             "element 2\n"
                             "=== dump numbers END ===\n");
}

TEST(DumpingAList, PrintsTheTwoLinesAloneForAnEmptyList)
{
    const List list(kplist_new());
    StderrCapture output;

    kplist_dump(list.get(), print_line, "nothing");

    EXPECT_EQ(output.text(), "=== dump nothing START ===\n=== dump nothing END ===\n");
}

TEST(DumpingAList, PrintsNothingForNull)
{
    StderrCapture output;

    kplist_dump(nullptr, print_line, "nothing");

    EXPECT_EQ(output.text(), "");
}

TEST(DumpingAList, TakesNoLock)
{
    const List list = appended({one});
    StderrCapture output;
    kplist_lock(list.get());

    kplist_dump(list.get(), print_line, "locked");

    kplist_unlock(list.get());
    EXPECT_EQ(output.lines().size(), 3U);
}

TEST(Peeking, ReturnsTheFirstElementAndLeavesIt)
{
    const List list = appended({one, two});

    EXPECT_EQ(kplist_peek(list.get()), one);
    EXPECT_EQ(list->count, 2U);
}

TEST(Peeking, ReturnsNullForAnEmptyOrNullList)
{
    const List list(kplist_new());

    EXPECT_EQ(kplist_peek(list.get()), nullptr);
    EXPECT_EQ(kplist_peek(nullptr), nullptr);
}

TEST(ListSize, IsTheCountOfElements)
{
    const List list = added({one, two});

    EXPECT_EQ(kplist_size(list.get()), 2U);
}

TEST(ListSize, IsReadWithoutTheLock)
{
    const List list = added({one});
    kplist_lock(list.get());

    EXPECT_EQ(kplist_size(list.get()), 1U);
    EXPECT_EQ(kplist_peek(list.get()), one);

    kplist_unlock(list.get());
}

TEST(ListSize, OfANullListIsZero)
{
    EXPECT_EQ(kplist_size(nullptr), 0U);
}

TEST(LockingAList, DoesNothingForNull)
{
    kplist_lock(nullptr);
    kplist_unlock(nullptr);

    SUCCEED();
}

} // namespace
