// Texts of arbitrary bytes through every function of the character sets, on each kind of processor,
// beside one character after the other. Sources and targets are exactly as large as they have to be, or
// overlap.
//
// Input: what to do, the room for the result (two bytes), then the text.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra3/CpuFeatures.h"
#include "Support/NlsReference.h"

namespace
{

using namespace Tarsel::Utils;
using namespace Tarsel::TestSupport::Reference;
using Tarsel::Infra::CHiddenCpuFeatures;
using enum Tarsel::Infra::CpuFeature;

void expect(bool kept)
{
    if (!kept) {
        std::abort();
    }
}

int sizeOf(const Bytes& bytes)
{
    return static_cast<int>(bytes.size());
}

/// As much memory as `count` of T take, and no byte more, filled with something.
template <typename T>
class CExactly
{
public:
    explicit CExactly(size_t count) : m_data(new T[count]), m_count(count)
    {
        std::fill_n(m_data.get(), count, filling);
    }
    template <typename Values>
    static CExactly copyOf(const Values& values)
    {
        CExactly copy(values.size());
        std::copy(values.begin(), values.end(), copy.data());
        return copy;
    }

    T* data() const { return m_data.get(); }
    /// Whether these come first, and what was there before behind them.
    template <typename Values>
    bool holds(const Values& values) const
    {
        return std::equal(values.begin(), values.end(), data()) &&
               std::all_of(data() + values.size(), data() + m_count,
                           [](T value) { return value == filling; });
    }

private:
    static constexpr T filling = static_cast<T>(0x5A);

