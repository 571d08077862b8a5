#ifndef INFRA_SRC_INFRA3_TIMERINTERNAL_H
#define INFRA_SRC_INFRA3_TIMERINTERNAL_H

// Timers: the page of the subsystem.
//
// Objects: a CTimer owns one TimerInternal. The TimerManagerInternal, one per process, is the
// scheduler thread "TimerManager"; it owns the schedule (TimerSchedule.h) and the CTimerThread
// workers, each of which stands in exactly one list: idle (pooled), busy, or dying.
//
//     scheduler tick ── run(timer) ──> idle or new worker ── post ──> worker calls the delegate
//                                                                        │ call ends
//     next due call, else idle list, or dying list if the pool is full <─┘
//
// A worker is made on the thread that hands a call out, and a dying one is deleted by the
// scheduler.
//
// Locks: the timer lock (sm_mutex(), recursive, immortal) guards the schedule, all lists and every
// TimerInternal; a worker's own thread lock is taken under it. No delegate is called and no message
// sent while it is held (CLogHold).
//
// Pairs: timer.m_thread is a worker if and only if that worker's m_caller is the timer, or the
// timer was destroyed by its own callback and m_caller is null. A busy worker cannot be deleted,
// and a timer cannot be freed while m_thread is set, but for that case.
//
// Exit: the scheduler stops, nothing is scheduled from then on, idle workers end. The manager
// object itself is left in place: callbacks may still run, and other threads may be on their way
// in. Fork: in the child every timer is idle, and the next start() makes a new scheduler thread.

#include <atomic>
#include <cstdint>

#include "Infra/Infra3/RecursiveMutex.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/Thread.h"
#include "Infra/Infra3/Timer.h"
#include "Infra3/TimerSchedule.h"

namespace Tarsel
{
namespace Infra
{

class CTimerThread;
class TimerManagerInternal;

/// A thread that waits for the end of a timer's call. Lives on its stack.
struct TimerWaiter
{
    CSemaphore ended{0};
    TimerWaiter* next = nullptr;
};

/// Everything is guarded by the timer lock; the atomics may also be read without it. What start()
/// and stop() touch comes first: with many timers each line of the cache is a miss, and so would be
/// the room between aligned records.
struct TimerInternal
{
    explicit TimerInternal(const char* name);

    uint64_t m_CallTime = 0;          ///< next call, in monotonic milliseconds
    TimerInternal* m_pPrev = nullptr; ///< the schedule's links
    TimerInternal* m_pNext = nullptr;
    unsigned long m_Period = 0; ///< milliseconds, 0 for a one-shot timer
    unsigned long m_timeout = 0;
    unsigned long m_param = 0;
    std::atomic<CTimerThread*> m_thread{nullptr}; ///< runs the current call
    std::atomic<bool> m_Started{false};           ///< in the schedule
    std::atomic<bool> m_Called{false};
    std::atomic<bool> m_bStatistic{false};
    bool m_ownerGone = false; ///< destroyed by its own call; the last waiter deletes the record
    int m_waiterCount = 0;    ///< threads inside waitForCallLocked()

    CTimer::Proc m_fun;
    uint64_t m_CheckTime = 0; ///< the scheduler's time when the current call was handed out
    TimerWaiter* m_waiters = nullptr;
    uint64_t m_runningTime = 0; ///< microseconds spent in the callback while statistics were on

    char m_Name[32];

    bool isRunning() const { return m_thread.load(std::memory_order_acquire) != nullptr; }
    /// The next period boundary after `now`; missed ones are skipped.
    void skipPast(uint64_t now);
    void notifyWaitersLocked();
};

/// A worker: runs one call at a time.
class CTimerThread final : public CThread
{
public:
    explicit CTimerThread(TimerManagerInternal& manager);
    ~CTimerThread() override;

    void threadProc() override;

    CTimer::Proc m_asynFunc;
    unsigned long m_param;
    CSemaphore m_semaphore;     ///< one post a call handed over, and one to end
    CTimerThread* m_nextPooled; ///< link of the list the worker stands in
    TimerInternal* m_caller;    ///< whose call runs, under the timer lock
    std::atomic<bool> m_cancel;
    CTimerThread* m_prevBusy; ///< second link of the busy list
    bool m_bStatistic;        ///< the call is timed; set before the post

