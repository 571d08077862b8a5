// MemoryBlock.cpp: block handles, and descriptions that turn into them in another process.
//
// A description may say anything: it is copied first, so that it cannot change after it was looked
// at, and all of it is held against the pool before anything is counted.
//
// A handle is not an object with a destructor: `delete` drops one of perhaps many references to it,
// and may leave it as it is. So nothing may be optimised on the ground that it ends an object; this
// file is compiled that way.

#include "Memory/MemoryBlock.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/Fork.h"
#include "Infra3/Immortal.h"
#include "Infra3/LogFront.h"
#include "Memory/ShareMem/MemoryBlockAccess.h"
#include "Memory/ShareMem/MemoryBlockPool.h"
#include "Memory/ShareMem/ShareMemory.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

using Infra::CGuard;

constexpr char blockMagic[] = {'T', 'S', 'M', 'B'};

// Process-wide state -----------------------------------------------------------------------------

constinit std::atomic<IMemPool*> gloMemPoolPtr{nullptr};
constinit IMemPool::PoolParam gloMemPoolCfg = {}; // guarded by gloMemPoolMutex

struct MemPoolMutex;

/// Guards loading the pool.
Infra::CMutex& gloMemPoolMutex()
{
    return Infra::immortal<Infra::CMutex, MemPoolMutex>();
}

/// The pool as its own class: there is no other.
CShareMemory* loadedPool()
{
    return static_cast<CShareMemory*>(gloMemPoolPtr.load(std::memory_order_acquire));
}

/// Handles of blocks that lie in another mapping are of no use any more.
void usePool(IMemPool* pool)
{
    if (pool != nullptr) {
        MemoryBlockAccess::blocks().startIn(static_cast<CShareMemory*>(pool)->dataBase());
    }
    gloMemPoolPtr.store(pool, std::memory_order_release);
}

/// The pool; made with `param` if it is missing. The lock is held.
CShareMemory* loadLocked(const IMemPool::PoolParam& param)
{
    if (loadedPool() == nullptr) {
        IMemPool* const pool = IMemPool::loadMemPool(param);
        if (pool == nullptr) {
            INFRA_LOG_ERROR("loadMemPool failed.\n");
        }
        usePool(pool);
    }
    return loadedPool();
}

CShareMemory& needPool()
{
    CShareMemory* pool = loadedPool();
    if (pool == nullptr) {
        const Infra::CLogHold hold;
        CGuard guard(gloMemPoolMutex());
        pool = loadLocked(gloMemPoolCfg);
    }
    INFRA_ASSERT_TEXT(pool != nullptr, "NULL != gloMemPoolPtr");
    return *pool;
}

/// The same for who was given a description: a process that was told nothing else learns from it how
/// large the pool is.
CShareMemory& needPoolOf(const MemoryBlockDes& description)
{
    const Infra::CLogHold hold;
    CGuard guard(gloMemPoolMutex());
    IMemPool::PoolParam param = gloMemPoolCfg;
    if (param.poolSize == 0) {
        param.poolSize = description.memPoolSize;
        param.poolType = static_cast<IMemPool::PoolType>(description.memPoolType);
    }
    CShareMemory* const pool = loadLocked(param);
    INFRA_ASSERT_TEXT(pool != nullptr, "NULL != gloMemPoolPtr");
    gloMemPoolCfg = param;
    return *pool;
}

} // namespace

// Handles ----------------------------------------------------------------------------------------

struct MemoryBlockHandle
{
    static CMemoryBlock* make(void* buffer, size_t totalSize)
    {
        void* const place = std::malloc(sizeof(CMemoryBlock));
        return place != nullptr ? new (place) CMemoryBlock(buffer, totalSize) : nullptr;
    }
    static void end(CMemoryBlock* handle) { std::free(static_cast<void*>(handle)); }
};

namespace
{

/// The handle of a block that this process has just been given a reference to: a new one, or the one
/// that another thread recorded meanwhile, which then has the reference. Null, and the reference is
/// gone, without one.
CMemoryBlock* recordBlock(CShareMemory& pool, void* buffer, size_t totalSize)
{
    CMemoryBlock* const handle = MemoryBlockHandle::make(buffer, totalSize);
    CMemoryBlock* recorded = nullptr;
    if (handle != nullptr && !MemoryBlockAccess::blocks().addBlock(pool, handle, &recorded)) {
        recorded = nullptr;
    }
    if (recorded != handle || handle == nullptr) {
        pool.freeMem(buffer);
        MemoryBlockHandle::end(handle);
    }
    return recorded;
}

bool readDescription(const void* desc, size_t len, MemoryBlockDes* description)
{
    if (desc == nullptr || len < sizeof(*description)) {
        INFRA_LOG_ERROR("arg invalid.\n");
        return false;
    }
    memcpy(description, desc, sizeof(*description));
    if (memcmp(description->magic, blockMagic, sizeof(blockMagic)) != 0) {
        INFRA_LOG_ERROR("magic invalid.\n");
        return false;
    }
    return description->memPoolType == IMemPool::PT_ShareMemory;
}

} // namespace

