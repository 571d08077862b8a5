// ThreadLoadingController.cpp: a thread's share of the processor.
//
// Every millisecond each limited thread is either left alone or sent SIGUSR2, whose handler sleeps
// for about a millisecond: held and running milliseconds alternate as evenly as the two counters
// allow, and a cycle of a hundred starts anew when both are used up.

#include <pthread.h>

#include <cerrno>
#include <climits>
#include <csignal>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra3/AssertFront.h"
#include "Infra3/Fork.h"
#include "Infra3/LogFront.h"
#include "Infra3/Singleton.h"
#include "Infra3/ThreadInternal.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constinit thread_local volatile sig_atomic_t t_pausing = 0;

/// Set on the controller's own thread, for which nobody may wait there.
constinit thread_local bool t_isController = false;

/// Runs on any thread at any instruction, on stacks of 16 KB: it does as little as can be. The signal
/// may come again meanwhile, and on a busy machine again and again: one pause stands for all of them.
void pauseThread(int)
{
    if (t_pausing != 0) {
        return;
    }
    const int error = errno;
    t_pausing = 1;
    CThread::sleep(1);
    t_pausing = 0;
    errno = error;
}

void installPause()
{
    struct sigaction act = {};
    act.sa_handler = pauseThread;
    act.sa_flags = SA_RESTART | SA_NODEFER;
    struct sigaction oldact = {};
    const int ret = sigaction(SIGUSR2, &act, &oldact);
    INFRA_ASSERT(ret == 0);
    // A controller made anew finds the handler of the first one.
    INFRA_ASSERT_TEXT(oldact.sa_handler == SIG_DFL || oldact.sa_handler == pauseThread,
                      "oldact.sa_handler == 0 && oldact.sa_sigaction == 0");
}

/// Cycles that nobody would choose never end: their counters stop at the top.
void countUp(int& elapsed)
{
    elapsed += elapsed < INT_MAX ? 1 : 0;
}

/// Lifts the limit of a thread when it ends: a signal must not be sent to a thread that is gone.
struct LimitedThread
{
    bool limited = false;

    ~LimitedThread()
    {
        if (limited) {
            forgetThreadLimit();
        }
    }
};
thread_local LimitedThread t_limitedThread;

} // namespace

/// In the child of a fork no thread is limited, and the controller's own is gone.
struct LoadControllerFork
{
    static CThreadLoadingController* controller()
    {
        return TSingleton<CThreadLoadingController>::existing();
    }

    static void prepare()
    {
        if (controller() != nullptr) {
            controller()->m_switchMutex.enter();
            controller()->m_mutex.enter();
        }
    }

    static void parent()
    {
        if (controller() != nullptr) {
            controller()->m_mutex.leave();
            controller()->m_switchMutex.leave();
        }
    }

    static void child()
    {
        if (controller() != nullptr) {
            ForkAccess::renewTaken(controller()->m_mutex);
            ForkAccess::renewTaken(controller()->m_switchMutex);
            controller()->m_threads.clear();
        }
    }

    static constexpr ForkPart part = {prepare, parent, child};
};

CThreadLoadingController* CThreadLoadingController::instance()
{
    return TSingleton<CThreadLoadingController>::instance();
}

CThreadLoadingController::CThreadLoadingController()
    : CThread("ThreadLoadingControl", priorTop, policyRealtime, 0)
{
    installPause();
    joinFork(ForkRank::loadController, LoadControllerFork::part);
}

CThreadLoadingController::~CThreadLoadingController() = default;

/// Threads that end while the process exits may be on their way in here: the object stays, its
/// thread does not.
bool CThreadLoadingController::staysInUse(CThreadLoadingController* controller)
{
    {
        CGuard guard(controller->m_mutex);
        controller->m_threads.clear();
    }
    controller->stopIfIdle();
    return true;
}

bool CThreadLoadingController::isIdle()
{
    CGuard guard(m_mutex);
    return m_threads.empty();
}

void CThreadLoadingController::addThread(unsigned long thread, int onCycle, int offCycle)
{
    {
        CGuard guard(m_mutex);
        m_threads[thread] = {onCycle, offCycle, 0, 0};
    }
    while (!tryToStart()) {
        waitForEnd();
    }
}

/// False while an earlier run is still ending.
bool CThreadLoadingController::tryToStart()
{
    const CLogHold hold;
    CGuard guard(m_switchMutex);
    if (looping() || isIdle() || t_isController) {
        return true;
    }
    if (!isThreadOver()) {
        return false;
    }
    createThread();
    return true;
}

void CThreadLoadingController::removeThread(unsigned long thread)
{
    {
        CGuard guard(m_mutex);
        m_threads.erase(thread);
    }
    stopIfIdle();
}

void CThreadLoadingController::stopIfIdle()
{
    {
        const CLogHold hold;
        CGuard guard(m_switchMutex);
        if (!isIdle() || !looping()) {
            return;
        }
        cancelThread();
    }
    waitForEnd();
}

/// Without a lock: the ending thread may be in a log printer, and the printer may come in here.
/// That thread itself does not wait.
void CThreadLoadingController::waitForEnd()
{
    while (!isThreadOver() && !looping() && !t_isController) {
        CThread::sleep(1);
    }
}

void CThreadLoadingController::threadProc()
{
    t_isController = true;
    while (looping()) {
        controlOnce();
        CThread::sleep(1);
    }
}

void CThreadLoadingController::controlOnce()
{
    CGuard guard(m_mutex);
    for (auto& [thread, control] : m_threads) {
        if (int64_t{control.offElapsed} * control.onCycle >
            int64_t{control.offCycle} * control.onElapsed) {
            countUp(control.onElapsed);
        } else {
            pthread_kill(thread, SIGUSR2);
            countUp(control.offElapsed);
        }
        if (control.onElapsed == control.onCycle && control.offElapsed == control.offCycle) {
            control.onElapsed = 0;
            control.offElapsed = 0;
        }
    }
}

void forgetThreadLimit()
{
    CThreadLoadingController* const controller = TSingleton<CThreadLoadingController>::existing();
    if (controller != nullptr && !t_isController) {
        controller->removeThread(pthread_self());
    }
}

void CThread::load(int percent)
{
    if (percent < 1 || percent > 100) {
        INFRA_LOG_ERROR("thread load percent:%d is invalid!\n", percent);
        return;
    }
    CThreadLoadingController* const controller = CThreadLoadingController::instance();
    t_limitedThread.limited = percent != 100;
    if (percent == 100) {
        controller->removeThread(pthread_self());
    } else {
        controller->addThread(pthread_self(), percent, 100 - percent);
    }
}

} // namespace Infra
} // namespace Tarsel
