// List.cpp: rings of offsets.
//
// The order of stores: walking `next` from the head gives a whole ring after every single one, with
// or without the element concerned. `prev` links may lag behind by one; a repair rewrites them.

#include "Infra3/AssertFront.h"
#include "Memory/ShareMem/Common.h"
#include "Memory/ShareMem/Publish.h"

namespace
{

size_t offsetIn(const void* base, const List* list)
{
    return static_cast<size_t>(reinterpret_cast<const uint8_t*>(list) -
                               static_cast<const uint8_t*>(base));
}

} // namespace

void list_init(List* list, void* base)
{
    INFRA_SYSTEM_ASSERT_TEXT(list != nullptr, "list != ((void *)0)");
    const size_t own = base != nullptr ? offsetIn(base, list) : noOffset;
    publish(list->prev, own);
    publish(list->next, own);
}

int list_empty(List* head)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr, "head != ((void *)0)");
    return head->next == noOffset ? 1 : 0;
}

void list_insert(List* head, List* node, void* base)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr && node != nullptr, "head != ((void *)0)");
    const size_t own = offsetIn(base, node);
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

void list_remove(List* head, List* node, void* base)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr && node != nullptr, "head != ((void *)0)");
    const size_t own = offsetIn(base, node);
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

int list_count(List* head, void* base)
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
