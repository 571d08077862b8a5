#ifndef INFRA_SRC_UTILS_STACKWIPE_H
#define INFRA_SRC_UTILS_STACKWIPE_H

// Secrets on the stack: a function's own variables can be wiped by name, but not what the compiler
// has spilled of them. What can is the place where the function's frame was.

#include <cstring>

namespace Tarsel
{
namespace Utils
{

/// Overwrites the 512 bytes below the caller's frame: whatever a function called before, not inlined
/// and with no larger frame, has left there.
[[gnu::noinline]] inline void wipeStackBelow()
{
    char frame[512];
    explicit_bzero(frame, sizeof(frame));
}

} // namespace Utils
} // namespace Tarsel

#endif
