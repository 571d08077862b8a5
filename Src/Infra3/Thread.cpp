// Thread.cpp: CThread, from the creation of the system thread to the end of its body.

#include "Infra/Infra3/Thread.h"

#include <poll.h>
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Time.h"
#include "Infra3/BoundedText.h"
#include "Infra3/ErrorText.h"
#include "Infra3/FutexWait.h"
#include "Infra3/LogFront.h"
#include "Infra3/ThreadId.h"
#include "Infra3/ThreadInternal.h"
#include "Infra3/ThreadManagerInternal.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr int leastStackSize = 16384;
constexpr uint64_t waitsBetweenNotes = 100;
/// A body that has been told to end is often gone within these; after them it is worth sleeping.
constexpr int yieldingWaits = 200;

/// Waits for the ends of threads, of all together: each thread ends once.
constinit CSpinHistory s_endings;

constinit thread_local ThreadInternal* t_record = nullptr;

void setNiceValue(int priority)
{
    // Of the calling thread alone: the system counts nice values by thread.
    setpriority(PRIO_PROCESS, 0, static_cast<int>(int64_t{priority} * 40 / 128 - 19));
}

int realtimePriority(int priority)
{
    const int least = sched_get_priority_min(SCHED_FIFO);
    const int most = sched_get_priority_max(SCHED_FIFO);
    return static_cast<int>(most + (most - least) * (int64_t{priority} - 1) / -126);
}

/// One wait of a loop that waits for a body's end.
void waitABit(uint64_t round)
{
    if (round < yieldingWaits) {
        sched_yield();
    } else {
        CThread::sleep(1);
    }
}

void* threadBody(void* argument)
{
    ThreadInternal& record = *static_cast<ThreadInternal*>(argument);
    if (record.m_policy == CThread::policyNormal) {
        setNiceValue(record.m_nPriority);
    }
    {
        CGuard guard(record.m_mutex);
        record.m_ID.store(currentThreadId(), std::memory_order_relaxed);
    }
    record.m_manager->addThread(&record);
    setCurrentThreadRecord(&record);
    char name[sizeof(record.m_Name)];
    record.copyName(name);
    INFRA_LOG_TRACE("ThreadBody Enter name:%s, id:%d, prior:%s%d, stack:%p\n", name,
                    currentThreadId(), record.m_policy == CThread::policyRealtime ? "R" : "N",
                    record.m_nPriority, static_cast<void*>(name));

    record.m_owner->threadProc();

    record.copyName(name);
    INFRA_LOG_TRACE("ThreadBody leave name:%s, id:%d \n", name, currentThreadId());
    setCurrentThreadRecord(nullptr);
    record.m_manager->removeThread(&record);
    forgetThreadLimit();
    if (record.m_ownerGone) {
        delete &record;
        return nullptr;
    }
    record.m_bLoop.store(false, std::memory_order_release);
    if (record.m_destroyBlock.load(std::memory_order_relaxed)) {
        record.m_cSemaphore.post();
    }
    record.endRun();
    return nullptr;
}

/// A thread attribute that is destroyed on every way out. Each step returns the system's code.
class CThreadAttribute
{
public:
    CThreadAttribute() : m_code(pthread_attr_init(&m_attribute)) {}
    ~CThreadAttribute() { destroy(); }
    CThreadAttribute(const CThreadAttribute&) = delete;
    CThreadAttribute& operator=(const CThreadAttribute&) = delete;

    int initCode() const { return m_code; }
    pthread_attr_t* get() { return &m_attribute; }
    int destroy()
    {
        if (m_code != 0) {
            return 0;
        }
        m_code = -1;
        return pthread_attr_destroy(&m_attribute);
    }

private:
    pthread_attr_t m_attribute;
    int m_code;
};

/// Reports a step of creation that failed. True when `code` is 0.
#define STEP(code, format, ...)                                                                    \
    ((code) == 0 ? true : (INFRA_LOG_ERROR(format, __VA_ARGS__, (code)), false))

bool setStackSize(CThread* self, pthread_attr_t* attribute, size_t stackSize)
{
    const int code = pthread_attr_setstacksize(attribute, stackSize);
    INFRA_LOG_INFO("this:%p pthread attr set stack size, stk_sz:%zu\n", static_cast<void*>(self),
                   stackSize);
    return STEP(code, "this:%p pthread attr set stack size failed, stk_sz:%zu, errno:%d\n",
                static_cast<void*>(self), stackSize);
}

