// TimerManager.cpp: the scheduler thread and the pool of workers.
//
// Every 10 ms the scheduler reads the clock, moves what has fallen due into the due list and hands
// the calls out one by one, releasing the lock between two. A hand-over copies the delegate into a
// worker and posts its semaphore: no system call but the wake-up. A worker that ends a call while
// others are due takes the next one itself.
//
// No call may wait for another to end, so each needs a worker of its own in the worst case; but
// calls are mostly over before the next thread is awake, or made. So when more calls are due than
// workers are idle, the scheduler sets a few workers going, then pauses and looks: while the due
// list shrinks fast enough it adds none, else twice as many as the time before (WorkerPace). A
// thousand callbacks that block all run within some milliseconds, each on its own thread; a
// thousand that do not block need a handful.

#include <time.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <vector>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Time.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Fork.h"
#include "Infra3/Immortal.h"
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

constexpr int tickMs = 10;
/// A scheduler that is stuck for this long shows as timed out in the thread table.
constexpr int schedulerTimeoutMs = 10000;

/// One row of the timer table, copied under the lock.
struct TimerRow
{
    char name[32];
    uint64_t callTime;
    uint64_t runningTime;
    unsigned long period;
    uint64_t used;
    unsigned long timeout;
    bool running;
};

void pauseScheduler()
{
    const timespec pause = {0, WorkerPace::pauseMicroSeconds * 1000};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr); // a signal ends it early: no harm
}

} // namespace

bool WorkerPace::mayAddWorker()
{
    if (m_allowed == 0) {
        return false;
    }
    --m_allowed;
    return true;
}

void WorkerPace::beginPause(size_t dueCount)
{
    m_dueBefore = dueCount;
}

void WorkerPace::endPause(size_t dueCount)
{
    const size_t taken = m_dueBefore > dueCount ? m_dueBefore - dueCount : 0;
    if (dueCount <= taken * mostPauses) {
        m_growth = 1;
        return;
    }
    m_allowed = m_growth;
    m_growth *= 2;
}

TimerManagerInternal* TimerManagerInternal::instance()
{
    return TSingleton<TimerManagerInternal>::instance();
}

TimerManagerInternal* TimerManagerInternal::existing()
{
    return TSingleton<TimerManagerInternal>::existing();
}

CRecursiveMutex& TimerManagerInternal::sm_mutex()
{
    return immortal<CRecursiveMutex, TimerManagerInternal>();
}

TimerManagerInternal::TimerManagerInternal()
    : CThread("TimerManager", priorTop, policyNormal, 0),
      m_headPooled(nullptr),
      m_CurTime(CTime::getCurrentMilliSecond()),
      m_limitThreadCount(-1),
      m_idleThreadCount(0),
      m_schedule(m_CurTime),
      m_headBusy(nullptr),
      m_headDying(nullptr),
      m_exiting(false)
{
    static constexpr ForkPart forkPart = {prepareFork, resumeParent, resumeChild};
    joinFork(ForkRank::timers, forkPart);
    createThread(); // Last: the new thread uses all of the above.
}

TimerManagerInternal::~TimerManagerInternal()
{
    stopSchedulerAndWorkers();
}

// The scheduler's thread.

void TimerManagerInternal::threadProc()
{
    do {
        CThread::sleep(tickMs);
        tick();
        WorkerPace pace;
        while (handOutNext(pace) && looping()) {
        }
        deleteDead();
    } while (looping());
}

void TimerManagerInternal::tick()
{
    const CLogHold hold;
    CRecursiveGuard guard(sm_mutex());
    const uint64_t now = CTime::getCurrentMilliSecond();
    INFRA_ASSERT_TEXT(now >= m_CurTime, "0");
    if (now != m_CurTime) {
        m_CurTime = now;
        m_schedule.advance(now);
    }
    setTimeout(schedulerTimeoutMs, now);
}

/// Hands out the first due call, or gives the workers a moment to come back for it. False when no
/// more is due.
bool TimerManagerInternal::handOutNext(WorkerPace& pace)
{
    {
        const CLogHold hold;
        CRecursiveGuard guard(sm_mutex());
        TimerInternal* const timer = m_schedule.firstDue();
        if (timer == nullptr) {
            return false;
        }
        if (timer->isRunning() || areIdleWorkersEnoughLocked() || pace.mayAddWorker()) {
            runLocked(*timer, /*retry*/ true);
            return m_schedule.firstDue() != nullptr;
        }
        pace.beginPause(m_schedule.dueCount());
    }
    pauseScheduler();
    CRecursiveGuard guard(sm_mutex());
    pace.endPause(m_schedule.dueCount());
    return true;
}

