// ShareMemory.cpp: the pool's operations under the lock of all processes.
//
// What is logged while the lock is held waits until it is free (CLogHold): a printer is application
// code, which may make a shared packet, and a reader of our output may stand still.

#include "Memory/ShareMem/ShareMemory.h"

#include <unistd.h>

#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"
#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/PoolInstance.h"
#include "Memory/ShareMem/Publish.h"

namespace Tarsel
{
namespace Memory
{

using Infra::CLogHold;

namespace
{

constexpr uint32_t expirePeriod = 1000;   // ms
constexpr uint32_t expireTimeout = 60000; // ms

void* shown(const void* object)
{
    return const_cast<void*>(object);
}

} // namespace

// The lock ---------------------------------------------------------------------------------------

CProcessMutex::CProcessMutex() : m_internal(getProcessMutex(0)) {}

bool CProcessMutex::enter()
{
    return m_internal != nullptr && m_internal->lock(m_internal) == 0;
}

bool CProcessMutex::leave()
{
    return m_internal != nullptr && m_internal->unlock(m_internal) == 0;
}

// Life -------------------------------------------------------------------------------------------

IMemPool::IMemPool() = default;
IMemPool::~IMemPool() = default;

CShareMemory::CShareMemory(Buddy* buddy, MemRefer* memRefer, SmallMem* smallMem)
    : m_buddy(buddy),
      m_memRefer(memRefer),
      m_smallMem(smallMem),
      m_expireCleanTimer("expireClean"),
      m_timerProcess(0),
      m_nextParked(nullptr)
{}

CShareMemory::~CShareMemory() = default;

/// In the child of a fork there is no timer to wait for.
void CShareMemory::destroy()
{
    if (!PoolInstance::detach(this)) {
        return;
    }
    if (m_timerProcess == getpid()) {
        m_expireCleanTimer.stopAndWait();
    }
    m_timerProcess = 0;
    unprotect();
    PoolInstance::park(this);
}

bool CShareMemory::startTimer()
{
    m_timerProcess = getpid();
    return m_expireCleanTimer.start(Infra::CTimer::Proc(&CShareMemory::timerProc, this), 0,
                                    expirePeriod, 0, expireTimeout);
}

void CShareMemory::timerProc(unsigned long)
{
    expireClean();
}

// Blocks -----------------------------------------------------------------------------------------

void* CShareMemory::allocMem(size_t& size)
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr, "m_buddy != __null");
    const CLogHold hold;
    CProcessGuard guard(m_mutex);
    size_t granted = size;
    void* const block = guard.ok() ? m_buddy->malloc(m_buddy, &granted) : nullptr;
    if (block == nullptr) {
        INFRA_LOG_ERROR("this:%p Buddy malloc failed.\n", shown(this));
        return nullptr;
    }
    if (addFirstReference(block) != 0) {
        m_buddy->free(m_buddy, block);
        return nullptr;
    }
    size = granted;
    return block;
}

int CShareMemory::addFirstReference(void* p)
{
    size_t offset = noOffset;
    if (m_buddy->getOffset(m_buddy, p, &offset) != 0) {
        INFRA_LOG_ERROR("this:%p Buddy getOffset failed.\n", shown(this));
        return -1;
    }
    if (m_memRefer->addRefer(m_memRefer, offset) != 0) {
        INFRA_LOG_ERROR("this:%p MemRefer add refer failed.\n", shown(this));
        dropUnusedNode(m_memRefer, offset);
        return -1;
    }
    return 0;
}

bool CShareMemory::freeMem(void* p)
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr && m_memRefer != nullptr,
                      "m_buddy != __null && m_memRefer != __null");
    if (p == nullptr) {
        INFRA_LOG_ERROR("this:%p addr equal NULL, error.\n", shown(this));
        return false;
    }
    const CLogHold hold;
    CProcessGuard guard(m_mutex);
    size_t offset = noOffset;
    if (!guard.ok() || m_buddy->getOffset(m_buddy, p, &offset) != 0) {
        INFRA_LOG_ERROR("this:%p Buddy getOffset failed.\n", shown(this));
        return false;
    }
    if (m_memRefer->releaseRefer(m_memRefer, offset) != 0) {
        INFRA_LOG_ERROR("this:%p MemRefer release refer for addr:%p failed.\n", shown(this), p);
        return false;
    }
    return true;
}

/// A block that this process could not be counted for might be freed under it: there is none then.
void* CShareMemory::getMem(size_t offset)
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr, "m_buddy != __null");
    const CLogHold hold;
    CProcessGuard guard(m_mutex);
    void* const block = guard.ok() ? m_buddy->getAddress(m_buddy, offset) : nullptr;
    if (block == nullptr || !hasNode(m_memRefer, offset) ||
        m_memRefer->addRefer(m_memRefer, offset) != 0) {
        return nullptr;
    }
    return block;
}

