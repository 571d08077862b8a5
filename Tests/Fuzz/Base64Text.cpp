// Decodes arbitrary text, into exactly as much room as it says it takes, with vectors, without, and
// in place; and encodes arbitrary bytes and decodes them again.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Infra3/CpuFeatures.h"
#include "Utils/Base64.h"

namespace
{

using namespace Tarsel::Utils;
using Tarsel::Infra::CHiddenCpuFeatures;
using enum Tarsel::Infra::CpuFeature;

void expect(bool kept)
{
    if (!kept) {
        std::abort();
    }
}

std::vector<char> decoded(const char* text)
{
    std::vector<char> plain(base64DecodeLenEx(text), '#');
    const size_t size = base64DecodeEx(plain.data(), text);
    expect(size < plain.size() && plain[size] == '\0');
    plain.resize(size);
    return plain;
}

/// `text` ends with the one foreign character in it: nothing behind that is there to be read.
void checkText(const std::vector<char>& text)
{
    const size_t n = text.size() - 1;
    expect(base64DecodeLenEx(text.data()) == (n + 3) / 4 * 3 + 1);
    const std::vector<char> plain = decoded(text.data());
    expect(plain.size() == n / 4 * 3 + (n % 4 == 0 ? 0 : n % 4 - 1));
    {
        const CHiddenCpuFeatures tablesOnly({avx2});
        expect(decoded(text.data()) == plain);
    }
    std::vector<char> inPlace = text;
    inPlace.resize(std::max(text.size(), (n + 3) / 4 * 3 + 1));
    expect(base64DecodeEx(inPlace.data(), inPlace.data()) == plain.size());
    expect(std::equal(plain.begin(), plain.end(), inPlace.begin()));
}

void checkBytes(const char* bytes, size_t size)
{
    std::vector<char> text(base64EncodeLenEx(size));
    expect(base64EncodeEx(text.data(), bytes, size) == text.size());
    const std::vector<char> plain = decoded(text.data());
    expect(plain.size() == size && (size == 0 || memcmp(plain.data(), bytes, size) == 0));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<char> bytes(data, data + size);
    checkBytes(bytes.data(), size);
    constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t n = std::string(bytes.begin(), bytes.end()).find_first_not_of(alphabet);
    std::vector<char> text(bytes.begin(),
                           n < size ? bytes.begin() + static_cast<ptrdiff_t>(n) + 1 : bytes.end());
    if (n >= size) {
        text.push_back('\0');
    }
    checkText(text);
    return 0;
}
