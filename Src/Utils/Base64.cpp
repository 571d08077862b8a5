// Base64.cpp: Base64 by table, around what vectors can do (Base64_AVX2_x86_64.cpp).
//
// A text to decode ends at its first character that is not of the alphabet, often NUL, and what
// lies behind that may not be readable. The first characters are taken one group at a time, which
// is all that most texts need; vectors go on from there, and the table has what they leave.

#include "Utils/Base64.h"

#include "Infra3/CpuFeatures.h"
#include "Utils/Base64Alg.h"

namespace Tarsel
{
namespace Utils
{
namespace Base64
{
namespace
{

const Base64Engine& chooseEngine()
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<const Base64Engine> engines[] = {
        {&avx2Engine, {CpuFeature::avx2}},
        {&tableEngine, {}},
    };
    return *Infra::chooseImplementation(engines);
}

/// Up to here a text is decoded by table.
constexpr size_t shortText = 32;

uint8_t valueOf(char character)
{
    return pr2six[static_cast<uint8_t>(character)];
}

/// Reads four characters into 24 bits. False at the first foreign one, and none behind it is read.
bool readGroup(const char* in, uint32_t& group)
{
    group = 0;
    for (int i = 0; i < 4; ++i) {
        const uint8_t value = valueOf(in[i]);
        if (value == noValue) {
            return false;
        }
        group = group << 6 | value;
    }
    return true;
}

void writeGroup(char* out, uint32_t group)
{
    out[0] = static_cast<char>(group >> 16);
    out[1] = static_cast<char>(group >> 8);
    out[2] = static_cast<char>(group);
}

/// The whole groups at the front of at most `limit` characters; returns the characters.
size_t decodeGroups(char* out, const char* in, size_t limit)
{
    size_t done = 0;
    for (uint32_t group = 0; done < limit && readGroup(in + done, group); done += 4, out += 3) {
        writeGroup(out, group);
    }
    return done;
}

/// The one, two or three characters before a foreign one; returns the bytes that they give.
size_t decodeLast(char* out, const char* in)
{
    uint8_t values[3];
    size_t count = 0;
    for (; count < 3 && valueOf(in[count]) != noValue; ++count) {
        values[count] = valueOf(in[count]);
    }
    if (count > 1) {
        out[0] = static_cast<char>(values[0] << 2 | values[1] >> 4);
    }
    if (count > 2) {
        out[1] = static_cast<char>(values[1] << 4 | values[2] >> 2);
    }
    return count > 1 ? count - 1 : 0;
}

/// Up to `limit`.
size_t countCharacters(const char* in, size_t limit)
{
    size_t count = 0;
    while (count < limit && valueOf(in[count]) != noValue) {
        ++count;
    }
    return count;
}

/// How many characters of the alphabet `text` begins with.
size_t countAlphabet(const char* text)
{
    const size_t count = countCharacters(text, shortText);
    return count < shortText ? count : count + chooseEngine().count(text + count);
}

/// One group for three bytes.
void encodeGroup(char* out, const uint8_t* in)
{
    const uint32_t bits = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
    out[0] = basis_64[bits >> 18];
    out[1] = basis_64[bits >> 12 & 63];
    out[2] = basis_64[bits >> 6 & 63];
    out[3] = basis_64[bits & 63];
}

/// The whole groups of `size` bytes; returns their bytes.
size_t encodeGroups(char* out, const char* in, size_t size)
{
    const uint8_t* const bytes = reinterpret_cast<const uint8_t*>(in);
    size_t done = 0;
    for (; size - done >= 3; done += 3, out += 4) {
        encodeGroup(out, bytes + done);
    }
    return done;
}

/// The group for the last one or two bytes.
void encodeLast(char* out, const uint8_t* in, size_t size)
{
    const uint8_t padded[3] = {in[0], size > 1 ? in[1] : uint8_t{0}, 0};
    encodeGroup(out, padded);
    out[2] = size > 1 ? out[2] : '=';
    out[3] = '=';
}

} // namespace

constinit const Base64Engine tableEngine = {
    encodeGroups,
    [](char* out, const char* in) { return decodeGroups(out, in, SIZE_MAX); },
    [](const char* in) { return countCharacters(in, SIZE_MAX); },
};

} // namespace Base64

size_t base64EncodeLenEx(size_t len)
{
    return (len + 2) / 3 * 4 + 1;
}

int base64EncodeLen(int len)
{
    return static_cast<int>((int64_t{len} + 2) / 3 * 4 + 1);
}

size_t base64EncodeEx(char* coded_dst, const char* plain_src, size_t len_plain_src)
{
    constexpr size_t worthVectors = 12;
    char* out = coded_dst;
    size_t rest = len_plain_src;
    if (rest >= worthVectors) {
        const size_t taken = Base64::chooseEngine().encode(out, plain_src, rest);
        plain_src += taken;
        out += taken / 3 * 4;
        rest -= taken;
    }
    const size_t whole = Base64::encodeGroups(out, plain_src, rest);
    out += whole / 3 * 4;
    if (rest != whole) {
        Base64::encodeLast(out, reinterpret_cast<const uint8_t*>(plain_src) + whole, rest - whole);
        out += 4;
    }
    *out++ = '\0';
    return static_cast<size_t>(out - coded_dst);
}

int base64Encode(char* coded_dst, const char* plain_src, int len_plain_src)
{
    if (len_plain_src < 1) {
        return 0;
    }
    return static_cast<int>(
        base64EncodeEx(coded_dst, plain_src, static_cast<size_t>(len_plain_src)));
}

size_t base64DecodeLenEx(const char* coded_src)
{
    return (Base64::countAlphabet(coded_src) + 3) / 4 * 3 + 1;
}

int base64DecodeLen(const char* coded_src)
{
    return static_cast<int>(base64DecodeLenEx(coded_src));
}

size_t base64DecodeEx(char* plain_dst, const char* coded_src)
{
    size_t done = Base64::decodeGroups(plain_dst, coded_src, Base64::shortText);
    if (done == Base64::shortText) {
        done += Base64::chooseEngine().decode(plain_dst + done / 4 * 3, coded_src + done);
        done += Base64::decodeGroups(plain_dst + done / 4 * 3, coded_src + done, SIZE_MAX);
    }
    char* const last = plain_dst + done / 4 * 3;
    char* const end = last + Base64::decodeLast(last, coded_src + done);
    *end = '\0';
    return static_cast<size_t>(end - plain_dst);
}

int base64Decode(char* plain_dst, const char* coded_src)
{
    return static_cast<int>(base64DecodeEx(plain_dst, coded_src));
}

} // namespace Utils
} // namespace Tarsel
