#ifndef INFRA_SRC_UTILS_STACKWIPE_H
#define INFRA_SRC_UTILS_STACKWIPE_H

// Secrets on the stack: a function's own variables can be wiped by name, but not what the compiler
// has spilled of them. What can is the place where the function's frame was.

#include <cstddef>
#include <cstring>

namespace Tarsel
{
namespace Utils
{

/// Overwrites `Size` bytes below the caller's frame: whatever functions called before, not inlined
/// and with no larger frames, have left there. Each source has its own, because some are compiled
/// for special processors.
template <size_t Size>
[[gnu::noinline]] static void wipeStackBelow()
{
    char frame[Size];
    explicit_bzero(frame, sizeof(frame));
}

} // namespace Utils
} // namespace Tarsel

#endif
