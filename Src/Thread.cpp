// Thread.cpp: the older threads and their table.

#include "Infra/Thread.h"

#include <algorithm>
#include <climits>

#include "Infra/Infra3/ThreadManager.h"
#include "Infra3/LogFront.h"
#include "Infra3/Singleton.h"

namespace
{

/// The newer thread inside an older one.
class CThreadDrived : public Tarsel::Infra::CThread
{
public:
    CThreadDrived(::CThread* owner, const char* name, int priority, int policy, int stackSize)
        : Tarsel::Infra::CThread(name, priority, policy, stackSize), m_owner(owner)
    {}

    /// The thread ends here, while there is still a threadProc() for it to begin with.
    ~CThreadDrived() override { endThread(); }

    void threadProc() override { m_owner->ThreadProc(); }

private:
    ::CThread* const m_owner;
};

Tarsel::Infra::CThreadManager* newerManager()
{
    return Tarsel::Infra::CThreadManager::instance();
}

} // namespace

struct ThreadInternal
{
    ThreadInternal(CThread* owner, const char* name, int priority, int policy, int stackSize)
        : thread(owner, name, priority, policy, stackSize)
    {}

    CThreadDrived thread;
};

CThread::CThread(const char* name, int priority, int policy, int stackSize)
    : m_internal(new ThreadInternal(this, name, priority, policy, stackSize))
{}

CThread::~CThread()
{
    delete m_internal;
}

void CThread::ThreadProc() {}

bool CThread::CreateThread()
{
    return m_internal->thread.createThread();
}

bool CThread::DestroyThread()
{
    return m_internal->thread.destroyThread();
}

bool CThread::CancelThread()
{
    return m_internal->thread.cancelThread();
}

bool CThread::TerminateThread()
{
    return m_internal->thread.terminateThread();
}

bool CThread::IsThreadOver()
{
    return m_internal->thread.isThreadOver();
}

int CThread::GetThreadID()
{
    return m_internal->thread.getThreadID();
}

void CThread::SetThreadName(const char* name)
{
    m_internal->thread.setThreadName(name);
}

int CThread::ShareSocket(int socket)
{
    return m_internal->thread.shareSocket(socket);
}

void CThread::SetTimeout(unsigned long milliSeconds)
{
    const auto longest = static_cast<unsigned long>(INT_MAX);
    m_internal->thread.setTimeout(static_cast<int>(std::min(milliSeconds, longest)));
}

void CThread::setTimeout(int milliSeconds, unsigned long now)
{
    m_internal->thread.setTimeout(milliSeconds, now);
}

bool CThread::IsTimeout()
{
    return m_internal->thread.isTimeout();
}

bool CThread::looping() const
{
    return m_internal->thread.looping();
}

int CThread::GetCurrentThreadID()
{
    return Tarsel::Infra::CThread::getCurrentThreadID();
}

bool CThread::SetCurrentTimeout(int milliSeconds)
{
    return Tarsel::Infra::CThread::setCurrentTimeout(milliSeconds);
}

IThreadManager* IThreadManager::instance()
{
    return CThreadManager::instance();
}

IThreadManager::~IThreadManager() = default;

CThreadManager* CThreadManager::instance()
{
    return Tarsel::Infra::TSingleton<CThreadManager>::instance();
}

void CThreadManager::onCreated(CThreadManager*)
{
    if (Tarsel::Infra::isLevelPrinted(Tarsel::Infra::logLevelTrace)) {
        Tarsel::Infra::logFront(Tarsel::Infra::logLevelTrace,
                                {__FILE__, "CThreadManager", __LINE__},
                                "CThreadManager::CThreadManager()>>>>>>>>>\n");
    }
}

CThreadManager::~CThreadManager() = default;

/// Threads that run on while the process exits may still call it.
bool CThreadManager::staysInUse(CThreadManager*)
{
    return true;
}

void CThreadManager::RegisterMainThread()
{
    newerManager()->registerMainThread();
}

void CThreadManager::DumpThreads()
{
    newerManager()->dumpThreads();
}

bool CThreadManager::GetTimeOutThreads(std::string& names)
{
    return newerManager()->getTimeOutThreads(names);
}
