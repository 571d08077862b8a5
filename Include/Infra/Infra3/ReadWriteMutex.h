#ifndef INFRA_INFRA3_READWRITEMUTEX_H
#define INFRA_INFRA3_READWRITEMUTEX_H

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

struct RWMutexInternal;

/// A lock that many readers or one writer may hold.
///
/// Behaviour: `priorityDefault` lets readers in while a writer waits; `priorityWrite` lets a
/// waiting writer go before new readers, and then a thread must not enter for reading twice.
/// Failure: constructor and destructor end the process when the system refuses. A failed
/// `enterWriting` (the caller holds the lock for writing already, for instance) or `leave` logs a
/// warning with the system's text; a failed `enterReading` logs nothing.
/// Threads: safe from any thread; `leave` by the thread that entered.
class INFRA_API CReadWriteMutex
{
public:
    enum RWPriority : int
    {
        priorityDefault = 0, ///< the system's policy: readers first
        priorityWrite = 1    ///< a waiting writer goes before new readers
    };

    CReadWriteMutex();
    /// Any value other than the two above warns and means `priorityDefault`.
    CReadWriteMutex(RWPriority rwpriority);
    ~CReadWriteMutex();

    /// Enters shared. True on success.
    bool enterReading();
    /// Enters exclusively. True on success.
    bool enterWriting();
    /// Leaves, whichever way it was entered. True on success.
    bool leave();

private:
    CReadWriteMutex(const CReadWriteMutex&);
    CReadWriteMutex& operator=(const CReadWriteMutex&);

    RWMutexInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