bool setRealtime(CThread* self, pthread_attr_t* attribute, int priority)
{
    void* const shown = self;
    int code = pthread_attr_setinheritsched(attribute, PTHREAD_EXPLICIT_SCHED);
    if (!STEP(code,
              "this:%p pthread attr setinheritsched PTHREAD_EXPLICIT_SCHED failed, errno:%d\n",
              shown)) {
        return false;
    }
    code = pthread_attr_setschedpolicy(attribute, SCHED_FIFO);
    if (!STEP(code, "this:%p pthread attr set SCHED_FIFO failed, errno:%d\n", shown)) {
        return false;
    }
    sched_param parameter = {};
    parameter.sched_priority = realtimePriority(priority);
    code = pthread_attr_setschedparam(attribute, &parameter);
    return STEP(code,
                "this:%p pthread attr pthread_attr_setschedparam(sched priority:%d) failed, "
                "errno:%d\n",
                shown, parameter.sched_priority);
}

bool setScheduling(CThread* self, pthread_attr_t* attribute, const ThreadInternal& record)
{
    void* const shown = self;
    if (record.m_policy == CThread::policyRealtime) {
        return setRealtime(self, attribute, record.m_nPriority);
    }
    if (record.m_policy != CThread::policyNormal) {
        // No line end: the next text of the log continues this line.
        INFRA_LOG_WARN("this:%p CThread::CreateThread policy isn't set properly, policy:%d", shown,
                       record.m_policy);
    }
    const int code = pthread_attr_setschedpolicy(attribute, SCHED_OTHER);
    return STEP(code,
                "this:%p pthread attr pthread_attr_setschedpolicy(SCHED_OTHER) failed, errno:%d\n",
                shown);
}

/// The stack size to use, or -1 for one that cannot be.
int checkedStackSize(CThread* self, int stackSize)
{
    if (stackSize < 0) {
        INFRA_LOG_ERROR("this:%p invalid stack size, StackSize:%d\n", static_cast<void*>(self),
                        stackSize);
        return -1;
    }
    if (stackSize != 0 && stackSize < leastStackSize) {
        INFRA_LOG_WARN("this:%p too small stack size, StackSize:%zu, adjust to 16k\n",
                       static_cast<void*>(self), static_cast<size_t>(stackSize));
        return leastStackSize;
    }
    return stackSize;
}

/// Makes the system thread. One that exists but could not be detached is told to end at once.
bool startSystemThreadLocked(CThread* self, ThreadInternal& record)
{
    void* const shown = self;
    const int stackSize = checkedStackSize(self, record.m_dwStackSize);
    if (stackSize < 0) {
        return false;
    }
    CThreadAttribute attribute;
    if (!STEP(attribute.initCode(), "this:%p pthread attr init failed, errno:%d\n", shown)) {
        return false;
    }
    if (record.m_stackSizeEnabled.load(std::memory_order_relaxed) && stackSize != 0 &&
        !setStackSize(self, attribute.get(), static_cast<size_t>(stackSize))) {
        return false;
    }
    if (!setScheduling(self, attribute.get(), record)) {
        return false;
    }
    int code = pthread_create(&record.m_handle, attribute.get(), threadBody, &record);
    if (!STEP(code, "this:%p pthread create failed, errno:%d\n", shown)) {
        return false;
    }
    record.m_running.store(1, std::memory_order_release);
    code = pthread_detach(record.m_handle);
    if (!STEP(code, "this:%p pthread detach failed, errno:%d\n", shown)) {
        return false;
    }
    code = attribute.destroy();
    return STEP(code, "this:%p pthread attr destroy failed, errno:%d\n", shown);
}

#undef STEP

} // namespace

ThreadInternal::ThreadInternal(CThread* owner, const char* name, int priority, int policy,
                               int stackSize)
    : m_handle(0),
      m_running(0),
      m_policy(policy),
      m_nPriority(priority),
      m_dwStackSize(stackSize),
      m_ID(-1),
      m_Name(),
      m_pPrev(nullptr),
      m_pNext(nullptr),
      m_cSemaphore(0),
      m_expectedTime(0),
      m_bLoop(false),
      m_destroyed(false),
      m_destroyBlock(true),
      m_stackSizeEnabled(false),
      m_manager(ThreadManagerInternal::instance()),
      m_owner(owner),
      m_prevRecord(nullptr),
      m_nextRecord(nullptr),
      m_ownerGone(false)
{
    setName(name);
    m_manager->addRecord(this);
}

