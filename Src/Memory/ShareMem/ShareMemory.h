#ifndef INFRA_SRC_MEMORY_SHAREMEM_SHAREMEMORY_H
#define INFRA_SRC_MEMORY_SHAREMEM_SHAREMEMORY_H

// The pool object of a process, and the lock of all processes.
//
// Locks:  sg_shareMemory_mutex guards making and ending the object. Process mutex 0 guards the
//         shared state; nothing is logged or printed, and no other lock is taken, while it is held.

#include "Infra/Infra3/Timer.h"
#include "Memory/ShareMem/Layout.h"
#include "Memory/ShareMemory.h"

namespace Tarsel
{
namespace Memory
{

/// Process mutex 0, as this process has it.
class CProcessMutex
{
public:
    CProcessMutex();
    CProcessMutex(const CProcessMutex&) = delete;
    CProcessMutex& operator=(const CProcessMutex&) = delete;

    bool enter();
    bool leave();

private:
    ProcessMutex* m_internal;
};

/// Holds a CProcessMutex for the length of a scope, if it can be had.
class CProcessGuard
{
public:
    explicit CProcessGuard(CProcessMutex& mutex) : m_mutex(mutex), m_ok(mutex.enter()) {}
    ~CProcessGuard()
    {
        if (m_ok) {
            m_mutex.leave();
        }
    }
    CProcessGuard(const CProcessGuard&) = delete;
    CProcessGuard& operator=(const CProcessGuard&) = delete;

    /// False for a mutex that cannot be had any more: nothing must be touched then.
    bool ok() const { return m_ok; }

private:
    CProcessMutex& m_mutex;
    bool m_ok;
};

class CShareMemory : public IMemPool
{
public:
    CShareMemory(Buddy* buddy, MemRefer* memRefer, SmallMem* smallMem);

    /// Starts the pass of expiry once a second.
    bool startTimer();
    void timerProc(unsigned long);

    void destroy() override;
    void* allocMem(size_t& size) override;
    bool freeMem(void* p) override;
    void* getMem(size_t offset) override;
    bool getOffset(void* p, size_t& offset) override;
    bool incDeliverRef(void* p) override;
    bool decDeliverRef(void* p) override;
    bool expireClean() override;
    bool freeResourceByPid(pid_t pid) override;

    virtual bool getMemSize(uint32_t& size);
    virtual bool getMemFreeSize(uint32_t& size);
    virtual void dumpInfo();

    /// Whether there is a block of a user at `offset`, any number, of at least `size` bytes, more
    /// than 0. What another process describes is held against this before anything is counted.
    bool hasBlock(size_t offset, size_t size);
    /// False where blocks cannot be told by their offset in other processes.
    virtual bool canHandOver() const { return true; }

protected:
    ~CShareMemory() override;

    /// Whether `length` bytes at `p` lie in the pages.
    bool isInData(const void* p, size_t length) const;
    /// Bytes of the block that is handed out and starts at `p`; 0 when there is none.
    size_t blockLength(const void* p) const;

private:
    CShareMemory(const CShareMemory&);
    CShareMemory& operator=(const CShareMemory&);

    int addFirstReference(void* p);
    /// Counts a hand-over of the block at `p` by `change`, under the lock.
    bool changeDelivery(void* p, int (*MemRefer::*change)(MemRefer*, size_t));

    Buddy* m_buddy;
    MemRefer* m_memRefer;
    SmallMem* m_smallMem;
    Infra::CTimer m_expireCleanTimer;
    CProcessMutex m_mutex;
    pid_t m_timerProcess; ///< the process that started the timer; 0: none
};

/// A pool whose allocations each have a read-only page beside them: a write across the end, or the
/// start, ends the process on the spot. Blocks can be made, used and freed, not handed over.
class CShareMemoryDebug : public CShareMemory
{
public:
    CShareMemoryDebug(Buddy* buddy, MemRefer* memRefer, SmallMem* smallMem, int boundary);

    void* allocMem(size_t& size) override;
    bool freeMem(void* p) override;
    bool getOffset(void* p, size_t& offset) override;
    bool incDeliverRef(void* p) override;
    bool decDeliverRef(void* p) override;
    bool canHandOver() const override { return false; }

private:
    ~CShareMemoryDebug() override;

    struct Header;
    uint8_t* blockOf(void* p, Header* header) const;

    int m_boundary;
};

} // namespace Memory
} // namespace Tarsel

#endif