/// Then each due call gets one at once. Else even idle ones are woken a few at a time: more threads
/// than there are processors would only stand in each other's way.
bool TimerManagerInternal::areIdleWorkersEnoughLocked() const
{
    return m_schedule.dueCount() <= static_cast<size_t>(m_idleThreadCount);
}

/// Hands the first due call that is not dropped to a worker that has just ended another. False when
/// none is due.
bool TimerManagerInternal::takeDueLocked(CTimerThread* worker)
{
    while (!m_exiting && m_schedule.firstDue() != nullptr) {
        if (runLocked(*m_schedule.firstDue(), /*retry*/ true, worker)) {
            return true;
        }
    }
    return false;
}

// Calls.

/// Hands out a call of the timer and moves it on. `retry`: a one-shot timer for which no worker
/// could be had is tried again at the next tick. `worker`: a busy one that is to run it; null for
/// one of the pool.
bool TimerManagerInternal::runLocked(TimerInternal& timer, bool retry, CTimerThread* worker)
{
    removeIfStartedLocked(timer);
    if (timer.m_Period > 0) {
        timer.skipPast(m_CurTime);
        insertLocked(timer);
    } else {
        timer.m_Called.store(true, std::memory_order_release);
    }
    if (timer.isRunning()) {
        return false;
    }
    const bool isReturning = worker != nullptr;
    if (!isReturning) {
        worker = getTimerThreadLocked();
    }
    if (worker != nullptr) {
        handOverLocked(timer, worker);
        if (!isReturning) {
            linkBusyLocked(worker);
            worker->m_semaphore.post();
        }
        return true;
    }
    if (timer.m_Period == 0) {
        timer.m_Called.store(false, std::memory_order_release);
        if (retry) {
            timer.m_CallTime = m_CurTime;
            insertLocked(timer);
        }
    }
    return false;
}

void TimerManagerInternal::handOverLocked(TimerInternal& timer, CTimerThread* worker)
{
    timer.m_CheckTime = m_CurTime;
    worker->setThreadName(timer.m_Name);
    worker->setTimeout(static_cast<int>(std::min<unsigned long>(timer.m_timeout, INT_MAX)));
    worker->m_asynFunc = timer.m_fun;
    worker->m_param = timer.m_param;
    worker->m_bStatistic = timer.m_bStatistic.load(std::memory_order_relaxed);
    worker->m_caller = &timer;
    timer.m_thread.store(worker, std::memory_order_release);
}

bool TimerManagerInternal::endCall(CTimerThread* worker, uint64_t usedMicroSeconds)
{
    CRecursiveGuard guard(sm_mutex());
    TimerInternal* const timer = worker->m_caller;
    if (timer != nullptr) {
        if (timer->m_bStatistic.load(std::memory_order_relaxed)) {
            timer->m_runningTime += usedMicroSeconds;
        }
        timer->m_thread.store(nullptr, std::memory_order_release);
        worker->m_caller = nullptr;
        timer->notifyWaitersLocked();
    }
    if (takeDueLocked(worker)) {
        return true;
    }
    unlinkBusyLocked(worker);
    putTimerThreadLocked(worker);
    return false;
}

// What a timer's owner asks for.

bool TimerManagerInternal::start(TimerInternal& timer, const CTimer::Proc& fun, uint32_t delay,
                                 uint32_t period, unsigned long param, uint32_t timeout)
{
    if (delay != 0) {
        // Mostly nothing else is to be done, and nothing that speaks.
        CRecursiveGuard guard(sm_mutex());
        if (looping() && !m_exiting) {
            armLocked(timer, fun, delay, period, param, timeout);
            return true;
        }
    }
    const CLogHold hold;
    CRecursiveGuard guard(sm_mutex());
    if (!ensureSchedulerLocked()) {
        return false;
    }
    armLocked(timer, fun, delay, period, param, timeout);
    return delay != 0 || runLocked(timer, /*retry*/ true);
}

void TimerManagerInternal::armLocked(TimerInternal& timer, const CTimer::Proc& fun, uint32_t delay,
                                     uint32_t period, unsigned long param, uint32_t timeout)
{
    removeIfStartedLocked(timer);
    timer.m_fun = fun;
    timer.m_CallTime = m_CurTime + delay;
    timer.m_Period = period;
    timer.m_timeout = timeout;
    timer.m_param = param;
    timer.m_Called.store(false, std::memory_order_release);
    timer.m_bStatistic.store(false, std::memory_order_relaxed);
    insertLocked(timer);
}

