// SingleByte.cpp: the single-byte code pages.
//
// Without vectors to look bytes up in, text goes to UTF-8 by one look-up and one store of four bytes a
// byte, whatever the lengths, in blocks on the stack, because those stores reach beyond what they mean.

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "Infra3/CpuFeatures.h"
#include "Utils/Nls.h"
#include "Utils/Nls/CodePage.h"
#include "Utils/Nls/Tables/SingleByte.h"

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

constexpr size_t blockBytes = 256;
constexpr size_t asciiBytes = 16;

/// Sixteen bytes, if they are ASCII and none is NUL, and there is room.
bool copyAscii(Recoding& at, const uint8_t* end)
{
    if (end - at.in < static_cast<ptrdiff_t>(asciiBytes) || at.room < asciiBytes) {
        return false;
    }
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at.in));
    if (_mm_movemask_epi8(_mm_cmpgt_epi8(bytes, _mm_setzero_si128())) != 0xFFFF) {
        return false;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(at.out), bytes);
    at.in += asciiBytes;
    at.pass(asciiBytes);
    return true;
}

/// One block, if it fits.
bool encodeBlock(Recoding& at, const uint8_t* end, const BytePage& page)
{
    const size_t count = std::min(static_cast<size_t>(end - at.in), blockBytes);
    uint8_t staged[blockBytes * 3 + 1];
    uint8_t* to = staged;
    for (size_t i = 0; i < count; ++i) {
        const uint32_t form = (*page.forms)[at.in[i]];
        memcpy(to, &form, sizeof(form));
        to += lengthOf(form);
    }
    const size_t size = static_cast<size_t>(to - staged);
    if (size > at.room) {
        return false;
    }
    memcpy(at.out, staged, size);
    at.in += count;
    at.pass(size);
    return true;
}

void encodeBytesPlain(Recoding& at, const uint8_t* end, const BytePage& page)
{
    while (at.in < end) {
        if (!copyAscii(at, end) && !encodeBlock(at, end, page)) {
            break;
        }
    }
}

} // namespace

void encodeBytesInPlace(Recoding& at, const uint8_t* end, const BytePage& page)
{
    for (; at.in < end; ++at.in) {
        const uint32_t form = (*page.forms)[*at.in];
        const size_t length = lengthOf(form);
        if (length > at.room) {
            break;
        }
        memcpy(at.out, &form, length);
        at.pass(length);
    }
}

void encodeBytes(Recoding& at, const uint8_t* end, const BytePage& page)
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<EncodeBytesRun> runs[] = {
        {encodeBytesAvx512, {CpuFeature::avx512vbmi2, CpuFeature::bmi2}},
        {encodeBytesPlain, {}},
    };
    Infra::chooseImplementation(runs)(at, end, page);
    encodeBytesInPlace(at, end, page);
}

namespace
{

template <const Charset& charset>
int toByte(uint16_t uni, uint8_t* out, int boundlen)
{
    const uint8_t byte = page_uni2charset<charset>[uni];
    if (byte == 0 || out == nullptr || boundlen < 1) {
        return -1;
    }
    *out = byte;
    return 1;
}

int toUnit(const Charset& charset, const uint8_t* rawstring, int boundlen, uint16_t* uni)
{
    if (rawstring == nullptr || uni == nullptr || boundlen < 1) {
        return -1;
    }
    *uni = charset[*rawstring];
    return *uni != 0 ? 1 : -1;
}

/// Whether char_to_utf8() may begin.
bool canConvert(const uint8_t* dst, int dstLen, const uint8_t* src, int srcLen)
{
    return src != nullptr && dst != nullptr && srcLen > 0 && dstLen >= srcLen;
}

int toUtf8(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen, const BytePage& page)
{
    if (!canConvert(dst, dstLen, src, srcLen)) {
        return -1;
    }
    const size_t size = static_cast<size_t>(srcLen);
    Recoding at = {{dst, static_cast<size_t>(dstLen)}, src};
    const bool isInPlace = areOverlapping(dst, at.room, src, size);
    (isInPlace ? encodeBytesInPlace : encodeBytes)(at, src + size, page);
    srcLen = static_cast<int>(at.in - src);
    dstLen = static_cast<int>(at.out - dst);
    return 0;
}

/// The same through a function of anybody's.
int toUtf8(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen, char2uni_t* func)
{
    if (func == nullptr || !canConvert(dst, dstLen, src, srcLen)) {
        return -1;
    }
    int used = 0;
    int written = 0;
    for (; used < srcLen; ++used) {
        uint16_t unit = 0;
        if (func(src + used, 1, &unit) < 1) {
            continue;
        }
        const int length = utf8_wctomb(dst + written, unit, dstLen - written);
        if (length < 1) {
            break;
        }
        written += length;
    }
    srcLen = used;
    dstLen = written;
    return 0;
}

} // namespace
} // namespace Nls

#define INFRA_NLS_CODE_PAGE(P)                                                                     \
    int P##_uni2char(uint16_t uni, uint8_t* out, int boundlen)                                     \
    {                                                                                              \
        return Nls::toByte<Nls::P##_charset2uni>(uni, out, boundlen);                              \
    }                                                                                              \
    int P##_char2uni(const uint8_t* rawstring, int boundlen, uint16_t* uni)                        \
    {                                                                                              \
        return Nls::toUnit(Nls::P##_charset2uni, rawstring, boundlen, uni);                        \
    }                                                                                              \
    int P##_to_utf8(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen)                    \
    {                                                                                              \
        return Nls::toUtf8(dst, dstLen, src, srcLen, Nls::bytePage<Nls::P##_charset2uni>);         \
    }

INFRA_NLS_CODE_PAGES(INFRA_NLS_CODE_PAGE)

int char_to_utf8(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen, char2uni_t* func)
{
#define INFRA_NLS_PAGE_OF(P) {P##_char2uni, &Nls::bytePage<Nls::P##_charset2uni>},
    static constexpr struct
    {
        char2uni_t* func;
        const Nls::BytePage* page;
    } pages[] = {INFRA_NLS_CODE_PAGES(INFRA_NLS_PAGE_OF)};
    for (const auto& known : pages) {
        if (known.func == func) {
            return Nls::toUtf8(dst, dstLen, src, srcLen, *known.page);
        }
    }
    return Nls::toUtf8(dst, dstLen, src, srcLen, func);
}

} // namespace Utils
} // namespace Tarsel
