// ThreadLoadingController.cpp: a thread's share of the processor.
//
// Every millisecond each limited thread is either left alone or sent SIGUSR2, whose handler sleeps
// for about a millisecond: held and running milliseconds alternate as evenly as the two counters
// allow, and a cycle of a hundred starts anew when both are used up.

#include <pthread.h>

#include <cerrno>
#include <csignal>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra3/AssertFront.h"
#include "Infra3/Fork.h"
#include "Infra3/LogFront.h"
#include "Infra3/Singleton.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// Runs on any thread at any instruction, on stacks of 16 KB, nested: it does as little as can be.
void pauseThread(int)
{
    const int error = errno;
    CThread::sleep(1);
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

/// Lifts the limit of a thread when it ends: a signal must not be sent to a thread that is gone.
struct LimitedThread
{
    bool limited = false;

    ~LimitedThread()
    {
        CThreadLoadingController* const controller =
            TSingleton<CThreadLoadingController>::existing();
        if (limited && controller != nullptr) {
            controller->removeThread(pthread_self());
        }
    }
};
thread_local LimitedThread t_limitedThread;

} // namespace

/// In the child of a fork no thread is limited, and the controller's own is gone.
struct LoadControllerFork
{
    static void prepare()
    {
        s_forking = TSingleton<CThreadLoadingController>::existing();
        if (s_forking != nullptr) {
            s_forking->m_switchMutex.enter();
            s_forking->m_mutex.enter();
        }
    }

    static void parent()
    {
        if (s_forking != nullptr) {
            s_forking->m_mutex.leave();
            s_forking->m_switchMutex.leave();
        }
    }

    static void child()
    {
        if (s_forking != nullptr) {
            ForkAccess::renewTaken(s_forking->m_mutex);
            ForkAccess::renewTaken(s_forking->m_switchMutex);
            s_forking->m_threads.clear();
        }
    }

    /// Whose locks are held across the fork in progress.
    static inline constinit CThreadLoadingController* s_forking = nullptr;
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
bool CThreadLoadingController::mayDestroy(CThreadLoadingController* controller)
{
    const CLogHold hold;
    CGuard guard(controller->m_switchMutex);
    if (!controller->isThreadOver()) {
        controller->destroyThread();
    }
    return false;
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
    const CLogHold hold;
    CGuard guard(m_switchMutex);
    if (!looping() && !isIdle()) {
        createThread();
    }
}

void CThreadLoadingController::removeThread(unsigned long thread)
{
    {
        CGuard guard(m_mutex);
        m_threads.erase(thread);
    }
    const CLogHold hold;
    CGuard guard(m_switchMutex);
    if (isIdle() && !isThreadOver()) {
        destroyThread();
    }
}

void CThreadLoadingController::threadProc()
{
    while (looping()) {
        controlOnce();
        CThread::sleep(1);
    }
}

void CThreadLoadingController::controlOnce()
{
    CGuard guard(m_mutex);
    for (auto& [thread, control] : m_threads) {
        if (control.offElapsed * control.onCycle > control.offCycle * control.onElapsed) {
            ++control.onElapsed;
        } else {
            pthread_kill(thread, SIGUSR2);
            ++control.offElapsed;
        }
        if (control.onElapsed == control.onCycle && control.offElapsed == control.offCycle) {
            control.onElapsed = 0;
            control.offElapsed = 0;
        }
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
