#ifndef INFRA_SRC_INFRA3_IMMORTAL_H
#define INFRA_SRC_INFRA3_IMMORTAL_H

// Objects that outlive every exit handler. Logging, last errors and locks are needed by static
// objects of the application and by threads that still run while the process exits, so what they
// rest on is made on first use, while the library is loaded at the latest, and never destroyed. It
// stays reachable, so it is no leak.

#include <new>

namespace Tarsel
{
namespace Infra
{

template <typename T, typename Tag>
T& immortal();

namespace Detail
{

/// A first use later than loading could be caught half done by a fork, and would stay half done in
/// the child for ever.
template <typename T, typename Tag>
struct ImmortalAtLoad
{
    static const bool made;
};

template <typename T, typename Tag>
const bool ImmortalAtLoad<T, Tag>::made = (immortal<T, Tag>(), true);

} // namespace Detail

/// The one T for `Tag`. Safe from any thread and at any time, before main() and after exit().
template <typename T, typename Tag>
T& immortal()
{
    (void)&Detail::ImmortalAtLoad<T, Tag>::made;
    alignas(T) static unsigned char storage[sizeof(T)];
    static T* const object = new (storage) T;
    return *object;
}

} // namespace Infra
} // namespace Tarsel

#endif
