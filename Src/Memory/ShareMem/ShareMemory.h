#ifndef INFRA_SRC_MEMORY_SHAREMEM_SHAREMEMORY_H
#define INFRA_SRC_MEMORY_SHAREMEM_SHAREMEMORY_H

// The pool object of a process, and the lock of all processes.
//
// Life:   an object is never deleted, because other threads may be inside it when destroy() is called.
//         It is parked, and used again when the process attaches to the same segments.
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

    /// The block of a user at `offset`, any number, of at least `size` bytes, more than 0, with a
    /// further reference of this process; null, and nothing counted, when there is none. For what
    /// another process describes.
    void* claim(size_t offset, size_t size);
    /// False where blocks cannot be told by their offset in other processes.
    virtual bool canHandOver() const { return true; }
    /// Where guard pages stand; 0: there are none.
    virtual int boundary() const { return 0; }
    /// Makes all pages of this process's mapping writable that this object has protected.
    virtual void unprotect() {}

    /// Where the pages lie in this process.
    const uint8_t* dataBase() const { return m_buddy->priv->data; }
    size_t dataSize() const { return m_buddy->geTotalSize(m_buddy); }

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

    friend struct ParkedPools;
    CShareMemory* m_nextParked;
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
    void unprotect() override;
    int boundary() const override { return m_boundary; }

private:
    ~CShareMemoryDebug() override;

    struct Header;
    uint8_t* blockOf(void* p, Header* header) const;

    int m_boundary;
};

} // namespace Memory
} // namespace Tarsel

#endif
