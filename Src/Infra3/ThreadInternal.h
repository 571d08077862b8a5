#ifndef INFRA_SRC_INFRA3_THREADINTERNAL_H
#define INFRA_SRC_INFRA3_THREADINTERNAL_H

// Threads: the page of the subsystem.
//
// A CThread owns one ThreadInternal; the system thread runs threadBody() on that record. The thread
// manager (ThreadManagerInternal.h) lists the records whose body is between its registration and
// its removal, for the table, and knows all records that exist, for fork().
//
// A run in the record's fields:
//
//                      m_bLoop  m_running  m_ID
//     over             false    0          of the last run, -1 before the first
//     being created    true     0 -> 1     -1
//     running          true     1          kernel id
//     stopping         false    1          kernel id       looping() has turned false
//
// Locks: the manager's m_mutex, then a record's m_mutex, never the other way round. createThread()
// holds m_mutex from before the system thread exists until m_running is 1, which keeps the new
// body, whose first act is to take it, from ending before it counts as running. The end: the body's
// last access to the record sets m_running to 0; whoever waits for that may free it.

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/Semaphore.h"

namespace Tarsel
{
namespace Infra
{

class CThread;
struct ThreadManagerInternal;

struct ThreadInternal
{
    ThreadInternal(CThread* owner, const char* name, int priority, int policy, int stackSize);
    ~ThreadInternal();
    ThreadInternal(const ThreadInternal&) = delete;
    ThreadInternal& operator=(const ThreadInternal&) = delete;

    /// In m_running: somebody sleeps until it is 0.
    static constexpr int runningAwaited = 2;

    pthread_t m_handle;
    std::atomic<int> m_running; ///< 1 or runningAwaited while the body runs
    int m_policy;
    int m_nPriority;
    int m_dwStackSize;
    std::atomic<int> m_ID;
    char m_Name[32];         ///< written and copied under m_mutex
    ThreadInternal* m_pPrev; ///< the manager's list, under its lock; the newest thread is first
    ThreadInternal* m_pNext;
    CSemaphore m_cSemaphore;              ///< posted by the body when it ends, if m_destroyBlock
    std::atomic<uint64_t> m_expectedTime; ///< watchdog deadline in monotonic milliseconds, 0 = none
    std::atomic<bool> m_bLoop;            ///< what looping() returns
    std::atomic<bool> m_destroyed;        ///< destroyThread() has been called for this run
    std::atomic<bool> m_destroyBlock;     ///< somebody may wait for m_cSemaphore
    std::atomic<bool> m_stackSizeEnabled; ///< m_dwStackSize counts
    ThreadManagerInternal* const m_manager; ///< outlives every record
    CThread* const m_owner;
    CMutex m_mutex;

    // Links of the list of all records, under the manager's lock.
    ThreadInternal* m_prevRecord;
    ThreadInternal* m_nextRecord;

    bool m_ownerGone; ///< the body destroyed its own CThread, and deletes the record when it ends

    bool isOver() const
    {
        return m_running.load(std::memory_order_acquire) == 0 &&
               !m_bLoop.load(std::memory_order_acquire);
    }
    /// The body is over.
    void endRun();
    /// The body runs, and destroyThread() has been called for this run.
    bool isRunDestroyed() const;
    /// Waits until it is over, or a new run has begun.
    void waitForEnd();
    void setName(const char* name);
    void copyName(char (&name)[32]);
    void setTimeout(int milliSeconds, uint64_t now);
    bool isTimedOut(uint64_t now) const;

    /// In the child of a fork: the thread that ran this body is not there.
    void forgetThread();
};

/// The record of the calling thread while it stands in the table, else null.
ThreadInternal* currentThreadRecord();
void setCurrentThreadRecord(ThreadInternal* record);

/// Lifts the calling thread's limit, if it has one: it is about to end.
void forgetThreadLimit();

} // namespace Infra
} // namespace Tarsel

#endif
