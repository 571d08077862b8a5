#ifndef INFRA_SRC_MEMORY_SHAREMEM_MEMREFER_H
#define INFRA_SRC_MEMORY_SHAREMEM_MEMREFER_H

// Who holds which block. A block has a node; the node has one entry for each reference, with the
// holder's process id, and counts the hand-overs that are on their way. Without entries and
// hand-overs the block goes back to the pages.
//
//     ReferZone.listHead -> node -> node -> ...        base of all links: the data base
//                            |
//                            pidListHead -> entry -> entry -> ...
//
// Nodes and entries are small objects. The `next` links of these rings and the fields of the records
// are the truth after a death: a block that has no node is nobody's, and a node without entries and
// hand-overs is none.
//
// Finding a block's node does not walk the list: the block's page descriptor has a hint where it is.
// A hint may be missing or stale, so it counts only if what it leads to can be nothing else than the
// node asked for (nodeIfAt in MemRefer.cpp).

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "Memory/ShareMem/SmallMem.h"

// Shared -----------------------------------------------------------------------------------------

struct ReferZone
{
    List listHead; ///< of the nodes; links lead to referListNode
};

struct BlockReferNode
{
    size_t offset;         ///< of the block
    uint32_t deliverRefer; ///< hand-overs on their way
    uint32_t expireCount;  ///< cleaning passes until they expire
    List referListNode;
    List pidListHead;
};
static_assert(sizeof(BlockReferNode) == 48);

struct PidNode
{
    List listNode;
    pid_t pid;
    uint32_t padding;
};
static_assert(sizeof(PidNode) == 24);

// A process's handle -----------------------------------------------------------------------------

struct MemReferPrivateData
{
    ReferZone* zone;
    uint8_t* base; ///< the data base
    SmallMem* smallMem;
    Buddy* buddy;
};

/// Offsets are those of blocks from the data base. What is no count is 0, or -1.
struct MemRefer
{
    /// Adds a reference of this process. A failure for want of memory may leave a new node without
    /// entries; see dropUnusedNode().
    int (*addRefer)(MemRefer* memRefer, size_t offset);
    /// Drops one of this process; the last of all gives the block back.
    int (*releaseRefer)(MemRefer* memRefer, size_t offset);
    int (*getReferCnt)(MemRefer* memRefer, size_t offset); ///< references, 0 without a node
    /// Drops one reference of that process to each block. A process that may hold several to one
    /// block is reclaimed by calls until no count falls any more.
    int (*releaseByPid)(MemRefer* memRefer, pid_t pid);
    int (*incDeliverRef)(MemRefer* memRefer, size_t offset);
    int (*decDeliverRef)(MemRefer* memRefer, size_t offset);
    /// One pass: hand-overs of two passes ago expire, which frees blocks without holders. -1 when
    /// there is no node at all.
    int (*expireClean)(MemRefer* memRefer);
    int (*destroy)(MemRefer* memRefer);
    MemReferPrivateData* priv;
};

/// Initialises zone 1 unless it is, and makes a handle; 0 or -1.
int createMemRefer(ZoneHead* head, SmallMem* smallMem, Buddy* buddy, MemRefer** memRefer);

/// One pass of expireClean() in parts, so that nobody holds the mutex for long. Between the parts
/// anything may happen to the list, but nodes stay where they are: a pass over more nodes than one
/// part deals with goes by the pages that they lie in.
struct ExpirePass
{
    uint32_t page = 0;  ///< where to go on
    bool begun = false; ///< the list was too long for one part
};

/// A part looks at about a thousand nodes, entries and blocks at most. 1: there is more to do; 0: the
/// pass is over, and each node that was there all the time was dealt with once; -1: there is no node
/// at all.
int expireCleanPart(MemRefer* memRefer, ExpirePass* pass);

/// Drops the node of a block if nothing refers to the block: what an addRefer() without memory for
/// its second half leaves.
void dropUnusedNode(MemRefer* memRefer, size_t offset);
/// Whether the block has a node.
bool hasNode(MemRefer* memRefer, size_t offset);

inline BlockReferNode* nodeAt(uint8_t* base, size_t listOffset)
{
    return reinterpret_cast<BlockReferNode*>(base + listOffset -
                                             offsetof(BlockReferNode, referListNode));
}

#endif
