#ifndef INFRA_SRC_INFRA3_LOGFILEGATE_H
#define INFRA_SRC_INFRA3_LOGFILEGATE_H

// The lock of the log file. Lines that only have to be appended go in together, for the system
// appends each as one piece whoever else writes; whoever changes something goes in alone.
//
// One word counts the lines inside and says whether somebody alone is inside or waits for them to
// leave. Who wants to be alone queues up at a mutex first, and so do lines that have found the gate
// closed. Nobody may enter twice.

#include <atomic>
#include <climits>
#include <cstdint>

#include "Infra/Infra3/Mutex.h"
#include "Infra3/Fork.h"
#include "Infra3/FutexWait.h"

namespace Tarsel
{
namespace Infra
{

class CLogFileGate
{
public:
    /// False when somebody was alone inside, waited for, and is again.
    bool enterWithOthers()
    {
        if (tryEnterWithOthers()) {
            return true;
        }
        m_mutex.enter();
        m_mutex.leave();
        return tryEnterWithOthers();
    }

    void leaveOthers()
    {
        if (m_word.fetch_sub(1, std::memory_order_release) == (closed | 1)) {
            futexWake(&m_word, 1);
        }
    }

    void enterAlone()
    {
        m_mutex.enter();
        uint32_t word = m_word.fetch_or(closed, std::memory_order_acquire) | closed;
        while (word != closed) {
            futexWait(&m_word, word, nullptr);
            word = m_word.load(std::memory_order_acquire);
        }
    }

    void leaveAlone()
    {
        m_word.fetch_and(~closed, std::memory_order_release);
        m_mutex.leave();
    }

    /// Opens, in the child of a fork, a gate that the forking thread had entered alone.
    void renewInChild()
    {
        m_word.store(0, std::memory_order_relaxed);
        ForkAccess::renewTaken(m_mutex);
    }

private:
    static constexpr uint32_t closed = 1U << 31;

    bool tryEnterWithOthers()
    {
        if ((m_word.fetch_add(1, std::memory_order_acquire) & closed) == 0) {
            return true;
        }
        leaveOthers();
        return false;
    }

    CMutex m_mutex; // held by who is inside alone
    std::atomic<uint32_t> m_word{0};
};

} // namespace Infra
} // namespace Tarsel

#endif
