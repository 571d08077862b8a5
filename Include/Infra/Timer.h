#ifndef INFRA_TIMER_H
#define INFRA_TIMER_H

#include "Infra/Function.h"
#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/Singleton.h"

struct TimerInternal;
/// The older timer, over Tarsel::Infra::CTimer, at which stands what each operation does. All times
/// are milliseconds.
class INFRA_API CTimer
{
public:
    explicit CTimer(const char* name);
    /// Stops the timer and waits for a running call.
    virtual ~CTimer();

    bool Start(::TFunction1<void, unsigned long> fun, unsigned int delay, unsigned int period,
               unsigned long param = 0, unsigned int timeout = 0);
    /// Calls a member, which a cast brings into this form, with the low 32 bits of `param`. False
    /// without an object or a member, or without memory for a pair of them that this timer has not
    /// had before.
    bool Start(CObject* obj, void (CObject::*fun)(unsigned int), unsigned int delay,
               unsigned int period, unsigned long param = 0, unsigned int timeout = 0);
    bool Stop(bool bCallNow = false);
    bool StopAndWait();
    void SetPeriodTime(unsigned int pertime);
    void SetName(const char* name);
    const char* GetName();
    bool IsStarted();
    bool IsCalled();
    bool IsRunning();

private:
    CTimer(const CTimer&);
    CTimer& operator=(const CTimer&);

    ::TimerInternal* m_internal;
};

/// The timer table, as Tarsel::Infra::CTimerManager has it.
class INFRA_API ITimerManager
{
public:
    static ITimerManager* instance();

    virtual void DumpTimers() = 0;
    virtual ~ITimerManager();
};

class INFRA_API CTimerManager : public ITimerManager
{
public:
    static CTimerManager* instance();

    void DumpTimers() override;
    ~CTimerManager() override;

private:
    friend class Tarsel::Infra::TSingleton<CTimerManager>;
    CTimerManager() = default;
    CTimerManager(const CTimerManager&);
    CTimerManager& operator=(const CTimerManager&);
    static bool staysInUse(CTimerManager* manager);
};

#endif
