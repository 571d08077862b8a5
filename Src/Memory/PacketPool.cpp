// PacketPool.cpp: the pool of the packet manager, one block cut into equal chunks and run as a binary
// buddy allocator.
//
//   1. a request is rounded up to 2^k chunks;
//   2. the first list from k on that has a block gives its first one; it is halved until it has
//      that size, lower halves going back to their lists: the caller gets the highest piece;
//   3. on free, a block merges with its buddy (index XOR 2^k) for as long as that one is free too.
//
// The first list is found by the lowest bit of a word, free chunks are counted as they come and go.
// Nothing is kept back per thread or for later, but for the one case in which nobody can tell
// (PoolLock.h): the next address, the merging and the free size are what callers see. The pool
// never grows: a dry pool is found out without taking the lock, and is a warning and null, not a
// slow path.
//
// The pool comes from primitives of the application, which may log, make packets and wait for other
// threads. So no lock is held while it is made or given back: it is made apart and put in place
// under the lock, if it is still missing then. Whoever needs a pool that is not there makes it: the
// first caller, one that races it or is called back by it, and one that comes after exit began.

#include <cstdlib>
#include <memory>
#include <new>
#include <thread>

#include "Infra3/Arithmetic.h"
#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"
#include "Infra3/PlainShared.h"
#include "Memory/BuddyMath.h"
#include "Memory/CopyBytes.h"
#include "Memory/PacketManagerInternal.h"

namespace Tarsel
{
namespace Memory
{

using Infra::loadPlain;
using Infra::storePlain;

constinit thread_local int PacketManagerInternal::t_making = 0;

/// Holds the lock of the lists for the length of a scope. What was back unnoticed is entered first.
class PacketManagerInternal::CListGuard
{
public:
    explicit CListGuard(PacketManagerInternal& manager) : m_manager(manager)
    {
        const CPoolNote note = m_manager.m_lock.enter();
        if (note.isBack()) {
            m_manager.settle(note);
        }
    }
    ~CListGuard() { m_manager.m_lock.leave(m_note); }
    CListGuard(const CListGuard&) = delete;
    CListGuard& operator=(const CListGuard&) = delete;

