#ifndef INFRA_SRC_UTILS_NLS_UTF8ALG_H
#define INFRA_SRC_UTILS_NLS_UTF8ALG_H

// UTF-8 below the public functions: single characters, and runs of text.
//
// A run is converted by the engine that the processor allows. None of them writes a byte that does
// not belong to the result, not even for a moment, and none reads beyond what is known to be text.

#include <emmintrin.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tarsel
{
namespace Utils
{
namespace Nls
{

/// What the sequences of one length look like.
struct Utf8Row
{
    uint8_t cval;   ///< the lead byte without its bits of the value
    uint8_t shift;  ///< that those bits stand above the others
    uint32_t lmask; ///< the largest value
    uint32_t lval;  ///< the smallest value that needs this length
};

/// By length, from 1 to 6.
inline constexpr Utf8Row utf8_table[] = {
    {0x00, 0, 0x7F, 0},
    {0xC0, 6, 0x7FF, 0x80},
    {0xE0, 12, 0xFFFF, 0x800},
    {0xF0, 18, 0x1FFFFF, 0x10000},
    {0xF8, 24, 0x3FFFFFF, 0x200000},
    {0xFC, 30, 0x7FFFFFFF, 0x4000000},
};

constexpr uint32_t largestValue = 0x7FFFFFFF; ///< that a sequence can hold

constexpr uint8_t continuationMark = 0x80;
constexpr unsigned continuationBits = 6;

constexpr bool isContinuation(uint8_t byte)
{
    return (byte & 0xC0) == continuationMark;
}

/// The length that a lead byte announces, 1 to 6; 0 for a continuation byte. FE and FF count as 6.
constexpr size_t announcedLength(uint8_t lead)
{
    constexpr uint8_t lengths[] = {1, 0, 2, 3, 4, 5, 6, 6, 6};
    return lengths[std::countl_one(lead)];
}

struct Sequence
{
    size_t length; ///< 0: there is none
    uint32_t value;
};

/// The sequence at `s`, of at most `room` bytes, over-long or not. Nothing behind the first wrong byte
/// is read; `room` is not 0.
constexpr Sequence readSequence(const uint8_t* s, size_t room)
{
    const size_t length = announcedLength(s[0]);
    if (length == 0 || length > room) {
        return {0, 0};
    }
    uint64_t bits = s[0];
    for (size_t i = 1; i < length; ++i) {
        if (!isContinuation(s[i])) {
            return {0, 0};
        }
        bits = bits << continuationBits | (s[i] & 0x3F);
    }
    return {length, static_cast<uint32_t>(bits) & utf8_table[length - 1].lmask};
}

/// The same, refusing what is over-long, and FE and FF.
constexpr Sequence readShortestSequence(const uint8_t* s, size_t room)
{
    const Sequence sequence = s[0] < 0xFE ? readSequence(s, room) : Sequence{0, 0};
    const bool isShortest =
        sequence.length != 0 && sequence.value >= utf8_table[sequence.length - 1].lval;
    return isShortest ? sequence : Sequence{0, 0};
}

/// The length of a value of up to 31 bits, 1 to 6.
constexpr size_t encodedLength(uint32_t value)
{
    size_t length = 1;
    while (value > utf8_table[length - 1].lmask) {
        ++length;
    }
    return length;
}

/// Writes a value in as many bytes as it takes, and returns their number.
constexpr size_t writeSequence(uint8_t* s, uint32_t value, size_t length)
{
    const Utf8Row& row = utf8_table[length - 1];
    s[0] = static_cast<uint8_t>(row.cval | value >> row.shift);
    unsigned shift = row.shift;
    for (size_t i = 1; i < length; ++i) {
        shift -= continuationBits;
        s[i] = static_cast<uint8_t>(continuationMark | (value >> shift & 0x3F));
    }
    return length;
}

/// A unit at any address, whatever else the memory is used as.
inline uint16_t loadUnit(const uint16_t* place)
{
    uint16_t unit = 0;
    memcpy(&unit, place, sizeof(unit));
    return unit;
}

inline void storeUnit(uint16_t* place, unsigned value)
{
    const uint16_t unit = static_cast<uint16_t>(value);
    memcpy(place, &unit, sizeof(unit));
}

/// A place in a text that is being decoded, and the place for the next unit.
struct Decoding
{
    const uint8_t* in;
    uint16_t* out;
};

/// Decodes one sequence of a length that is rare, or skips a byte.
inline void decodeRare(Decoding& at, const uint8_t* end)
{
    const Sequence sequence = readShortestSequence(at.in, static_cast<size_t>(end - at.in));
    if (sequence.length == 0) {
        ++at.in;
        return;
    }
    storeUnit(at.out++, sequence.value);
    at.in += sequence.length;
}

/// Decodes one sequence, or skips a byte. It may end anywhere before `end`.
inline void decodeOne(Decoding& at, const uint8_t* end)
{
    const uint8_t* const s = at.in;
    const unsigned lead = s[0];
    const ptrdiff_t left = end - s;
    if (lead < 0x80) {
        storeUnit(at.out++, lead);
        ++at.in;
    } else if (lead >= 0xC2 && lead < 0xE0 && left >= 2 && isContinuation(s[1])) {
        storeUnit(at.out++, (lead & 0x1F) << 6 | (s[1] & 0x3FU));
        at.in += 2;
    } else if (lead > 0xE0 && lead < 0xF0 && left >= 3 && isContinuation(s[1]) &&
               isContinuation(s[2])) {
        const unsigned low = (s[1] & 0x3FU) << 6 | (s[2] & 0x3FU);
        storeUnit(at.out++, (lead & 0xF) << 12 | low);
        at.in += 3;
    } else {
        decodeRare(at, end);
    }
}

/// Sixteen bytes, if they are ASCII, to units.
inline bool decodeAscii16(Decoding& at)
{
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at.in));
    if (_mm_movemask_epi8(bytes) != 0) {
        return false;
    }
    __m128i* const out = reinterpret_cast<__m128i*>(at.out);
    _mm_storeu_si128(out, _mm_unpacklo_epi8(bytes, _mm_setzero_si128()));
    _mm_storeu_si128(out + 1, _mm_unpackhi_epi8(bytes, _mm_setzero_si128()));
    at.in += 16;
    at.out += 16;
    return true;
}

/// The place for the next byte, and how many may follow.
struct Target
{
    uint8_t* out;
    size_t room;

    /// Leaves behind what was written there.
    void pass(size_t written)
    {
        out += written;
        room -= written;
    }
};

/// A place in units that are being encoded.
struct Encoding : Target
{
    const uint16_t* in;
};

/// Encodes one unit, or leaves it out, if it does not fit, at the cost of one byte of the room. There
/// is some room.
inline void encodeOne(Encoding& at)
{
    const uint16_t unit = loadUnit(at.in++);
    if (unit < 0x80) {
        *at.out = static_cast<uint8_t>(unit);
        at.pass(1);
        return;
    }
    const size_t length = encodedLength(unit);
    if (length > at.room) {
        --at.room;
        return;
    }
    at.pass(writeSequence(at.out, unit, length));
}

/// Eight units, if they are ASCII and there is room, to bytes.
inline bool encodeAscii8(Encoding& at)
{
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at.in));
    const __m128i above = _mm_and_si128(units, _mm_set1_epi16(-0x80));
    const bool isAscii = _mm_movemask_epi8(_mm_cmpeq_epi16(above, _mm_setzero_si128())) == 0xFFFF;
    if (!isAscii || at.room < 8) {
        return false;
    }
    _mm_storel_epi64(reinterpret_cast<__m128i*>(at.out), _mm_packus_epi16(units, units));
    at.in += 8;
    at.pass(8);
    return true;
}

