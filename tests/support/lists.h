// Lists that free themselves, elements for them, and callbacks.
#pragma once

#include "kp.h"

#include <gtest/gtest.h>
#include <memory>
#include <string_view>
#include <vector>

namespace kptest {

struct FreeListOnly {
    void operator()(kplist *list) const
    {
        kplist_free(list, nullptr);
    }
};

using List = std::unique_ptr<kplist, FreeListOnly>;

inline char one[] = "1";
inline char two[] = "2";
inline char three[] = "3";
inline char another_two[] = "2";

inline List added(const std::vector<char *> &elements)
{
    List list(kplist_new());
    for (char *element : elements)
        EXPECT_EQ(kplist_add(list.get(), element), 0);
    return list;
}

inline List appended(const std::vector<char *> &elements)
{
    List list(kplist_new());
    for (char *element : elements)
        EXPECT_EQ(kplist_append(list.get(), element), 0);
    return list;
}

// Gives the elements from the head along the forward links.
inline std::vector<void *> elements_of(const List &list)
{
    std::vector<void *> elements;
    for (const kplist_node *node = list->head; node; node = node->next)
        elements.push_back(node->data);
    return elements;
}

using Elements = std::vector<void *>;

// What note_freed() was given, in this order.
inline Elements freed;

// A kplist_free_t that frees nothing.
inline void note_freed(void *element)
{
    freed.push_back(element);
}

inline kplist *watched_list = nullptr;
inline int lock_result_in_callback = -1;

// A kplist_free_t that notes whether the watched list is locked while it runs.
inline void try_the_lock(void *)
{
    lock_result_in_callback = pthread_mutex_trylock(&watched_list->mutex);
}

// A kplist_compare_t.
inline int is_text(const void *key, const void *element)
{
    return std::string_view(static_cast<const char *>(key)) == static_cast<const char *>(element);
}

} // namespace kptest
