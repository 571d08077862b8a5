// Utf8.cpp: UTF-8 to and from units of 16 and 32 bits.
//
// The length that a caller gives for a text that ends with a NUL may be anything above it, so nothing
// behind the NUL may be read; nor what is behind the units for which there is room. A text is therefore
// taken a stretch at a time: how far it goes is looked up first, and the engines then work on what is
// known to be there (Utf8Alg.h).
//
// Source and target may overlap anyhow: the result is that of one character after the other. So a
// stretch ends before the target comes into it, and where that is at once single characters are taken.

#include <algorithm>
#include <bit>
#include <cstring>

#include "Infra3/CpuFeatures.h"
#include "Infra3/LogFront.h"
#include "Utils/Nls.h"
#include "Utils/Nls/Utf8Alg.h"

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

/// How far the end is looked for at once: small beside the first cache, large beside the price of
/// looking.
constexpr size_t stretchBytes = 4096;
constexpr size_t stretchUnits = 2048;
/// Too few for anything but one after the other.
constexpr size_t fewBytes = 8;
/// So many that another round costs less than to count their bytes.
constexpr size_t manyUnits = 64;

// Places are copied while a run goes on: what is written as bytes might else be the place itself.

void decodePlain(Decoding& place, const uint8_t* known, const uint8_t* end)
{
    Decoding at = place;
    while (known - at.in >= 16) {
        if (!decodeAscii16(at)) {
            const uint8_t* const behind = at.in + 16;
            while (at.in < behind) {
                decodeOne(at, end);
            }
        }
    }
    while (at.in < known) {
        decodeOne(at, end);
    }
    place = at;
}

void encodePlain(Encoding& place, const uint16_t* known)
{
    Encoding at = place;
    while (known - at.in >= 8 && at.room >= 8) {
        if (!encodeAscii8(at)) {
            const uint16_t* const behind = at.in + 8;
            while (at.in < behind && at.room > 0) {
                encodeOne(at);
            }
        }
    }
    while (at.in < known && at.room > 0) {
        encodeOne(at);
    }
    place = at;
}

} // namespace

constinit const Utf8Engine plainUtf8 = {decodePlain, encodePlain};

const Utf8Engine& utf8Engine()
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<const Utf8Engine> engines[] = {
        {&avx512Utf8, {CpuFeature::avx512vbmi2, CpuFeature::bmi2}},
        {&avx2Utf8, {CpuFeature::avx2, CpuFeature::bmi2}},
        {&plainUtf8, {}},
    };
    return *Infra::chooseImplementation(engines);
}

namespace
{

/// How many bytes may be decoded at once, because none of their units comes to where bytes are still to
/// be read. There are as many units at most; the last sequence reads up to five bytes more.
size_t undisturbedBytes(const Decoding& at)
{
    const uintptr_t source = reinterpret_cast<uintptr_t>(at.in);
    const uintptr_t target = reinterpret_cast<uintptr_t>(at.out);
    if (target <= source) {
        return (source - target) / sizeof(uint16_t);
    }
    constexpr size_t mostBehind = 5;
    return std::max(target - source, mostBehind) - mostBehind;
}

/// How much of the room may be used at once, because no byte comes to where units are still to be
/// read. At least one byte is written for each unit, and of the last up to two more. None at an odd
/// address, which vectors of units do not expect.
size_t undisturbedRoom(const Encoding& at)
{
    const uintptr_t source = reinterpret_cast<uintptr_t>(at.in);
    const uintptr_t target = reinterpret_cast<uintptr_t>(at.out);
    if (source % sizeof(uint16_t) != 0) {
        return 0;
    }
    if (target > source) {
        return std::min((target - source) / sizeof(uint16_t), at.room);
    }
    constexpr size_t mostBeyond = 2;
    const size_t gap = source - target;
    return at.room <= gap ? at.room : std::max(gap, mostBeyond) - mostBeyond;
}

} // namespace

size_t decodeText(uint16_t* out, const uint8_t* in, size_t size)
{
    const Utf8Engine& engine = utf8Engine();
    const uint8_t* const end = in + size;
    Decoding at = {in, out};
    while (at.in < end && *at.in != 0) {
        const size_t possible = std::min(undisturbedBytes(at), stretchBytes);
        if (possible < fewBytes) {
            decodeOne(at, end);
            continue;
        }
        const size_t looked = std::min(static_cast<size_t>(end - at.in), possible);
        engine.decode(at, at.in + strnlen(reinterpret_cast<const char*>(at.in), looked), end);
    }
    return static_cast<size_t>(at.out - out);
}

