// Timer.cpp: the timer as its owner sees it.

#include "Infra/Infra3/Timer.h"

#include <new>
#include <optional>

#include "Infra/Infra3/Guard.h"
#include "Infra3/BoundedText.h"
#include "Infra3/LogFront.h"
#include "Infra3/MemoryTrial.h"
#include "Infra3/Singleton.h"
#include "Infra3/TimerInternal.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr uint32_t waitMs = 10;
constexpr uint64_t waitsBetweenNotes = 500;

bool runsOnCallingThread(const TimerInternal& timer)
{
    CTimerThread* const worker = timer.m_thread.load(std::memory_order_acquire);
    return worker != nullptr && worker->getThreadID() == CThread::getCurrentThreadID();
}

void unlinkWaiterLocked(TimerInternal& timer, TimerWaiter& waiter)
{
    for (TimerWaiter** link = &timer.m_waiters; *link != nullptr; link = &(*link)->next) {
        if (*link == &waiter) {
            *link = waiter.next;
            return;
        }
    }
}

/// Has `waiter` told of the end of the timer's call. Without memory it stays empty, and the wait is
/// one of looking again and again.
void linkWaiterLocked(TimerInternal& timer, std::optional<TimerWaiter>& waiter)
{
    try {
        const CMemoryTrial trial;
        waiter.emplace();
    } catch (const std::bad_alloc&) {
        return;
    }
    waiter->next = timer.m_waiters;
    timer.m_waiters = &*waiter;
}

} // namespace

TimerInternal::TimerInternal(const char* name)
{
    copyText(m_Name, name);
}

void TimerInternal::skipPast(uint64_t now)
{
    if (m_CallTime <= now) {
        m_CallTime += ((now - m_CallTime) / m_Period + 1) * m_Period;
    }
}

void TimerInternal::notifyWaitersLocked()
{
    while (m_waiters != nullptr) {
        TimerWaiter* const waiter = m_waiters;
        m_waiters = waiter->next;
        waiter->ended.post();
    }
}

void waitForCallLocked(TimerInternal& timer, const CTimer* owner)
{
    CRecursiveMutex& mutex = TimerManagerInternal::sm_mutex();
    ++timer.m_waiterCount;
    for (uint64_t waits = 0; timer.isRunning() && !runsOnCallingThread(timer); ++waits) {
        std::optional<TimerWaiter> waiter;
        linkWaiterLocked(timer, waiter);
        char name[sizeof(timer.m_Name)];
        copyText(name, timer.m_Name);
        mutex.leave();
        if (waits % waitsBetweenNotes == 0) {
            INFRA_LOG_INFO("this:%p CTimer::Stop Timer:%s wait callback exit!\n",
                           static_cast<const void*>(owner), name);
        }
        if (waiter) {
            waiter->ended.pend(waitMs);
        } else {
            CThread::sleep(waitMs);
        }
        mutex.enter();
        if (waiter) {
            unlinkWaiterLocked(timer, *waiter);
        }
    }
    if (--timer.m_waiterCount == 0 && timer.m_ownerGone) {
        delete &timer;
    }
}

CTimer::CTimer(const char* name) : m_internal(nullptr)
{
    // It may be made here, and throw for want of memory: nothing is held yet.
    CTimerManager::instance();
    m_internal = new TimerInternal(name);
}

CTimer::~CTimer()
{
    CRecursiveGuard guard(TimerManagerInternal::sm_mutex());
    TimerInternal& timer = *m_internal;
    // The call that is waited for may start the timer again: stop and wait until neither is true.
    do {
        if (TimerManagerInternal* const manager = TimerManagerInternal::existing()) {
            manager->stop(timer, /*callNow*/ false);
        }
        waitForCallLocked(timer, this);
    } while (timer.m_Started.load(std::memory_order_acquire));
    if (CTimerThread* const worker = timer.m_thread.load(std::memory_order_acquire)) {
        // Destroyed by its own call, by exit() for instance: the worker must not come back to it.
        worker->m_caller = nullptr;
        timer.m_thread.store(nullptr, std::memory_order_release);
    }
    if (timer.m_waiterCount > 0) {
        timer.m_ownerGone = true;
        timer.notifyWaitersLocked();
        return;
    }
    delete m_internal;
}

bool CTimer::start(Proc fun, uint32_t delay, uint32_t period, unsigned long param, uint32_t timeout)
{
    TimerManagerInternal* const manager = TimerManagerInternal::existing();
    if (manager == nullptr || fun.empty()) {
        return false;
    }
    return manager->start(*m_internal, fun, delay, period, param, timeout);
}

bool CTimer::stop(bool bCallNow)
{
    TimerManagerInternal* const manager = TimerManagerInternal::existing();
    return manager != nullptr && manager->stop(*m_internal, bCallNow);
}

bool CTimer::stopAndWait()
{
    stop(false);
    CRecursiveGuard guard(TimerManagerInternal::sm_mutex());
    waitForCallLocked(*m_internal, this);
    return true;
}

void CTimer::setPeriodTime(unsigned int pertime)
{
    TimerManagerInternal* const manager = TimerManagerInternal::existing();
    if (manager != nullptr) {
        manager->setPeriodTime(*m_internal, pertime);
    }
}

void CTimer::setName(const char* name)
{
    CRecursiveGuard guard(TimerManagerInternal::sm_mutex());
    copyText(m_internal->m_Name, name);
}

const char* CTimer::getName()
{
    return m_internal->m_Name;
}

bool CTimer::isStarted()
{
    return m_internal->m_Started.load(std::memory_order_acquire);
}

bool CTimer::isCalled()
{
    return m_internal->m_Called.load(std::memory_order_acquire);
}

bool CTimer::isRunning()
{
    return m_internal->isRunning();
}

void CTimer::enableStat(bool bStat)
{
    m_internal->m_bStatistic.store(bStat, std::memory_order_relaxed);
}

CTimerManager* CTimerManager::instance()
{
    return TSingleton<CTimerManager>::instance();
}

CTimerManager::CTimerManager()
{
    INFRA_LOG_TRACE("this:%p CTimerManager::CTimerManager()>>>>>>>>>\n", static_cast<void*>(this));
    m_internal = TimerManagerInternal::instance();
}

/// It holds nothing, and threads that run on during exit may still call it.
bool CTimerManager::staysInUse(CTimerManager*)
{
    return true;
}

void CTimerManager::dumpTimers()
{
    m_internal->dumpTimers();
}

bool CTimerManager::limitIdlePooled(int count)
{
    m_internal->limitIdlePooled(count);
    return true;
}

} // namespace Infra
} // namespace Tarsel