/// Decodes the text from `at.in` to `known`, in which there is no NUL. Its last sequence may go on
/// behind that, up to `end`.
using DecodeRun = void(Decoding& at, const uint8_t* known, const uint8_t* end);
/// Encodes the units from `at.in` to `known`, of which none is 0, for as long as there is room.
using EncodeRun = void(Encoding& at, const uint16_t* known);

/// Neither writes a byte that is still to be read, for which the caller cares.
struct Utf8Engine
{
    DecodeRun* decode;
    EncodeRun* encode;
};

extern const Utf8Engine plainUtf8; ///< ASCII by sixteen bytes, else by single characters
extern const Utf8Engine avx2Utf8;
extern const Utf8Engine avx512Utf8;

/// The engine of this processor.
const Utf8Engine& utf8Engine();

/// Decodes to the first NUL, or `size` bytes; returns the units.
size_t decodeText(uint16_t* out, const uint8_t* in, size_t size);
/// Encodes to the first 0, in at most `room` bytes; returns them.
size_t encodeText(uint8_t* out, size_t room, const uint16_t* in);

/// How many units there are before the first 0, at most `limit`.
size_t countUnits(const uint16_t* units, size_t limit);

/// How many there are before the first 0 that are encoded, or found too long, before `room` is used
/// up. Those behind need not be there. `room` is not 0.
size_t countFittingUnits(const uint16_t* units, size_t room);

} // namespace Nls
} // namespace Utils
} // namespace Tarsel

#endif
