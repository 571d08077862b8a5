#ifndef INFRA_SRC_INFRA3_MEMORYTRIAL_H
#define INFRA_SRC_INFRA3_MEMORYTRIAL_H

// Locks and semaphores without memory. A process that cannot make one ends with an assertion, for
// nobody could tell the caller otherwise. A maker who has another way, such as a timer's call that
// may wait for the next round, opens a trial, and gets std::bad_alloc.

#include <new>

namespace Tarsel
{
namespace Infra
{

/// While it lives, the calling thread's locks and semaphores throw std::bad_alloc where there is no
/// memory for them. No code of the application runs meanwhile.
class CMemoryTrial
{
public:
    CMemoryTrial() : m_outer(t_isOn) { t_isOn = true; }
    ~CMemoryTrial() { t_isOn = m_outer; }
    CMemoryTrial(const CMemoryTrial&) = delete;
    CMemoryTrial& operator=(const CMemoryTrial&) = delete;

    static bool isOn() { return t_isOn; }

private:
    static inline constinit thread_local bool t_isOn = false;

    const bool m_outer;
};

/// A new T for what stands behind a lock or semaphore; null without memory, outside of a trial.
template <typename T>
T* newInternal()
{
    T* const internal = new (std::nothrow) T;
    if (internal == nullptr && CMemoryTrial::isOn()) {
        throw std::bad_alloc();
    }
    return internal;
}

} // namespace Infra
} // namespace Tarsel

#endif
