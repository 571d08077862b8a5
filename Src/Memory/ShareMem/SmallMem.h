#ifndef INFRA_SRC_MEMORY_SHAREMEM_SMALLMEM_H
#define INFRA_SRC_MEMORY_SHAREMEM_SMALLMEM_H

// Blocks of 64 bytes in shared memory, cut from single pages. They hold the bookkeeping of blocks
// (MemRefer.h). Which of a page's blocks are in use is a mask in the page's private area; free
// blocks form a list through their own first bytes.
//
// A page is a live small-object page exactly when its mark says "handed out, one page", its private
// area names it, and a bit of the mask is set. No other page ever has a bit set there: the area of a
// page that was one, and of one that never was, says 0.
//
// Always true while nobody is inside:
//  (1) the list of pages holds exactly the live ones, those with room before the full ones;
//  (2) a page's free list holds exactly the blocks whose bit is clear;
//  (3) a block whose bit is set is part of a ring of MemRefer.h.
// After a death the masks are made anew from those rings, and the rest from the masks.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/Buddy.h"

constexpr size_t smallBlockSize = 64;
constexpr uint32_t smallBlocksMax = 32; // bits of a mask

struct SmallMemZone
{
    List smallListHead; ///< of the pages; the base is the buddy base
};

/// In the private area of a page.
struct SmallMemPageDesc
{
    List list;
    List freeBlockListHead; ///< the base is the data base
    uint32_t blockNum;
    uint32_t blockMask; ///< bit i: block i is in use
    uint32_t offset;    ///< of the page, from the data base
    uint32_t padding;
};
static_assert(sizeof(SmallMemPageDesc) == pagePrivateSize);

struct SmallMemPrivData
{
    SmallMemZone* smallMemZone;
    Buddy* buddy;
    uint8_t* privBaseAddr; ///< the buddy base
    uint8_t* dataBaseAddr;
};

struct SmallMem
{
    /// A block of 64 bytes for a `size` up to that, else null.
    void* (*allocSmallMem)(SmallMem* smallMem, size_t size);
    int (*freeSmallMem)(SmallMem* smallMem, void* ptr); ///< 0 or -1
    void* (*getDataBaseAddr)(SmallMem* smallMem);
    int (*destroy)(SmallMem* smallMem);
    SmallMemPrivData* priv;
};

/// Initialises zone 2 unless it is, and makes a handle; 0 or -1.
int createSmallMem(ZoneHead* head, Buddy* buddy, SmallMem** smallMem);

inline SmallMemPageDesc* smallPageDesc(BuddyInfo* info, uint32_t page)
{
    return reinterpret_cast<SmallMemPageDesc*>(pageDescriptors(info)[page].reserved);
}

/// Blocks in a small-object page; 0 where pages are smaller than a block.
inline uint32_t smallBlocksPerPage(const BuddyInfo* info)
{
    return std::min(static_cast<uint32_t>(info->config.pageSize / smallBlockSize), smallBlocksMax);
}

/// The mask of a page whose blocks are all in use.
inline uint32_t smallMaskOf(uint32_t blockNum)
{
    return blockNum >= smallBlocksMax ? ~uint32_t{0} : (uint32_t{1} << blockNum) - 1;
}

/// The bit of the small object at `offset` in its page's mask.
inline uint32_t smallBitOf(const BuddyInfo* info, size_t offset)
{
    return uint32_t{1} << offset % info->config.pageSize / smallBlockSize;
}

/// Whether this page, of any kind, is a live small-object page.
inline bool isSmallPage(BuddyInfo* info, uint32_t page)
{
    const SmallMemPageDesc* const desc = smallPageDesc(info, page);
    return pageDescriptors(info)[page].order == Tarsel::Memory::BuddyMath::takenMark(0) &&
           desc->offset == size_t{page} << info->pageShift &&
           desc->blockNum == smallBlocksPerPage(info) && desc->blockMask != 0 &&
           (desc->blockMask & ~smallMaskOf(desc->blockNum)) == 0;
}

/// Whether a block that is in use starts at this offset, which may be any number.
inline bool isSmallBlock(BuddyInfo* info, size_t offset)
{
    const size_t page = offset >> info->pageShift;
    if (page >= info->pageNum || offset % smallBlockSize != 0 ||
        !isSmallPage(info, static_cast<uint32_t>(page))) {
        return false;
    }
    const SmallMemPageDesc* const desc = smallPageDesc(info, static_cast<uint32_t>(page));
    const size_t index = (offset - desc->offset) / smallBlockSize;
    return index < desc->blockNum && (desc->blockMask >> index & 1) != 0;
}

/// Makes the free list of a page anew from its mask.
void listFreeSmallBlocks(BuddyInfo* info, uint8_t* data, uint32_t page);

#endif
