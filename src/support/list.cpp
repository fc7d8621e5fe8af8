// The locked list. `head`, the `next` links and `count` always describe the whole chain; `prev` and
// `tail` are kept by some operations only, as the header says.
#include "support/list.h"

#include "support/lock.h"
#include "support/memory.h"

#include <cstddef>
#include <cstdio>

namespace kp {

namespace {

static_assert(offsetof(kplist, count) == 0);
static_assert(offsetof(kplist, mutex) == 8);
static_assert(offsetof(kplist, head) == 8 + sizeof(pthread_mutex_t));
static_assert(offsetof(kplist, tail) == 16 + sizeof(pthread_mutex_t));
static_assert(offsetof(kplist_node, data) == 0);
static_assert(offsetof(kplist_node, prev) == 8);
static_assert(offsetof(kplist_node, next) == 16);

// The first matching node and the one before it in the chain, both null when there is none.
struct Found {
    kplist_node *before;
    kplist_node *node;
};

Found find_node(const kplist &list, kplist_compare_t compare, const void *key)
{
    kplist_node *before = nullptr;
    for (kplist_node *node = list.head; node; before = node, node = node->next)
        if (compare(key, node->data))
            return {before, node};
    return {nullptr, nullptr};
}

kplist_node *make_node(void *element)
{
    auto node = make_zeroed<kplist_node>();
    if (node)
        node->data = element;
    return node.release();
}

using Insert = bool (*)(kplist &, void *);

int32_t insert_int(kplist *list, uint32_t value, Insert insert)
{
    auto block = make_zeroed<uint32_t>();
    if (!list || !block)
        return 0;
    *block = value;
    if (insert(*list, block.get()))
        (void)block.release(); // the list's now
    return 0;
}

} // namespace

bool insert_at_head(kplist &list, void *element)
{
    kplist_node *node = make_node(element);
    if (!node)
        return false;
    const MutexLock lock(list.mutex);
    // Deliberate: no backward link is set, so a list filled here can only be walked forwards.
    node->next = list.head;
    list.head = node;
    if (!list.tail)
        list.tail = node;
    ++list.count;
    return true;
}

bool insert_at_tail(kplist &list, void *element)
{
    kplist_node *node = make_node(element);
    if (!node)
        return false;
    const MutexLock lock(list.mutex);
    if (list.tail) {
        list.tail->next = node;
        node->prev = list.tail;
    } else {
        list.head = node;
    }
    list.tail = node;
    ++list.count;
    return true;
}

kplist_node *take_chain(kplist &list)
{
    const MutexLock lock(list.mutex);
    kplist_node *chain = list.head;
    list.head = nullptr;
    list.tail = nullptr;
    list.count = 0;
    return chain;
}

} // namespace kp

using namespace kp;

kplist *kplist_new(void)
{
    auto list = make_zeroed<kplist>();
    if (!list || pthread_mutex_init(&list->mutex, nullptr) != 0)
        return nullptr;
    return list.release();
}

int32_t kplist_add(kplist *list, void *element)
{
    if (list)
        (void)insert_at_head(*list, element);
    return 0;
}

int32_t kplist_append(kplist *list, void *element)
{
    if (list)
        (void)insert_at_tail(*list, element);
    return 0;
}

int32_t kplist_add_int(kplist *list, uint32_t value)
{
    return insert_int(list, value, insert_at_head);
}

int32_t kplist_append_int(kplist *list, uint32_t value)
{
    return insert_int(list, value, insert_at_tail);
}

void *kplist_find(kplist *list, kplist_compare_t compare, const void *key)
{
    if (!list)
        return nullptr;
    const Found found = find_node(*list, compare, key);
    return found.node ? found.node->data : nullptr;
}

void *kplist_remove(kplist *list, kplist_compare_t compare, const void *key)
{
    if (!list)
        return nullptr;
    const auto [before, node] = find_node(*list, compare, key);
    if (!node)
        return nullptr;
    if (before)
        before->next = node->next;
    if (node->next)
        node->next->prev = before;
    if (list->head == node)
        list->head = node->next;
    // Deliberate: the node's own backward link, not `before`. In a list filled by kplist_add() it
    // is null, so removing the last node leaves the list without a tail.
    if (list->tail == node)
        list->tail = node->prev;
    void *element = node->data;
    std::free(node);
    --list->count;
    return element;
}

void kplist_remove_free(kplist *list, kplist_compare_t compare, const void *key,
                        kplist_free_t free_element)
{
    if (!list)
        return;
    const MutexLock lock(list->mutex);
    if (void *element = kplist_remove(list, compare, key))
        free_element(element);
}

void kplist_free(kplist *list, kplist_free_t free_element)
{
    if (!list)
        return;
    kplist_lock(list);
    for (kplist_node *node = list->head; node;) {
        kplist_node *next = node->next;
        if (free_element)
            free_element(node->data);
        std::free(node);
        node = next;
    }
    list->count = 0;
    kplist_unlock(list);
    (void)pthread_mutex_destroy(&list->mutex);
    std::free(list);
}

void kplist_dump(kplist *list, kplist_print_t print, const char *name)
{
    if (!list)
        return;
    (void)std::fprintf(stderr, "=== dump %s START ===\n", name);
    for (const kplist_node *node = list->head; node; node = node->next)
        print(node->data);
    (void)std::fprintf(stderr, "=== dump %s END ===\n", name);
}

void *kplist_dequeue(kplist *list)
{
    if (!list || !list->head)
        return nullptr;
    kplist_node *first = list->head;
    list->head = first->next;
    if (list->head)
        list->head->prev = nullptr;
    else
        list->tail = nullptr;
    void *element = first->data;
    std::free(first);
    --list->count;
    return element;
}

void *kplist_peek(kplist *list)
{
    return list && list->head ? list->head->data : nullptr;
}

void kplist_lock(kplist *list)
{
    if (list)
        (void)pthread_mutex_lock(&list->mutex);
}

void kplist_unlock(kplist *list)
{
    if (list)
        (void)pthread_mutex_unlock(&list->mutex);
}

uint32_t kplist_size(kplist *list)
{
    return list ? list->count : 0;
}
