// ThreadManager.cpp: the thread table.
//
// A doubly linked list keeps the order of the table, a hash over kernel ids answers look-ups.
// Tables are copied under the lock and logged after it, because a log printer may ask for names.

#include "Infra/Infra3/ThreadManager.h"

#include <cstring>
#include <new>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Time.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Fork.h"
#include "Infra3/LogFront.h"
#include "Infra3/Singleton.h"
#include "Infra3/ThreadId.h"
#include "Infra3/ThreadInternal.h"
#include "Infra3/ThreadManagerInternal.h"
#include "Infra3/VersionInternal.h"

namespace Tarsel
{
namespace Infra
{

ThreadManagerInternal* ThreadManagerInternal::instance()
{
    return TSingleton<ThreadManagerInternal>::instance();
}

ThreadManagerInternal::ThreadManagerInternal()
    : m_pHead(nullptr), m_mainThreadID(-1), m_pRecords(nullptr), m_outsideHash(0)
{
    static constexpr ForkPart forkPart = {prepareFork, resumeParent, resumeChild};
    joinFork(ForkRank::threads, forkPart);
}

ThreadManagerInternal::~ThreadManagerInternal() = default;

void ThreadManagerInternal::onCreated(ThreadManagerInternal* manager)
{
    libraryVersion().print();
    INFRA_LOG_TRACE("this:%p CThreadManager::CThreadManager()>>>>>>>>>\n",
                    static_cast<void*>(manager));
}

/// Records point to it, and threads run on during exit.
bool ThreadManagerInternal::staysInUse(ThreadManagerInternal*)
{
    return true;
}

void ThreadManagerInternal::addRecord(ThreadInternal* record)
{
    CGuard guard(m_mutex);
    record->m_nextRecord = m_pRecords;
    if (m_pRecords != nullptr) {
        m_pRecords->m_prevRecord = record;
    }
    m_pRecords = record;
}

void ThreadManagerInternal::removeRecord(ThreadInternal* record)
{
    CGuard guard(m_mutex);
    if (record->m_nextRecord != nullptr) {
        record->m_nextRecord->m_prevRecord = record->m_prevRecord;
    }
    if (record->m_prevRecord != nullptr) {
        record->m_prevRecord->m_nextRecord = record->m_nextRecord;
    } else {
        m_pRecords = record->m_nextRecord;
    }
}

bool ThreadManagerInternal::addThread(ThreadInternal* thread)
{
    CGuard guard(m_mutex);
    thread->m_pPrev = nullptr;
    thread->m_pNext = m_pHead;
    if (m_pHead != nullptr) {
        m_pHead->m_pPrev = thread;
    }
    m_pHead = thread;
    try {
        m_byId[thread->m_ID.load(std::memory_order_relaxed)] = thread;
    } catch (const std::bad_alloc&) {
        ++m_outsideHash; // it is found by walking the list then
    }
    return true;
}

bool ThreadManagerInternal::removeThread(ThreadInternal* thread)
{
    CGuard guard(m_mutex);
    unlinkLocked(thread);
    if (m_byId.erase(thread->m_ID.load(std::memory_order_relaxed)) == 0) {
        --m_outsideHash;
    }
    return true;
}

void ThreadManagerInternal::unlinkLocked(ThreadInternal* thread)
{
    if (thread->m_pNext != nullptr) {
        thread->m_pNext->m_pPrev = thread->m_pPrev;
    }
    if (thread->m_pPrev != nullptr) {
        thread->m_pPrev->m_pNext = thread->m_pNext;
    } else {
        m_pHead = thread->m_pNext;
    }
    thread->m_pPrev = nullptr;
    thread->m_pNext = nullptr;
}

ThreadInternal* ThreadManagerInternal::findLocked(int id) const
{
    const auto entry = m_byId.find(id);
    if (entry != m_byId.end() || m_outsideHash == 0) {
        return entry == m_byId.end() ? nullptr : entry->second;
    }
    ThreadInternal* thread = m_pHead;
    while (thread != nullptr && thread->m_ID.load(std::memory_order_relaxed) != id) {
        thread = thread->m_pNext;
    }
    return thread;
}

ThreadInternal* ThreadManagerInternal::getThread(int id)
{
    CGuard guard(m_mutex);
    return findLocked(id);
}

void ThreadManagerInternal::registerMainThread()
{
    CGuard guard(m_mutex);
    m_mainThreadID = currentThreadId();
}

void ThreadManagerInternal::dumpThreads()
{
    int mainThreadID = -1;
    {
        CGuard guard(m_mutex);
        mainThreadID = m_mainThreadID;
    }
    INFRA_LOG_INFO("Threads:\n");
    INFRA_LOG_INFO("               Name            TID  Prior State\n");
    INFRA_LOG_INFO("_______________________________________________________\n");
    INFRA_LOG_INFO("%24s   %8d  %3d  %s\n", "Main", mainThreadID, 64, "Normal");
    std::list<CThreadManager::ThreadInfo> infos;
    getThreadsInfo(infos);
    for (const CThreadManager::ThreadInfo& info : infos) {
        INFRA_LOG_INFO("%24s   %8u  %3u  %s\n", info.name, info.threadID, unsigned{info.priority},
                       info.timeout != 0 ? "Timeout" : "Normal");
    }
    INFRA_LOG_INFO("\n");
}

bool ThreadManagerInternal::getThreadNameByID(int id, CString& name)
{
    char copy[sizeof(ThreadInternal::m_Name)];
    {
        CGuard guard(m_mutex);
        ThreadInternal* const thread = findLocked(id);
        if (thread == nullptr) {
            return false;
        }
        thread->copyName(copy);
    }
    name = copy;
    return true;
}

bool ThreadManagerInternal::getTimeOutThreads(std::string& names)
{
    names.clear();
    const uint64_t now = CTime::getCurrentMilliSecond();
    CGuard guard(m_mutex);
    for (ThreadInternal* thread = m_pHead; thread != nullptr; thread = thread->m_pNext) {
        if (thread->isTimedOut(now)) {
            char name[sizeof(ThreadInternal::m_Name)];
            thread->copyName(name);
            char id[16];
            formatText(id, "(%d)", thread->m_ID.load(std::memory_order_relaxed));
            names.append(name).append(id);
        }
    }
    return !names.empty();
}

bool ThreadManagerInternal::hasThread(int id)
{
    return getThread(id) != nullptr;
}

bool ThreadManagerInternal::getThreadsInfo(std::list<CThreadManager::ThreadInfo>& infos)
{
    CGuard guard(m_mutex);
    const uint64_t now = CTime::getCurrentMilliSecond();
    for (ThreadInternal* thread = m_pHead; thread != nullptr; thread = thread->m_pNext) {
        CThreadManager::ThreadInfo info = {};
        thread->copyName(info.name);
        info.threadID = static_cast<uint32_t>(thread->m_ID.load(std::memory_order_relaxed));
        info.stackSize = static_cast<uint32_t>(thread->m_dwStackSize);
        info.priority = static_cast<uint32_t>(thread->m_nPriority) & 0x7F;
        info.policy = static_cast<uint32_t>(thread->m_policy) & 1;
        info.timeout = thread->isTimedOut(now) ? 1 : 0;
        infos.push_back(info);
    }
    return m_pHead != nullptr;
}

// In the child of a fork only the forking thread goes on; every other body counts as over, and its
// object may be destroyed or started again there.

void ThreadManagerInternal::prepareFork()
{
    if (ThreadManagerInternal* const manager = TSingleton<ThreadManagerInternal>::existing()) {
        manager->m_mutex.enter();
    }
}

void ThreadManagerInternal::resumeParent()
{
    if (ThreadManagerInternal* const manager = TSingleton<ThreadManagerInternal>::existing()) {
        manager->m_mutex.leave();
    }
}

void ThreadManagerInternal::resumeChild()
{
    if (ThreadManagerInternal* const manager = TSingleton<ThreadManagerInternal>::existing()) {
        ForkAccess::renewTaken(manager->m_mutex);
        manager->forgetOtherThreads();
    }
}

void ThreadManagerInternal::forgetOtherThreads()
{
    ThreadInternal* const self = currentThreadRecord();
    CGuard guard(m_mutex);
    m_mainThreadID = -1;
    m_byId.clear();
    m_outsideHash = 0;
    while (m_pHead != nullptr) {
        unlinkLocked(m_pHead);
    }
    for (ThreadInternal* record = m_pRecords; record != nullptr; record = record->m_nextRecord) {
        ForkAccess::renew(record->m_mutex);
        if (record != self) {
            record->forgetThread();
        }
    }
    if (self != nullptr) {
        self->m_ID.store(currentThreadId(), std::memory_order_relaxed);
        m_pHead = self;
        m_outsideHash = 1; // the child of a fork makes no memory its business
    }
}

void ThreadInternal::forgetThread()
{
    m_bLoop.store(false, std::memory_order_release);
    m_expectedTime.store(0, std::memory_order_relaxed);
    m_ID.store(-1, std::memory_order_relaxed);
    m_running.store(0, std::memory_order_release);
}

CThreadManager* CThreadManager::instance()
{
    return TSingleton<CThreadManager>::instance();
}

CThreadManager::CThreadManager() : m_internal(ThreadManagerInternal::instance()) {}

/// It holds nothing, and threads that run on during exit may still call it.
bool CThreadManager::staysInUse(CThreadManager*)
{
    return true;
}

void CThreadManager::registerMainThread()
{
    m_internal->registerMainThread();
}

void CThreadManager::dumpThreads()
{
    m_internal->dumpThreads();
}

bool CThreadManager::getThreadNameByID(int id, CString& name)
{
    return m_internal->getThreadNameByID(id, name);
}

bool CThreadManager::getTimeOutThreads(std::string& names)
{
    return m_internal->getTimeOutThreads(names);
}

bool CThreadManager::hasThread(int id)
{
    return m_internal->hasThread(id);
}

bool CThreadManager::getThreadsInfo(std::list<ThreadInfo>& infos)
{
    return m_internal->getThreadsInfo(infos);
}

} // namespace Infra
} // namespace Tarsel
