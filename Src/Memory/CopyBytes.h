#ifndef INFRA_SRC_MEMORY_COPYBYTES_H
#define INFRA_SRC_MEMORY_COPYBYTES_H

// The one place where the library copies payload.

#include <cstddef>
#include <cstring>

namespace Tarsel
{
namespace Memory
{
namespace Detail
{

constexpr size_t mediumCopy = 512;
constexpr size_t largeCopy = size_t{1} << 20;

/// One of the ways to copy from mediumCopy to largeCopy bytes.
typedef void CopyMedium(char* target, const char* source, size_t length);

CopyMedium copyWithAvx2; ///< only where the processor has it
CopyMedium copyInPieces;
/// The best of them for this processor.
CopyMedium copyMedium;

} // namespace Detail

/// Copies `length` bytes that do not overlap.
///
/// The system's copy is the right one for the short, and for those beyond the caches, where it
/// streams. In between it uses the processor's string move, which takes its time to start, and
/// where the target lies 1 to 31 bytes behind the source, modulo a page, drops to a thirtieth of
/// its speed, because every load seems to depend on a store just made. There vector moves are at
/// least as fast at every distance.
inline void copyBytes(void* target, const void* source, size_t length)
{
    if (length >= Detail::mediumCopy && length <= Detail::largeCopy) {
        Detail::copyMedium(static_cast<char*>(target), static_cast<const char*>(source), length);
    } else if (length != 0) { // else perhaps from nowhere, which memcpy may not be asked for
        memcpy(target, source, length);
    }
}

} // namespace Memory
} // namespace Tarsel

#endif
