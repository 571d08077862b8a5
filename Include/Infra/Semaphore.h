#ifndef INFRA_SEMAPHORE_H
#define INFRA_SEMAPHORE_H

#include "Infra/Infra3/Detail/Export.h"

struct SemaphoreInternal;

/// The older counting semaphore: one of POSIX. New code takes Tarsel::Infra::CSemaphore.
///
/// Failure: one that cannot be made ends the process. Threads: safe from any thread.
class INFRA_API CSemaphore
{
public:
    explicit CSemaphore(unsigned int value = 0);
    ~CSemaphore();

    /// Waits until the count is above 0 and takes one, signals notwithstanding. @return 0
    int Pend();
    /// Adds one. @return 0; -1 when the count is at its largest
    int Post();

private:
    CSemaphore(const CSemaphore&);
    CSemaphore& operator=(const CSemaphore&);

    ::SemaphoreInternal* m_internal;
};

#endif
