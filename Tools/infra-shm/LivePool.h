#ifndef INFRA_TOOLS_SHM_LIVEPOOL_H
#define INFRA_TOOLS_SHM_LIVEPOOL_H

// The pool that there is, mapped to be changed: by the library's layers, under the library's mutex.

#include <chrono>

#include "Memory/ShareMem/Repair.h"
#include "Snapshot.h"

/// One at a time. Throws CFailure when the pool is not initialised or not sound.
class CLivePool
{
public:
    explicit CLivePool(const Pool& pool);
    ~CLivePool();
    CLivePool(const CLivePool&) = delete;
    CLivePool& operator=(const CLivePool&) = delete;

    const Pool& segments() const { return m_pool; }
    MutexState mutex() const { return stateOfMutex(m_layout.mutexes()[0]); }
    /// A copy, for which the mutex is taken; a repair that is due comes first.
    CSnapshot look(std::chrono::milliseconds wait);
    /// Makes everything that can be made anew from what is true.
    void repair(std::chrono::milliseconds wait);
    /// Drops one reference of each block of that process, unless it is alive.
    void releaseByPid(pid_t pid, std::chrono::milliseconds wait);

private:
    class CHold;

    Pool m_pool;
    CAttachment m_control;
    CAttachment m_data;
    ShareMem::Layout m_layout = {};
    ShareMem::CScratch m_scratch;
    Buddy* m_buddy = nullptr;
    SmallMem* m_smallMem = nullptr;
    MemRefer* m_memRefer = nullptr;
};

#endif
