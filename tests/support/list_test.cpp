// Lists as their users see them, and the chain of nodes as the header describes it.
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/process.h"

#include "kp.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using namespace kptest;

namespace {

struct FreeListOnly {
    void operator()(kplist *list) const
    {
        kplist_free(list, nullptr);
    }
};

using List = std::unique_ptr<kplist, FreeListOnly>;

char one[] = "1";
char two[] = "2";
char three[] = "3";
char another_two[] = "2";

List added(const std::vector<char *> &elements)
{
    List list(kplist_new());
    for (char *element : elements)
        EXPECT_EQ(kplist_add(list.get(), element), 0);
    return list;
}

List appended(const std::vector<char *> &elements)
{
    List list(kplist_new());
    for (char *element : elements)
        EXPECT_EQ(kplist_append(list.get(), element), 0);
    return list;
}

// The elements from the head along the forward links.
std::vector<void *> elements_of(const List &list)
{
    std::vector<void *> elements;
    for (const kplist_node *node = list->head; node; node = node->next)
        elements.push_back(node->data);
    return elements;
}

using Elements = std::vector<void *>;

int is_text(const void *key, const void *element)
{
    return std::string_view(static_cast<const char *>(key)) == static_cast<const char *>(element);
}

int is_same(const void *key, const void *element)
{
    return key == element;
}

// The value of an element made by one of the _int functions.
uint32_t number_in(const void *element)
{
    return *static_cast<const uint32_t *>(element);
}

std::vector<void *> freed;

void note_freed(void *element)
{
    freed.push_back(element);
}

kplist *watched_list = nullptr;
int lock_result_in_callback = -1;

void try_the_lock(void *)
{
    lock_result_in_callback = pthread_mutex_trylock(&watched_list->mutex);
}

void print_line(const void *element)
{
    (void)std::fprintf(stderr, "element %s\n", static_cast<const char *>(element));
}

// Whether a thread waits for the list's lock, which the caller holds.
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

TEST(Removing, TheLastNodeOfAnAddedListLetsTheNextAppendedOneStartTheChainAfresh)
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
