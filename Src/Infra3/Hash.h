#ifndef INFRA_SRC_INFRA3_HASH_H
#define INFRA_SRC_INFRA3_HASH_H

// Hashes of names and of records, for tables of this process: short texts, eight bytes a step.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Tarsel
{
namespace Infra
{

/// Adds one value to a hash over several. Each bit of both decides about the lowest bits of the
/// result, which tables go by: those of a product do not depend on high bits, so the upper half of
/// the double word is folded in.
inline size_t mixHash(size_t hash, uint64_t value)
{
    __extension__ typedef unsigned __int128 DoubleWord;
    const DoubleWord product = DoubleWord{hash ^ value ^ 0xA0761D6478BD642F} * 0x9E3779B97F4A7C15;
    return static_cast<size_t>(product) ^ static_cast<size_t>(product >> 64);
}

namespace Detail
{

template <typename Word>
uint64_t wordAt(const char* bytes)
{
    Word word;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

/// The last bytes of a text of `count`, 8 at most; what came before is read again, and so are the
/// bytes of a text that is shorter.
inline uint64_t lastBytes(const char* bytes, size_t count)
{
    if (count >= 8) {
        return wordAt<uint64_t>(bytes + count - 8);
    }
    if (count >= 4) {
        return wordAt<uint32_t>(bytes) << 32 | wordAt<uint32_t>(bytes + count - 4);
    }
    return count == 0 ? 0
                      : wordAt<uint8_t>(bytes) << 16 | wordAt<uint8_t>(bytes + count / 2) << 8 |
                            wordAt<uint8_t>(bytes + count - 1);
}

} // namespace Detail

inline size_t hashText(std::string_view text, size_t hash = 0)
{
    const size_t size = text.size();
    hash = mixHash(hash, size);
    for (size_t at = 0; at + 8 < size; at += 8) {
        hash = mixHash(hash, Detail::wordAt<uint64_t>(text.data() + at));
    }
    return mixHash(hash, Detail::lastBytes(text.data(), size));
}

/// a == b, without a call: names are short.
inline bool isSameText(std::string_view a, std::string_view b)
{
    const size_t size = a.size();
    if (size != b.size()) {
        return false;
    }
    for (size_t at = 0; at + 8 < size; at += 8) {
        if (Detail::wordAt<uint64_t>(a.data() + at) != Detail::wordAt<uint64_t>(b.data() + at)) {
            return false;
        }
    }
    return Detail::lastBytes(a.data(), size) == Detail::lastBytes(b.data(), size);
}

} // namespace Infra
} // namespace Tarsel

#endif
