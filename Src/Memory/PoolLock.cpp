// PoolLock.cpp: waiting for the packet pool's lock.

#include "Memory/PoolLock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "Infra/Infra3/Guard.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

constexpr int spins = 200; // some microseconds: many times a hold

/// The holder has lost its processor: lets it run. Not by nanosleep(), where a thread may be
/// cancelled: a packet's end is no place for that.
void waitForHolder()
{
    constexpr timespec pause = {0, 50 * 1000};
    const int error = errno;
    syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &pause, nullptr);
    errno = error;
}

} // namespace

constinit thread_local uint64_t CPoolLock::t_ownBlock = 0;

/// Some microseconds, in which the other thread makes and drops two hundred packets. The longer, the
/// better for all of them together and the worse for the one that waits.
void CPoolLock::waitAMoment()
{
    constexpr int pauses = 200;
    for (int i = 0; i < pauses; ++i) {
        __builtin_ia32_pause();
    }
}

CPoolNote CPoolLock::enterThroughGate()
{
    Infra::CGuard gate(m_gate);
    return enterInsideGate();
}

CPoolNote CPoolLock::enterInsideGate()
{
    for (int round = 0;; ++round) {
        if (m_word.load(std::memory_order_relaxed) != held) {
            const uint64_t word = m_word.exchange(held, std::memory_order_acquire);
            if (word != held) {
                return CPoolNote(word);
            }
        }
        if (round % spins != spins - 1) {
            __builtin_ia32_pause();
        } else {
            waitForHolder();
        }
    }
}

} // namespace Memory
} // namespace Tarsel