ThreadInternal::~ThreadInternal()
{
    m_manager->removeRecord(this);
}

void ThreadInternal::setName(const char* name)
{
    CGuard guard(m_mutex);
    copyText(m_Name, name == nullptr ? "Nonamed" : name);
}

void ThreadInternal::copyName(char (&name)[32])
{
    CGuard guard(m_mutex);
    memcpy(name, m_Name, sizeof(name));
}

/// The exchange is the last access to the record: who sees the 0 may free it.
void ThreadInternal::endRun()
{
    const void* const word = &m_running;
    if (m_running.load(std::memory_order_relaxed) == runningAwaited) {
        s_endings.noteWaker();
    }
    if (m_running.exchange(0, std::memory_order_acq_rel) == runningAwaited) {
        futexWake(word, INT_MAX);
    }
}

bool ThreadInternal::isRunDestroyed() const
{
    return m_running.load(std::memory_order_acquire) != 0 &&
           m_destroyed.load(std::memory_order_relaxed);
}

void ThreadInternal::waitForEnd()
{
    const uint64_t begin = CSpinHistory::ticks();
    if (!isRunDestroyed() || s_endings.spin(begin, [this] { return !isRunDestroyed(); })) {
        return;
    }
    while (isRunDestroyed()) {
        int running = 1;
        const bool isAwaited =
            m_running.compare_exchange_strong(running, runningAwaited) || running == runningAwaited;
        // A new run may have begun just before, which is not the one to wait for.
        if (isAwaited && isRunDestroyed()) {
            futexWait(&m_running, runningAwaited, nullptr);
        }
    }
    s_endings.learnFromSleep(begin);
}

void ThreadInternal::setTimeout(int milliSeconds, uint64_t now)
{
    // A negative time lies in the past.
    const uint64_t deadline = now + static_cast<uint64_t>(static_cast<int64_t>(milliSeconds));
    m_expectedTime.store(milliSeconds == 0 ? 0 : deadline, std::memory_order_relaxed);
}

bool ThreadInternal::isTimedOut(uint64_t now) const
{
    const uint64_t deadline = m_expectedTime.load(std::memory_order_relaxed);
    return deadline != 0 && deadline < now;
}

ThreadInternal* currentThreadRecord()
{
    return t_record;
}

void setCurrentThreadRecord(ThreadInternal* record)
{
    t_record = record;
}

CThread::CThread(const char* name, int priority, int policy, int stackSize)
    : m_internal(new ThreadInternal(this, name, priority, policy, stackSize))
{}

CThread::~CThread()
{
    if (currentThreadRecord() == m_internal) {
        // Destroyed by its own body, by exit() for instance. The body has the record to itself now.
        m_internal->m_ownerGone = true;
        return;
    }
    endThread();
    delete m_internal;
}

void CThread::endThread()
{
    ThreadInternal& record = *m_internal;
    if (currentThreadRecord() == &record) {
        return;
    }
    if (record.m_bLoop.load(std::memory_order_acquire)) {
        destroyThread();
    }
    for (uint64_t round = 0; record.m_running.load(std::memory_order_acquire) != 0; ++round) {
        const uint64_t sleeps = round < yieldingWaits ? 0 : round - yieldingWaits + 1;
        if (sleeps != 0 && sleeps % waitsBetweenNotes == 0) {
            char name[sizeof(record.m_Name)];
            record.copyName(name);
            INFRA_LOG_DEBUG("this:%p CThread::~CThread:%s wait for thread over, times:%llu\n",
                            static_cast<void*>(this), name,
                            static_cast<unsigned long long>(sleeps));
        }
        waitABit(round);
    }
}

bool CThread::createThread()
{
    ThreadInternal& record = *m_internal;
    const CLogHold hold;
    CGuard guard(record.m_mutex);
    // A body would wait for its own end for ever.
    const bool fromItself = currentThreadRecord() == &record;
    for (uint64_t round = 0; record.m_running.load(std::memory_order_acquire) != 0 &&
                             !record.m_bLoop.load(std::memory_order_acquire) && !fromItself;
         ++round) {
        record.m_mutex.leave();
        waitABit(round);
        record.m_mutex.enter();
    }
    if (record.m_bLoop.load(std::memory_order_acquire) || fromItself) {
        INFRA_LOG_WARN("this:%p CThread::CreateThread() thread:%s is still running!\n",
                       static_cast<void*>(this), record.m_Name);
        return false;
    }
    record.m_bLoop.store(true, std::memory_order_release);
    record.m_ID.store(-1, std::memory_order_relaxed);
    record.m_destroyed.store(false, std::memory_order_relaxed);
    record.m_destroyBlock.store(true, std::memory_order_relaxed);
    record.m_expectedTime.store(0, std::memory_order_relaxed);
    while (record.m_cSemaphore.tryPend() == 0) {
    }
    if (!startSystemThreadLocked(this, record)) {
        record.m_bLoop.store(false, std::memory_order_release);
        return false;
    }
    return true;
}

