// PoolLock.cpp: waiting for the packet pool's lock.

#include "Memory/PoolLock.h"

#include <ctime>

#include "Infra/Infra3/Guard.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

constexpr int spins = 200;                        // some microseconds: many times a hold
constexpr timespec holderIsAway = {0, 50 * 1000}; // it has lost its processor: let it run

} // namespace

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
            nanosleep(&holderIsAway, nullptr);
        }
    }
}

} // namespace Memory
} // namespace Tarsel
