// PacketManager.cpp: where packet memory comes from.
//
// In the pool policies one block is cut into equal chunks and run as a binary buddy allocator:
//   1. a request is rounded up to 2^k chunks;
//   2. the first list from k on that has a block gives its first one; it is halved until it has
//      that size, lower halves going back to their lists: the caller gets the highest piece;
//   3. on free, a block merges with its buddy (index XOR 2^k) for as long as that one is free too.
// The first list is found by the lowest bit of a word, free chunks are counted as they come and go.
// Nothing is kept back per thread or for later: the next address, the merging and the free size are
// what callers see. The pool never grows: a dry pool is found out without taking the lock, and is a
// warning and null, not a slow path.
//
// The pool comes from primitives of the application, which may log, make packets and wait for other
// threads. So no lock is held while it is made or given back: it is made apart and put in place
// under the lock, if it is still missing then. Whoever needs a pool that is not there makes it: the
// first caller, one that races it or is called back by it, and one that comes after exit began.

#include "Memory/PacketManager.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "Infra/Infra3/Guard.h"
#include "Infra3/Arithmetic.h"
#include "Infra3/AssertFront.h"
#include "Infra3/Fork.h"
#include "Infra3/LogFront.h"
#include "Infra3/PlainShared.h"
#include "Memory/BuddyMath.h"
#include "Memory/CopyBytes.h"
#include "Memory/PacketManagerInternal.h"
#include "Memory/SharePacketSeam.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

using Infra::CGuard;
using Infra::ForkPart;
using Infra::loadPlain;
using Infra::storePlain;
using Infra::TSingleton;

/// The pools that the calling thread is making: one called back from the other.
constinit thread_local int t_making = 0;

constexpr size_t smallestChunk = 1024;
constexpr size_t largestBlock = PTRDIFF_MAX; // that any allocation may give

bool isKnown(CPacketManager::Policy policy)
{
    return policy >= CPacketManager::policyDefault && policy < CPacketManager::policyCount;
}

/// What can be refused without ending the process; the assertions look at the rest.
bool isRefused(const CPacketManager::PoolParameter& param)
{
    if (param.chunkSize < smallestChunk) {
        return false;
    }
    if (!Infra::isPowerOfTwo(param.chunkSize)) {
        INFRA_LOG_WARN("PacketManagerInternal::config() failured: chunkSize:%zu is not a power of "
                       "two!\n",
                       param.chunkSize);
        return true;
    }
    if (param.chunkSize > largestBlock || param.totalSize > largestBlock - param.chunkSize) {
        INFRA_LOG_WARN("PacketManagerInternal::config() failured: totalSize:%zu is too large!\n",
                       param.totalSize);
        return true;
    }
    if (param.totalSize / param.chunkSize > INT_MAX - 1) {
        INFRA_LOG_WARN("PacketManagerInternal::config() failured: totalSize:%zu has too many "
                       "chunks!\n",
                       param.totalSize);
        return true;
    }
    return false;
}

} // namespace

// Settings -------------------------------------------------------------------------------------

constinit CPacketManager::Policy PacketManagerInternal::sm_policy = CPacketManager::policySystem;
constinit CPacketManager::MemoryOperator PacketManagerInternal::sm_memop; // empty: the system's
constinit CPacketManager::PoolParameter PacketManagerInternal::sm_param = {2097152, 1024, 4};
constinit bool PacketManagerInternal::sm_can_config = true;

