#ifndef INFRA_MEMORY_REFCOUNT_H
#define INFRA_MEMORY_REFCOUNT_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Memory
{

/// A strong and a weak count for an object whose owner decides what happens at zero.
///
/// Behaviour: both start at 1. Nothing is freed here, and a count below 0 is the owner's mistake.
/// Counts have 64 bits; results are their low 32.
/// Threads: safe from any thread. Every change orders all memory accesses around it, so who brings
/// a count to zero sees what the others did before; a plain read orders nothing.
class INFRA_API CRefCount
{
public:
    CRefCount();
    ~CRefCount();

    /// Adds 1 and returns the new strong count.
    int32_t incStrong();
    /// Takes 1 away and returns the new strong count.
    int32_t decStrong();
    /// Adds 1 unless the strong count is 0: a count that has reached zero is never revived.
    /// @return the new strong count; 0 when it was 0
    int32_t tryIncStrong();
    int32_t getStrong();

    /// Adds 1 and returns the new weak count.
    int32_t incWeak();
    /// Takes 1 away and returns the new weak count.
    int32_t decWeak();
    int32_t getWeak();

private:
    CRefCount(const CRefCount&);
    CRefCount& operator=(const CRefCount&);

    /// The counts are made in place in here.
    alignas(8) int32_t m_internal[8];
};

} // namespace Memory
} // namespace Tarsel

#endif
