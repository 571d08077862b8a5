#ifndef INFRA_INFRA3_THREADMANAGER_H
#define INFRA_INFRA3_THREADMANAGER_H

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/Singleton.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/String.h"
#include "Infra/Infra3/Thread.h"

namespace Tarsel
{
namespace Infra
{

struct ThreadManagerInternal;

/// The table of all threads made with CThread, newest first.
///
/// Behaviour: a thread stands in the table from the moment its body starts until its threadProc()
/// has returned. A missed watchdog deadline is only reported, and only when asked for. Threads:
/// safe from any thread. Lines are logged without a lock held.
class INFRA_API CThreadManager
{
public:
    /// One thread, 64 bytes.
    struct ThreadInfo
    {
        char name[32];
        uint32_t threadID;  ///< kernel id
        uint32_t stackSize; ///< bytes asked for
        uint32_t priority : 7;
        uint32_t policy : 1;
        uint32_t timeout : 1; ///< the watchdog deadline has passed
        uint32_t resv1 : 23;
        uint8_t resv2[20];
    };

    /// The one object of the process.
    static CThreadManager* instance();

    /// Names the calling thread as the main thread, for the first row of dumpThreads().
    void registerMainThread();
    /// Logs the table at info level.
    void dumpThreads();
    /// Copies the name of the thread with kernel id `id`; false, and `name` as it was, when there
    /// is none.
    bool getThreadNameByID(int id, CString& name);
    /// Sets `names` to "name(id)" of every thread whose deadline has passed, one behind the other;
    /// false when there is none.
    bool getTimeOutThreads(std::string& names);
    /// True when a registered thread has that kernel id.
    bool hasThread(int id);
    /// Appends a record for each thread; false when there is none.
    bool getThreadsInfo(std::list<ThreadInfo>& infos);

private:
    friend class TSingleton<CThreadManager>;
    CThreadManager();
    CThreadManager(const CThreadManager&);
    CThreadManager& operator=(const CThreadManager&);
    static bool staysInUse(CThreadManager* manager);

    ThreadManagerInternal* m_internal;
};
static_assert(sizeof(CThreadManager::ThreadInfo) == 64, "public record");

/// How far a limited thread is in its cycle. All in milliseconds.
struct ThreadLoadingControl
{
    int onCycle;    ///< of each cycle it may run
    int offCycle;   ///< of each cycle it is held
    int onElapsed;  ///< it has run in this cycle
    int offElapsed; ///< it has been held in this cycle
};

/// Holds threads back so that each gets only its share of the processor; CThread::load() is the way
/// to use it. Its own thread, "ThreadLoadingControl", exists while some thread is limited, and
/// needs the privilege for real-time scheduling.
class INFRA_API CThreadLoadingController : public CThread
{
public:
    static CThreadLoadingController* instance();

    /// Limits a thread (the value of pthread_self()) from now on, in a new cycle. For a thread that
    /// was not made by CThread, removeThread() has to be called before it ends.
    void addThread(unsigned long thread, int onCycle, int offCycle);
    /// Lifts the limit.
    void removeThread(unsigned long thread);

    void threadProc() override;

private:
    friend class TSingleton<CThreadLoadingController>;
    friend struct LoadControllerFork;
    typedef std::map<unsigned long, ThreadLoadingControl> LCTS;

    CThreadLoadingController();
    ~CThreadLoadingController() override;
    static bool staysInUse(CThreadLoadingController* controller);
    void controlOnce();
    bool isIdle();
    bool tryToStart();
    void stopIfIdle();
    void waitForEnd();

    CMutex m_mutex; // guards the map
    LCTS m_threads;
    CMutex
        m_switchMutex; // one thread at a time starts or stops the controller's own; before m_mutex
};

} // namespace Infra
} // namespace Tarsel

#endif
