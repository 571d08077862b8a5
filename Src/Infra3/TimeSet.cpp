// TimeSet.cpp: setting the system time.
//
// A new time goes from the public setter to the hook, and from there to the system: the default
// hook sets the clock, has the hardware clock follow, and tells the modify procedures. A hook of
// the application's own may do all this in another way (through a time service, say), so the
// procedures are called after it only if it was attached so.
//
// Hooks and procedures are application code: they are copied under the lock and called without it.

#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/SystemCall.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Utc.h"
#include "Infra3/ErrorText.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFront.h"
#include "Infra3/TimeInternal.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

typedef std::vector<CTime::ModifyProc> ModifyProcList;

/// The hooks: one delegate for each form of time, and whether the procedures are called after it.
struct SetTimeHooks
{
    CLeafMutex mutex; // guards the delegates
    CTime::SetCurrentTimeHook s_setTimeHook{&setSysCurrentTime};
    CTime::SetCurrentTimeHookEx s_setTimeHookEx{&setSysCurrentTimeEx};
};

constinit std::atomic<bool> s_callModifyProc{false};
constinit std::atomic<bool> s_callModifyProcEx{false};

SetTimeHooks& hooks()
{
    struct Tag;
    return immortal<SetTimeHooks, Tag>();
}

CLeafMutex& getModifyProcListMtx()
{
    struct Tag;
    return immortal<CLeafMutex, Tag>();
}

/// Guarded by getModifyProcListMtx().
ModifyProcList& getModifyProcList()
{
    struct Tag;
    return immortal<ModifyProcList, Tag>();
}

ModifyProcList copyModifyProcs()
{
    CGuard guard(getModifyProcListMtx());
    return getModifyProcList();
}

template <typename Hook>
Hook copyHook(const Hook& hook)
{
    CGuard guard(hooks().mutex);
    return hook;
}

template <typename Hook>
Hook exchangeHook(Hook& hook, const Hook& replacement)
{
    CGuard guard(hooks().mutex);
    const Hook before = hook;
    hook = replacement;
    return before;
}

void callModifyProcs(const ModifyProcList& procs, const SystemTime& time)
{
    for (const CTime::ModifyProc& proc : procs) {
        proc(time);
    }
}

/// Calls the hook that is in place. True when the modify procedures are to be called after it.
template <typename Hook, typename Time>
bool callHook(const Hook& inPlace, const Hook& defaultHook, const std::atomic<bool>& callModifyProc,
              const Time& time, int toleranceSeconds)
{
    const Hook hook = copyHook(inPlace);
    if (!hook.empty()) {
        hook(time, toleranceSeconds);
    }
    return callModifyProc.load(std::memory_order_relaxed) && hook != defaultHook;
}

bool callSetTimeHook(const CTime& time, int toleranceSeconds)
{
    return callHook(hooks().s_setTimeHook, CTime::SetCurrentTimeHook(&setSysCurrentTime),
                    s_callModifyProc, time, toleranceSeconds);
}

bool callSetTimeHookEx(const SystemTimeEx& time, int toleranceSeconds)
{
    return callHook(hooks().s_setTimeHookEx, CTime::SetCurrentTimeHookEx(&setSysCurrentTimeEx),
                    s_callModifyProcEx, time, toleranceSeconds);
}

CTime toTime(const SystemTime& time)
{
    return {time.year, time.month, time.day, time.hour, time.minute, time.second};
}

CTime toTime(const SystemTimeEx& time)
{
    return {time.year, time.month, time.day, time.hour, time.minute, time.second};
}

bool lastErrorIsOfSetting()
{
    const int error = getLastError();
    return error == infraErrorModifySysTimeFailed || error == infraErrorSyncRtcTimeFailed;
}

CTime clamped(const CTime& time)
{
    return time < CTime::minTime ? CTime::minTime : time > CTime::maxTime ? CTime::maxTime : time;
}

bool isWithin(const CTime& time, int toleranceSeconds)
{
    return toleranceSeconds != 0 && std::abs(CTime::getCurrentTime() - time) <= toleranceSeconds;
}

bool setSystemClock(const CTime& time, int millisecond)
{
    timeval clock = {};
    clock.tv_sec = static_cast<time_t>(time.makeTime());
    clock.tv_usec = static_cast<suseconds_t>(millisecond) * 1000;
    if (settimeofday(&clock, nullptr) == 0) {
        return true;
    }
    const int error = errno;
    INFRA_LOG_ERROR("CTime::setCurrentTime() failed, tv.tv_sec:%ld, tv.tv_usec:%ld, errno:%d, "
                    "errMsg:%s\n",
                    static_cast<long>(clock.tv_sec), static_cast<long>(clock.tv_usec), error,
                    CErrorText(error).c_str());
    setLastError(infraErrorModifySysTimeFailed);
    return false;
}