bool TimerManagerInternal::stop(TimerInternal& timer, bool callNow)
{
    if (!callNow) {
        CRecursiveGuard guard(sm_mutex());
        return removeIfStartedLocked(timer);
    }
    const CLogHold hold;
    CRecursiveGuard guard(sm_mutex());
    return removeIfStartedLocked(timer) &&
           (timer.m_Period > 0 || runLocked(timer, /*retry*/ false));
}

void TimerManagerInternal::setPeriodTime(TimerInternal& timer, unsigned int period)
{
    CRecursiveGuard guard(sm_mutex());
    const bool started = removeIfStartedLocked(timer);
    // A call time before the clock's beginning is due at the next tick.
    const uint64_t later = timer.m_CallTime + period;
    timer.m_CallTime = later > timer.m_Period ? later - timer.m_Period : 0;
    timer.m_Period = period;
    if (started) {
        insertLocked(timer);
    }
}

void TimerManagerInternal::insertLocked(TimerInternal& timer)
{
    m_schedule.insert(timer);
    timer.m_Started.store(true, std::memory_order_release);
}

bool TimerManagerInternal::removeIfStartedLocked(TimerInternal& timer)
{
    if (!timer.m_Started.load(std::memory_order_relaxed)) {
        return false;
    }
    m_schedule.remove(timer);
    timer.m_Started.store(false, std::memory_order_release);
    return true;
}

void TimerManagerInternal::idleAllTimersLocked()
{
    m_schedule.clear(
        [](TimerInternal& timer) { timer.m_Started.store(false, std::memory_order_release); });
}

/// The scheduler is missing when its thread could not be made so far, or stayed behind in the
/// parent of a fork.
bool TimerManagerInternal::ensureSchedulerLocked()
{
    if (m_exiting) {
        return false;
    }
    if (looping()) {
        return true;
    }
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (now > m_CurTime) {
        m_CurTime = now;
        m_schedule.advance(now);
    }
    return createThread();
}

void TimerManagerInternal::dumpTimers()
{
    std::vector<TimerRow> rows;
    uint64_t now = 0;
    {
        CRecursiveGuard guard(sm_mutex());
        now = m_CurTime;
        for (const TimerInternal* timer : m_schedule.sorted()) {
            const bool running = timer->isRunning();
            TimerRow row = {"",
                            timer->m_CallTime,
                            timer->m_runningTime,
                            timer->m_Period,
                            running ? now - timer->m_CheckTime : 0,
                            timer->m_timeout,
                            running};
            copyText(row.name, timer->m_Name);
            rows.push_back(row);
        }
    }
    INFRA_LOG_INFO("Timers: ( %lu Milli-Seconds Elapsed )\n", static_cast<unsigned long>(now));
    INFRA_LOG_INFO(
        "            Name            NextTime RunningTime Period   Used/Timeout State\n");
    INFRA_LOG_INFO(
        "____________________________________________________________________________\n");
    for (const TimerRow& row : rows) {
        INFRA_LOG_INFO("%24s %11lu %11lu %6lu %6d/%6lu %s\n", row.name,
                       static_cast<unsigned long>(row.callTime),
                       static_cast<unsigned long>(row.runningTime / 1000), row.period,
                       static_cast<int>(row.used), row.timeout, row.running ? "Running" : "Idle");
    }
    INFRA_LOG_INFO("\n");
}

void TimerManagerInternal::limitIdlePooled(int count)
{
    CRecursiveGuard guard(sm_mutex());
    m_limitThreadCount = count;
}

// The pool.

