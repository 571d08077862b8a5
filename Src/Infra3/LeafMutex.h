#ifndef INFRA_SRC_INFRA3_LEAFMUTEX_H
#define INFRA_SRC_INFRA3_LEAFMUTEX_H

// Locks of process-wide values: lists of procedures, registries, texts, the system's zone. Each is
// held for a few instructions or one call of the system, and while it is held nothing is logged, no
// code of the application runs and no other lock of the library is taken. That makes them the
// leaves of the lock order, and lets one fork part serve them all.

#include "Infra/Infra3/Mutex.h"

namespace Tarsel
{
namespace Infra
{

/// A CMutex that a fork finds free and leaves free, in parent and child, from its making to its
/// end.
class CLeafMutex : public CMutex
{
public:
    CLeafMutex();
    ~CLeafMutex();

private:
    friend struct LeafList;

    CLeafMutex* m_next;
    CLeafMutex* m_previous;
};

} // namespace Infra
} // namespace Tarsel

#endif
