// LeafMutex.cpp: the fork part of all leaf locks.
//
// The locks stand in a table that only grows, so that a new one needs no lock itself. A fork takes
// those that it finds there, in the table's order. All are made while the library is loaded.

#include "Infra3/LeafMutex.h"

#include <atomic>

#include "Infra3/AssertFront.h"
#include "Infra3/Fork.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr int leafMutexMax = 32;

constinit std::atomic<CMutex*> s_leafMutexes[leafMutexMax] = {};
constinit std::atomic<int> s_leafMutexCount{0};

/// What `prepare` took. Only one fork runs at a time.
constinit CMutex* s_taken[leafMutexMax] = {};

void takeAll()
{
    for (int idx = 0; idx < leafMutexMax; ++idx) {
        s_taken[idx] = s_leafMutexes[idx].load(std::memory_order_acquire);
        if (s_taken[idx] != nullptr) {
            s_taken[idx]->enter();
        }
    }
}

template <typename Action>
void forEachTaken(Action action)
{
    for (int idx = leafMutexMax - 1; idx >= 0; --idx) {
        if (s_taken[idx] != nullptr) {
            action(*s_taken[idx]);
        }
    }
}

void leaveAll()
{
    forEachTaken([](CMutex& mutex) { mutex.leave(); });
}

void renewAll()
{
    forEachTaken([](CMutex& mutex) { ForkAccess::renewTaken(mutex); });
}

constexpr ForkPart leafPart = {takeAll, leaveAll, renewAll};

} // namespace

CLeafMutex::CLeafMutex()
{
    const int idx = s_leafMutexCount.fetch_add(1, std::memory_order_relaxed);
    INFRA_ASSERT(idx < leafMutexMax);
    s_leafMutexes[idx].store(this, std::memory_order_release);
    joinFork(ForkRank::values, leafPart);
}

} // namespace Infra
} // namespace Tarsel