void PacketManagerInternal::config(Policy policy, MemoryOperator* memop, PoolParameter* param)
{
    if (!loadPlain(sm_can_config)) {
        INFRA_LOG_WARN("PacketManagerInternal::config() failured: Packet Manager has been "
                       "configured!\n");
        return;
    }
    if (!isKnown(policy)) {
        INFRA_LOG_WARN("PacketManagerInternal::config() failured: unknown policy:%d!\n",
                       static_cast<int>(policy));
        return;
    }
    if (param != nullptr) {
        if (isRefused(*param)) {
            return;
        }
        // The whole condition is the report's text. NOLINTNEXTLINE(misc-redundant-expression)
        INFRA_ASSERT(param->chunkSize >= 1024 && param->chunkSize > 0 &&
                     param->totalSize % param->chunkSize == 0);
        INFRA_ASSERT(param->alignSize >= 4);
    }
    if (memop != nullptr) {
        INFRA_ASSERT(!memop->malloc.empty() && !memop->free.empty() && !memop->memcpy.empty());
    }
    if (policy != CPacketManager::policyDefault) {
        sm_policy = policy;
    }
    if (param != nullptr) {
        sm_param = *param;
    }
    if (memop != nullptr && memop != &sm_memop) {
        sm_memop = *memop;
    }
}

// Making and exit ------------------------------------------------------------------------------

bool PacketManagerInternal::isPoolPolicy(Policy policy)
{
    return policy == CPacketManager::policyPool || policy == CPacketManager::policyPoolSystem;
}

PacketManagerInternal::PacketManagerInternal()
    : m_pOriginBuffer(nullptr),
      m_pBuffer(nullptr),
      m_pChunkHead(nullptr),
      m_ChunkMask(0),
      m_ChunkNodeLog2(0),
      m_pBufferList(nullptr),
      m_ChunkCount(0),
      m_BufferListCount(0),
      m_alignSize(size_t{1} << Infra::log2Floor(sm_param.alignSize)),
      m_malloc(&PacketManagerInternal::Sys_Malloc),
      m_free(&PacketManagerInternal::Sys_Free),
      m_memcpy(&PacketManagerInternal::Sys_Memcpy),
      m_systemCopy(false),
      m_makers(0),
      m_nonEmpty(0),
      m_freeChunks(0)
{
    storePlain(sm_can_config, false);
    if (sm_memop.malloc.empty()) {
        sm_memop = {&::malloc, &::free, &::memcpy};
    }
    m_systemCopy = sm_memop.memcpy == CPacketManager::CopyProc(&::memcpy);
    if (hasPool()) {
        m_malloc = &PacketManagerInternal::Pool_Malloc;
        m_free = &PacketManagerInternal::Pool_Free;
        m_memcpy = &PacketManagerInternal::Pool_Memcpy;
        m_ChunkMask = static_cast<int>(sm_param.chunkSize - 1);
        m_ChunkNodeLog2 = Infra::log2Floor(sm_param.chunkSize);
        m_ChunkCount = static_cast<int>(sm_param.totalSize / sm_param.chunkSize);
        m_BufferListCount = Buddy::ordersOf(m_ChunkCount);
        m_freeChunks = static_cast<uint64_t>(m_ChunkCount);
    }
}

PacketManagerInternal::~PacketManagerInternal()
{
    takeBackPool();
}

void PacketManagerInternal::onCreated(PacketManagerInternal* manager)
{
    if (hasPool()) {
        manager->needPool();
        manager->logPool();
    } else if (sm_policy == CPacketManager::policySystem) {
        INFRA_LOG_INFO("CPacketManager: System Policy\n");
    }
}

/// A packet made by a thread or a static object while the process exits needs the manager as much
/// as any other. So only the pool goes, and that only when nothing of it is handed out.
bool PacketManagerInternal::staysInUse(PacketManagerInternal* manager)
{
    manager->takeBackPool();
    return true;
}

// A manager is not made, nor taken away, during a fork: the singletons' lock is held all the while.

void PacketManagerInternal::prepareFork()
{
    if (PacketManagerInternal* manager = TSingleton<PacketManagerInternal>::existing()) {
        manager->m_Mutex.enter();
    }
}

void PacketManagerInternal::resumeParent()
{
    if (PacketManagerInternal* manager = TSingleton<PacketManagerInternal>::existing()) {
        manager->m_Mutex.leave();
    }
}

