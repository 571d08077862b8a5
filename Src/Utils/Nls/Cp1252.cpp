// Cp1252.cpp: Windows-1252 to UTF-8 and back.
//
// To UTF-8 is all or nothing: the size of the result is measured first. On the way back, runs of
// ASCII are found and copied by sixteen bytes; as such a store may reach beyond the result, it goes
// to a block on the stack first.

#include <climits>
#include <cstring>

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

/// As the table of the code page has them, but that NUL is a character here.
constexpr Utf8Forms forms = [] {
    Utf8Forms all = utf8Forms<cp1252_charset2uni>;
    all[0] = utf8FormOf(0);
    return all;
}();

Cp1252Size measure(const uint8_t* in, size_t size)
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<MeasureCp1252> ways[] = {
        {measureCp1252Avx2, {CpuFeature::avx2}},
        {measureCp1252Plain, {}},
    };
    return Infra::chooseImplementation(ways)(in, size);
}

/// Writes what was measured.
void encode(uint8_t* out, const uint8_t* in, size_t size, const Cp1252Size& measured)
{
    Recoding at = {in, out, measured.encoded};
    encodeBytes(at, in + measured.defined, forms);
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

constexpr size_t blockBytes = 512;
constexpr size_t asciiBytes = 16;

/// The bytes that a text gives, a block at a time.
class CBlocks
{
public:
    CBlocks(const uint8_t* in, size_t size) : m_in(in), m_end(in + size) {}

    /// Fills the next block; returns how much there is, 0 at the end.
    size_t next()
    {
        m_count = 0;
        while (m_in < m_end && m_count < blockBytes) {
            if (!takeAscii() && !takeOne()) {
                m_end = m_in;
            }
        }
        return m_count;
    }
    const uint8_t* bytes() const { return m_bytes; }

private:
    /// Copies to the first byte that is not ASCII, sixteen at most; false when there is none to copy.
    bool takeAscii()
    {
        if (m_end - m_in < static_cast<ptrdiff_t>(asciiBytes)) {
            return false;
        }
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(m_in));
        const unsigned others = static_cast<unsigned>(_mm_movemask_epi8(bytes));
        const size_t taken = std::min<size_t>(std::countr_zero(others), asciiBytes);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(m_bytes + m_count), bytes);
        m_in += taken;
        m_count += taken;
        return taken != 0;
    }

    /// Takes one sequence; false when there is none.
    bool takeOne()
    {
        const Sequence sequence = readSequence(m_in, static_cast<size_t>(m_end - m_in));
        const int byte = byteOf(sequence.value);
        if (sequence.length != 0 && byte >= 0) {
            m_bytes[m_count++] = static_cast<uint8_t>(byte);
        }
        m_in += sequence.length;
        return sequence.length != 0;
    }

    const uint8_t* m_in;
    const uint8_t* m_end;
    size_t m_count = 0;
    uint8_t m_bytes[blockBytes + asciiBytes];
};

} // namespace

Cp1252Size measureCp1252Plain(const uint8_t* in, size_t size)
{
    Cp1252Size sum = {0, 0};
    for (; sum.defined < size && !isUndefinedInCp1252(in[sum.defined]); ++sum.defined) {
        sum.encoded += lengthOf(forms[in[sum.defined]]);
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
    if (utf8buf == nullptr || cp1252buf == nullptr || utf8buflen <= 0) {
        return 0;
    }
    Nls::CBlocks blocks(utf8buf, static_cast<size_t>(utf8buflen));
    int written = 0;
    while (written < cp1252buflen) {
        const size_t count = blocks.next();
        if (count == 0) {
            break;
        }
        const int taken = std::min(static_cast<int>(count), cp1252buflen - written);
        memcpy(cp1252buf + written, blocks.bytes(), static_cast<size_t>(taken));
        written += taken;
    }
    return written;
}

} // namespace Utils
} // namespace Tarsel
