#ifndef INFRA_SRC_UTILS_WORDS_H
#define INFRA_SRC_UTILS_WORDS_H

// Words in bytes, at any address and in either order.

#include <cstdint>
#include <cstring>

namespace Tarsel
{
namespace Utils
{

constexpr uint32_t reverseBytes(uint32_t word)
{
    return __builtin_bswap32(word);
}

constexpr uint64_t reverseBytes(uint64_t word)
{
    return __builtin_bswap64(word);
}

/// The lowest byte first, as in this machine's registers.
template <typename Word>
inline Word loadLittle(const uint8_t* bytes)
{
    Word word = 0;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

template <typename Word>
inline void storeLittle(uint8_t* bytes, Word word)
{
    memcpy(bytes, &word, sizeof(word));
}

/// The highest byte first, as the standards of most ciphers and digests have it.
template <typename Word>
inline Word loadBig(const uint8_t* bytes)
{
    return reverseBytes(loadLittle<Word>(bytes));
}

template <typename Word>
inline void storeBig(uint8_t* bytes, Word word)
{
    storeLittle(bytes, reverseBytes(word));
}

} // namespace Utils
} // namespace Tarsel

#endif
