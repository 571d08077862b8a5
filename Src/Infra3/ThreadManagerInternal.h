#ifndef INFRA_SRC_INFRA3_THREADMANAGERINTERNAL_H
#define INFRA_SRC_INFRA3_THREADMANAGERINTERNAL_H

// The thread table behind CThreadManager; see ThreadInternal.h for the subsystem.

#include <list>
#include <string>
#include <unordered_map>

#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/ThreadManager.h"

namespace Tarsel
{
namespace Infra
{

struct ThreadInternal;

/// Always true while m_mutex is free: the list from m_pHead holds exactly the records in m_byId, and
/// m_outsideHash more, each once, newest first; every one of them is also in the list from
/// m_pRecords.
struct ThreadManagerInternal
{
    static ThreadManagerInternal* instance();

    ThreadManagerInternal();
    ~ThreadManagerInternal();
    ThreadManagerInternal(const ThreadManagerInternal&) = delete;
    ThreadManagerInternal& operator=(const ThreadManagerInternal&) = delete;

    /// Puts a thread at the head of the table. Returns true.
    bool addThread(ThreadInternal* thread);
    /// Takes it out. Returns true.
    bool removeThread(ThreadInternal* thread);
    /// The registered record with that id, or null. The record may go as soon as its thread ends:
    /// safe only for a caller who knows that it does not.
    ThreadInternal* getThread(int id);

    void registerMainThread();
    void dumpThreads();
    bool getThreadNameByID(int id, CString& name);
    bool getTimeOutThreads(std::string& names);
    bool hasThread(int id);
    bool getThreadsInfo(std::list<CThreadManager::ThreadInfo>& infos);

    /// Every record, running or not, is known from its construction to its destruction.
    void addRecord(ThreadInternal* record);
    void removeRecord(ThreadInternal* record);

    // For TSingleton.
    static void onCreated(ThreadManagerInternal* manager);
    static bool staysInUse(ThreadManagerInternal* manager);

    ThreadInternal* m_pHead;
    CMutex m_mutex; // guards everything here; before a record's own mutex
    int m_mainThreadID;

    ThreadInternal* m_pRecords;
    std::unordered_map<int, ThreadInternal*> m_byId;
    int m_outsideHash; ///< threads of the list that there was no memory for in m_byId

private:
    ThreadInternal* findLocked(int id) const;
    void unlinkLocked(ThreadInternal* thread);
    static void prepareFork();
    static void resumeParent();
    static void resumeChild();
    void forgetOtherThreads();
};

} // namespace Infra
} // namespace Tarsel

#endif
