#ifndef INFRA_THREAD_H
#define INFRA_THREAD_H

#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/Singleton.h"
#include "Infra/Infra3/Thread.h"

struct ThreadInternal;
/// The older base of threads, over Tarsel::Infra::CThread, at which stands what each operation does.
///
/// Ownership: a subclass calls DestroyThread() in its own destructor. When this one's runs, which
/// stops the thread and waits for it, the members of the subclass are gone, and a body that only
/// begins then is this class's own.
class INFRA_API CThread
{
public:
    CThread(const char* name, int priority = Tarsel::Infra::CThread::priorDefault,
            int policy = Tarsel::Infra::CThread::policyNormal, int stackSize = 0);
    virtual ~CThread();

    /// The thread's work, which the subclass supplies; this one does nothing.
    virtual void ThreadProc();

    bool CreateThread();
    bool DestroyThread();
    bool CancelThread();
    bool TerminateThread();
    bool IsThreadOver();
    int GetThreadID();
    void SetThreadName(const char* name);
    int ShareSocket(int socket);
    /// @param milliSeconds  of more than 2^31 - 1, so many count
    void SetTimeout(unsigned long milliSeconds);
    void setTimeout(int milliSeconds, unsigned long now);
    bool IsTimeout();
    bool looping() const;

    static int GetCurrentThreadID();
    static bool SetCurrentTimeout(int milliSeconds);

private:
    CThread(const CThread&);
    CThread& operator=(const CThread&);

    ::ThreadInternal* m_internal;
};

/// The thread table, as Tarsel::Infra::CThreadManager has it.
class INFRA_API IThreadManager
{
public:
    static IThreadManager* instance();

    virtual ~IThreadManager();
    virtual void RegisterMainThread() = 0;
    virtual void DumpThreads() = 0;
    virtual bool GetTimeOutThreads(std::string& names) = 0;
};

class INFRA_API CThreadManager : public IThreadManager
{
public:
    static CThreadManager* instance();

    ~CThreadManager() override;
    void RegisterMainThread() override;
    void DumpThreads() override;
    bool GetTimeOutThreads(std::string& names) override;

private:
    friend class Tarsel::Infra::TSingleton<CThreadManager>;
    CThreadManager() = default;
    CThreadManager(const CThreadManager&);
    CThreadManager& operator=(const CThreadManager&);
    static bool staysInUse(CThreadManager* manager);
    static void onCreated(CThreadManager* manager);
};

#endif