    /// Asks the worker to end. It is over soon after.
    void askToEnd();

private:
    uint64_t call();

    TimerManagerInternal& m_manager;
};

/// How many workers the scheduler may set going for the calls that fall due in one tick.
///
/// The first ones at once; then as many as pauses go by in which the workers at hand have not taken
/// enough of the due calls, each time twice as many. Enough is a twentieth of the due list, so the
/// list shrinks by that much a pause, or the workers double: a call waits for some hundred pauses at
/// most, plus the time it takes to make the threads, whatever the callbacks before it do.
class WorkerPace
{
public:
    static constexpr long pauseMicroSeconds = 100;

    /// True when a worker may be added now, which is then counted.
    bool mayAddWorker();
    void beginPause(size_t dueCount);
    void endPause(size_t dueCount);

private:
    static constexpr size_t addedAtOnce = 2;
    static constexpr size_t mostPauses = 20;

    size_t m_allowed = addedAtOnce;
    size_t m_growth = 1;
    size_t m_dueBefore = 0;
};

class TimerManagerInternal final : public CThread
{
public:
    static TimerManagerInternal* instance();
    /// The manager if it exists at this moment, else null.
    static TimerManagerInternal* existing();
    /// The timer lock.
    static CRecursiveMutex& sm_mutex();

    TimerManagerInternal();
    ~TimerManagerInternal() override;

    void threadProc() override;

    bool start(TimerInternal& timer, const CTimer::Proc& fun, uint32_t delay, uint32_t period,
               unsigned long param, uint32_t timeout);
    bool stop(TimerInternal& timer, bool callNow);
    void setPeriodTime(TimerInternal& timer, unsigned int period);
    void dumpTimers();
    void limitIdlePooled(int count);

    /// Ends the call that `worker` has run. True when the worker has been given another one to run
    /// at once; else it is idle.
    bool endCall(CTimerThread* worker, uint64_t usedMicroSeconds);

    static bool staysInUse(TimerManagerInternal* manager);

    CTimerThread* m_headPooled; ///< idle workers, the last one used first
    uint64_t m_CurTime;         ///< the last tick, in monotonic milliseconds
    int m_limitThreadCount;     ///< most idle workers kept; below 1 for no limit
    int m_idleThreadCount;
    CTimerSchedule m_schedule;
    CTimerThread* m_headBusy;
    CTimerThread* m_headDying; ///< told to end, deleted when over
    bool m_exiting;            ///< nothing is scheduled any more

private:
    void tick();
    bool handOutNext(WorkerPace& pace);
    bool areIdleWorkersEnoughLocked() const;
    bool takeDueLocked(CTimerThread* worker);
    bool runLocked(TimerInternal& timer, bool retry, CTimerThread* worker = nullptr);
    void handOverLocked(TimerInternal& timer, CTimerThread* worker);
    void insertLocked(TimerInternal& timer);
    bool removeIfStartedLocked(TimerInternal& timer);
    void armLocked(TimerInternal& timer, const CTimer::Proc& fun, uint32_t delay, uint32_t period,
                   unsigned long param, uint32_t timeout);
    void idleAllTimersLocked();
    bool ensureSchedulerLocked();

    CTimerThread* getTimerThreadLocked();
    void putTimerThreadLocked(CTimerThread* worker);
    void linkBusyLocked(CTimerThread* worker);
    void unlinkBusyLocked(CTimerThread* worker);
    void trimPoolLocked(int keep);
    CTimerThread* takeDeadLocked();
    void deleteDead();
    void stopSchedulerAndWorkers();

    static void prepareFork();
    static void resumeParent();
    static void resumeChild();
    void forgetThreads();
};

/// Waits, with the timer lock held once, until no call of the timer runs, unless the calling thread
/// runs it. `owner` is named in the message.
void waitForCallLocked(TimerInternal& timer, const CTimer* owner);

} // namespace Infra
} // namespace Tarsel

#endif
