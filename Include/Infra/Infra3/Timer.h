#ifndef INFRA_INFRA3_TIMER_H
#define INFRA_INFRA3_TIMER_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/Singleton.h"
#include "Infra/Infra3/Function.h"

namespace Tarsel
{
namespace Infra
{

struct TimerInternal;
class TimerManagerInternal;

/// Calls a delegate once after a delay, or every period, on a pooled worker thread.
///
/// Behaviour: the scheduler reads the monotonic clock once per tick of 10 ms, delays count from its
/// last tick, and a call is due at the first tick after its time. Of timers with the same call time
/// the one started last goes first. Missed periods are skipped, and a call is dropped while the
/// previous one of the same timer still runs, also that of a one-shot timer that its own callback
/// started again.
///
/// |           | start()                  | due                         | stop()               |
/// |-----------|--------------------------|-----------------------------|----------------------|
/// | idle      | scheduled                | -                           | false                |
/// | scheduled | scheduled, new arguments | one-shot: idle; else stays  | idle, a call may end |
///
/// Threads: safe from any thread. A timer's own callback may start, stop and re-time it, not
/// destroy it. In the child of a fork every timer is idle. Ownership: the object bound in the
/// delegate belongs to the caller and must outlive the calls. The destructor waits for a running
/// call, so a class may keep its CTimer as its last member.
///
///     CTimer timer("flush");
///     timer.start(CTimer::Proc(&CJournal::flush, this), /*delay*/ 500, /*period*/ 500);
class INFRA_API CTimer
{
public:
    typedef TFunction1<void, unsigned long> Proc;

    /// An idle timer. The first 31 characters of `name` are kept; null is "".
    explicit CTimer(const char* name);
    /// Stops the timer and waits for a running call, but not for one on the calling thread.
    virtual ~CTimer();

    /// Schedules the timer, anew if it is scheduled already, and switches its statistics off.
    /// @param delay    milliseconds to the first call; 0 hands it out at once
    /// @param period   milliseconds between calls; 0 is a single call
    /// @param param    what the delegate is called with
    /// @param timeout  watchdog of each call in milliseconds, for the thread table; 0 is none
    /// @return true; with a delay of 0 whether the call was handed out: false when the previous one
    ///         still runs, when no worker could be had (a single call is then tried again at the
    ///         next tick), or when the process is exiting. An empty delegate is refused with false.
    bool start(Proc fun, uint32_t delay, uint32_t period, unsigned long param = 0,
               uint32_t timeout = 0);
    /// Takes the timer out of the schedule; a running call goes on.
    /// @param bCallNow  hand out the call of a one-shot timer at once
    /// @return false when it was not scheduled, or the call could not be handed out
    bool stop(bool bCallNow = false);
    /// stop(), and waits until no call runs, unless called by the call itself. Returns true.
    bool stopAndWait();
    /// Changes the period; the next call moves by the difference.
    void setPeriodTime(unsigned int pertime);

    void setName(const char* name);
    /// The name. Belongs to the timer, and changes with setName().
    const char* getName();

    /// In the schedule.
    bool isStarted();
    /// A one-shot timer whose call has been handed out.
    bool isCalled();
    /// A call is in progress.
    bool isRunning();
    /// Adds up the time spent in the callback from now on, for the timer table.
    void enableStat(bool bStat);

private:
    CTimer(const CTimer&);
    CTimer& operator=(const CTimer&);

    TimerInternal* m_internal;
};

/// The timers of the process: their table, and the size of the worker pool.
///
/// Threads: safe from any thread. Lines are logged without a lock held.
class INFRA_API CTimerManager
{
public:
    /// The one object of the process; makes the scheduler thread "TimerManager".
    static CTimerManager* instance();

    /// Logs the scheduled timers in the order of their calls, at info level.
    void dumpTimers();
    /// Keeps at most `count` idle workers from the next end of a call on; below 1 is no limit.
    /// Returns true.
    bool limitIdlePooled(int count);

private:
    friend class TSingleton<CTimerManager>;
    CTimerManager();
    CTimerManager(const CTimerManager&);
    CTimerManager& operator=(const CTimerManager&);
    static bool staysInUse(CTimerManager* manager);

    TimerManagerInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
