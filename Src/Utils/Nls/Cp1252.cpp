// Cp1252.cpp: Windows-1252 to UTF-8 and back.
//
// To UTF-8 is all or nothing: the size of the result is measured first. On the way back most of a text
// is ASCII or Latin-1, which are taken by runs, and the rest by single characters.

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <functional>

#include "Infra3/CpuFeatures.h"
#include "Utils/Nls.h"
#include "Utils/Nls/CodePage.h"
#include "Utils/Nls/Cp1252Alg.h"
#include "Utils/Nls/Scratch.h"

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

Cp1252Size measure(const uint8_t* in, size_t size)
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<MeasureCp1252> ways[] = {
        {measureCp1252Avx2, {CpuFeature::avx2}},
        {measureCp1252Plain, {}},
    };
    return Infra::chooseImplementation(ways)(in, size);
}

/// Writes what was measured. NUL is a character here, which it is not to the table.
void encode(uint8_t* out, const uint8_t* in, size_t size, const Cp1252Size& measured)
{
    Recoding at = {{out, measured.encoded}, in};
    const uint8_t* const end = in + measured.defined;
    while (at.in < end) {
        const void* const nul = memchr(at.in, 0, static_cast<size_t>(end - at.in));
        encodeBytes(at, nul != nullptr ? static_cast<const uint8_t*>(nul) : end,
                    bytePage<cp1252_charset2uni>);
        if (nul != nullptr) {
            ++at.in;
            *at.out = 0;
            at.pass(1);
        }
    }
    memset(out + measured.encoded, 0, size - measured.defined);
}

/// The byte of a value; -1 when it has none.
int byteOf(uint32_t value)
{
    if (value < 0x80) {
        return static_cast<int>(value);
    }
    const uint8_t byte = value <= UINT16_MAX
                             ? page_uni2charset<cp1252_charset2uni>[static_cast<uint16_t>(value)]
                             : uint8_t{0};
    return byte != 0 ? byte : -1;
}

constexpr size_t asciiBytes = 16;

/// Copies ASCII as far as it goes, by sixteen bytes where they fit.
void decodeAscii(Recoding& at, const uint8_t* end)
{
    while (end - at.in >= static_cast<ptrdiff_t>(asciiBytes) && at.room >= asciiBytes) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at.in));
        const unsigned others = static_cast<unsigned>(_mm_movemask_epi8(bytes));
        const size_t count = std::min<size_t>(std::countr_zero(others), asciiBytes);
        if (count < asciiBytes) {
            memmove(at.out, at.in, count); // which may be in place
        } else {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(at.out), bytes);
        }
        at.in += count;
        at.pass(count);
        if (count < asciiBytes) {
            break;
        }
    }
}

/// Converts one sequence; false when there is none.
bool decodeOneByte(Recoding& at, const uint8_t* end)
{
    const Sequence sequence = readSequence(at.in, static_cast<size_t>(end - at.in));
    if (sequence.length == 0) {
        return false;
    }
    at.in += sequence.length;
    const int byte = byteOf(sequence.value);
    if (byte >= 0) {
        *at.out = static_cast<uint8_t>(byte);
        at.pass(1);
    }
    return true;
}

/// How far the text can be read before what is written comes into it: the target may overlap it.
const uint8_t* unwritten(const Recoding& at, const uint8_t* end)
{
    const bool isTargetAhead = std::less<>()(at.in, at.out) && std::less<>()(at.out, end);
    return isTargetAhead ? at.out : end;
}

/// Converts until the room is used or a sequence is malformed; returns the bytes written.
size_t decode(uint8_t* out, size_t room, const uint8_t* in, size_t size)
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<DecodeLatin1> runs[] = {
        {decodeLatin1Avx512, {CpuFeature::avx512vbmi2, CpuFeature::bmi2}},
        {decodeAscii, {}},
    };
    DecodeLatin1* const decodeLatin1 = Infra::chooseImplementation(runs);
    const uint8_t* const end = in + size;
    Recoding at = {{out, room}, in};
    while (at.in < end && at.room > 0) {
        decodeLatin1(at, unwritten(at, end));
        if (at.in < end && at.room > 0 && !decodeOneByte(at, end)) {
            break;
        }
    }
    return static_cast<size_t>(at.out - out);
}

} // namespace

Cp1252Size measureCp1252Plain(const uint8_t* in, size_t size)
{
    Cp1252Size sum = {0, 0};
    for (; sum.defined < size && !isUndefinedInCp1252(in[sum.defined]); ++sum.defined) {
        const uint8_t byte = in[sum.defined];
        sum.encoded += byte == 0 ? 1 : lengthOf(utf8Forms<cp1252_charset2uni>[byte]);
    }
    return sum;
}

} // namespace Nls

int cp1252_to_utf8(uint8_t* utf8buf, int utf8buflen, const uint8_t* cp1252buf, int cp1252buflen)
{
    if (cp1252buf == nullptr || cp1252buflen <= 0) {
        return -1;
    }
    const size_t size = static_cast<size_t>(cp1252buflen);
    const Nls::Cp1252Size measured = Nls::measure(cp1252buf, size);
    const size_t total = measured.encoded + size - measured.defined;
    if (total > INT_MAX) {
        return -1;
    }
    if (utf8buf == nullptr || utf8buflen < static_cast<int>(total)) {
        return static_cast<int>(total);
    }
    if (!Nls::areOverlapping(utf8buf, total, cp1252buf, size)) {
        Nls::encode(utf8buf, cp1252buf, size, measured);
        return 0;
    }
    const Nls::CScratchCopy source(cp1252buf, size);
    if (source.data() == nullptr) {
        return -1;
    }
    Nls::encode(utf8buf, source.data(), size, measured);
    return 0;
}

int utf8_to_cp1252(const uint8_t* utf8buf, int utf8buflen, uint8_t* cp1252buf, int cp1252buflen)
{
    if (utf8buf == nullptr || cp1252buf == nullptr || utf8buflen <= 0 || cp1252buflen <= 0) {
        return 0;
    }
    return static_cast<int>(Nls::decode(cp1252buf, static_cast<size_t>(cp1252buflen), utf8buf,
                                        static_cast<size_t>(utf8buflen)));
}

} // namespace Utils
} // namespace Tarsel
