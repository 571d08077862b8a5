#ifndef INFRA_SRC_MEMORY_SHAREMEM_LIST_H
#define INFRA_SRC_MEMORY_SHAREMEM_LIST_H

// Rings of offsets.
//
// The order of stores: walking `next` from the head gives a whole ring after every single one, with
// or without the element concerned. `prev` links may lag behind by one; a repair rewrites them.

#include <cstddef>
#include <cstdint>

#include "Infra3/AssertFront.h"
#include "Memory/ShareMem/Publish.h"

/// A link in shared memory, and the head of a list. The elements form a ring among themselves; the
/// head uses `next` only.
struct List
{
    size_t prev; ///< offset of the previous element's List from the list's base
    size_t next; ///< offset of the next one's; noOffset in a head: the list is empty
};
static_assert(sizeof(List) == 16);

constexpr size_t noOffset = ~size_t{0};

/// Where a list element lies from the list's base.
inline size_t list_offset(const void* base, const List* list)
{
    return static_cast<size_t>(reinterpret_cast<const uint8_t*>(list) -
                               static_cast<const uint8_t*>(base));
}

/// The element that a link of a list names.
inline List* list_at(void* base, size_t offset)
{
    return reinterpret_cast<List*>(static_cast<uint8_t*>(base) + offset);
}

/// A ring of one, or without a base the head of an empty list.
inline void list_init(List* list, void* base)
{
    INFRA_SYSTEM_ASSERT_TEXT(list != nullptr, "list != ((void *)0)");
    const size_t own = base != nullptr ? list_offset(base, list) : noOffset;
    publish(list->prev, own);
    publish(list->next, own);
}

/// 1 when the list is empty, else 0.
inline int list_empty(List* head)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr, "head != ((void *)0)");
    return head->next == noOffset ? 1 : 0;
}

/// Makes `node` the first element.
inline void list_insert(List* head, List* node, void* base)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr && node != nullptr, "head != ((void *)0)");
    const size_t own = list_offset(base, node);
    if (head->next == noOffset) {
        list_init(node, base);
    } else {
        List* const first = list_at(base, head->next);
        List* const last = list_at(base, first->prev);
        publish(node->next, head->next);
        publish(node->prev, first->prev);
        publish(last->next, own); // from here on it is in the ring
        publish(first->prev, own);
    }
    publish(head->next, own);
}

/// Takes `node` out; its own links stay as they are.
inline void list_remove(List* head, List* node, void* base)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr && node != nullptr, "head != ((void *)0)");
    const size_t own = list_offset(base, node);
    if (node->next == own) {
        publish(head->next, noOffset);
        return;
    }
    if (head->next == own) {
        publish(head->next, node->next);
    }
    List* const previous = list_at(base, node->prev);
    List* const next = list_at(base, node->next);
    publish(previous->next, node->next); // from here on it is out of the ring
    publish(next->prev, node->prev);
}

inline int list_count(List* head, void* base)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr, "head != ((void *)0)");
    if (head->next == noOffset) {
        return 0;
    }
    int count = 0;
    size_t offset = head->next;
    do {
        ++count;
        offset = list_at(base, offset)->next;
    } while (offset != head->next);
    return count;
}

#endif
