#ifndef INFRA_INFRA3_DETAIL_SHORTBYTES_H
#define INFRA_INFRA3_DETAIL_SHORTBYTES_H

// Moving and comparing the few bytes that texts mostly have, without a call: two words that overlap
// in the middle cover every length from one word to two.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tarsel
{
namespace Infra
{
namespace Detail
{

/// Moves `count` bytes, at least `Half` and at most twice that: two loads, then two stores, so the
/// ranges may overlap.
template <size_t Half>
inline void moveEnds(char* target, const char* source, size_t count) noexcept
{
    char first[Half];
    char last[Half];
    memcpy(first, source, Half);
    memcpy(last, source + count - Half, Half);
    memcpy(target, first, Half);
    memcpy(target + count - Half, last, Half);
}

/// memmove without a call for the lengths that strings mostly have. Null is fine for 0 bytes.
inline void moveBytes(char* target, const char* source, size_t count) noexcept
{
    if (count > 128) {
        memmove(target, source, count);
    } else if (count > 64) {
        moveEnds<64>(target, source, count);
    } else if (count > 32) {
        moveEnds<32>(target, source, count);
    } else if (count >= 16) {
        moveEnds<16>(target, source, count);
    } else if (count >= 8) {
        moveEnds<8>(target, source, count);
    } else if (count >= 4) {
        moveEnds<4>(target, source, count);
    } else if (count >= 2) {
        moveEnds<2>(target, source, count);
    } else if (count == 1) {
        *target = *source;
    }
}

/// Compares two numbers that stand in memory with their first byte as the highest: the order of
/// words is then that of the bytes in them.
template <typename Word>
inline int compareWord(const char* a, const char* b) noexcept
{
    Word left = 0;
    Word right = 0;
    memcpy(&left, a, sizeof(Word));
    memcpy(&right, b, sizeof(Word));
    if (left == right) {
        return 0;
    }
    if constexpr (sizeof(Word) == 8) {
        return __builtin_bswap64(left) < __builtin_bswap64(right) ? -1 : 1;
    } else if constexpr (sizeof(Word) == 4) {
        return __builtin_bswap32(left) < __builtin_bswap32(right) ? -1 : 1;
    } else {
        return __builtin_bswap16(left) < __builtin_bswap16(right) ? -1 : 1;
    }
}

/// Compares `count` bytes, at least one word and at most two.
template <typename Word>
inline int compareEnds(const char* a, const char* b, size_t count) noexcept
{
    const int first = compareWord<Word>(a, b);
    const size_t last = count - sizeof(Word);
    return first != 0 ? first : compareWord<Word>(a + last, b + last);
}

/// memcmp without a call for the lengths that strings mostly have. Null is fine for 0 bytes.
inline int compareBytes(const char* a, const char* b, size_t count) noexcept
{
    if (count > 32) {
        return memcmp(a, b, count);
    }
    if (count > 16) {
        const int first = compareEnds<uint64_t>(a, b, 16);
        const size_t last = count - 16;
        return first != 0 ? first : compareEnds<uint64_t>(a + last, b + last, 16);
    }
    if (count >= 8) {
        return compareEnds<uint64_t>(a, b, count);
    }
    if (count >= 4) {
        return compareEnds<uint32_t>(a, b, count);
    }
    if (count >= 2) {
        return compareEnds<uint16_t>(a, b, count);
    }
    return count == 0 ? 0 : static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
}

/// 0 when two words in memory are the same.
template <typename Word>
inline Word wordDifference(const char* a, const char* b) noexcept
{
    Word left = 0;
    Word right = 0;
    memcpy(&left, a, sizeof(Word));
    memcpy(&right, b, sizeof(Word));
    return static_cast<Word>(left ^ right);
}

/// Compares `count` bytes, at least one word and at most two.
template <typename Word>
inline bool sameEnds(const char* a, const char* b, size_t count) noexcept
{
    const size_t last = count - sizeof(Word);
    return (wordDifference<Word>(a, b) | wordDifference<Word>(a + last, b + last)) == 0;
}

/// compareBytes() == 0, for less because no order has to be found.
inline bool sameBytes(const char* a, const char* b, size_t count) noexcept
{
    if (count > 32) {
        return memcmp(a, b, count) == 0;
    }
    if (count > 16) {
        return sameEnds<uint64_t>(a, b, 16) &&
               sameEnds<uint64_t>(a + count - 16, b + count - 16, 16);
    }
    if (count >= 8) {
        return sameEnds<uint64_t>(a, b, count);
    }
    if (count >= 4) {
        return sameEnds<uint32_t>(a, b, count);
    }
    if (count >= 2) {
        return sameEnds<uint16_t>(a, b, count);
    }
    return count == 0 || *a == *b;
}

} // namespace Detail
} // namespace Infra
} // namespace Tarsel

#endif
