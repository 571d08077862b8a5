// ProcessMutex.cpp: mutexes that processes share, and what happens when an owner dies.
//
// They are robust: the system tells the next owner that the last one died inside. That one repairs
// what the mutex guards before it declares the mutex consistent, lets it go and takes it again like
// anybody else. Dying in a repair is no different: the next one repairs.

#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#include <atomic>
#include <cerrno>
#include <ctime>

#include "Infra3/AssertFront.h"
#include "Infra3/ProcessLife.h"
#include "Memory/ShareMem/Common.h"
#include "Memory/ShareMem/Publish.h"
#include "Memory/ShareMem/Report.h"

using ShareMem::report;

namespace
{

constexpr timespec pollPause = {0, 1000 * 1000}; // 1 ms
constexpr int patience = 10000;                  // pauses

constinit ProcessMutex* s_handles[processMutexCount] = {};
constinit pthread_mutex_t s_handlesMutex = PTHREAD_MUTEX_INITIALIZER; // guards the making of them

constinit std::atomic<void (*)()> s_repair{nullptr};
constinit std::atomic<uint64_t> s_epoch{0}; // changed under mutex 0

// Lock and unlock ------------------------------------------------------------------------------

void repairAfterDeath(const ProcessMutex* mutex)
{
    report("[%s:%d]process exit with lock.[%d]\n", "lock", __LINE__, static_cast<int>(getpid()));
    void (*const repair)() = s_repair.load(std::memory_order_acquire);
    if (repair != nullptr && mutex == s_handles[0]) {
        repair();
    }
}

int unlock(ProcessMutex* mutex)
{
    INFRA_SYSTEM_ASSERT_TEXT(mutex != nullptr && mutex->internal != nullptr,
                             "mutex != ((void *)0) && mutex->internal != ((void *)0)");
    if (pthread_mutex_unlock(&mutex->internal->m_lock) == 0) {
        ShareMem::releaseReports();
    }
    return 0;
}

int noteTaken(const ProcessMutex* mutex)
{
    ShareMem::holdReports();
    if (mutex == s_handles[0]) {
        s_epoch.store(s_epoch.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    return 0;
}

/// Goes on behind a first attempt that did not simply succeed. Stands apart so that one that does
/// needs hardly a register.
template <typename Take>
[[gnu::cold, gnu::noinline]] int lockAfterDeath(ProcessMutex* mutex, Take take, int result)
{
    while (result == EOWNERDEAD) {
        ShareMem::holdReports();
        repairAfterDeath(mutex);
        pthread_mutex_consistent(&mutex->internal->m_lock);
        unlock(mutex);
        result = take(&mutex->internal->m_lock);
    }
    return result == 0 ? noteTaken(mutex) : result;
}

template <typename Take>
int lockBy(ProcessMutex* mutex, Take take)
{
    INFRA_SYSTEM_ASSERT_TEXT(mutex != nullptr && mutex->internal != nullptr,
                             "mutex != ((void *)0) && mutex->internal != ((void *)0)");
    const int result = take(&mutex->internal->m_lock);
    return result == 0 ? noteTaken(mutex) : lockAfterDeath(mutex, take, result);
}

int lock(ProcessMutex* mutex)
{
    return lockBy(mutex, pthread_mutex_lock);
}

// Making ---------------------------------------------------------------------------------------

constexpr uint32_t claimBit = 0x40000000; // not in zoneReady; process ids stay below it
static_assert((zoneReady & claimBit) == 0);

enum class Zone
{
    ready,
    claimed, ///< it is for this process to make the mutexes
    stuck    ///< a process that lives has begun to make them, and does not go on
};

Zone claimZone(ZoneHead* head)
{
    for (int look = 0; look < patience; ++look) {
        uint32_t flag = __atomic_load_n(&head->initFlag, __ATOMIC_ACQUIRE);
        if (flag == zoneReady) {
            return Zone::ready;
        }
        if (isClaimedByOther(flag)) {
            nanosleep(&pollPause, nullptr);
        } else if (__atomic_compare_exchange_n(&head->initFlag, &flag, ownZoneClaim(), false,
                                               __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
            return Zone::claimed;
        }
    }
    return Zone::stuck;
}

ProcessMutexInternal* mutexesOf(ZoneHead* head)
{
    return reinterpret_cast<ProcessMutexInternal*>(head->zoneData);
}

bool makeMutexes(ProcessMutexInternal* mutexes)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    int result = 0;
    for (size_t i = 0; i < processMutexCount && result == 0; ++i) {
        result = pthread_mutex_init(&mutexes[i].m_lock, &attributes);
        if (result != 0) {
            report("%s : %d, process mutex pthread_mutex_init error(errno:%d)!\n", __FILE__,
                   __LINE__, result);
        }
    }
    pthread_mutexattr_destroy(&attributes);
    return result == 0;
}

int openZone(ZoneHead* head)
{
    const Zone zone = claimZone(head);
    if (zone == Zone::stuck) {
        report("%s : %d, process mutex is being made by a process that does not go on!\n", __FILE__,
               __LINE__);
    }
    if (zone != Zone::claimed) {
        return zone == Zone::ready ? 0 : -1;
    }
    const bool made = makeMutexes(mutexesOf(head));
    publish(head->initFlag, made ? zoneReady : 0);
    return made ? 0 : -1;
}

ProcessMutex* allocHandle()
{
    return static_cast<ProcessMutex*>(gloMemOperation.allocMem(sizeof(ProcessMutex)));
}

/// Handles are kept for good: whoever has one may still use it after the pool it was made for went.
int openHandles(ZoneHead* head)
{
    for (size_t i = 0; i < processMutexCount; ++i) {
        ProcessMutexInternal* const internal = &mutexesOf(head)[i];
        if (s_handles[i] != nullptr && s_handles[i]->internal == internal) {
            continue; // other threads may be using it
        }
        if (s_handles[i] == nullptr && (s_handles[i] = allocHandle()) == nullptr) {
            report("%s : %d, malloc process mutex failed!\n", __FILE__, __LINE__);
            return -1;
        }
        *s_handles[i] = {lock, unlock, internal};
    }
    return 0;
}

} // namespace

uint32_t ownZoneClaim()
{
    return claimBit | static_cast<uint32_t>(getpid());
}

bool isClaimedByOther(uint32_t flag)
{
    const pid_t maker = static_cast<pid_t>(flag & ~claimBit);
    return (flag & claimBit) != 0 && maker != getpid() && Tarsel::Infra::isProcessAlive(maker);
}

size_t getSyncZoneSize()
{
    return processMutexCount * sizeof(ProcessMutexInternal);
}

int initProcessMutex(ZoneHead* head)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr, "head != ((void *)0)");
    pthread_mutex_lock(&s_handlesMutex);
    const int result = openZone(head) == 0 ? openHandles(head) : -1;
    pthread_mutex_unlock(&s_handlesMutex);
    return result;
}

int lockProcessMutexUntil(ProcessMutex* mutex, const timespec& deadline)
{
    return lockBy(mutex, [&deadline](pthread_mutex_t* own) {
        const int result = pthread_mutex_timedlock(own, &deadline);
#if defined(__SANITIZE_THREAD__) // it takes this one for a lock that failed
        if (result == EOWNERDEAD) {
            __tsan_mutex_pre_lock(own, __tsan_mutex_try_lock);
            __tsan_mutex_post_lock(own, __tsan_mutex_try_lock, 0);
        }
#endif
        return result;
    });
}

ProcessMutex* getProcessMutex(size_t id)
{
    if (id >= processMutexCount) {
        report("%s : %d, get process mutex failed, id:%d > 3!\n", __FILE__, __LINE__,
               static_cast<int>(id));
        return nullptr;
    }
    return s_handles[id];
}

void setProcessMutexRepair(void (*repair)())
{
    s_repair.store(repair, std::memory_order_release);
}

uint64_t processMutexEpoch()
{
    return s_epoch.load(std::memory_order_relaxed);
}
