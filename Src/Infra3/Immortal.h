#ifndef INFRA_SRC_INFRA3_IMMORTAL_H
#define INFRA_SRC_INFRA3_IMMORTAL_H

// Objects that outlive every exit handler. Logging, last errors and locks are needed by static
// objects of the application and by threads that still run while the process exits, so what they
// rest on is made on first use and never destroyed. It stays reachable, so it is no leak.

#include <new>

namespace Tarsel
{
namespace Infra
{

/// The one T for `Tag`. Safe from any thread and at any time, before main() and after exit().
template <typename T, typename Tag>
inline T& immortal()
{
    alignas(T) static unsigned char storage[sizeof(T)];
    static T* const object = new (storage) T;
    return *object;
}

} // namespace Infra
} // namespace Tarsel

#endif