void PacketManagerInternal::resumeChild()
{
    if (PacketManagerInternal* manager = TSingleton<PacketManagerInternal>::existing()) {
        Infra::ForkAccess::renewTaken(manager->m_Mutex);
        manager->m_makers = t_making;
    }
}

/// Joined while the library is loaded, so that no fork can miss a manager made meanwhile.
const bool PacketManagerInternal::s_joinedFork = [] {
    static constexpr ForkPart forkPart = {prepareFork, resumeParent, resumeChild};
    joinFork(Infra::ForkRank::packets, forkPart);
    return true;
}();

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

    CGuard guard(m_Mutex);
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
        head.order = Buddy::freeMark(order);
        head.pre = head.next = &head;
    }
    Buddy::seed(m_ChunkCount,
                [this](uint64_t idx, int order) { appendNode(&m_pChunkHead[idx], order); });
}

/// Gives the pool's memory back, if nothing of it is handed out. All of it still counts as free.
void PacketManagerInternal::takeBackPool()
{
    PoolMemory pool = {};
    {
        CGuard guard(m_Mutex);
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

void PacketManagerInternal::addFreeChunks(int64_t count)
{
    m_freeChunks.store(m_freeChunks.load(std::memory_order_relaxed) + count,
                       std::memory_order_relaxed);
}

// The lists; m_Mutex is held ---------------------------------------------------------------------

void PacketManagerInternal::appendNode(ChunkNode* node, int order)
{
    ChunkNode& head = m_pBufferList[order].head;
    node->order = Buddy::freeMark(order);
    node->pre = head.pre;
    node->next = &head;
    head.pre->next = node; // NOLINT(clang-analyzer-core.NullDereference): a ring, never null
    head.pre = node;
    m_nonEmpty |= uint64_t{1} << order;
}

void PacketManagerInternal::insertNode(ChunkNode* node, int order)
{
    ChunkNode& head = m_pBufferList[order].head;
    node->order = Buddy::freeMark(order);
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
uint64_t PacketManagerInternal::unlink(ChunkNode* node)
{
    const uint64_t emptied =
        node->pre == node->next ? uint64_t{1} << Buddy::orderOfMark(node->order) : 0;
    node->order = 0;
    node->pre->next = node->next;
    node->next->pre = node->pre;
    return emptied;
}

/// `from` being the first order that has a block, the lists that get the halves are empty.
int PacketManagerInternal::split(int from, int to)
{
    ChunkNode* const chunks = m_pChunkHead;
    BufferList* const lists = m_pBufferList;
    ChunkNode* half = lists[from].head.next;
    deleteNode(half);
    for (int order = from; order > to;) {
        --order;
        ChunkNode& head = lists[order].head;
        half->order = Buddy::freeMark(order);
        half->pre = half->next = &head;
        head.pre = head.next = half;
        half += Buddy::unitsOf(order);
    }
    // Orders lie below 64. NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult)
    m_nonEmpty |= (uint64_t{1} << from) - (uint64_t{1} << to);
    half->order = Buddy::takenMark(to);
    return static_cast<int>(half - chunks);
}

void PacketManagerInternal::merge(int idx, int order)
{
    ChunkNode* const chunks = m_pChunkHead;
    const uint64_t chunkCount = static_cast<uint64_t>(m_ChunkCount);
    const int top = m_BufferListCount - 1;
    int k = Buddy::orderOfMark(order);
    uint64_t block = static_cast<uint64_t>(idx);
    uint64_t emptied = 0;

    chunks[block].order = 0;
    for (; k < top; ++k) {
        const uint64_t buddy = Buddy::buddyOf(block, k);
        if (buddy >= chunkCount || chunks[buddy].order != Buddy::freeMark(k)) {
            break;
        }
        emptied |= unlink(&chunks[buddy]);
        block = Buddy::pairHead(block, k);
    }
    m_nonEmpty &= ~emptied;
    insertNode(&chunks[block], k);
}

// The hooks ------------------------------------------------------------------------------------

void* PacketManagerInternal::Sys_Malloc(size_t* size)
{
    return sm_memop.malloc(*size);
}

void PacketManagerInternal::Sys_Free(void* p)
{
    sm_memop.free(p);
}

void* PacketManagerInternal::Sys_Memcpy(void* dest, const void* src, size_t len)
{
    if (m_systemCopy) {
        copyBytes(dest, src, len);
        return dest;
    }
    return sm_memop.memcpy(dest, src, len);
}

void* PacketManagerInternal::Pool_Malloc(size_t* size)
{
    const int order = Buddy::orderFor(*size, m_ChunkNodeLog2);
    // A pool with too little left has no block, and everyone may see that.
    while (Buddy::unitsOf(order) <= m_freeChunks.load(std::memory_order_relaxed)) {
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

/// Null without a block of that order or above; `*isAway` tells that the pool is not there at all.
void* PacketManagerInternal::handOut(int order, size_t* size, bool* isAway)
{
    const uint64_t units = Buddy::unitsOf(order);
    CGuard guard(m_Mutex);
    const int found = Buddy::firstOrderFrom(m_nonEmpty, order);
    if (found == Buddy::noOrder) {
        *isAway = m_pBufferList == nullptr;
        return nullptr;
    }
    const int idx = split(found, order);
    addFreeChunks(-static_cast<int64_t>(units));
    *size = units << m_ChunkNodeLog2;
    return m_pChunkHead[idx].buf;
}

void* PacketManagerInternal::reportNoSpace()
{
    INFRA_LOG_WARN("CPacket No Free Space, totalSize:%u, freeSize:%u \n",
                   static_cast<unsigned>(getBufferSize()), static_cast<unsigned>(getFreeSize()));
    return nullptr;
}

/// Assertions come after the lock: what they run may want memory.
void PacketManagerInternal::Pool_Free(void* p)
{
    if (p == nullptr) {
        return;
    }
    const ptrdiff_t distance = static_cast<uint8_t*>(p) - loadPlain(m_pBuffer);
    const ptrdiff_t id = distance >> m_ChunkNodeLog2;
    INFRA_ASSERT(id >= 0);
    INFRA_ASSERT(id < m_ChunkCount);
    int order = 0;
    {
        CGuard guard(m_Mutex);
        order = m_pChunkHead[id].order;
        if (Buddy::isTaken(order)) {
            merge(static_cast<int>(id), order);
            addFreeChunks(static_cast<int64_t>(Buddy::unitsOf(Buddy::orderOfMark(order))));
        }
    }
    INFRA_ASSERT_TEXT(Buddy::isTaken(order), "chunk[id].order < 0");
}

void* PacketManagerInternal::Pool_Memcpy(void* dest, const void* src, size_t len)
{
    if (!m_systemCopy && isInPool(dest) && isInPool(src)) {
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

// Statistics -----------------------------------------------------------------------------------

void* PacketManagerInternal::getPoolBuffer()
{
    if (hasPool()) {
        needPool();
    }
    return loadPlain(m_pOriginBuffer);
}

size_t PacketManagerInternal::getBufferSize()
{
    if (hasPool()) {
        return sm_param.totalSize;
    }
    const SharePacketSeam* share = sharePacketSeam();
    return sm_policy == CPacketManager::policySharePool && share != nullptr ? share->getMemSize()
                                                                            : 0;
}

size_t PacketManagerInternal::getFreeSize()
{
    if (hasPool()) {
        return m_freeChunks.load(std::memory_order_relaxed) << m_ChunkNodeLog2;
    }
    const SharePacketSeam* share = sharePacketSeam();
    return sm_policy == CPacketManager::policySharePool && share != nullptr
               ? share->getMemFreeSize()
               : 0;
}

void PacketManagerInternal::dumpNodes()
{
    if (sm_policy == CPacketManager::policySystem ||
        sm_policy == CPacketManager::policyPoolSystem) {
        INFRA_LOG_INFO("CPacketManager dump: SYS Policy\n");
    } else if (sm_policy == CPacketManager::policySharePool) {
        if (const SharePacketSeam* share = sharePacketSeam()) {
            share->dumpInfo();
        }
    } else {
        needPool();
        INFRA_LOG_INFO("CPacketManager: dump FreeList\n");
        PrintNodeInfo();
    }
}

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
        CGuard guard(m_Mutex);
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

// Soundness ------------------------------------------------------------------------------------

bool PacketManagerInternal::isSound()
{
    CGuard guard(m_Mutex);
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
    if (head.order != Buddy::freeMark(order) || marked != (head.next != &head)) {
        return false;
    }
    for (const ChunkNode* node = head.next; node != &head; node = node->next) {
        const uint64_t buddy = Buddy::buddyOf(node->idx, order);
        const bool unmerged = order + 1 < m_BufferListCount &&
                              buddy < static_cast<uint64_t>(m_ChunkCount) &&
                              m_pChunkHead[buddy].order == Buddy::freeMark(order);
        if (node->order != Buddy::freeMark(order) || node->pre->next != node ||
            node->next->pre != node || unmerged) {
            return false;
        }
        *chunks += Buddy::unitsOf(order);
    }
    return true;
}

bool PacketManagerInternal::isCoverSound() const
{
    uint64_t idx = 0;
    uint64_t freeChunks = 0;
    while (idx < static_cast<uint64_t>(m_ChunkCount)) {
        const int mark = m_pChunkHead[idx].order;
        const uint64_t units = mark == 0 ? 0 : Buddy::unitsOf(Buddy::orderOfMark(mark));
        if (units == 0 || idx % units != 0) {
            return false;
        }
        for (uint64_t inner = idx + 1; inner < idx + units; ++inner) {
            if (inner >= static_cast<uint64_t>(m_ChunkCount) || m_pChunkHead[inner].order != 0) {
                return false;
            }
        }
        freeChunks += Buddy::isTaken(mark) ? 0 : units;
        idx += units;
    }
    return freeChunks == m_freeChunks;
}

// CPacketManager -------------------------------------------------------------------------------

/// The one instance. It is as light as a pointer and serves until the process is gone, like the
/// manager behind it.
struct CPacketManager::Instance : CPacketManager
{
    static bool staysInUse(Instance*) { return true; }
};

void CPacketManager::config(Policy policy, MemoryOperator* memop, PoolParameter* param)
{
    PacketManagerInternal::config(policy, memop, param);
}

CPacketManager* CPacketManager::instance()
{
    // Made by itself, not by the constructor behind this one's lock: it calls the application.
    PacketManagerInternal::instance();
    return TSingleton<Instance>::instance();
}

CPacketManager::CPacketManager() : m_internal(PacketManagerInternal::instance()) {}

CPacketManager::~CPacketManager()
{
    m_internal = nullptr;
}

void* CPacketManager::malloc(size_t size)
{
    return m_internal->malloc(&size);
}

void CPacketManager::free(void* p)
{
    m_internal->free(p);
}

void* CPacketManager::memcpy(void* dest, const void* src, size_t len)
{
    return m_internal->memcpy(dest, src, len);
}

size_t CPacketManager::getBufferSize()
{
    return m_internal->getBufferSize();
}

size_t CPacketManager::getFreeSize()
{
    return m_internal->getFreeSize();
}

void CPacketManager::dumpNodes()
{
    m_internal->dumpNodes();
}

uint8_t* CPacketManager::getPoolBuffer()
{
    return static_cast<uint8_t*>(m_internal->getPoolBuffer());
}

} // namespace Memory
} // namespace Tarsel
