// MemRefer.cpp: the reference tracker.
//
// The order of stores: a node or an entry is filled before it is linked, and unlinked before its
// memory goes back. Linking an entry is the moment at which the reference exists, unlinking it the
// moment at which it does not; whatever follows can be caught up on by anybody.

#include "Memory/ShareMem/MemRefer.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>

#include "Infra3/AssertFront.h"
#include "Infra3/ProcessId.h"
#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/Publish.h"
#include "Memory/ShareMem/Report.h"

using ShareMem::report;

namespace
{

constexpr int failed = -1;
constexpr uint32_t passesToExpire = 2;
constexpr uint32_t wrapped = 0x80000000; // an expireCount from here on has been counted below 0

struct Access
{
    MemRefer* handle;
    SmallMem* smallMem;
    Buddy* buddy;
    List* nodes;
    uint8_t* data;
    BuddyInfo* info;

    explicit Access(MemRefer* memRefer)
        : handle(checked(memRefer)),
          smallMem(handle->priv->smallMem),
          buddy(handle->priv->buddy),
          nodes(&handle->priv->zone->listHead),
          data(handle->priv->base),
          info(reinterpret_cast<BuddyInfo*>(buddy->priv->zone))
    {}

    size_t offsetOf(const void* record) const
    {
        return static_cast<size_t>(static_cast<const uint8_t*>(record) - data);
    }
    BlockReferNode* firstNode() const { return nodeAt(data, nodes->next); }
    BlockReferNode* nextNode(const BlockReferNode* node) const
    {
        return nodeAt(data, node->referListNode.next);
    }
    PidNode* firstEntry(const BlockReferNode* node) const
    {
        return reinterpret_cast<PidNode*>(data + node->pidListHead.next);
    }

private:
    static MemRefer* checked(MemRefer* memRefer)
    {
        INFRA_SYSTEM_ASSERT_TEXT(memRefer != nullptr && memRefer->priv != nullptr,
                                 "memRefer != ((void *)0) && memRefer->priv != ((void *)0)");
        return memRefer;
    }
};

// Hints ------------------------------------------------------------------------------------------

/// Where the hint of the block at `offset` lies; null unless that is a block of a user, because the
/// private area of any other page serves something else or nothing.
size_t* hintOf(const Access& access, size_t offset)
{
    const BuddyInfo* const info = access.info;
    const size_t page = offset >> info->pageShift;
    if (page >= info->pageNum || (offset & (size_t{info->config.pageSize} - 1)) != 0) {
        return nullptr;
    }
    PageDes& head = pageDescriptors(access.info)[page];
    if (!Tarsel::Memory::BuddyMath::isTaken(head.order) ||
        isSmallPage(access.info, static_cast<uint32_t>(page))) {
        return nullptr;
    }
    return reinterpret_cast<size_t*>(head.reserved);
}

/// Whether the ring neighbour at `listOffset` is a small object that points back with this link.
bool pointsBack(const Access& access, size_t listOffset, size_t List::*link, size_t own)
{
    constexpr size_t inNode = offsetof(BlockReferNode, referListNode);
    return listOffset >= inNode && isSmallBlock(access.info, listOffset - inNode) &&
           list_at(access.data, listOffset)->*link == own;
}

/// The node of the block at `offset` if it is at `where`, any number, else null. A small object
/// there is a node or an entry. An entry begins with a link into a small-object page, which no block
/// of a user has as its offset; so what says `offset` and is in the ring is the node.
BlockReferNode* nodeIfAt(const Access& access, size_t where, size_t offset)
{
    if (!isSmallBlock(access.info, where)) {
        return nullptr;
    }
    BlockReferNode* const node = reinterpret_cast<BlockReferNode*>(access.data + where);
    const size_t own = access.offsetOf(&node->referListNode);
    const List& links = node->referListNode;
    return node->offset == offset && pointsBack(access, links.next, &List::prev, own) &&
                   pointsBack(access, links.prev, &List::next, own)
               ? node
               : nullptr;
}

BlockReferNode* nodeByWalk(const Access& access, size_t offset)
{
    if (list_empty(access.nodes) != 0) {
        return nullptr;
    }
    BlockReferNode* const first = access.firstNode();
    BlockReferNode* node = first;
    do {
        if (node->offset == offset) {
            return node;
        }
        node = access.nextNode(node);
    } while (node != first);
    return nullptr;
}

void setHint(const Access& access, const BlockReferNode* node)
{
    if (size_t* const hint = hintOf(access, node->offset)) {
        publish(*hint, access.offsetOf(node));
    }
}

BlockReferNode* findNode(const Access& access, size_t offset)
{
    if (isFreshBlock(access.buddy, offset)) {
        return nullptr;
    }
    if (const size_t* const hint = hintOf(access, offset)) {
        if (BlockReferNode* const node = nodeIfAt(access, *hint, offset)) {
            return node;
        }
    }
    BlockReferNode* const node = nodeByWalk(access, offset);
    if (node != nullptr) {
        setHint(access, node);
    }
    return node;
}

// Nodes and entries ------------------------------------------------------------------------------

void* allocRecord(const Access& access, size_t size)
{
    void* const record = access.smallMem->allocSmallMem(access.smallMem, size);
    if (record == nullptr) {
        report("[%s:%d]allocSmallMem with size %zu failed.\n", "addRefer", __LINE__, size);
    }
    return record;
}

BlockReferNode* addNode(const Access& access, size_t offset)
{
    void* const record = allocRecord(access, sizeof(BlockReferNode));
    if (record == nullptr) {
        return nullptr;
    }
    BlockReferNode* const node = static_cast<BlockReferNode*>(record);
    publish(node->offset, offset);
    publishPair(node->deliverRefer, 0, 0);
    list_init(&node->pidListHead, nullptr);
    list_insert(access.nodes, &node->referListNode, access.data);
    setHint(access, node);
    return node;
}

void removeNode(const Access& access, BlockReferNode* node)
{
    list_remove(access.nodes, &node->referListNode, access.data);
    access.smallMem->freeSmallMem(access.smallMem, node);
}

/// This process's, or another's, first entry; null without one.
PidNode* findEntry(const Access& access, const BlockReferNode* node, pid_t pid)
{
    if (node->pidListHead.next == noOffset) {
        return nullptr;
    }
    PidNode* const first = access.firstEntry(node);
    PidNode* entry = first;
    do {
        if (entry->pid == pid) {
            return entry;
        }
        entry = reinterpret_cast<PidNode*>(access.data + entry->listNode.next);
    } while (entry != first);
    return nullptr;
}

void removeEntry(const Access& access, BlockReferNode* node, PidNode* entry)
{
    list_remove(&node->pidListHead, &entry->listNode, access.data);
    access.smallMem->freeSmallMem(access.smallMem, entry);
}

bool hasHolder(const BlockReferNode* node)
{
    return node->pidListHead.next != noOffset;
}

bool isUnused(const BlockReferNode* node)
{
    return !hasHolder(node) && node->deliverRefer == 0;
}

void freeBlock(const Access& access, size_t offset)
{
    access.buddy->free(access.buddy, access.data + offset);
}

/// For blocks that nobody let go of. The last holder's release frees the node first: which of the two
/// goes first shows in the order of the free lists, and so in the format. A death in between leaves a
/// node that names no block, or a block that no node names; a repair drops either.
void removeBlockAndNode(const Access& access, BlockReferNode* node)
{
    freeBlock(access, node->offset);
    removeNode(access, node);
}

// Operations -------------------------------------------------------------------------------------

int addRefer(MemRefer* memRefer, size_t offset)
{
    const Access access(memRefer);
    BlockReferNode* node = findNode(access, offset);
    if (node == nullptr) {
        node = addNode(access, offset);
    }
    forgetFreshBlock(access.buddy);
    if (node == nullptr) {
        return failed;
    }
    PidNode* const entry = static_cast<PidNode*>(allocRecord(access, sizeof(PidNode)));
    if (entry == nullptr) {
        return failed;
    }
    publish(entry->pid, Tarsel::Infra::currentProcessId());
    list_insert(&node->pidListHead, &entry->listNode, access.data);
    return 0;
}

int releaseRefer(MemRefer* memRefer, size_t offset)
{
    const Access access(memRefer);
    BlockReferNode* const node = findNode(access, offset);
    if (node == nullptr) {
        report("\033[31;40m[%s:%d]FindReferNode for offset[%zu] failed.listCount[%d]\n\033[0m",
               __func__, __LINE__, offset, list_count(access.nodes, access.data));
        return failed;
    }
    if (!hasHolder(node)) {
        report("\033[31;40m[%s:%d]PidListHead for offset[%zu] is empty.\n\033[0m", __func__,
               __LINE__, offset);
        return failed;
    }
    const pid_t pid = Tarsel::Infra::currentProcessId();
    PidNode* const entry = findEntry(access, node, pid);
    if (entry == nullptr) {
        report("\033[31;40m[%s:%d]PidList for offset[%zu] has no pidnode[%d].\n\033[0m", __func__,
               __LINE__, offset, static_cast<int>(pid));
        return failed;
    }
    removeEntry(access, node, entry);
    if (isUnused(node)) {
        removeNode(access, node);
        freeBlock(access, offset);
    }
    return 0;
}

int getReferCnt(MemRefer* memRefer, size_t offset)
{
    const Access access(memRefer);
    BlockReferNode* const node = findNode(access, offset);
    return node == nullptr ? 0 : list_count(&node->pidListHead, access.data);
}

int releaseByPid(MemRefer* memRefer, pid_t pid)
{
    const Access access(memRefer);
    int left = list_count(access.nodes, access.data);
    BlockReferNode* node = left > 0 ? access.firstNode() : nullptr;
    for (; left > 0; --left) {
        BlockReferNode* const next = access.nextNode(node);
        PidNode* const entry = findEntry(access, node, pid);
        if (entry != nullptr) {
            removeEntry(access, node, entry);
            if (isUnused(node)) {
                removeBlockAndNode(access, node);
            }
        }
        node = next;
    }
    return 0;
}

int incDeliverRef(MemRefer* memRefer, size_t offset)
{
    const Access access(memRefer);
    BlockReferNode* const node = findNode(access, offset);
    if (node == nullptr) {
        return failed;
    }
    publishPair(node->deliverRefer, node->deliverRefer + 1, passesToExpire);
    return 0;
}

int decDeliverRef(MemRefer* memRefer, size_t offset)
{
    const Access access(memRefer);
    BlockReferNode* const node = findNode(access, offset);
    if (node == nullptr || node->deliverRefer == 0) {
        return failed;
    }
    publish(node->deliverRefer, node->deliverRefer - 1);
    return 0;
}

// Expiry -----------------------------------------------------------------------------------------

/// A count that was held through its expiry and has wrapped would keep the block for 136 years
/// after its last holder went; such a block goes too.
void expireNode(const Access& access, BlockReferNode* node)
{
    const uint32_t count = node->expireCount - 1;
    publish(node->expireCount, count);
    if ((count == 0 || count >= wrapped) && !hasHolder(node)) {
        removeBlockAndNode(access, node);
    }
}

int expireClean(MemRefer* memRefer)
{
    const Access access(memRefer);
    int left = list_count(access.nodes, access.data);
    if (left == 0) {
        return failed;
    }
    BlockReferNode* node = access.firstNode();
    for (; left > 0; --left) {
        BlockReferNode* const next = access.nextNode(node);
        if (node->deliverRefer != 0) {
            expireNode(access, node);
        }
        node = next;
    }
    return 0;
}

/// In the part of a node's small object that the node leaves free: the pass that dealt with it last.
uint64_t& passOf(BlockReferNode* node)
{
    static_assert(sizeof(BlockReferNode) + sizeof(uint64_t) <= smallBlockSize);
    return *reinterpret_cast<uint64_t*>(node + 1);
}

uint64_t newPassId()
{
    static constinit std::atomic<uint64_t> s_count{0};
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (static_cast<uint64_t>(getpid()) << 40) ^ (static_cast<uint64_t>(now.tv_sec) << 20) ^
           static_cast<uint64_t>(now.tv_nsec) ^ ++s_count << 52;
}

/// Whether the node at this list offset, where one was once, is one now.
BlockReferNode* nodeStillAt(const Access& access, size_t listOffset)
{
    const size_t where = listOffset - offsetof(BlockReferNode, referListNode);
    if (!isSmallBlock(access.info, where)) {
        return nullptr;
    }
    const size_t offset = reinterpret_cast<BlockReferNode*>(access.data + where)->offset;
    const size_t* const hint = hintOf(access, offset);
    return hint != nullptr && *hint == where ? nodeIfAt(access, where, offset) : nullptr;
}

/// Where a pass goes on: at the first place of its trail that is left, else from the beginning.
BlockReferNode* resume(const Access& access, ExpirePass* pass)
{
    if (pass->begun) {
        for (const size_t place : pass->trail) {
            if (BlockReferNode* const node = nodeStillAt(access, place)) {
                return node;
            }
        }
        pass->budget *= 2; // or the trail might be lost for ever
    }
    return access.firstNode();
}

void rememberTrail(const Access& access, ExpirePass* pass, const BlockReferNode* node)
{
    size_t place = access.offsetOf(&node->referListNode);
    for (size_t& remembered : pass->trail) {
        remembered = place;
        place = list_at(access.data, place)->next;
    }
}

// The handle -------------------------------------------------------------------------------------

int destroy(MemRefer* memRefer)
{
    INFRA_SYSTEM_ASSERT_TEXT(memRefer != nullptr, "memRefer != ((void *)0)");
    if (memRefer->priv != nullptr) {
        gloMemOperation.freeMem(memRefer->priv);
    }
    gloMemOperation.freeMem(memRefer);
    return 0;
}

template <typename Record>
Record* allocCleared()
{
    void* const record = gloMemOperation.allocMem(sizeof(Record));
    return record == nullptr ? nullptr : static_cast<Record*>(memset(record, 0, sizeof(Record)));
}

} // namespace