CMemoryBlock* CMemoryBlock::createMemoryBlock(size_t size)
{
    CShareMemory& pool = needPool();
    size_t granted = size;
    void* const buffer = pool.allocMem(granted);
    if (buffer == nullptr) {
        INFRA_LOG_ERROR("alloc get buffer failed.\n");
        return nullptr;
    }
    CMemoryBlock* const handle = recordBlock(pool, buffer, granted);
    if (handle == nullptr) {
        INFRA_LOG_ERROR("add block failed.\n");
    }
    return handle;
}

CMemoryBlock* CMemoryBlock::getMemoryBlock(void* desc, size_t len)
{
    MemoryBlockDes description = {};
    if (!readDescription(desc, len, &description)) {
        INFRA_LOG_ERROR("description is invalid.\n");
        return nullptr;
    }
    CShareMemory& pool = needPoolOf(description);
    CMemoryBlock* handle = MemoryBlockAccess::blocks().getBlock(description.offset, true);
    if (handle == nullptr) {
        void* const buffer = pool.claim(description.offset, description.totalSize);
        handle = buffer != nullptr ? recordBlock(pool, buffer, description.totalSize) : nullptr;
    }
    if (handle == nullptr) {
        INFRA_LOG_ERROR("MemoryBlock invalid.\n");
        return nullptr;
    }
    pool.decDeliverRef(handle->m_buffer);
    return handle;
}

void CMemoryBlock::setPoolParameter(const IMemPool::PoolParam& param)
{
    const Infra::CLogHold hold;
    CGuard guard(gloMemPoolMutex());
    gloMemPoolCfg = param;
    usePool(IMemPool::loadMemPool(param));
}

bool CMemoryBlock::getMemoryBlockDesc(void* buf, void* desc, size_t len)
{
    if (buf == nullptr || desc == nullptr || len < sizeof(MemoryBlockDes)) {
        INFRA_LOG_ERROR("arg invalid.\n");
        return false;
    }
    memset(desc, 0, len);
    CShareMemory* const pool = loadedPool();
    size_t offset = 0;
    if (pool == nullptr || !pool->canHandOver() || !pool->getOffset(buf, offset)) {
        INFRA_LOG_ERROR("getOffset failed.\n");
        return false;
    }
    CMemoryBlock* const handle = MemoryBlockAccess::blocks().getBlock(offset, false);
    if (handle == nullptr) {
        INFRA_LOG_ERROR("getBlock failed.\n");
        return false;
    }
    MemoryBlockDes description = {};
    memcpy(description.magic, blockMagic, sizeof(blockMagic));
    {
        CGuard guard(gloMemPoolMutex());
        description.memPoolType = gloMemPoolCfg.poolType;
        description.memPoolSize = static_cast<uint32_t>(gloMemPoolCfg.poolSize);
    }
    description.offset = static_cast<uint32_t>(offset);
    description.totalSize = static_cast<uint32_t>(handle->m_totalSize);
    memcpy(desc, &description, sizeof(description));
    pool->incDeliverRef(handle->m_buffer);
    return true;
}

void CMemoryBlock::operator delete(void* handle)
{
    if (handle == nullptr) {
        INFRA_LOG_ERROR("operator delete failed!\n");
        return;
    }
    MemoryBlockAccess::release(static_cast<CMemoryBlock*>(handle));
}

void* CMemoryBlock::getBuffer()
{
    return m_buffer;
}

size_t CMemoryBlock::getTotalSize()
{
    return m_totalSize;
}

// Inside -----------------------------------------------------------------------------------------

IMemPool* MemoryBlockAccess::pool()
{
    return loadedPool();
}

CMemoryBlockPool& MemoryBlockAccess::blocks()
{
    return Infra::immortal<CMemoryBlockPool, CMemoryBlockPool>(); // gloMemBlockPool
}

void MemoryBlockAccess::forgetPool(IMemPool* pool)
{
    gloMemPoolPtr.compare_exchange_strong(pool, nullptr);
}

void MemoryBlockAccess::release(CMemoryBlock* handle)
{
    void* const buffer = handle->m_buffer;
    IMemPool* const pool = loadedPool();
    size_t offset = 0;
    if (pool == nullptr || !pool->getOffset(buffer, offset)) {
        INFRA_LOG_ERROR("this:%p getOffset failed.\n", static_cast<void*>(handle));
        return;
    }
    if (blocks().releaseBlock(handle) == 0) {
        MemoryBlockHandle::end(handle);
        pool->freeMem(buffer);
    }
}

namespace
{

// fork -------------------------------------------------------------------------------------------

void prepareFork()
{
    gloMemPoolMutex().enter();
}

void resumeParent()
{
    gloMemPoolMutex().leave();
}

/// The parent's references are not the child's, so its handles are not either.
void resumeChild()
{
    MemoryBlockAccess::blocks().forgetAll();
    Infra::ForkAccess::renewTaken(gloMemPoolMutex());
}

[[maybe_unused]] const bool s_joinedFork = [] {
    static constexpr Infra::ForkPart forkPart = {prepareFork, resumeParent, resumeChild};
    joinFork(Infra::ForkRank::shareBlocks, forkPart);
    return true;
}();

} // namespace

} // namespace Memory
} // namespace Tarsel
