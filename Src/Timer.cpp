// Timer.cpp: the older timers and their table.
//
// A member that takes an unsigned int cannot be called as one that takes an unsigned long. Between
// them stands a context, one for each pair of object and member that a timer was ever started with.
// It never changes and lives as long as the timer: a call may still run through one when the timer is
// started with another.

#include "Infra/Timer.h"

#include <cstring>
#include <new>
#include <unordered_set>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Timer.h"
#include "Infra3/Hash.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/Singleton.h"

using Tarsel::Infra::CGuard;
using Tarsel::Infra::CLeafMutex;
using Tarsel::Infra::mixHash;

namespace
{

typedef void (CObject::*Member)(unsigned int);

class CMemberCall
{
public:
    CMemberCall(CObject* object, Member member) : m_object(object), m_member(member) {}

    bool operator==(const CMemberCall& other) const
    {
        return m_object == other.m_object && m_member == other.m_member;
    }
    size_t hash() const
    {
        uintptr_t words[2]; // where the function is, and where in the object its class
        static_assert(sizeof(words) == sizeof(m_member));
        memcpy(words, &m_member, sizeof(words));
        return mixHash(mixHash(reinterpret_cast<uintptr_t>(m_object), words[0]), words[1]);
    }
    void call(unsigned long param) const
    {
        (m_object->*m_member)(static_cast<unsigned int>(param));
    }

private:
    CObject* const m_object;
    const Member m_member;
};

struct HashOfCall
{
    size_t operator()(const CMemberCall& call) const { return call.hash(); }
};

} // namespace

struct TimerInternal
{
    explicit TimerInternal(const char* name) : timer(name) {}

    /// The call of that pair; null without memory.
    const CMemberCall* callOf(CObject* object, Member member)
    {
        const CMemberCall wanted(object, member);
        const CGuard guard(mutex);
        if (recent != nullptr && *recent == wanted) {
            return recent;
        }
        try {
            return recent = &*calls.insert(wanted).first;
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    CLeafMutex mutex;
    std::unordered_set<CMemberCall, HashOfCall> calls; ///< guarded by the mutex
    const CMemberCall* recent = nullptr;               ///< the one asked for last; guarded likewise
    Tarsel::Infra::CTimer timer;                       ///< last: a running call uses the above
};

CTimer::CTimer(const char* name) : m_internal(new TimerInternal(name)) {}

CTimer::~CTimer()
{
    delete m_internal;
}

bool CTimer::Start(TFunction1<void, unsigned long> fun, unsigned int delay, unsigned int period,
                   unsigned long param, unsigned int timeout)
{
    return m_internal->timer.start(fun, delay, period, param, timeout);
}

bool CTimer::Start(CObject* obj, void (CObject::*fun)(unsigned int), unsigned int delay,
                   unsigned int period, unsigned long param, unsigned int timeout)
{
    if (obj == nullptr || fun == nullptr) {
        return false;
    }
    const CMemberCall* const call = m_internal->callOf(obj, fun);
    return call != nullptr &&
           m_internal->timer.start(Tarsel::Infra::CTimer::Proc(&CMemberCall::call, call), delay,
                                   period, param, timeout);
}

bool CTimer::Stop(bool bCallNow)
{
    return m_internal->timer.stop(bCallNow);
}

bool CTimer::StopAndWait()
{
    return m_internal->timer.stopAndWait();
}

void CTimer::SetPeriodTime(unsigned int pertime)
{
    m_internal->timer.setPeriodTime(pertime);
}

void CTimer::SetName(const char* name)
{
    m_internal->timer.setName(name);
}

const char* CTimer::GetName()
{
    return m_internal->timer.getName();
}

bool CTimer::IsStarted()
{
    return m_internal->timer.isStarted();
}

bool CTimer::IsCalled()
{
    return m_internal->timer.isCalled();
}

bool CTimer::IsRunning()
{
    return m_internal->timer.isRunning();
}

ITimerManager* ITimerManager::instance()
{
    return CTimerManager::instance();
}

ITimerManager::~ITimerManager() = default;

CTimerManager* CTimerManager::instance()
{
    return Tarsel::Infra::TSingleton<CTimerManager>::instance();
}

void CTimerManager::DumpTimers()
{
    Tarsel::Infra::CTimerManager::instance()->dumpTimers();
}

CTimerManager::~CTimerManager() = default;

/// Threads that run on while the process exits may still call it.
bool CTimerManager::staysInUse(CTimerManager*)
{
    return true;
}
