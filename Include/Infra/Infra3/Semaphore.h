#ifndef INFRA_INFRA3_SEMAPHORE_H
#define INFRA_INFRA3_SEMAPHORE_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

struct SemaphoreInternal;

/// A counting semaphore between the threads of one process.
///
/// Behaviour: times are of the monotonic clock, so setting the calendar time moves no deadline. The
/// semaphore may be destroyed as soon as the last `pend` has returned, even while the `post` that
/// woke it has not.
/// Failure: a negative initial count ends the process with "initialCount >= 0".
/// Threads: safe from any thread.
class INFRA_API CSemaphore
{
public:
    explicit CSemaphore(int initialCount);
    ~CSemaphore();

    /// Waits until the count is above 0, then takes one.
    /// @return the count left (0 or more); -1 when the system refused to wait
    int pend();
    /// Waits until the count is above 0, then takes one.
    /// @param timeout  longest wait in milliseconds; 0 takes one only if that needs no waiting
    /// @return the count left (0 or more); -1 when the time ran out or the system refused
    int pend(uint32_t timeout);
    /// Adds one and wakes one waiter.
    /// @return the new count; -1 when the count stands at its maximum already
    int post();
    /// Takes one without waiting.
    /// @return 0 when one was taken, -1 when there was none
    int tryPend();

private:
    CSemaphore(const CSemaphore&);
    CSemaphore& operator=(const CSemaphore&);

    SemaphoreInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
