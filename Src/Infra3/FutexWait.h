#ifndef INFRA_SRC_INFRA3_FUTEXWAIT_H
#define INFRA_SRC_INFRA3_FUTEXWAIT_H

// Waiting for a word of memory to change: sleeping on it, and whether to look at it for a moment
// before.
//
// To wake a thread on another core takes tens of microseconds. So where waits have lately been
// short, and were ended from another core, it pays to spin for about as long before sleeping. Where
// waits are long, or end from the waiter's own core, nobody spins; where spinning does not help, it
// gets rare.

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace Tarsel
{
namespace Infra
{

/// Sleeps while `*word` is `value`. False when `deadline` (monotonic, null for none) has passed or
/// the system refuses; true when it is worth looking at the word again.
inline bool futexWait(const void* word, uint32_t value, const timespec* deadline)
{
    const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, value,
                                deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno == EAGAIN || errno == EINTR;
}

/// Wakes up to `count` threads. The word may be gone already: then nobody waits for it.
inline void futexWake(const void* word, int count)
{
    syscall(SYS_futex, word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
}

/// What the waits of one kind have taught about spinning. All of it are guesses, which threads may
/// write at once.
///
/// Times are counts of the processor's time stamp, 2 to 5 in a nanosecond: they bound what is
/// burnt, and nobody is promised anything by them.
class CSpinHistory
{
public:
    static uint64_t ticks() { return __builtin_ia32_rdtsc(); }

    /// To be called by who is about to wake a waiter.
    void noteWaker() { m_wakerCore.store(sched_getcpu(), std::memory_order_relaxed); }

    /// Spins until `done()` or for as long as it may last, if that is promising. True when done.
    template <typename Done>
    bool spin(uint64_t begin, const Done& done)
    {
        if (!isPromising()) {
            return false;
        }
        do {
            __builtin_ia32_pause();
            if (done()) {
                m_vainWaits.store(0, std::memory_order_relaxed);
                return true;
            }
        } while (ticks() - begin < spinTicks);
        return false;
    }

    /// To be called after a wait since `begin` that spinning has not ended.
    void learnFromSleep(uint64_t begin)
    {
        const uint32_t good = m_goodWaits.load(std::memory_order_relaxed);
        const bool onWakersCore = m_wakerCore.load(std::memory_order_relaxed) == sched_getcpu();
        if (ticks() - begin > shortWaitTicks || onWakersCore) {
            m_goodWaits.store(0, std::memory_order_relaxed);
        } else if (good < goodWaitsToSpin) {
            m_goodWaits.store(good + 1, std::memory_order_relaxed);
        }
        m_vainWaits.fetch_add(1, std::memory_order_relaxed);
    }

private:
    static constexpr uint64_t spinTicks = 125000; // 25 to 60 microseconds: a thread wakes in less
    static constexpr uint64_t shortWaitTicks = 300000; // two wake-ups and a little
    static constexpr uint32_t goodWaitsToSpin = 4;
    static constexpr uint32_t mostWaitsBetweenSpins = 256;

    /// After spins in vain it takes 1, 2, 4, ... waits to the next one.
    bool isPromising() const
    {
        if (m_goodWaits.load(std::memory_order_relaxed) < goodWaitsToSpin) {
            return false;
        }
        const uint32_t vain = m_vainWaits.load(std::memory_order_relaxed) % mostWaitsBetweenSpins;
        return (vain & (vain - 1)) == 0 && hasOtherCore();
    }

    /// False where the waker could only run when the spinning thread has stopped.
    static bool hasOtherCore()
    {
        cpu_set_t allowed;
        return sched_getaffinity(0, sizeof(allowed), &allowed) != 0 || CPU_COUNT(&allowed) > 1;
    }

    std::atomic<int> m_wakerCore{-1};     ///< where the last one ran that woke a waiter
    std::atomic<uint32_t> m_goodWaits{0}; ///< in a row: spinning would have ended them; up to a few
    std::atomic<uint32_t> m_vainWaits{0}; ///< in a row: spinning has not ended them
};

} // namespace Infra
} // namespace Tarsel

#endif
