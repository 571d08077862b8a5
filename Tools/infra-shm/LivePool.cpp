// LivePool.cpp: changing a pool.
//
// The lock is the library's, so whoever died inside before is made good when it is taken; but it is
// waited for no longer than the user wants.

#include "LivePool.h"

#include <cerrno>

#include "Common/Failure.h"

namespace
{

/// The pool of this process, for the repair that the lock starts; it takes no argument.
struct
{
    const ShareMem::Layout* layout;
    ShareMem::CScratch* scratch;
} s_repaired;

void repairNow()
{
    repairPool(*s_repaired.layout, *s_repaired.scratch);
}

} // namespace

/// Holds process mutex 0. Nothing is printed meanwhile.
class CLivePool::CHold
{
public:
    CHold(const CLivePool& pool, std::chrono::milliseconds wait) : m_mutex(getProcessMutex(0))
    {
        const MutexState state = pool.mutex();
        const bool isHopeless =
            state.kind == MutexState::lost || state.kind == MutexState::unusable;
        const int result =
            isHopeless ? ETIMEDOUT : lockProcessMutexUntil(m_mutex, deadlineIn(wait));
        if (result == ETIMEDOUT) {
            throw CBusy("refused: mutex 0 is " + mutexText(pool.mutex()));
        }
        if (result != 0) {
            throw CFailure("mutex 0 cannot be had");
        }
    }
    ~CHold() { m_mutex->unlock(m_mutex); }
    CHold(const CHold&) = delete;
    CHold& operator=(const CHold&) = delete;

private:
    ProcessMutex* m_mutex;
};

CLivePool::CLivePool(const Pool& pool)
    : m_pool(pool),
      m_control(pool.control, Access::readWrite),
      m_data(*pool.data, Access::readWrite)
{
    if (!m_control.ok() || !m_data.ok()) {
        throw CFailure::ofSystem("the pool cannot be changed");
    }
    if (!findZones(m_control.mapping(), m_data.mapping(), &m_layout) || !m_layout.isInitialised()) {
        throw CFailure("the pool is not initialised");
    }
    if (!arePagesSound(m_control.mapping(), m_data.mapping(), m_layout)) {
        throw CFailure("the pool is damaged beyond repair: its page zone describes other segments");
    }
    if (!m_scratch.reserve(m_layout.info->pageNum) || initProcessMutex(m_layout.syncZone) != 0 ||
        createBuddy(m_layout.info->config, m_layout.buddyZone, m_layout.data, &m_buddy) != 0 ||
        createSmallMem(m_layout.smallMemZone, m_buddy, &m_smallMem) != 0 ||
        createMemRefer(m_layout.referZone, m_smallMem, m_buddy, &m_memRefer) != 0) {
        throw CFailure("no memory to open the pool");
    }
    s_repaired = {&m_layout, &m_scratch};
    setProcessMutexRepair(repairNow);
}

CLivePool::~CLivePool()
{
    setProcessMutexRepair(nullptr);
    m_memRefer->destroy(m_memRefer);
    m_smallMem->destroy(m_smallMem);
    m_buddy->destroy(m_buddy);
}

CSnapshot CLivePool::look(std::chrono::milliseconds wait)
{
    for (;;) {
        if (mutex().kind == MutexState::ownerDied) {
            const CHold repairs(*this, wait);
        }
        CSnapshot taken = CSnapshot::take(m_control.mapping(), m_data.mapping(), true, wait);
        if (taken.moment() == Moment::locked) {
            return taken;
        }
        if (taken.moment() != Moment::ownerDied) {
            throw CBusy("refused: mutex 0 is " + mutexText(taken.mutex()));
        }
    }
}

void CLivePool::repair(std::chrono::milliseconds wait)
{
    const CHold hold(*this, wait);
    repairNow();
}

void CLivePool::releaseByPid(pid_t pid, std::chrono::milliseconds wait)
{
    const CHold hold(*this, wait);
    if (lifeOf(pid) == Life::dead) { // its number may have a new owner by now
        m_memRefer->releaseByPid(m_memRefer, pid);
    }
}
