// Character sets beside iconv and ICU.
//
// utf8_decode/TEXT/N   N bytes of UTF-8 to units of 16 bits, in one call
// utf8_encode/TEXT/N   and back
//   ascii, french, chinese: English prose; accents in one letter of twelve; three bytes a character
// utf8_from_P/N        N bytes in the code page P to UTF-8: words of letters that are not ASCII, with
//                      blanks between them; French for cp1252, Chinese for cp936
// utf8_to_P/N          N bytes of UTF-8 to cp936 and cp1252
//
// Converters of iconv and ICU are opened once, outside of the measurement.

#include <iconv.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Utils/Nls.h"

namespace
{

namespace Utils = Tarsel::Utils;

const char* const ascii =
    "Whoever converts text for a living learns that most of it is plain, and that the rest is why "
    "the work exists at all. ";
const char* const french =
    "Dès l'aube, à l'heure où blanchit la campagne, je partirai. Vois-tu, je sais que tu "
    "m'attends. "
    "J'irai par la forêt, j'irai par la montagne. Je ne puis demeurer loin de toi plus longtemps. ";
const char* const chinese = "床前明月光，疑是地上霜。举头望明月，低头思故乡。白日依山尽，黄河入海流"
                            "。欲穷千里目，更上一层楼。";

/// `sample` over and over, `size` bytes at most, without a cut character.
std::string textOf(const std::string& sample, size_t size)
{
    std::string text;
    while (text.size() < size) {
        text += sample;
    }
    text.resize(size);
    while (!text.empty() && (text.back() & 0x80) != 0 && (text.back() & 0xC0) != 0xC0) {
        text.pop_back();
    }
    if (!text.empty() && (text.back() & 0xC0) == 0xC0) {
        text.pop_back();
    }
    return text;
}

/// One way of iconv.
class CIconv
{
public:
    CIconv(const char* to, const char* from) : m_way(iconv_open(to, from))
    {
        if (m_way == reinterpret_cast<iconv_t>(-1)) {
            abort();
        }
    }
    ~CIconv() { iconv_close(m_way); }
    CIconv(const CIconv&) = delete;
    CIconv& operator=(const CIconv&) = delete;