size_t encodeText(uint8_t* out, size_t room, const uint16_t* in)
{
    const Utf8Engine& engine = utf8Engine();
    Encoding at = {{out, room}, in};
    while (at.room > 0 && loadUnit(at.in) != 0) {
        const size_t possible = undisturbedRoom(at);
        if (possible < fewBytes) {
            encodeOne(at);
            continue;
        }
        const size_t certain = std::min((possible + 2) / 3, stretchUnits); // three bytes each
        engine.encode(at, at.in + (certain >= manyUnits ? countUnits(at.in, certain)
                                                        : countFittingUnits(at.in, possible)));
    }
    return static_cast<size_t>(at.out - out);
}

} // namespace Nls

int utf8_mbtowc(uint16_t* p, const uint8_t* s, int n)
{
    if (p == nullptr || s == nullptr || n <= 0) {
        return -1;
    }
    const Nls::Sequence sequence = Nls::readShortestSequence(s, static_cast<size_t>(n));
    if (sequence.length == 0) {
        return -1;
    }
    *p = static_cast<uint16_t>(sequence.value);
    return static_cast<int>(sequence.length);
}

int utf8_mbstowcs(uint16_t* pwcs, const uint8_t* s, int n)
{
    if (pwcs == nullptr || s == nullptr || n <= 0) {
        return 0;
    }
    return static_cast<int>(Nls::decodeText(pwcs, s, static_cast<size_t>(n)));
}

int utf8_wctomb(uint8_t* s, uint16_t wc, int maxlen)
{
    if (s == nullptr) {
        return 0;
    }
    const size_t length = Nls::encodedLength(wc);
    if (static_cast<int>(length) > maxlen) {
        return -1;
    }
    return static_cast<int>(Nls::writeSequence(s, wc, length));
}

int utf8_wcstombs(uint8_t* s, const uint16_t* pwcs, int maxlen)
{
    if (s == nullptr || pwcs == nullptr || maxlen <= 0) {
        return 0;
    }
    return static_cast<int>(Nls::encodeText(s, static_cast<size_t>(maxlen), pwcs));
}

uint16_t GetUnicodeFromUtf8(const char* pch, int* pn)
{
    int length = 0;
    unsigned value = 0;
    unsigned missing = 0; // continuation bytes
    const uint8_t* at = reinterpret_cast<const uint8_t*>(pch);
    const auto result = [&](unsigned gathered) {
        if (pn != nullptr) {
            *pn = length;
        }
        return static_cast<uint16_t>(gathered);
    };
    if (at == nullptr) {
        return result(0);
    }
    for (; *at != 0; ++at) {
        if (Nls::isContinuation(*at)) {
            if (missing == 0) {
                return result(value);
            }
            --missing;
            value |= (*at & 0x3FU) << (missing * Nls::continuationBits);
            if (missing == 0) {
                return result(value);
            }
        } else if (missing != 0 || *at >= 0xF0) {
            return result(value);
        } else if (*at < 0x80) {
            length = 1;
            return result(*at);
        } else {
            length = *at < 0xE0 ? 2 : 3;
            missing = static_cast<unsigned>(length) - 1;
            value = (*at & (length == 2 ? 0x1FU : 0x0FU)) << (missing * Nls::continuationBits);
        }
    }
    return result(0);
}

int get_utf8_size(const unsigned char input)
{
    if (input < 0x80) {
        return 0;
    }
    if (Nls::isContinuation(input)) {
        return -1;
    }
    return std::min(std::countl_one(input), 6);
}

int UCS4ToUtf8(char* ucs4, int ucs4Len, uint8_t* utf8, int nUtf8Len)
{
    if (ucs4 == nullptr) {
        INFRA_LOG_WARN("ucs4 is invalid\n");
        return 0;
    }
    if (utf8 == nullptr) {
        INFRA_LOG_WARN("utf8 is invalid\n");
        return 0;
    }
    if (ucs4Len % 4 != 0) {
        INFRA_LOG_WARN("UCS4ToUtf8 ucs4Len error\n");
        return 0;
    }
    int written = 0;
    for (int64_t at = 0; at < ucs4Len; at += 4) {
        uint32_t value = 0;
        memcpy(&value, ucs4 + at, sizeof(value));
        if (value > Nls::largestValue) {
            continue;
        }
        const int length = static_cast<int>(Nls::encodedLength(value));
        if (length > nUtf8Len - written) {
            INFRA_LOG_WARN("UCS4ToUtf8 utf8Size error\n");
            return written;
        }
        Nls::writeSequence(utf8 + written, value, static_cast<size_t>(length));
        written += length;
    }
    return written;
}

} // namespace Utils
} // namespace Tarsel