/// Without the lock: all that it reads is one mark, which cannot change while the caller holds the
/// block. Handles ask for it on every step.
bool CShareMemory::getOffset(void* p, size_t& offset)
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr, "m_buddy != __null");
    if (p == nullptr) {
        INFRA_LOG_ERROR("this:%p buf equal NULL, error.\n", shown(this));
        return false;
    }
    return m_buddy->getOffset(m_buddy, p, &offset) == 0;
}

/// In one step: a block that is only looked at may be freed, and another be there, before it is
/// counted.
void* CShareMemory::claim(size_t offset, size_t size)
{
    const CLogHold hold;
    CProcessGuard guard(m_mutex);
    void* const block = guard.ok() ? m_buddy->getAddress(m_buddy, offset) : nullptr;
    if (block == nullptr || !hasNode(m_memRefer, offset) || size == 0 ||
        size > blockLength(block) || m_memRefer->addRefer(m_memRefer, offset) != 0) {
        return nullptr;
    }
    return block;
}

bool CShareMemory::isInData(const void* p, size_t length) const
{
    const uintptr_t distance =
        reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(m_buddy->priv->data);
    const size_t all = m_buddy->geTotalSize(m_buddy);
    return distance < all && length <= all - distance;
}

size_t CShareMemory::blockLength(const void* p) const
{
    BuddyInfo* const info = reinterpret_cast<BuddyInfo*>(m_buddy->priv->zone);
    const uintptr_t distance =
        reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(m_buddy->priv->data);
    if (!isInData(p, 1) || (distance & (info->config.pageSize - 1)) != 0) {
        return 0;
    }
    const int mark = peek(pageDescriptors(info)[distance >> info->pageShift].order);
    return BuddyMath::isTaken(mark) ? size_t{info->config.pageSize} << BuddyMath::orderOfMark(mark)
                                    : 0;
}

// Hand-overs -------------------------------------------------------------------------------------

bool CShareMemory::incDeliverRef(void* p)
{
    return changeDelivery(p, &MemRefer::incDeliverRef);
}

bool CShareMemory::decDeliverRef(void* p)
{
    return changeDelivery(p, &MemRefer::decDeliverRef);
}

bool CShareMemory::changeDelivery(void* p, int (*MemRefer::*change)(MemRefer*, size_t))
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr && m_memRefer != nullptr,
                      "m_buddy != __null && m_memRefer != __null");
    if (p == nullptr) {
        INFRA_LOG_ERROR("this:%p mem equal NULL, error.\n", shown(this));
        return false;
    }
    CProcessGuard guard(m_mutex);
    size_t offset = noOffset;
    return guard.ok() && m_buddy->getOffset(m_buddy, p, &offset) == 0 &&
           (m_memRefer->*change)(m_memRefer, offset) == 0;
}

/// In parts: nobody else waits for more than some thousand nodes.
bool CShareMemory::expireClean()
{
    INFRA_ASSERT_TEXT(m_memRefer != nullptr, "m_memRefer != __null");
    ExpirePass pass;
    for (;;) {
        CProcessGuard guard(m_mutex);
        const int left = guard.ok() ? expireCleanPart(m_memRefer, &pass) : -1;
        if (left != 1) {
            return left == 0 || (left == -1 && pass.begun);
        }
    }
}

bool CShareMemory::freeResourceByPid(pid_t pid)
{
    INFRA_ASSERT_TEXT(m_memRefer != nullptr, "m_memRefer != __null");
    CProcessGuard guard(m_mutex);
    return guard.ok() && m_memRefer->releaseByPid(m_memRefer, pid) == 0;
}

// Figures ----------------------------------------------------------------------------------------

bool CShareMemory::getMemSize(uint32_t& size)
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr && m_buddy->geTotalSize != nullptr,
                      "m_buddy != __null && m_buddy->geTotalSize != __null");
    size = static_cast<uint32_t>(m_buddy->geTotalSize(m_buddy));
    return true;
}

bool CShareMemory::getMemFreeSize(uint32_t& size)
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr && m_buddy->getFreeSize != nullptr,
                      "m_buddy != __null && m_buddy->getFreeSize != __null");
    size = static_cast<uint32_t>(m_buddy->getFreeSize(m_buddy));
    return true;
}

void CShareMemory::dumpInfo()
{
    INFRA_ASSERT_TEXT(m_buddy != nullptr && m_buddy->printNodeInfo != nullptr,
                      "m_buddy != __null && m_buddy->printNodeInfo != __null");
    m_buddy->printNodeInfo(m_buddy);
}

} // namespace Memory
} // namespace Tarsel
