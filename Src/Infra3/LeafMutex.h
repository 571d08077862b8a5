#ifndef INFRA_SRC_INFRA3_LEAFMUTEX_H
#define INFRA_SRC_INFRA3_LEAFMUTEX_H

// Locks of process-wide values: lists of procedures, registries, texts. Each is held for a few
// instructions only, and while it is held nothing is logged, nothing is called and no other lock is
// taken. That makes them the leaves of the lock order, and lets one fork part serve them all.

#include "Infra/Infra3/Mutex.h"

namespace Tarsel
{
namespace Infra
{

/// A CMutex that a fork finds free and leaves free, in parent and child. It has to live for ever:
/// make it part of an immortal() object.
class CLeafMutex : public CMutex
{
public:
    CLeafMutex();
};

} // namespace Infra
} // namespace Tarsel

#endif