    /// Returns the bytes that were written.
    size_t convert(char* to, size_t room, const char* from, size_t size) const
    {
        char* source = const_cast<char*>(from);
        size_t left = room;
        if (iconv(m_way, &source, &size, &to, &left) != 0) {
            abort();
        }
        return room - left;
    }

private:
    iconv_t m_way;
};

std::string viaIconv(const char* to, const char* from, const std::string& text)
{
    std::string result(text.size() * 4, '\0');
    result.resize(CIconv(to, from).convert(result.data(), result.size(), text.data(), text.size()));
    return result;
}

/// Calls body(), which reads `text`, over and over, and counts the bytes of the text.
template <typename Body>
void measure(benchmark::State& state, const std::string& text, const Body& body)
{
    for (auto _ : state) {
        body();
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void iconvRun(benchmark::State& state, const char* to, const char* from, const std::string& text)
{
    const CIconv way(to, from);
    std::vector<char> out(text.size() * 4);
    measure(state, text, [&] { way.convert(out.data(), out.size(), text.data(), text.size()); });
}

void check(UErrorCode error)
{
    if (U_FAILURE(error)) {
        abort();
    }
}

struct CloseConverter
{
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};

std::unique_ptr<UConverter, CloseConverter> icuConverter(const char* page)
{
    UErrorCode error = U_ZERO_ERROR;
    std::unique_ptr<UConverter, CloseConverter> converter(ucnv_open(page, &error));
    check(error);
    return converter;
}

/// It lacks ISO 8859-16.
bool icuHas(const char* page)
{
    UErrorCode error = U_ZERO_ERROR;
    ucnv_close(ucnv_open(page, &error));
    return U_SUCCESS(error) != 0;
}

void icuFrom(benchmark::State& state, const char* page, const std::string& text)
{
    const auto converter = icuConverter(page);
    std::vector<char> out(text.size() * 4);
    measure(state, text, [&] {
        UErrorCode error = U_ZERO_ERROR;
        ucnv_toAlgorithmic(UCNV_UTF8, converter.get(), out.data(), static_cast<int>(out.size()),
                           text.data(), static_cast<int>(text.size()), &error);
        check(error);
    });
}

void icuTo(benchmark::State& state, const char* page, const std::string& text)
{
    const auto converter = icuConverter(page);
    std::vector<char> out(text.size() * 4);
    measure(state, text, [&] {
        UErrorCode error = U_ZERO_ERROR;
        ucnv_fromAlgorithmic(converter.get(), UCNV_UTF8, out.data(), static_cast<int>(out.size()),
                             text.data(), static_cast<int>(text.size()), &error);
        check(error);
    });
}

// --- UTF-8 and units ------------------------------------------------------------------------------

const uint8_t* bytesOf(const std::string& text)
{
    return reinterpret_cast<const uint8_t*>(text.data());
}

void decodeInfra(benchmark::State& state, const std::string& text)
{
    std::vector<uint16_t> units(text.size() + 1);
    measure(state, text, [&] {
        Utils::utf8_mbstowcs(units.data(), bytesOf(text), static_cast<int>(text.size()));
    });
}

void decodeIcu(benchmark::State& state, const std::string& text)
{
    std::vector<UChar> units(text.size() + 1);
    measure(state, text, [&] {
        UErrorCode error = U_ZERO_ERROR;
        u_strFromUTF8(units.data(), static_cast<int>(units.size()), nullptr, text.data(),
                      static_cast<int>(text.size()), &error);
        check(error);
    });
}

/// Units with a 0 behind them, for `text` in UTF-8.
std::vector<uint16_t> unitsOf(const std::string& text)
{
    std::vector<uint16_t> units(text.size() + 1);
    units.resize(1 + static_cast<size_t>(Utils::utf8_mbstowcs(units.data(), bytesOf(text),
                                                              static_cast<int>(text.size()))));
    units.back() = 0;
    return units;
}

void encodeInfra(benchmark::State& state, const std::string& text)
{
    const std::vector<uint16_t> units = unitsOf(text);
    std::vector<uint8_t> out(text.size() + 1);
    measure(state, text,
            [&] { Utils::utf8_wcstombs(out.data(), units.data(), static_cast<int>(out.size())); });
}

void encodeIcu(benchmark::State& state, const std::string& text)
{
    const std::vector<uint16_t> units = unitsOf(text);
    const UChar* const source = reinterpret_cast<const UChar*>(units.data());
    std::vector<char> out(text.size() + 1);
    measure(state, text, [&] {
        UErrorCode error = U_ZERO_ERROR;
        u_strToUTF8(out.data(), static_cast<int>(out.size()), nullptr, source,
                    static_cast<int>(units.size()) - 1, &error);
        check(error);
    });
}

void encodeIconv(benchmark::State& state, const std::string& text)
{
    const CIconv way("UTF-8", "UTF-16LE");
    const std::vector<uint16_t> units = unitsOf(text);
    const char* const source = reinterpret_cast<const char*>(units.data());
    std::vector<char> out(text.size() + 1);
    measure(state, text, [&] {
        way.convert(out.data(), out.size(), source, (units.size() - 1) * sizeof(units[0]));
    });
}

void addUtf8(const std::string& name, const char* sample, size_t size)
{
    const std::string text = textOf(sample, size);
    const std::string decoding = Bench::label("utf8_decode/" + name, size);
    Bench::add(decoding, Bench::infra, decodeInfra, text);
    Bench::add(decoding, "iconv", iconvRun, "UTF-16LE", "UTF-8", text);
    Bench::add(decoding, "ICU", decodeIcu, text);
    const std::string encoding = Bench::label("utf8_encode/" + name, size);
    Bench::add(encoding, Bench::infra, encodeInfra, text);
    Bench::add(encoding, "iconv", encodeIconv, text);
    Bench::add(encoding, "ICU", encodeIcu, text);
}

// --- code pages -----------------------------------------------------------------------------------

constexpr size_t pageBytes = 65536;

typedef int ToUtf8(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen);

void pageInfra(benchmark::State& state, ToUtf8* toUtf8, const std::string& text)
{
    std::vector<uint8_t> out(text.size() * 3);
    measure(state, text, [&] {
        int dstLen = static_cast<int>(out.size());
        int srcLen = static_cast<int>(text.size());
        toUtf8(out.data(), dstLen, bytesOf(text), srcLen);
    });
}

/// Words of one to nine letters of the upper half, which has to have them.
std::string wordsOf(Utils::char2uni_t* char2uni)
{
    std::string text;
    uint32_t random = 1;
    for (uint32_t left = 5; text.size() < pageBytes;) {
        random = random * 1664525 + 1013904223;
        const uint8_t letter = static_cast<uint8_t>(0xA0 | random >> 24);
        uint16_t unit = 0;
        if (left == 0) {
            text += ' ';
            left = 1 + (random >> 16 & 0xFF) % 9;
        } else if (char2uni(&letter, 1, &unit) == 1) {
            text += static_cast<char>(letter);
            --left;
        }
    }
    return text;
}

struct Page
{
    std::string name;
    Utils::char2uni_t* char2uni;
    ToUtf8* toUtf8;
};

/// iconv's and ICU's name of the page in the names of our functions.
std::string nameOf(std::string prefix)
{
    std::replace(prefix.begin(), prefix.end(), '_', '-');
    return prefix;
}

#define INFRA_BENCH_PAGE(P) {nameOf(#P), Utils::P##_char2uni, Utils::P##_to_utf8},

void addPages()
{
    static const Page pages[] = {INFRA_NLS_CODE_PAGES(INFRA_BENCH_PAGE)};
    for (const Page& page : pages) {
        const std::string text = wordsOf(page.char2uni);
        const std::string name = Bench::label("utf8_from_" + page.name, pageBytes);
        Bench::add(name, Bench::infra, pageInfra, page.toUtf8, text);
        Bench::add(name, "iconv", iconvRun, "UTF-8", page.name.c_str(), text);
        if (icuHas(page.name.c_str())) {
            Bench::add(name, "ICU", icuFrom, page.name.c_str(), text);
        }
    }
}

void addBothWays(const char* page, const char* sample,
                 void (*from)(std::vector<char>&, const std::string&),
                 void (*to)(std::vector<char>&, const std::string&))
{
    const std::string utf8 = textOf(sample, pageBytes);
    const std::string text = viaIconv(page, "UTF-8", utf8);
    const auto infra = [](benchmark::State& state, auto* convert, const std::string& source) {
        std::vector<char> out(source.size() * 4);
        measure(state, source, [&] { convert(out, source); });
    };
    const std::string fromName = Bench::label(std::string("utf8_from_") + page, pageBytes);
    Bench::add(fromName, Bench::infra, infra, from, text);
    Bench::add(fromName, "iconv", iconvRun, "UTF-8", page, text);
    Bench::add(fromName, "ICU", icuFrom, page, text);
    const std::string toName = Bench::label(std::string("utf8_to_") + page, pageBytes);
    Bench::add(toName, Bench::infra, infra, to, utf8);
    Bench::add(toName, "iconv", iconvRun, page, "UTF-8", utf8);
    Bench::add(toName, "ICU", icuTo, page, utf8);
}

uint8_t* bytesIn(std::vector<char>& buffer)
{
    return reinterpret_cast<uint8_t*>(buffer.data());
}

void fromCp936(std::vector<char>& out, const std::string& text)
{
    Utils::Gb2312TUtf8(const_cast<char*>(text.c_str()), bytesIn(out),
                       static_cast<int>(text.size() * 3 / 2 + 1));
}

void toCp936(std::vector<char>& out, const std::string& text)
{
    Utils::utf8TGb2312(reinterpret_cast<uint8_t*>(const_cast<char*>(text.c_str())), out.data(),
                       static_cast<int>(text.size()), static_cast<int>(text.size()));
}

void fromCp1252(std::vector<char>& out, const std::string& text)
{
    Utils::cp1252_to_utf8(bytesIn(out), static_cast<int>(out.size()), bytesOf(text),
                          static_cast<int>(text.size()));
}

void toCp1252(std::vector<char>& out, const std::string& text)
{
    Utils::utf8_to_cp1252(bytesOf(text), static_cast<int>(text.size()), bytesIn(out),
                          static_cast<int>(out.size()));
}

} // namespace

int main(int argc, char** argv)
{
    for (const size_t size : {60, 65536}) {
        addUtf8("ascii", ascii, size);
        addUtf8("french", french, size);
        addUtf8("chinese", chinese, size);
    }
    addBothWays("cp936", chinese, fromCp936, toCp936);
    addBothWays("cp1252", french, fromCp1252, toCp1252);
    addPages();
    return Bench::run(argc, argv, "ICU " U_ICU_VERSION ", iconv of the C library");
}
