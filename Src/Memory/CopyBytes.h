#ifndef INFRA_SRC_MEMORY_COPYBYTES_H
#define INFRA_SRC_MEMORY_COPYBYTES_H

// The one place where the library copies payload.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tarsel
{
namespace Memory
{

/// Copies `length` bytes that do not overlap.
///
/// From a few KB on the system's copy is the processor's string move. Where the destination lies 1
/// to 31 bytes behind the source, modulo a page, that one drops to about 3 GB/s, a thirtieth of its
/// speed: every load seems to depend on a store just made. Short copies use plain vector moves, so
/// there the work is done in short pieces.
inline void copyBytes(void* target, const void* source, size_t length)
{
    if (length == 0) {
        return; // perhaps of nothing to nothing, which memcpy may not be asked for
    }
    constexpr size_t pageSize = 4096;
    constexpr size_t slowDistances = 31;
    constexpr size_t longCopy = 2048;
    constexpr size_t piece = 1024;

    char* to = static_cast<char*>(target);
    const char* from = static_cast<const char*>(source);
    const size_t distance =
        (reinterpret_cast<uintptr_t>(to) - reinterpret_cast<uintptr_t>(from)) % pageSize;
    if (length < longCopy || distance - 1 >= slowDistances) {
        memcpy(to, from, length);
        return;
    }
    for (size_t done = 0; done < length; done += piece) {
        memcpy(to + done, from + done, std::min(piece, length - done));
    }
}

} // namespace Memory
} // namespace Tarsel

#endif