bool setHardwareClock()
{
    if (systemCall("hwclock -w") == 0) {
        return true;
    }
    INFRA_LOG_WARN("CTime::setCurrentTime(): hwclock -w failed\n");
    return false;
}

/// What is left when nobody else is told of the new time: to say how it went.
void reportWithoutProcs(bool hardwareClockSet)
{
    if (hardwareClockSet) {
        INFRA_LOG_INFO("CTime::setCurrentTime() success without callback function\n");
        return;
    }
    setLastError(infraErrorSyncRtcTimeFailed);
    INFRA_LOG_ERROR("CTime::setCurrentTime()  rtc time set function failed\n");
}

void setClocksAndTell(const CTime& time, int millisecond)
{
    if (!setSystemClock(time, millisecond)) {
        return;
    }
    const bool hardwareClockSet = setHardwareClock();
    const ModifyProcList procs = copyModifyProcs();
    if (procs.empty()) {
        reportWithoutProcs(hardwareClockSet);
        return;
    }
    callModifyProcs(procs, time);
}

} // namespace

void setSysCurrentTime(const CTime& time, int toleranceSeconds)
{
    const CTime target = clamped(time);
    if (isWithin(target, toleranceSeconds)) {
        return;
    }
    INFRA_LOG_INFO("CTime::setCurrentTime to %04d-%02d-%02d %02d:%02d:%02d\n", target.year,
                   target.month, target.day, target.hour, target.minute, target.second);
    setClocksAndTell(target, 0);
}

void setSysCurrentTimeEx(const SystemTimeEx& time, int toleranceSeconds)
{
    const CTime target = clamped(toTime(time));
    if (isWithin(target, toleranceSeconds)) {
        return;
    }
    INFRA_LOG_INFO("CTime::setCurrentTimeEx to %04d-%02d-%02d %02d:%02d:%02d:%04d\n", target.year,
                   target.month, target.day, target.hour, target.minute, target.second,
                   time.millisecond);
    setClocksAndTell(target, time.millisecond);
}

void CTime::setCurrentTime(const CTime& time, int toleranceSeconds)
{
    const CTime target = toTime(time);
    const bool procsFollow = callSetTimeHook(target, toleranceSeconds);
    renewPrintTime();
    if (procsFollow) {
        callModifyProcs(copyModifyProcs(), target);
    }
}

bool CTime::setCurrentTimeEx(const CTime& time, int toleranceSeconds)
{
    const CTime target = toTime(time);
    if (callSetTimeHook(target, toleranceSeconds)) {
        callModifyProcs(copyModifyProcs(), target);
    }
    return !lastErrorIsOfSetting();
}

bool CTime::setCurrentTime(const SystemTimeEx& time, int toleranceSeconds)
{
    SystemTimeEx target = time;
    target.wday = Date_to_weekday(time.year, time.month, time.day);
    if (callSetTimeHookEx(target, toleranceSeconds)) {
        callModifyProcs(copyModifyProcs(), toTime(target));
    }
    return !lastErrorIsOfSetting();
}

bool CTime::attachModifyProc(ModifyProc proc)
{
    if (proc.empty()) {
        return false;
    }
    CGuard guard(getModifyProcListMtx());
    getModifyProcList().push_back(proc);
    return true;
}

CTime::SetCurrentTimeHook CTime::attachSetCurrentTimeHook(SetCurrentTimeHook proc)
{
    return exchangeHook(hooks().s_setTimeHook, proc);
}

CTime::SetCurrentTimeHook CTime::attachSetCurrentTimeHook(SetCurrentTimeHook proc,
                                                          bool callModifyProc)
{
    s_callModifyProc.store(callModifyProc, std::memory_order_relaxed);
    return exchangeHook(hooks().s_setTimeHook, proc);
}

CTime::SetCurrentTimeHookEx CTime::attachSetCurrentTimeHookEx(SetCurrentTimeHookEx proc)
{
    return exchangeHook(hooks().s_setTimeHookEx, proc);
}

CTime::SetCurrentTimeHookEx CTime::attachSetCurrentTimeHookEx(SetCurrentTimeHookEx proc,
                                                              bool callModifyProc)
{
    s_callModifyProcEx.store(callModifyProc, std::memory_order_relaxed);
    return exchangeHook(hooks().s_setTimeHookEx, proc);
}

} // namespace Infra
} // namespace Tarsel
