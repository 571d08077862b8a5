// MemoryBlockPool.cpp: which block has which handle in this process.
//
// The offset of a block is asked from the pool before the map's lock is taken: that lock is never
// held while the lock of all processes is.

#include "Memory/ShareMem/MemoryBlockPool.h"

#include <new>

#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"
#include "Memory/ShareMem/MemoryBlockAccess.h"

namespace Tarsel
{
namespace Memory
{

using Infra::CGuard;

CMemoryBlockPool::CMemoryBlockPool() = default;

CMemoryBlockPool::~CMemoryBlockPool()
{
    forgetAll();
}

void CMemoryBlockPool::forgetAll()
{
    for (const auto& [offset, refer] : m_referMap) {
        delete refer;
    }
    m_referMap.clear();
}

void CMemoryBlockPool::startIn(const void* base)
{
    CGuard guard(m_mapMutex);
    if (m_base != base) {
        forgetAll();
        m_base = base;
    }
}

bool CMemoryBlockPool::addBlock(CMemoryBlock* block)
{
    IMemPool* const pool = MemoryBlockAccess::pool();
    INFRA_ASSERT_TEXT(block != nullptr, "NULL != block");
    INFRA_ASSERT_TEXT(pool != nullptr, "NULL != gloMemPoolPtr");
    CMemoryBlock* recorded = nullptr;
    return addBlock(*pool, block, &recorded);
}

bool CMemoryBlockPool::addBlock(IMemPool& pool, CMemoryBlock* block, CMemoryBlock** recorded)
{
    size_t offset = 0;
    if (!pool.getOffset(block->getBuffer(), offset)) {
        INFRA_LOG_ERROR("this:%p getOffset failed.\n", static_cast<void*>(this));
        return false;
    }
    CGuard guard(m_mapMutex);
    const auto at = m_referMap.find(offset);
    if (at != m_referMap.end()) {
        ++at->second->refCount;
        *recorded = at->second->obj;
        return true;
    }
    MemoryBlockRefer* const refer =
        new (std::nothrow) MemoryBlockRefer{block, Infra::CAtomicCount{1}};
    if (refer == nullptr) {
        return false;
    }
    try {
        m_referMap.emplace(offset, refer);
    } catch (const std::bad_alloc&) {
        delete refer;
        return false;
    }
    *recorded = block;
    return true;
}

int CMemoryBlockPool::releaseBlock(CMemoryBlock* block)
{
    IMemPool* const pool = MemoryBlockAccess::pool();
    size_t offset = 0;
    if (pool == nullptr || !pool->getOffset(block->getBuffer(), offset)) {
        INFRA_LOG_ERROR("this:%p getOffset failed.\n", static_cast<void*>(this));
        return -1;
    }
    {
        CGuard guard(m_mapMutex);
        const auto at = m_referMap.find(offset);
        if (at != m_referMap.end()) {
            if (--at->second->refCount > 0) {
                return 1;
            }
            delete at->second;
            m_referMap.erase(at);
            return 0;
        }
    }
    INFRA_LOG_ERROR("this:%p offset not found.\n", static_cast<void*>(this));
    return -1;
}

CMemoryBlock* CMemoryBlockPool::getBlock(size_t offset, bool addRef)
{
    CGuard guard(m_mapMutex);
    const auto at = m_referMap.find(offset);
    if (at == m_referMap.end()) {
        return nullptr;
    }
    INFRA_ASSERT_TEXT(at->second != nullptr, "NULL != it->second");
    if (addRef) {
        ++at->second->refCount;
    }
    return at->second->obj;
}

} // namespace Memory
} // namespace Tarsel