int expireCleanPart(MemRefer* memRefer, ExpirePass* pass)
{
    const Access access(memRefer);
    if (list_empty(access.nodes) != 0) {
        return failed;
    }
    BlockReferNode* node = resume(access, pass);
    if (!pass->begun) {
        pass->id = newPassId();
        pass->begun = true;
    }
    for (size_t seen = 0; seen < pass->budget; ++seen) {
        const bool isLast = node->referListNode.next == access.nodes->next;
        BlockReferNode* const next = access.nextNode(node);
        if (node->deliverRefer != 0 && passOf(node) != pass->id) {
            publish(passOf(node), pass->id);
            expireNode(access, node);
        }
        if (isLast) {
            return 0;
        }
        node = next;
    }
    rememberTrail(access, pass, node);
    return 1;
}

void dropUnusedNode(MemRefer* memRefer, size_t offset)
{
    const Access access(memRefer);
    BlockReferNode* const node = findNode(access, offset);
    if (node != nullptr && isUnused(node)) {
        removeNode(access, node);
    }
}

bool hasNode(MemRefer* memRefer, size_t offset)
{
    return findNode(Access(memRefer), offset) != nullptr;
}

int createMemRefer(ZoneHead* head, SmallMem* smallMem, Buddy* buddy, MemRefer** memRefer)
{
    INFRA_SYSTEM_ASSERT_TEXT(
        head != nullptr && smallMem != nullptr && buddy != nullptr && memRefer != nullptr,
        "head != ((void *)0) && smallMem != ((void *)0) && buddy != ((void *)0) && "
        "memRefer != ((void *)0)");
    ReferZone* const zone = reinterpret_cast<ReferZone*>(head->zoneData);
    if (head->initFlag != zoneReady) {
        list_init(&zone->listHead, nullptr);
        publish(head->initFlag, zoneReady);
    }
    MemRefer* const made = allocCleared<MemRefer>();
    MemReferPrivateData* const priv =
        made != nullptr ? allocCleared<MemReferPrivateData>() : nullptr;
    if (priv == nullptr) {
        report("[%s:%d]malloc failed.\n", __func__, __LINE__);
        if (made != nullptr) {
            gloMemOperation.freeMem(made);
        }
        return failed;
    }
    *priv = {zone, static_cast<uint8_t*>(smallMem->getDataBaseAddr(smallMem)), smallMem, buddy};
    *made = {addRefer,      releaseRefer, getReferCnt, releaseByPid, incDeliverRef,
             decDeliverRef, expireClean,  destroy,     priv};
    *memRefer = made;
    return 0;
}
