// PacketManager.cpp: where packet memory comes from: settings, the one instance, its end and a fork,
// the system's hooks, the figures. The pool itself is in PacketPool.cpp.

#include "Memory/PacketManager.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "Infra3/Arithmetic.h"
#include "Infra3/AssertFront.h"
#include "Infra3/Fork.h"
#include "Infra3/LogFront.h"
#include "Infra3/PlainShared.h"
#include "Memory/BuddyMath.h"
#include "Memory/PacketManagerInternal.h"
#include "Memory/SharePacketSeam.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

using Infra::ForkPart;
using Infra::loadPlain;
using Infra::storePlain;
using Infra::TSingleton;

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
      m_lock(m_Mutex),
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
        m_BufferListCount = BuddyMath::ordersOf(m_ChunkCount);
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
        const CPoolNote note = manager->m_lock.enterInsideGate();
        if (note.isBack()) {
            manager->settle(note);
        }
    }
}

void PacketManagerInternal::resumeParent()
{
    if (PacketManagerInternal* manager = TSingleton<PacketManagerInternal>::existing()) {
        manager->m_lock.leave(CPoolNote());
        manager->m_Mutex.leave();
    }
}

void PacketManagerInternal::resumeChild()
{
    if (PacketManagerInternal* manager = TSingleton<PacketManagerInternal>::existing()) {
        manager->m_lock.leave(CPoolNote());
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

// The system's hooks ---------------------------------------------------------------------------

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
    return sm_memop.memcpy(dest, src, len);
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
        return bytesOf(freeChunks());
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