bool CThread::destroyThread()
{
    ThreadInternal& record = *m_internal;
    {
        const CLogHold hold;
        CGuard guard(record.m_mutex);
        if (record.m_destroyed.load(std::memory_order_relaxed)) {
            INFRA_LOG_WARN("this:%p CThread::DestroyThread() thread:%s has been destroyed!\n",
                           static_cast<void*>(this), record.m_Name);
            return false;
        }
        if (record.isOver()) {
            INFRA_LOG_WARN("this:%p CThread::DestroyThread() thread:%s has exited!\n",
                           static_cast<void*>(this), record.m_Name);
            return false;
        }
        record.m_bLoop.store(false, std::memory_order_release);
        record.m_destroyed.store(true, std::memory_order_relaxed);
    }
    if (record.m_ID.load(std::memory_order_relaxed) == currentThreadId()) {
        record.m_destroyBlock.store(false, std::memory_order_relaxed);
        return true;
    }
    record.waitForEnd();
    return true;
}

bool CThread::terminateThread()
{
    destroyThread();
    return false;
}

bool CThread::cancelThread()
{
    ThreadInternal& record = *m_internal;
    const CLogHold hold;
    CGuard guard(record.m_mutex);
    if (!record.m_bLoop.load(std::memory_order_acquire)) {
        INFRA_LOG_WARN("this:%p CThread::cancelThread() thread:%s not exist!\n",
                       static_cast<void*>(this), record.m_Name);
        return false;
    }
    record.m_destroyBlock.store(false, std::memory_order_relaxed);
    record.m_bLoop.store(false, std::memory_order_release);
    return true;
}

bool CThread::isThreadOver()
{
    return m_internal->isOver();
}

bool CThread::looping() const
{
    return m_internal->m_bLoop.load(std::memory_order_acquire);
}

int CThread::getThreadID()
{
    return m_internal->m_ID.load(std::memory_order_relaxed);
}

void CThread::setThreadName(const char* name)
{
    m_internal->setName(name);
}

const char* CThread::getThreadName()
{
    return m_internal->m_Name;
}

int CThread::shareSocket(int socket)
{
    return socket;
}

void CThread::enableStackSize()
{
    m_internal->m_stackSizeEnabled.store(true, std::memory_order_relaxed);
}

void CThread::setTimeout(int milliSeconds)
{
    m_internal->setTimeout(milliSeconds, milliSeconds == 0 ? 0 : CTime::getCurrentMilliSecond());
}

void CThread::setTimeout(int milliSeconds, uint64_t now)
{
    m_internal->setTimeout(milliSeconds, now);
}

bool CThread::isTimeout()
{
    return m_internal->isTimedOut(CTime::getCurrentMilliSecond());
}

int CThread::getCurrentThreadID()
{
    return currentThreadId();
}

bool CThread::setCurrentTimeout(int milliSeconds)
{
    ThreadInternal* const record = currentThreadRecord();
    if (record == nullptr) {
        return false;
    }
    record->setTimeout(milliSeconds, milliSeconds == 0 ? 0 : CTime::getCurrentMilliSecond());
    return true;
}

void CThread::sleep(int ms)
{
    if (ms < 1) {
        sched_yield();
        return;
    }
    const uint64_t start = CTime::getCurrentMilliSecond();
    int rest = ms;
    while (poll(nullptr, 0, rest) < 0) {
        const int error = errno;
        const int64_t elapsed = static_cast<int64_t>(CTime::getCurrentMilliSecond() - start);
        if (error != EINTR) {
            INFRA_LOG_WARN("CThread::sleep select time:%lld, SleepTime:%d while breaking, "
                           "errormsg:%s\n",
                           static_cast<long long>(elapsed), ms, CErrorText(error).c_str());
        }
        if (elapsed > ms) {
            return;
        }
        rest = ms - static_cast<int>(elapsed);
    }
}

} // namespace Infra
} // namespace Tarsel
