// CopyBytes.cpp: copying blocks of some hundred bytes to a megabyte by vector moves.

#include "Memory/CopyBytes.h"

#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "Infra3/CpuFeatures.h"

namespace Tarsel
{
namespace Memory
{
namespace Detail
{

namespace
{

constexpr size_t pageSize = 4096;
constexpr size_t width = sizeof(__m256i);
constexpr size_t step = 4 * width;
static_assert(mediumCopy >= 2 * step);

/// `width` bytes.
[[gnu::target("avx2"), gnu::always_inline]] inline void copyVector(char* target, const char* source)
{
    *reinterpret_cast<__m256i_u*>(target) = *reinterpret_cast<const __m256i_u*>(source);
}

/// `step` bytes; all loads come before the first store.
[[gnu::target("avx2"), gnu::always_inline]] inline void copyStep(char* target, const char* source)
{
    const __m256i_u* const from = reinterpret_cast<const __m256i_u*>(source);
    __m256i_u* const to = reinterpret_cast<__m256i_u*>(target);
    const __m256i a = from[0];
    const __m256i b = from[1];
    const __m256i c = from[2];
    const __m256i d = from[3];
    to[0] = a;
    to[1] = b;
    to[2] = c;
    to[3] = d;
}

[[gnu::target("avx2"), gnu::always_inline]] inline void
copyUpwards(char* target, const char* source, size_t length)
{
    const ptrdiff_t offset = source - target;
    char* const end = target + length;
    copyVector(target, source);
    char* to = target + (width - reinterpret_cast<uintptr_t>(target) % width);
    for (; to <= end - step; to += step) {
        copyStep(to, to + offset);
    }
    for (; to < end - width; to += width) {
        copyVector(to, to + offset);
    }
    copyVector(end - width, end - width + offset);
}

[[gnu::target("avx2"), gnu::always_inline]] inline void
copyDownwards(char* target, const char* source, size_t length)
{
    const ptrdiff_t offset = source - target;
    char* to = target + length;
    copyVector(to - width, to - width + offset);
    to -= reinterpret_cast<uintptr_t>(to) % width;
    for (; to >= target + step; to -= step) {
        copyStep(to - step, to - step + offset);
    }
    for (; to > target + width; to -= width) {
        copyVector(to - width, to - width + offset);
    }
    copyVector(target, source);
}

} // namespace

/// All but the first and the last store go to whole vectors of the target's memory, because a store
/// across two cache lines costs more than a load across them. The way leads away from the bytes
/// just stored, modulo a page, so that no load seems to depend on them.
[[gnu::target("avx2")]] void copyWithAvx2(char* target, const char* source, size_t length)
{
    const uintptr_t distance =
        reinterpret_cast<uintptr_t>(target) - reinterpret_cast<uintptr_t>(source);
    if (distance % pageSize < pageSize / 2) {
        copyDownwards(target, source, length);
    } else {
        copyUpwards(target, source, length);
    }
}

/// Short copies of the system's are vector moves too.
void copyInPieces(char* target, const char* source, size_t length)
{
    constexpr size_t piece = 1024;
    for (size_t done = 0; done < length; done += piece) {
        memcpy(target + done, source + done, std::min(piece, length - done));
    }
}

namespace
{

CopyMedium* chooseCopy()
{
    constexpr Infra::TImplementation<CopyMedium> copies[] = {
        {copyWithAvx2, {Infra::CpuFeature::avx2}},
        {copyInPieces, {}},
    };
    return Infra::chooseImplementation(copies);
}

constinit std::atomic<CopyMedium*> s_copy{nullptr}; // chosen by the first copy

} // namespace

void copyMedium(char* target, const char* source, size_t length)
{
    CopyMedium* copy = s_copy.load(std::memory_order_relaxed);
    if (copy == nullptr) {
        copy = chooseCopy();
        s_copy.store(copy, std::memory_order_relaxed);
    }
    copy(target, source, length);
}

} // namespace Detail
} // namespace Memory
} // namespace Tarsel