CTimerThread* TimerManagerInternal::getTimerThreadLocked()
{
    if (m_headPooled != nullptr) {
        CTimerThread* const worker = m_headPooled;
        m_headPooled = worker->m_nextPooled;
        --m_idleThreadCount;
        return worker;
    }
    try {
        const CMemoryTrial trial;
        std::unique_ptr<CTimerThread> worker = std::make_unique<CTimerThread>(*this);
        return worker->createThread() ? worker.release() : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void TimerManagerInternal::putTimerThreadLocked(CTimerThread* pThread)
{
    INFRA_ASSERT(pThread);
    pThread->m_nextPooled = m_headPooled;
    m_headPooled = pThread;
    ++m_idleThreadCount;
    if (m_limitThreadCount >= 1 && m_idleThreadCount > m_limitThreadCount) {
        trimPoolLocked(m_limitThreadCount);
    }
}

/// Cuts the idle list behind its first `keep` workers. The returning worker may be among the cut,
/// so nobody waits here: they are told to end, and the scheduler deletes them when they have.
void TimerManagerInternal::trimPoolLocked(int keep)
{
    CTimerThread** link = &m_headPooled;
    for (int i = 0; i < keep; ++i) {
        link = &(*link)->m_nextPooled;
    }
    CTimerThread* worker = *link;
    *link = nullptr;
    m_idleThreadCount = keep;
    while (worker != nullptr) {
        CTimerThread* const next = worker->m_nextPooled;
        worker->m_nextPooled = m_headDying;
        m_headDying = worker;
        worker->askToEnd();
        worker = next;
    }
}

void TimerManagerInternal::linkBusyLocked(CTimerThread* worker)
{
    worker->m_prevBusy = nullptr;
    worker->m_nextPooled = m_headBusy;
    if (m_headBusy != nullptr) {
        m_headBusy->m_prevBusy = worker;
    }
    m_headBusy = worker;
}

void TimerManagerInternal::unlinkBusyLocked(CTimerThread* worker)
{
    if (worker->m_nextPooled != nullptr) {
        worker->m_nextPooled->m_prevBusy = worker->m_prevBusy;
    }
    if (worker->m_prevBusy != nullptr) {
        worker->m_prevBusy->m_nextPooled = worker->m_nextPooled;
    } else {
        m_headBusy = worker->m_nextPooled;
    }
}

/// Takes a worker that is over out of the dying list, or returns null.
CTimerThread* TimerManagerInternal::takeDeadLocked()
{
    for (CTimerThread** link = &m_headDying; *link != nullptr; link = &(*link)->m_nextPooled) {
        CTimerThread* const worker = *link;
        if (worker->isThreadOver()) {
            *link = worker->m_nextPooled;
            return worker;
        }
    }
    return nullptr;
}

void TimerManagerInternal::deleteDead()
{
    for (;;) {
        CTimerThread* worker = nullptr;
        {
            CRecursiveGuard guard(sm_mutex());
            worker = takeDeadLocked();
        }
        if (worker == nullptr) {
            return;
        }
        delete worker;
    }
}

// Exit and fork.

void TimerManagerInternal::stopSchedulerAndWorkers()
{
    if (!isThreadOver()) {
        destroyThread();
    }
    {
        const CLogHold hold;
        CRecursiveGuard guard(sm_mutex());
        idleAllTimersLocked();
        trimPoolLocked(0);
    }
    for (;;) {
        CTimerThread* worker = nullptr;
        {
            CRecursiveGuard guard(sm_mutex());
            worker = m_headDying;
            if (worker == nullptr) {
                return;
            }
            m_headDying = worker->m_nextPooled;
        }
        delete worker; // waits for its end
    }
}

/// The object stays: workers may be inside callbacks, and other threads may have asked for it just
/// before.
bool TimerManagerInternal::staysInUse(TimerManagerInternal* manager)
{
    {
        CRecursiveGuard guard(sm_mutex());
        manager->m_exiting = true;
    }
    manager->stopSchedulerAndWorkers();
    return true;
}

void TimerManagerInternal::prepareFork()
{
    sm_mutex().enter();
}

void TimerManagerInternal::resumeParent()
{
    sm_mutex().leave();
}

void TimerManagerInternal::resumeChild()
{
    ForkAccess::renewTaken(sm_mutex());
    if (TimerManagerInternal* const manager = existing()) {
        manager->forgetThreads();
    }
}

/// The threads' records count as over already. A worker whose callback forked goes on.
void TimerManagerInternal::forgetThreads()
{
    CRecursiveGuard guard(sm_mutex());
    idleAllTimersLocked();
    CTimerThread* busy = m_headBusy;
    m_headBusy = nullptr;
    while (busy != nullptr) {
        CTimerThread* const next = busy->m_nextPooled;
        if (busy->m_caller != nullptr) {
            busy->m_caller->m_waiters = nullptr;
            busy->m_caller->m_waiterCount = 0;
        }
        if (!busy->isThreadOver()) {
            linkBusyLocked(busy);
        } else {
            if (busy->m_caller != nullptr) {
                busy->m_caller->m_thread.store(nullptr, std::memory_order_release);
                busy->m_caller = nullptr;
            }
            busy->m_nextPooled = m_headDying;
            m_headDying = busy;
        }
        busy = next;
    }
    while (m_headPooled != nullptr) {
        CTimerThread* const idle = m_headPooled;
        m_headPooled = idle->m_nextPooled;
        idle->m_nextPooled = m_headDying;
        m_headDying = idle;
    }
    m_idleThreadCount = 0;
}

} // namespace Infra
} // namespace Tarsel
