#ifndef INFRA_SRC_MEMORY_SHAREMEM_BUDDY_H
#define INFRA_SRC_MEMORY_SHAREMEM_BUDDY_H

// Pages of the data segment, handed out in blocks of 2^k by a binary buddy allocator
// (BuddyMath.h). One descriptor a page and one list an order lie in zone 3:
//
//     BuddyInfo | order heads, one an order | page descriptors, one a page
//
// The base of its lists is the buddy base, where BuddyInfo starts.
//
// Always true while nobody is inside:
//  (1) the blocks, free or handed out, cover every page exactly once;
//  (2) a free block of order k is on list k and on no other;
//  (3) below the top order two buddies are never both free.
// Of that, only the negative marks are the truth after a death; all else follows from them.

#include <cstddef>
#include <cstdint>

#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/Common.h"

struct BuddyConfig
{
    uint32_t dataSize; ///< bytes
    uint32_t pageSize; ///< bytes, a power of two
    uint32_t orderNum; ///< orders at most; 0: as many as the page count allows
};

// Shared ---------------------------------------------------------------------------------------

struct BuddyInfo
{
    BuddyConfig config; ///< its `orderNum` is the number of orders in effect
    uint32_t pageNum;
    uint32_t pageShift;
    uint32_t padding;
    size_t OrderNodeHead; ///< offset of the order heads
    size_t PageDesHead;   ///< offset of the page descriptors
};
static_assert(sizeof(BuddyInfo) == 40);

struct OrderNode
{
    List list; ///< head of the free blocks of this order
};

constexpr size_t pagePrivateSize = 48;

struct PageDes
{
    uint32_t idx;
    int32_t order; ///< the mark
    List list;
    uint8_t reserved[pagePrivateSize]; ///< lent to the user of the page
};
static_assert(sizeof(PageDes) == 72);

// A process's handle -----------------------------------------------------------------------------

struct BuddyPrivateData
{
    uint8_t* data; ///< the data base in this process
    uint8_t* zone; ///< the buddy base in this process
    size_t freshOffset;
    uint64_t freshEpoch;
};

struct Buddy
{
    /// A block of at least `*size` bytes, which becomes what was granted; null for 0 bytes and when
    /// there is none.
    void* (*malloc)(Buddy* buddy, size_t* size);
    /// 0, also for null; -1 for what is no block.
    int (*free)(Buddy* buddy, void* ptr);
    /// Between a block that is handed out and its offset. Only its first byte has one.
    int (*getOffset)(Buddy* buddy, void* ptr, size_t* offset);
    void* (*getAddress)(Buddy* buddy, size_t offset);
    const void* (*getDataBaseAddr)(Buddy* buddy);
    /// The private area of the page that holds `ptr`, whatever it is part of; null outside.
    void* (*getPriv)(Buddy* buddy, void* ptr, size_t* size);
    const void* (*getPrivBaseAddr)(Buddy* buddy);
    void (*printNodeInfo)(Buddy* buddy);
    /// Needs no lock: a figure of one moment, exact while nobody is inside.
    size_t (*getFreeSize)(Buddy* buddy);
    size_t (*geTotalSize)(Buddy* buddy);
    /// Ends the handle; what is shared stays.
    int (*destroy)(Buddy* buddy);
    BuddyPrivateData* priv;
};

/// Bytes of the contents of zone 3.
size_t getBuddyZoneSize(BuddyConfig config);
/// Initialises zone 3 unless it is, and makes a handle; 0 or -1.
int createBuddy(BuddyConfig config, ZoneHead* head, uint8_t* data, Buddy** buddy);

/// True when the last thing that happened to the pages by this handle was that the block at `offset`
/// was handed out, and the mutex was not let go since: then no other process knows it. Another handle
/// of this process may, so this is no proof that nobody has made a node for it; see findNode() in
/// MemRefer.cpp.
bool isFreshBlock(const Buddy* buddy, size_t offset);
/// From now on others may know it.
void forgetFreshBlock(Buddy* buddy);

// The parts of a zone 3 at `info`.

inline List* orderHead(BuddyInfo* info, uint32_t order)
{
    uint8_t* const base = reinterpret_cast<uint8_t*>(info);
    return &reinterpret_cast<OrderNode*>(base + info->OrderNodeHead)[order].list;
}

inline PageDes* pageDescriptors(BuddyInfo* info)
{
    return reinterpret_cast<PageDes*>(reinterpret_cast<uint8_t*>(info) + info->PageDesHead);
}

/// Pages of the block, free or handed out, that a page of this mark heads; 1 where none can start.
inline uint32_t blockLengthOf(const BuddyInfo* info, int mark)
{
    const int order = mark != 0 ? Tarsel::Memory::BuddyMath::orderOfMark(mark) : 0;
    return order < static_cast<int>(info->config.orderNum) ? uint32_t{1} << order : 1;
}

/// Lists the pages from `start` to before `end`, which nobody has and which are on no list, as free
/// blocks, as few as there can be. The marks of pages that head none of them become 0.
void listFreePages(BuddyInfo* info, uint32_t start, uint32_t end);

#endif
