// TimerThread.cpp: the worker that runs a timer's calls.

#include "Infra/Infra3/Time.h"
#include "Infra3/TimerInternal.h"

namespace Tarsel
{
namespace Infra
{

CTimerThread::CTimerThread(TimerManagerInternal& manager)
    : CThread("[Pooled]", priorDefault, policyNormal, 0),
      m_param(0),
      m_semaphore(0),
      m_nextPooled(nullptr),
      m_caller(nullptr),
      m_cancel(false),
      m_prevBusy(nullptr),
      m_bStatistic(false),
      m_manager(manager)
{}

CTimerThread::~CTimerThread()
{
    if (!isThreadOver()) {
        askToEnd();
        destroyThread();
    }
}

void CTimerThread::askToEnd()
{
    m_cancel.store(true, std::memory_order_relaxed);
    m_semaphore.post();
}

uint64_t CTimerThread::call()
{
    if (!m_bStatistic) {
        m_asynFunc(m_param);
        return 0;
    }
    const uint64_t begin = CTime::getCurrentMicroSecond();
    m_asynFunc(m_param);
    return CTime::getCurrentMicroSecond() - begin;
}

void CTimerThread::threadProc()
{
    while (looping()) {
        m_semaphore.pend();
        if (m_cancel.load(std::memory_order_relaxed)) {
            break;
        }
        uint64_t used = 0;
        do {
            used = call();
            setTimeout(0);
            setThreadName("[Pooled]");
        } while (m_manager.endCall(this, used));
    }
}

} // namespace Infra
} // namespace Tarsel