    std::unique_ptr<T[]> m_data;
    size_t m_count;
};

/// Units with an end, and without one where the room ends with them.
void checkEncoding(Units units, size_t room)
{
    const Bytes whole = encode(units, SIZE_MAX);
    const bool isWithoutNul = encode(units, whole.size()) == whole && units.size() > 0 &&
                              std::find(units.begin(), units.end(), 0) == units.end();
    if (isWithoutNul) {
        const CExactly<uint16_t> from = CExactly<uint16_t>::copyOf(units);
        const CExactly<uint8_t> to(whole.size());
        expect(utf8_wcstombs(to.data(), from.data(), sizeOf(whole)) == sizeOf(whole));
        expect(to.holds(whole));
    }
    units.push_back(0);
    const Bytes text = encode(units, room);
    const CExactly<uint16_t> from = CExactly<uint16_t>::copyOf(units);
    const CExactly<uint8_t> to(room);
    expect(utf8_wcstombs(to.data(), from.data(), static_cast<int>(room)) == sizeOf(text));
    expect(to.holds(text));
}

void checkUtf8(const Bytes& text, size_t room)
{
    const Units expected = decode(text);
    const CExactly<uint8_t> source = CExactly<uint8_t>::copyOf(text);
    const CExactly<uint16_t> units(expected.size());
    expect(utf8_mbstowcs(units.data(), source.data(), sizeOf(text)) ==
           static_cast<int>(expected.size()));
    expect(units.holds(expected));
    for (size_t at = 0; at < text.size(); ++at) {
        uint16_t unit = 0;
        uint16_t other = 0;
        const int length =
            utf8_mbtowc(&unit, source.data() + at, sizeOf(text) - static_cast<int>(at));
        expect(length == decodeOne(text, at, other) && (length < 0 || unit == other));
    }

    checkEncoding(expected, room);
}

void checkUnits(const Bytes& bytes, size_t room)
{
    Units units(bytes.size() / 2 + 1, 0);
    for (size_t at = 0; at + 1 < bytes.size(); at += 2) {
        units[at / 2] = static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
    }
    checkEncoding(units, room);
    const CExactly<uint16_t> from = CExactly<uint16_t>::copyOf(units);
    const GbText gb = encodeGb(units, room);
    const CExactly<char> text(room);
    expect(UniTGb2312(from.data(), static_cast<int>(units.size()), text.data(),
                      static_cast<int>(room)) == gb.result);
    expect(room == 0 || memcmp(text.data(), gb.bytes.data(), room) == 0);
}

void checkWideUnits(const Bytes& bytes, size_t room)
{
    const CExactly<uint8_t> source = CExactly<uint8_t>::copyOf(bytes);
    const CExactly<uint8_t> to(room);
    char* const values = reinterpret_cast<char*>(source.data());
    Bytes expected;
    for (size_t at = 0; at + 4 <= bytes.size(); at += 4) {
        uint32_t value = 0;
        memcpy(&value, &bytes[at], sizeof(value));
        const Bytes sequence = value < 0x80000000 ? encodeOne(value) : Bytes();
        if (expected.size() + sequence.size() > room) {
            break;
        }
        expected.insert(expected.end(), sequence.begin(), sequence.end());
    }
    expect(UCS4ToUtf8(values, sizeOf(bytes) / 4 * 4, to.data(), static_cast<int>(room)) ==
           sizeOf(expected));
    expect(to.holds(expected));
    expect(UCS4ToUtf8(values, sizeOf(bytes) / 4 * 4 + 1, to.data(), 1) == 0);
}

/// The first character of a text that ends with a NUL, and its length.
uint16_t firstOf(const Bytes& text, int& length)
{
    const unsigned first = text[0];
    length = first == 0 || (first & 0xC0) == 0x80 || first >= 0xF0 ? 0
             : first < 0x80                                        ? 1
             : first < 0xE0                                        ? 2
                                                                   : 3;
    unsigned value = length == 0 ? 0 : length == 1 ? first : first & (length == 2 ? 0x1F : 0x0F);
    for (int i = 1; i < length; ++i) {
        const unsigned byte = text[static_cast<size_t>(i)];
        if (byte == 0) {
            return 0;
        }
        if ((byte & 0xC0) != 0x80) {
            return static_cast<uint16_t>(value << (6 * (length - i)));
        }
        value = value << 6 | (byte & 0x3F);
    }
    return static_cast<uint16_t>(value);
}

void checkFirstCharacter(Bytes text)
{
    text.push_back(0);
    const CExactly<uint8_t> source = CExactly<uint8_t>::copyOf(text);
    int length = -1;
    int expected = -1;
    expect(GetUnicodeFromUtf8(reinterpret_cast<char*>(source.data()), &length) ==
           firstOf(text, expected));
    expect(length == expected);
}

void checkPage(const CodePage& page, const Bytes& text, size_t extra)
{
    if (text.empty()) {
        return;
    }
    const size_t room = text.size() + extra % (2 * text.size() + 1);
    const Recoded expected = toUtf8(page, text, room);
    const CExactly<uint8_t> source = CExactly<uint8_t>::copyOf(text);
    for (const bool isGeneral : {false, true}) {
        const CExactly<uint8_t> to(room);
        int dstLen = static_cast<int>(room);
        int srcLen = sizeOf(text);
        expect((isGeneral ? char_to_utf8(to.data(), dstLen, source.data(), srcLen, page.char2uni)
                          : page.to_utf8(to.data(), dstLen, source.data(), srcLen)) == 0);
        expect(to.holds(expected.text) && dstLen == sizeOf(expected.text));
        expect(srcLen == static_cast<int>(expected.used));
    }
}

void checkWindows1252(const Bytes& text, size_t room)
{
    if (text.empty()) {
        return;
    }
    const CExactly<uint8_t> source = CExactly<uint8_t>::copyOf(text);
    const int size = cp1252_to_utf8(nullptr, 0, source.data(), sizeOf(text));
    expect(size >= sizeOf(text));
    const CExactly<uint8_t> to(static_cast<size_t>(size));
    expect(cp1252_to_utf8(to.data(), size - 1, source.data(), sizeOf(text)) == size);
    expect(to.holds(Bytes()));
    expect(cp1252_to_utf8(to.data(), size, source.data(), sizeOf(text)) == 0);
    const CExactly<uint8_t> back(text.size());
    const int same = utf8_to_cp1252(to.data(), size, back.data(), sizeOf(text));
    expect(same == sizeOf(text));
    const auto differs = std::mismatch(text.begin(), text.end(), back.data()).first;
    expect(std::all_of(back.data() + (differs - text.begin()), back.data() + text.size(),
                       [](uint8_t byte) { return byte == 0; }));

    Bytes memory = text;
    memory.resize(text.size() + room);
    const int written = toCp1252Within(memory, 0, text.size(), room, text.size());
    const CExactly<uint8_t> one(room);
    expect(utf8_to_cp1252(source.data(), sizeOf(text), one.data(), static_cast<int>(room)) ==
           written);
    const uint8_t* const expected = memory.data() + text.size();
    expect(one.holds(Bytes(expected, expected + written)));
}

void checkCodePage936(Bytes text, size_t room)
{
    text.resize(static_cast<size_t>(std::find(text.begin(), text.end(), 0) - text.begin()));
    const Units units = decodeGb(text, SIZE_MAX);
    const Bytes toUtf8 = encode(units, room);
    const GbText toGb = encodeGb(decode(text), room);
    const CExactly<uint8_t> utf8 = CExactly<uint8_t>::copyOf(text);
    const CExactly<char> target(room);
    expect(utf8TGb2312(utf8.data(), target.data(), sizeOf(text), static_cast<int>(room)) ==
           (text.empty() ? 0 : toGb.result));
    expect(text.empty() || room == 0 || memcmp(target.data(), toGb.bytes.data(), room) == 0);

    text.push_back(0);
    const CExactly<uint8_t> gb = CExactly<uint8_t>::copyOf(text);
    char* const source = reinterpret_cast<char*>(gb.data());
    const CExactly<uint16_t> some(room);
    expect(Gb2312ToUni(source, some.data(), static_cast<int>(room)) ==
           static_cast<int>(std::min(units.size(), room)));
    expect(std::equal(some.data(), some.data() + std::min(units.size(), room), units.begin()));
    const CExactly<uint8_t> to(room);
    expect(Gb2312TUtf8(source, to.data(), static_cast<int>(room)) == sizeOf(toUtf8));
    expect(std::equal(toUtf8.begin(), toUtf8.end(), to.data()));
}

/// Source and target in the same memory, the target up to 128 bytes before or behind the source.
void checkOverlap(const CodePage& page, const Bytes& text, size_t room, size_t target)
{
    constexpr size_t source = 256;
    Bytes start(source, 0);
    start.insert(start.end(), text.begin(), text.end());
    start.resize(2 * (source + text.size() + room + 1));
    const auto check = [&](const auto& ours, const auto& slowly) {
        Bytes expected = start;
        const int result = slowly(expected);
        const CExactly<uint8_t> memory = CExactly<uint8_t>::copyOf(start);
        expect(ours(memory.data() + target, memory.data() + source) == result);
        expect(memory.holds(expected));
    };
    const int size = sizeOf(text);
    const int bound = static_cast<int>(room);
    check(
        [&](uint8_t* to, const uint8_t* from) {
            return utf8_mbstowcs(reinterpret_cast<uint16_t*>(to), from, size);
        },
        [&](Bytes& memory) { return decodeWithin(memory, source, text.size(), target); });
    check(
        [&](uint8_t* to, const uint8_t* from) {
            return utf8_wcstombs(to, reinterpret_cast<const uint16_t*>(from), bound);
        },
        [&](Bytes& memory) { return encodeWithin(memory, source, room, target); });
    check([&](uint8_t* to, const uint8_t* from) { return utf8_to_cp1252(from, size, to, bound); },
          [&](Bytes& memory) { return toCp1252Within(memory, source, text.size(), room, target); });
    if (text.empty() || room < text.size()) {
        return;
    }
    check(
        [&](uint8_t* to, const uint8_t* from) {
            int used = size;
            int written = bound;
            page.to_utf8(to, written, from, used);
            return written;
        },
        [&](Bytes& memory) {
            return sizeOf(toUtf8Within(page, memory, source, text.size(), room, target).text);
        });
}

void checkAll(uint8_t what, const Bytes& text, size_t room)
{
    checkUtf8(text, room);
    checkUnits(text, room);
    checkWideUnits(text, room);
    checkFirstCharacter(text);
    const CodePage& page = codePages[what % std::size(codePages)];
    checkPage(page, text, room);
    checkWindows1252(text, room);
    checkCodePage936(text, room);
    checkOverlap(page, text, room, 128U + what);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Infra_openLog = CLOSE_LOG;
    if (size < 3) {
        return 0;
    }
    const size_t room = (data[1] | static_cast<size_t>(data[2]) << 8) % 4096;
    const Bytes text(data + 3, data + size);
    checkAll(data[0], text, room);
    for (const Tarsel::Infra::CCpuFeatureSet lacks :
         {Tarsel::Infra::CCpuFeatureSet{avx512vbmi2},
          Tarsel::Infra::CCpuFeatureSet{avx512vbmi2, avx2}}) {
        const CHiddenCpuFeatures hidden(lacks);
        checkAll(data[0], text, room);
    }
    return 0;
}