    /// This block was split off by the last thing that happened to the lists.
    void noteOut(int idx, int order) { m_note = CPoolNote::out(idx, order); }

private:
    PacketManagerInternal& m_manager;
    CPoolNote m_note;
};

// The pool -------------------------------------------------------------------------------------

/// Null, or the fatal message about what could not be had; `*pool` is what could.
const char* PacketManagerInternal::allocatePool(PoolMemory* pool) const
{
    const size_t chunkCount = m_ChunkCount;

    // One chunk to spare, so that the base can be a multiple of the chunk size.
    pool->origin = static_cast<uint8_t*>(sm_memop.malloc((chunkCount + 1) * sm_param.chunkSize));
    if (pool->origin == nullptr) {
        return "sm_param.chunkSize malloc failed!\n";
    }
    pool->chunks = static_cast<ChunkNode*>(std::calloc(chunkCount + 1, sizeof(ChunkNode)));
    if (pool->chunks == nullptr) {
        return "ChunkNode malloc failed!\n";
    }
    pool->lists = static_cast<BufferList*>(std::calloc(m_BufferListCount, sizeof(BufferList)));
    return pool->lists == nullptr ? "BufferList malloc failed!\n" : nullptr;
}

void PacketManagerInternal::freePool(const PoolMemory& pool)
{
    if (pool.origin != nullptr) {
        sm_memop.free(pool.origin);
    }
    std::free(pool.lists);
    std::free(pool.chunks);
}

/// Makes the pool unless it is there; without memory for it the process ends. No lock is held when
/// this is called.
void PacketManagerInternal::needPool()
{
    if (loadPlain(m_pBuffer) != nullptr) {
        return;
    }
    const char* const lacking = makePool();
    if (lacking == nullptr) {
        return;
    }
    // Another thread may have got the memory that was there, and be about to put its pool in place.
    while (m_makers.load() > t_making) {
        std::this_thread::yield();
    }
    if (loadPlain(m_pBuffer) == nullptr) {
        INFRA_LOG_FATAL("%s", lacking);
        INFRA_SYSTEM_ASSERT_TEXT(false, "0");
    }
}

/// Null when a pool, this one or another, is in place; else the fatal message.
const char* PacketManagerInternal::makePool()
{
    ++m_makers;
    ++t_making;
    PoolMemory pool = {};
    const char* const lacking = allocatePool(&pool);
    if (lacking != nullptr || !install(pool)) {
        freePool(pool);
    }
    --t_making;
    --m_makers;
    return lacking;
}

/// False when another one is in place already.
bool PacketManagerInternal::install(const PoolMemory& pool)
{
    const uintptr_t base =
        Infra::roundUp(reinterpret_cast<uintptr_t>(pool.origin), sm_param.chunkSize);

    CListGuard guard(*this);
    if (m_pBufferList != nullptr) {
        return false;
    }
    m_pChunkHead = pool.chunks;
    m_pBufferList = pool.lists;
    storePlain(m_pOriginBuffer, pool.origin);
    storePlain(m_pBuffer, reinterpret_cast<uint8_t*>(base));
    seedPool();
    return true;
}

void PacketManagerInternal::seedPool()
{
    for (int i = 0; i < m_ChunkCount; ++i) {
        m_pChunkHead[i].idx = i;
        m_pChunkHead[i].buf = m_pBuffer + (static_cast<size_t>(i) << m_ChunkNodeLog2);
    }
    for (int order = 0; order < m_BufferListCount; ++order) {
        ChunkNode& head = m_pBufferList[order].head;
        head.order = BuddyMath::freeMark(order);
        head.pre = head.next = &head;
    }
    BuddyMath::seed(m_ChunkCount,
                    [this](uint64_t idx, int order) { appendNode(&m_pChunkHead[idx], order); });
}

/// Gives the pool's memory back, if nothing of it is handed out. All of it still counts as free.
void PacketManagerInternal::takeBackPool()
{
    PoolMemory pool = {};
    {
        CListGuard guard(*this);
        if (m_pBufferList == nullptr || m_freeChunks != static_cast<uint64_t>(m_ChunkCount)) {
            return;
        }
        pool = {m_pOriginBuffer, m_pChunkHead, m_pBufferList};
        storePlain<uint8_t*>(m_pOriginBuffer, nullptr);
        storePlain<uint8_t*>(m_pBuffer, nullptr);
        m_pChunkHead = nullptr;
        m_pBufferList = nullptr;
        m_nonEmpty = 0;
    }
    freePool(pool);
}

void PacketManagerInternal::logPool() const
{
    const uint8_t* base = loadPlain(m_pBuffer);
    INFRA_LOG_INFO(
        "CPacketManager: malloc total:%zu pagesize:%zublockCount:%d ManagermentSize:%zu\n",
        sm_param.totalSize, sm_param.chunkSize, m_ChunkCount,
        (static_cast<size_t>(m_BufferListCount) + m_ChunkCount) * sizeof(ChunkNode));
    INFRA_LOG_INFO("AddrRange:%p/%p)\n", static_cast<const void*>(base),
                   static_cast<const void*>(base + sm_param.totalSize));
}

inline void PacketManagerInternal::addFreeChunks(int64_t count)
{
    m_freeChunks.store(m_freeChunks.load(std::memory_order_relaxed) + count,
                       std::memory_order_relaxed);
}

// The lists; m_lock is held ----------------------------------------------------------------------

void PacketManagerInternal::appendNode(ChunkNode* node, int order)
{
    ChunkNode& head = m_pBufferList[order].head;
    node->order = BuddyMath::freeMark(order);
    node->pre = head.pre;
    node->next = &head;
    head.pre->next = node; // NOLINT(clang-analyzer-core.NullDereference): a ring, never null
    head.pre = node;
    m_nonEmpty |= uint64_t{1} << order;
}

inline void PacketManagerInternal::insertNode(ChunkNode* node, int order)
{
    ChunkNode& head = m_pBufferList[order].head;
    node->order = BuddyMath::freeMark(order);
    node->pre = &head;
    node->next = head.next;
    head.next->pre = node;
    head.next = node;
    m_nonEmpty |= uint64_t{1} << order;
}

void PacketManagerInternal::deleteNode(ChunkNode* node)
{
    m_nonEmpty &= ~unlink(node);
}

/// Takes the node out; the result is its list's bit if that was its last node, else 0. The word of
/// bits is left to the caller: in a chain of steps it is changed once, at the end.
inline uint64_t PacketManagerInternal::unlink(ChunkNode* node)
{
    const uint64_t emptied =
        node->pre == node->next ? uint64_t{1} << BuddyMath::orderOfMark(node->order) : 0;
    node->order = 0;
    node->pre->next = node->next;
    node->next->pre = node->pre;
    return emptied;
}

/// `from` being the first order that has a block, the lists that get the halves are empty.
inline int PacketManagerInternal::split(int from, int to)
{
    ChunkNode* const chunks = m_pChunkHead;
    BufferList* const lists = m_pBufferList;
    ChunkNode* half = lists[from].head.next;
    deleteNode(half);
    for (int order = from; order > to;) {
        --order;
        ChunkNode& head = lists[order].head;
        half->order = BuddyMath::freeMark(order);
        half->pre = half->next = &head;
        head.pre = head.next = half;
        half += BuddyMath::unitsOf(order);
    }
    // Orders lie below 64. NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult)
    m_nonEmpty |= (uint64_t{1} << from) - (uint64_t{1} << to);
    half->order = BuddyMath::takenMark(to);
    return static_cast<int>(half - chunks);
}

inline void PacketManagerInternal::merge(int idx, int order)
{
    ChunkNode* const chunks = m_pChunkHead;
    const uint64_t chunkCount = static_cast<uint64_t>(m_ChunkCount);
    const int top = m_BufferListCount - 1;
    int k = BuddyMath::orderOfMark(order);
    uint64_t block = static_cast<uint64_t>(idx);
    uint64_t emptied = 0;

    chunks[block].order = 0;
    for (; k < top; ++k) {
        const uint64_t buddy = BuddyMath::buddyOf(block, k);
        if (buddy >= chunkCount || chunks[buddy].order != BuddyMath::freeMark(k)) {
            break;
        }
        emptied |= unlink(&chunks[buddy]);
        block = BuddyMath::pairHead(block, k);
    }
    m_nonEmpty &= ~emptied;
    insertNode(&chunks[block], k);
}

/// The block at `idx`, whose mark is `order`, is free from now on.
inline void PacketManagerInternal::takeIn(int idx, int order)
{
    merge(idx, order);
    addFreeChunks(static_cast<int64_t>(BuddyMath::unitsOf(BuddyMath::orderOfMark(order))));
}

/// Enters into the lists that a block is back.
void PacketManagerInternal::settle(CPoolNote note)
{
    takeIn(static_cast<int>(note.index()), BuddyMath::takenMark(note.order()));
}

// The pool's hooks -------------------------------------------------------------------------------

void* PacketManagerInternal::Pool_Malloc(size_t* size)
{
    const int order = BuddyMath::orderFor(*size, m_ChunkNodeLog2);
    uint64_t index = 0;
    if (m_lock.takeBack(order, &index)) {
        *size = bytesOf(BuddyMath::unitsOf(order));
        return addressOf(index);
    }
    return mallocFromLists(order, size);
}

/// Null without a block of that order or above; `*isAway` tells that the pool is not there at all.
inline void* PacketManagerInternal::handOut(int order, size_t* size, bool* isAway)
{
    const uint64_t units = BuddyMath::unitsOf(order);
    CListGuard guard(*this);
    const int found = BuddyMath::firstOrderFrom(m_nonEmpty, order);
    if (found == BuddyMath::noOrder) {
        *isAway = m_pBufferList == nullptr;
        return nullptr;
    }
    const int idx = split(found, order);
    addFreeChunks(-static_cast<int64_t>(units));
    guard.noteOut(idx, order);
    *size = bytesOf(units);
    return addressOf(idx);
}

void* PacketManagerInternal::mallocFromLists(int order, size_t* size)
{
    m_lock.giveWay();
    // A pool with too little left has no block, and everyone may see that.
    while (mayHave(BuddyMath::unitsOf(order))) {
        bool isAway = false;
        if (void* block = handOut(order, size, &isAway)) {
            return block;
        }
        if (!isAway) {
            break;
        }
        needPool();
    }
    return reportNoSpace();
}

/// False when there are fewer free chunks than `units`, however scattered, which is seen without the
/// lock. A block that is back is counted by the note; it may be entered into the count meanwhile and
/// counted twice, but never be missed: while somebody is in to enter it, nothing is known.
bool PacketManagerInternal::mayHave(uint64_t units) const
{
    CPoolNote note;
    if (!m_lock.look(&note)) {
        return true;
    }
    return units <= chunksIn(note) + m_freeChunks.load(std::memory_order_relaxed);
}

uint64_t PacketManagerInternal::chunksIn(CPoolNote note)
{
    return note.isBack() ? BuddyMath::unitsOf(note.order()) : 0;
}

/// The note is left as it was.
uint64_t PacketManagerInternal::freeChunks()
{
    const CPoolNote note = m_lock.enter();
    const uint64_t count = chunksIn(note) + m_freeChunks.load(std::memory_order_relaxed);
    m_lock.leave(note);
    return count;
}

void* PacketManagerInternal::reportNoSpace()
{
    INFRA_LOG_WARN("CPacket No Free Space, totalSize:%u, freeSize:%u \n",
                   static_cast<unsigned>(getBufferSize()), static_cast<unsigned>(getFreeSize()));
    return nullptr;
}

void PacketManagerInternal::Pool_Free(void* p)
{
    if (p == nullptr) {
        return;
    }
    const ptrdiff_t id = (static_cast<uint8_t*>(p) - loadPlain(m_pBuffer)) >> m_ChunkNodeLog2;
    INFRA_ASSERT(id >= 0);
    if (!m_lock.giveBack(id)) {
        freeToLists(id);
    }
}

/// Assertions come after the lock: what they run may want memory.
void PacketManagerInternal::freeToLists(ptrdiff_t id)
{
    INFRA_ASSERT(id < m_ChunkCount);
    m_lock.giveWay();
    int order = 0;
    {
        CListGuard guard(*this);
        order = m_pChunkHead[id].order;
        if (BuddyMath::isTaken(order)) {
            takeIn(static_cast<int>(id), order);
        }
    }
    INFRA_ASSERT_TEXT(BuddyMath::isTaken(order), "chunk[id].order < 0");
}

void* PacketManagerInternal::Pool_Memcpy(void* dest, const void* src, size_t len)
{
    if (isInPool(dest) && isInPool(src)) {
        sm_memop.memcpy(dest, src, len);
    } else {
        copyBytes(dest, src, len);
    }
    return dest;
}

bool PacketManagerInternal::isInPool(const void* p) const
{
    const uintptr_t base = reinterpret_cast<uintptr_t>(loadPlain(m_pBuffer));
    return reinterpret_cast<uintptr_t>(p) - base < sm_param.totalSize;
}

// Showing and checking -------------------------------------------------------------------------

/// The lists are copied under the lock and written after it: a printer may make packets.
void PacketManagerInternal::PrintNodeInfo()
{
    struct Row
    {
        ChunkNode node;
        const void* self;
        int list;
        bool isHead;
    };
    const size_t room = static_cast<size_t>(m_BufferListCount) + m_ChunkCount;
    const std::unique_ptr<Row[]> rows(new (std::nothrow) Row[room]);
    if (rows == nullptr) {
        return;
    }
    size_t count = 0;
    {
        CListGuard guard(*this);
        for (int k = 0; m_pBufferList != nullptr && k < m_BufferListCount; ++k) {
            const ChunkNode& head = m_pBufferList[k].head;
            rows[count++] = {head, &head, k, true};
            for (const ChunkNode* node = head.next; node != &head; node = node->next) {
                rows[count++] = {*node, node, k, false};
            }
        }
    }
    for (size_t i = 0; i < count; ++i) {
        const Row& row = rows[i];
        const void* pre = row.node.pre;
        const void* next = row.node.next;
        if (row.isHead) {
            INFRA_LOG_INFO("BufferList id:%d, order:%d, head:%p, headpre:%p, next:%p\n", row.list,
                           row.node.order, row.self, pre, next);
        } else {
            INFRA_LOG_INFO("bufflist:%d, id:%d, realIdx:%d, self:%p, order:%d, pre:%p, next:%p\n",
                           row.list, 0, static_cast<int>(row.node.idx), row.self, row.node.order,
                           pre, next);
        }
    }
}

bool PacketManagerInternal::isSound()
{
    CListGuard guard(*this);
    if (m_pBufferList == nullptr) {
        return m_nonEmpty == 0 && m_freeChunks == static_cast<uint64_t>(m_ChunkCount);
    }
    uint64_t freeChunks = 0;
    for (int order = 0; order < m_BufferListCount; ++order) {
        if (!isListSound(order, &freeChunks)) {
            return false;
        }
    }
    return freeChunks == m_freeChunks && isCoverSound();
}

/// Adds the list's chunks to `*chunks`.
bool PacketManagerInternal::isListSound(int order, uint64_t* chunks) const
{
    const ChunkNode& head = m_pBufferList[order].head;
    const bool marked = (m_nonEmpty >> order & 1) != 0;
    if (head.order != BuddyMath::freeMark(order) || marked != (head.next != &head)) {
        return false;
    }
    for (const ChunkNode* node = head.next; node != &head; node = node->next) {
        const uint64_t buddy = BuddyMath::buddyOf(node->idx, order);
        const bool unmerged = order + 1 < m_BufferListCount &&
                              buddy < static_cast<uint64_t>(m_ChunkCount) &&
                              m_pChunkHead[buddy].order == BuddyMath::freeMark(order);
        if (node->order != BuddyMath::freeMark(order) || node->pre->next != node ||
            node->next->pre != node || unmerged) {
            return false;
        }
        *chunks += BuddyMath::unitsOf(order);
    }
    return true;
}

bool PacketManagerInternal::isCoverSound() const
{
    uint64_t idx = 0;
    uint64_t freeChunks = 0;
    while (idx < static_cast<uint64_t>(m_ChunkCount)) {
        const int mark = m_pChunkHead[idx].order;
        const uint64_t units = mark == 0 ? 0 : BuddyMath::unitsOf(BuddyMath::orderOfMark(mark));
        if (units == 0 || idx % units != 0) {
            return false;
        }
        for (uint64_t inner = idx + 1; inner < idx + units; ++inner) {
            if (inner >= static_cast<uint64_t>(m_ChunkCount) || m_pChunkHead[inner].order != 0) {
                return false;
            }
        }
        freeChunks += BuddyMath::isTaken(mark) ? 0 : units;
        idx += units;
    }
    return freeChunks == m_freeChunks;
}

} // namespace Memory
} // namespace Tarsel
