// Semaphore.cpp: CSemaphore on one 64-bit word and a futex.
//
// The low half of the word is the count, the high half the number of threads that wait or are about
// to. Posting is one atomic addition that also tells whether anybody has to be woken; after it the
// poster never reads the word again. So a thread that took the last count may destroy the semaphore
// at once: the wake-up that may still follow names an address only, and a wake-up on an address
// where nobody waits does nothing. (The scheme of the system library's own sem_t.)

#include "Infra/Infra3/Semaphore.h"

#include <time.h>

#include <atomic>
#include <cerrno>
#include <climits>

#include "Infra3/AssertFront.h"
#include "Infra3/FutexWait.h"
#include "Infra3/LogFront.h"
#include "Infra3/MemoryTrial.h"

namespace Tarsel
{
namespace Infra
{

/// Always true: the count is 0 to INT_MAX, and the waiters are at least the threads that are asleep
/// on it.
struct SemaphoreInternal
{
    std::atomic<uint64_t> state;
    CSpinHistory spinning;
};

namespace
{

constexpr uint64_t oneWaiter = uint64_t{1} << 32;

constexpr int countOf(uint64_t state)
{
    return static_cast<int>(static_cast<uint32_t>(state));
}

constexpr bool hasWaiters(uint64_t state)
{
    return state >= oneWaiter;
}

/// The count's half of the word, which is what the kernel compares and sleeps on.
uint32_t* countWord(SemaphoreInternal& internal)
{
    static_assert(sizeof(std::atomic<uint64_t>) == 8 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
    return reinterpret_cast<uint32_t*>(&internal.state);
}

/// Takes one, and `withIt` more of the word, if the count is above 0. The result is the count left,
/// or -1.
int takeOne(SemaphoreInternal& internal, uint64_t withIt = 0)
{
    uint64_t state = internal.state.load(std::memory_order_relaxed);
    while (countOf(state) > 0) {
        if (internal.state.compare_exchange_weak(
                state, state - 1 - withIt, std::memory_order_acquire, std::memory_order_relaxed)) {
            return countOf(state) - 1;
        }
    }
    return -1;
}

int sleepAndTake(SemaphoreInternal& internal, const timespec* deadline)
{
    internal.state.fetch_add(oneWaiter, std::memory_order_relaxed);
    for (;;) {
        const int left = takeOne(internal, oneWaiter);
        if (left >= 0) {
            return left;
        }
        if (!futexWait(countWord(internal), 0, deadline)) {
            internal.state.fetch_sub(oneWaiter, std::memory_order_relaxed);
            return -1;
        }
    }
}

int waitAndTake(SemaphoreInternal& internal, const timespec* deadline)
{
    const uint64_t begin = CSpinHistory::ticks();
    int left = -1;
    if (internal.spinning.spin(begin, [&] { return (left = takeOne(internal)) >= 0; })) {
        return left;
    }
    left = sleepAndTake(internal, deadline);
    internal.spinning.learnFromSleep(begin);
    return left;
}

timespec later(timespec now, uint32_t milliSeconds)
{
    constexpr long nanoPerSecond = 1000000000;
    const long nanoSeconds = now.tv_nsec + static_cast<long>(milliSeconds % 1000) * 1000000;
    now.tv_sec += milliSeconds / 1000 + nanoSeconds / nanoPerSecond;
    now.tv_nsec = nanoSeconds % nanoPerSecond;
    return now;
}

} // namespace

CSemaphore::CSemaphore(int initialCount) : m_internal(newInternal<SemaphoreInternal>())
{
    INFRA_ASSERT(m_internal);
    INFRA_SYSTEM_ASSERT(initialCount >= 0);
    m_internal->state.store(static_cast<uint32_t>(initialCount), std::memory_order_relaxed);
}

CSemaphore::~CSemaphore()
{
    delete m_internal;
}

int CSemaphore::pend()
{
    const int left = takeOne(*m_internal);
    return left >= 0 ? left : waitAndTake(*m_internal, nullptr);
}

int CSemaphore::pend(uint32_t timeout)
{
    const int left = takeOne(*m_internal);
    if (left >= 0 || timeout == 0) {
        return left;
    }
    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        INFRA_LOG_ERROR("this:%p clock_gettime failed, errno:%d\n", static_cast<void*>(this),
                        errno);
        return -1;
    }
    const timespec deadline = later(now, timeout);
    return waitAndTake(*m_internal, &deadline);
}

int CSemaphore::post()
{
    uint32_t* const word = countWord(*m_internal);
    uint64_t state = m_internal->state.load(std::memory_order_relaxed);
    if (hasWaiters(state)) {
        m_internal->spinning.noteWaker();
    }
    do {
        if (countOf(state) == INT_MAX) {
            return -1;
        }
    } while (!m_internal->state.compare_exchange_weak(state, state + 1, std::memory_order_release,
                                                      std::memory_order_relaxed));
    if (hasWaiters(state)) {
        futexWake(word, 1);
    }
    return countOf(state) + 1;
}

int CSemaphore::tryPend()
{
    return takeOne(*m_internal) >= 0 ? 0 : -1;
}

} // namespace Infra
} // namespace Tarsel
